#pragma once
// Entry points the host looks up in a formatter plug-in. The plug-in defines them.

#include <cstdint>

#include "host_sdk/formatter.h"

#define KV_PLUGIN_EXPORT __attribute__((visibility("default")))

extern "C" {
KV_PLUGIN_EXPORT uint32_t BXGetNumberFormatters();
// For formatter `index`: its maker code, a pointer to its format code and its version.
KV_PLUGIN_EXPORT void BXGetFormatterInfo(uint32_t index, uint32_t* makerOut, const uint32_t** formatOut,
                                         uint32_t* versionOut);
// Null when the plug-in has no formatter for that maker and format.
KV_PLUGIN_EXPORT CAFormatter* CreateFormatter(uint32_t maker, uint32_t formatCode);
}

typedef uint32_t (*BXGetNumberFormattersFn)();
typedef void (*BXGetFormatterInfoFn)(uint32_t index, uint32_t* makerOut, const uint32_t** formatOut,
                                     uint32_t* versionOut);
typedef CAFormatter* (*CreateFormatterFn)(uint32_t maker, uint32_t formatCode);
