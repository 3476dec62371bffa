#pragma once
// Everything a formatter or a host needs from the SDK.

#include "host_sdk/array.h"
#include "host_sdk/compressor.h"
#include "host_sdk/formatter.h"
#include "host_sdk/fourcc.h"
#include "host_sdk/kv_string.h"
#include "host_sdk/metadata.h"
#include "host_sdk/packet.h"
#include "host_sdk/plugin_api.h"
#include "host_sdk/reference.h"
