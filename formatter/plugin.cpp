// The module's three exported entry points.

#include "formatter/matroska_formatter.h"
#include "host_sdk/plugin_api.h"

namespace {
const uint32_t kFormatCodes[2] = {FourCC("MKV "), FourCC("WEBM")};
}

extern "C" {

uint32_t BXGetNumberFormatters() { return 2; }

void BXGetFormatterInfo(uint32_t index, uint32_t* makerOut, const uint32_t** formatOut, uint32_t* versionOut) {
  if (makerOut) *makerOut = FourCC("KVI ");
  // Out-of-range indices are the host's to avoid; they are clamped rather than read past the table.
  if (formatOut) *formatOut = &kFormatCodes[index < 2 ? index : 1];
  if (versionOut) *versionOut = 0x10000;
}

CAFormatter* CreateFormatter(uint32_t maker, uint32_t formatCode) {
  if (maker != FourCC("KVI ")) return nullptr;
  return new kapsel_formatter::CKVMatroskaFormatter(formatCode);
}

}  // extern "C"
