#pragma once
// Result codes of the formatter module's BeginFormatting(), for hosts and for the module itself.

#include <cstdint>

namespace kapsel_formatter {

constexpr uint32_t kResultOk = 0;
// The output file could not be opened or created.
constexpr uint32_t kResultOutputNotOpened = 0x8009000F;
// The video stream's codec (maker and four-character code) is not one the module writes.
constexpr uint32_t kResultUnknownVideoCodec = 0x80090011;
// The audio stream's codec is not one the module writes.
constexpr uint32_t kResultUnknownAudioCodec = 0x80090012;

}  // namespace kapsel_formatter
