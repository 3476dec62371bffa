#pragma once
// Kapsel: EBML/Matroska element library.

#include "kapsel/ebml.h"
#include "kapsel/element.h"
#include "kapsel/file.h"
#include "kapsel/hodgepodge.h"
#include "kapsel/payload.h"
#include "kapsel/shared_ptr.h"
#include "kapsel/storage.h"
