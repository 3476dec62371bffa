#pragma once
// How each libav stream becomes a Matroska or WebM track: codec ID, CodecPrivate, delays, and the
// conversion every packet goes through on its way into a block.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/codec_par.h>
}

namespace kapsel_cli {

enum class FrameConversion {
  kNone,                    // the packet is the block
  kAnnexBToLengthPrefixed,  // H.264/HEVC from MPEG-TS or raw streams
  kStripAdts,               // AAC in ADTS frames
  kAv1DropDelimiters,       // AV1 temporal units without their temporal delimiter OBUs
};

struct StreamMapping {
  bool ok = false;
  std::string error;  // one line, without a program prefix; set when !ok

  uint64_t trackType = 0;  // Matroska TrackType: 1 video, 2 audio, 17 subtitle
  std::string codecId;     // "V_MPEG4/ISO/AVC", "A_OPUS", ...
  std::string codecName;   // readable: "H.264", "Opus", ...
  std::vector<uint8_t> codecPrivate;  // empty: write no CodecPrivate
  uint64_t codecDelayNs = 0;   // 0: write no CodecDelay
  uint64_t seekPreRollNs = 0;  // 0: write no SeekPreRoll
  uint64_t bitDepth = 0;       // audio BitDepth for PCM, FLAC and ALAC; 0: write none
  FrameConversion conversion = FrameConversion::kNone;

  // True while CodecPrivate still has to come from the stream's first key frame (H.264/HEVC parameter sets
  // sent in-band, AV1 sequence header, ADTS header): pass packets to takeFirstPacket before writing the track.
  bool needsFirstPacket = false;

  // Builds CodecPrivate from a packet (before conversion). True once it is built (needsFirstPacket turns
  // false); false leaves the mapping as it was and sets error: the caller may try the next packet or give up.
  [[nodiscard]] bool takeFirstPacket(const uint8_t* data, size_t size);

  // Applies `conversion` to one packet. On true, [*outData, *outData + *outSize) is the block's payload:
  // the packet itself for kNone, else bytes in `buffer` (reused from packet to packet, valid until the next
  // call). False on a malformed packet, with nothing written.
  [[nodiscard]] bool convert(const uint8_t* data, size_t size, std::vector<uint8_t>& buffer, const uint8_t** outData,
                             size_t* outSize) const;
};

// Maps one stream. `disposition` is the stream's AV_DISPOSITION_* flags (they choose WebVTT's kind in WebM).
// With webm, only VP8, VP9, AV1, Vorbis, Opus and WebVTT map; anything else gives !ok with a reason.
StreamMapping mapStream(const AVCodecParameters& par, bool webm, int disposition = 0);

}  // namespace kapsel_cli
