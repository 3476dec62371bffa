#pragma once
// Codec configuration records and frame conversions a Matroska writer needs for the common codecs.
// Every function takes raw bytes and never reads outside [data, data + size); a malformed input gives false
// (or an empty result), never a crash. Outputs are replaced, not appended to.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Kapsel {

using CodecBytes = std::vector<uint8_t>;

// One NAL unit inside a larger buffer, without its start code.
struct NalUnit {
  const uint8_t* data = nullptr;
  size_t size = 0;
};

// True when the bytes begin with an Annex-B start code (00 00 01 or 00 00 00 01).
bool isAnnexB(const uint8_t* data, size_t size);

// True when the bytes look like an AVC/HEVC decoder configuration record (first byte 1, room for its fixed part)
// rather than Annex-B.
bool isAvcConfigurationRecord(const uint8_t* data, size_t size);
bool isHevcConfigurationRecord(const uint8_t* data, size_t size);

// The NAL units of an Annex-B buffer in order; zero bytes before a start code or at the end belong to the
// byte stream, not to the preceding unit. Bytes before the first start code are ignored; empty units are dropped.
std::vector<NalUnit> splitAnnexB(const uint8_t* data, size_t size);

// Rewrites an Annex-B access unit as NAL units each preceded by its size in 4 big-endian bytes.
// False when the buffer holds no start code (it is then probably length-prefixed already).
[[nodiscard]] bool annexBToLengthPrefixed(const uint8_t* data, size_t size, CodecBytes& out);

// AVCDecoderConfigurationRecord (ISO/IEC 14496-15) from the SPS, PPS and SPS extension units found in
// Annex-B bytes (extradata or a key frame carrying its parameter sets); lengthSizeMinusOne is 3.
// False without a parseable SPS and at least one PPS.
[[nodiscard]] bool buildAvcConfigurationRecord(const uint8_t* annexB, size_t size, CodecBytes& record);

// HEVCDecoderConfigurationRecord (ISO/IEC 14496-15) from the VPS, SPS and PPS units in Annex-B bytes;
// lengthSizeMinusOne 3, frame rate fields 0, arrays not marked complete (in-band copies stay legal).
// False without a parseable SPS, a VPS and a PPS.
[[nodiscard]] bool buildHevcConfigurationRecord(const uint8_t* annexB, size_t size, CodecBytes& record);

// AV1CodecConfigurationRecord (the AV1 ISOBMFF binding) from the first sequence header OBU in a run of OBUs
// (low-overhead format; the last OBU may lack its size field). The sequence header is kept as configOBUs,
// rewritten with a size field when it had none. False without a parseable sequence header.
[[nodiscard]] bool buildAv1ConfigurationRecord(const uint8_t* obus, size_t size, CodecBytes& record);

// True when the bytes are AV1CodecConfigurationRecord (marker and version byte 0x81).
bool isAv1ConfigurationRecord(const uint8_t* data, size_t size);

// Drops temporal delimiter and padding OBUs from a temporal unit; every OBU must carry its size field,
// except the last. False on a malformed OBU.
[[nodiscard]] bool stripAv1TemporalDelimiters(const uint8_t* obus, size_t size, CodecBytes& out);

// True when the bytes begin with a plausible ADTS header (sync word, layer 0, frame length within the header).
bool isAdts(const uint8_t* data, size_t size);

// The 2-byte AudioSpecificConfig (object type, sampling frequency index, channel configuration) an ADTS
// header describes. False when it is not ADTS or its channel layout lives in an in-band element (0).
[[nodiscard]] bool adtsAudioSpecificConfig(const uint8_t* data, size_t size, CodecBytes& config);

// The raw AAC frame inside one ADTS frame (7-byte header, 9 with CRC). False unless the buffer holds exactly
// one ADTS frame carrying one raw data block.
[[nodiscard]] bool stripAdts(const uint8_t* data, size_t size, CodecBytes& out);

// FLAC CodecPrivate: "fLaC" followed by metadata blocks, the last one flagged. Takes a bare 34-byte
// STREAMINFO, one with its 4-byte block header, or a complete "fLaC" header.
[[nodiscard]] bool flacCodecPrivate(const uint8_t* data, size_t size, CodecBytes& out);

// The Opus identification header's pre-skip as nanoseconds at 48 kHz (rounded to nearest).
// False unless the bytes are an "OpusHead" header.
[[nodiscard]] bool opusCodecDelay(const uint8_t* head, size_t size, uint64_t& nanoseconds);
constexpr uint64_t kOpusSeekPreRollNs = 80000000;

// Xiph-laced CodecPrivate (Vorbis, Theora): 0x02, the first two sizes in Xiph lacing, then the three headers.
[[nodiscard]] bool xiphCodecPrivate(const std::vector<CodecBytes>& headers, CodecBytes& out);

// The three header packets from Xiph-laced bytes (as above) or from three 16-bit big-endian size-prefixed
// headers. False when the sizes do not fit the bytes.
[[nodiscard]] bool splitXiphHeaders(const uint8_t* data, size_t size, std::vector<CodecBytes>& headers);

// The 24-byte ALACSpecificConfig, from the bare config or from one inside its 12-byte 'alac' atom header.
[[nodiscard]] bool alacCodecPrivate(const uint8_t* data, size_t size, CodecBytes& out);

}  // namespace Kapsel
