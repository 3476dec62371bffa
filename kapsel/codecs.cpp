#include "kapsel/codecs.h"

#include <algorithm>
#include <cstring>

namespace Kapsel {

namespace {

// MSB-first bit reader; reading past the end yields zeros and marks the reader failed.
class BitReader {
 public:
  BitReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint32_t bits(unsigned n) {
    uint32_t v = 0;
    for (unsigned i = 0; i < n; ++i) v = (v << 1) | bit();
    return v;
  }
  uint32_t bit() {
    if (pos_ >= size_ * 8) {
      failed_ = true;
      return 0;
    }
    const uint32_t b = (data_[pos_ / 8] >> (7 - pos_ % 8)) & 1;
    ++pos_;
    return b;
  }
  void skip(size_t n) {
    if (n > size_ * 8 - std::min(pos_, size_ * 8)) failed_ = true;
    pos_ += n;
  }
  // Exp-Golomb ue(v); longer than 32 bits is treated as damage.
  uint32_t ue() {
    unsigned zeros = 0;
    while (!bit()) {
      if (failed_ || ++zeros > 31) {
        failed_ = true;
        return 0;
      }
    }
    return static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + bits(zeros));
  }
  bool failed() const { return failed_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  bool failed_ = false;
};

// NAL payload with emulation-prevention bytes (00 00 03) removed.
CodecBytes unescape(const uint8_t* data, size_t size) {
  CodecBytes out;
  out.reserve(size);
  unsigned zeros = 0;
  for (size_t i = 0; i < size; ++i) {
    if (zeros >= 2 && data[i] == 3) {
      zeros = 0;
      continue;
    }
    zeros = data[i] == 0 ? zeros + 1 : 0;
    out.push_back(data[i]);
  }
  return out;
}

void put16(CodecBytes& out, size_t v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

void put32(CodecBytes& out, size_t v) {
  put16(out, v >> 16);
  put16(out, v & 0xFFFF);
}

void appendNal(CodecBytes& out, const NalUnit& n) { out.insert(out.end(), n.data, n.data + n.size); }

void putSized(CodecBytes& out, const NalUnit& n) {
  put16(out, n.size);
  appendNal(out, n);
}

bool sameNal(const NalUnit& a, const NalUnit& b) { return a.size == b.size && std::memcmp(a.data, b.data, a.size) == 0; }

void addUnique(std::vector<NalUnit>& list, const NalUnit& n) {
  for (const auto& e : list)
    if (sameNal(e, n)) return;
  list.push_back(n);
}

// Start code at i: its length (3 or 4 counted from i), 0 if none.
size_t startCodeAt(const uint8_t* d, size_t size, size_t i) {
  if (i + 3 <= size && d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) return 3;
  return 0;
}

struct AvcSps {
  uint8_t profile = 0, compatibility = 0, level = 0;
  uint32_t chromaFormat = 1, bitDepthLuma = 8, bitDepthChroma = 8;
};

bool parseAvcSps(const NalUnit& nal, AvcSps& sps) {
  if (nal.size < 4) return false;
  const CodecBytes rbsp = unescape(nal.data + 1, nal.size - 1);
  BitReader r(rbsp.data(), rbsp.size());
  sps.profile = static_cast<uint8_t>(r.bits(8));
  sps.compatibility = static_cast<uint8_t>(r.bits(8));
  sps.level = static_cast<uint8_t>(r.bits(8));
  if (r.ue() > 31) return false;
  static const uint8_t kHigh[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
  if (std::find(std::begin(kHigh), std::end(kHigh), sps.profile) != std::end(kHigh)) {
    sps.chromaFormat = r.ue();
    if (sps.chromaFormat == 3) r.bit();
    sps.bitDepthLuma = r.ue() + 8;
    sps.bitDepthChroma = r.ue() + 8;
    if (sps.chromaFormat > 3 || sps.bitDepthLuma > 14 || sps.bitDepthChroma > 14) return false;
  }
  return !r.failed();
}

struct HevcPtl {
  uint8_t spaceTierProfile = 0;  // general_profile_space(2) tier(1) profile_idc(5)
  uint8_t compatibility[4] = {};
  uint8_t constraints[6] = {};
  uint8_t level = 0;
};

struct HevcSps {
  HevcPtl ptl;
  uint32_t maxSubLayersMinus1 = 0, temporalIdNested = 0;
  uint32_t chromaFormat = 0, bitDepthLuma = 8, bitDepthChroma = 8;
};

bool parseHevcPtl(BitReader& r, uint32_t maxSubLayersMinus1, HevcPtl& ptl) {
  ptl.spaceTierProfile = static_cast<uint8_t>(r.bits(8));
  for (auto& b : ptl.compatibility) b = static_cast<uint8_t>(r.bits(8));
  for (auto& b : ptl.constraints) b = static_cast<uint8_t>(r.bits(8));
  ptl.level = static_cast<uint8_t>(r.bits(8));
  bool profilePresent[8] = {}, levelPresent[8] = {};
  for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
    profilePresent[i] = r.bit();
    levelPresent[i] = r.bit();
  }
  if (maxSubLayersMinus1 > 0) r.skip(2 * (8 - maxSubLayersMinus1));
  for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) r.skip((profilePresent[i] ? 88 : 0) + (levelPresent[i] ? 8 : 0));
  return !r.failed();
}

bool parseHevcSps(const NalUnit& nal, HevcSps& sps) {
  if (nal.size < 3) return false;
  const CodecBytes rbsp = unescape(nal.data + 2, nal.size - 2);
  BitReader r(rbsp.data(), rbsp.size());
  r.bits(4);  // sps_video_parameter_set_id
  sps.maxSubLayersMinus1 = r.bits(3);
  sps.temporalIdNested = r.bit();
  if (sps.maxSubLayersMinus1 > 6 || !parseHevcPtl(r, sps.maxSubLayersMinus1, sps.ptl)) return false;
  if (r.ue() > 15) return false;
  sps.chromaFormat = r.ue();
  if (sps.chromaFormat > 3) return false;
  if (sps.chromaFormat == 3) r.bit();
  r.ue();
  r.ue();  // picture size
  if (r.bit())
    for (int i = 0; i < 4; ++i) r.ue();  // conformance window
  sps.bitDepthLuma = r.ue() + 8;
  sps.bitDepthChroma = r.ue() + 8;
  return !r.failed() && sps.bitDepthLuma <= 16 && sps.bitDepthChroma <= 16;
}

int hevcType(const NalUnit& n) { return n.size >= 2 ? (n.data[0] >> 1) & 0x3F : -1; }

// Reads leb128 as AV1 codes it (at most 8 bytes); false on running out or on an overlong value.
bool readLeb128(const uint8_t* d, size_t size, size_t& pos, uint64_t& value) {
  value = 0;
  for (unsigned i = 0; i < 8; ++i) {
    if (pos >= size) return false;
    const uint8_t b = d[pos++];
    value |= uint64_t{b & 0x7Fu} << (7 * i);
    if (!(b & 0x80)) return value <= 0xFFFFFFFFu;
  }
  return false;
}

void putLeb128(CodecBytes& out, uint64_t v) {
  do {
    uint8_t b = v & 0x7F;
    v >>= 7;
    out.push_back(static_cast<uint8_t>(b | (v ? 0x80 : 0)));
  } while (v);
}

struct Obu {
  int type = 0;
  size_t begin = 0, headerSize = 0, payloadSize = 0;  // header includes the extension and size field
  bool hasSize = false;
};

// The OBU starting at pos; advances pos past it.
bool nextObu(const uint8_t* d, size_t size, size_t& pos, Obu& obu) {
  if (pos >= size || (d[pos] & 0x80)) return false;
  obu.begin = pos;
  obu.type = (d[pos] >> 3) & 0x0F;
  const bool extension = d[pos] & 0x04;
  obu.hasSize = d[pos] & 0x02;
  size_t p = pos + 1 + (extension ? 1 : 0);
  if (p > size) return false;
  uint64_t payload = size - p;
  if (obu.hasSize && !readLeb128(d, size, p, payload)) return false;
  if (payload > size - p) return false;
  obu.headerSize = p - pos;
  obu.payloadSize = static_cast<size_t>(payload);
  pos = p + obu.payloadSize;
  return true;
}

struct Av1Sequence {
  uint32_t profile = 0, level0 = 0, tier0 = 0, highBitdepth = 0, twelveBit = 0, mono = 0;
  uint32_t subX = 1, subY = 1, chromaPosition = 0;
};

void skipUvlc(BitReader& r) {
  unsigned zeros = 0;
  while (!r.bit() && !r.failed() && zeros < 32) ++zeros;
  r.skip(zeros);
}

bool parseAv1ColorConfig(BitReader& r, Av1Sequence& s) {
  s.highBitdepth = r.bit();
  if (s.profile == 2 && s.highBitdepth) s.twelveBit = r.bit();
  s.mono = s.profile == 1 ? 0 : r.bit();
  uint32_t primaries = 2, transfer = 2, matrix = 2;
  if (r.bit()) {
    primaries = r.bits(8);
    transfer = r.bits(8);
    matrix = r.bits(8);
  }
  if (s.mono) return !r.failed();  // subsampling 1/1, position unknown
  if (primaries == 1 && transfer == 13 && matrix == 0) {
    s.subX = s.subY = 0;  // sRGB: 4:4:4
    return !r.failed();
  }
  r.bit();  // color_range
  if (s.profile == 0) {
    s.subX = s.subY = 1;
  } else if (s.profile == 1) {
    s.subX = s.subY = 0;
  } else if (s.twelveBit) {
    s.subX = r.bit();
    s.subY = s.subX ? r.bit() : 0;
  } else {
    s.subX = 1;
    s.subY = 0;
  }
  if (s.subX && s.subY) s.chromaPosition = r.bits(2);
  return !r.failed();
}

bool parseAv1Sequence(const uint8_t* d, size_t size, Av1Sequence& s) {
  BitReader r(d, size);
  s.profile = r.bits(3);
  r.bit();  // still_picture
  const bool reduced = r.bit();
  if (s.profile > 2) return false;
  if (reduced) {
    s.level0 = r.bits(5);
  } else {
    const bool timing = r.bit();
    bool decoderModel = false;
    uint32_t delayLength = 0;
    if (timing) {
      r.skip(64);
      if (r.bit()) skipUvlc(r);
      decoderModel = r.bit();
      if (decoderModel) {
        delayLength = r.bits(5) + 1;
        r.skip(32 + 5 + 5);
      }
    }
    const bool displayDelay = r.bit();
    const uint32_t points = r.bits(5) + 1;
    for (uint32_t i = 0; i < points && !r.failed(); ++i) {
      r.skip(12);  // operating_point_idc
      const uint32_t level = r.bits(5);
      const uint32_t tier = level > 7 ? r.bit() : 0;
      if (i == 0) {
        s.level0 = level;
        s.tier0 = tier;
      }
      if (decoderModel && r.bit()) r.skip(2 * delayLength + 1);
      if (displayDelay && r.bit()) r.skip(4);
    }
  }
  const uint32_t widthBits = r.bits(4) + 1, heightBits = r.bits(4) + 1;
  r.skip(widthBits + heightBits);
  if (!reduced && r.bit()) r.skip(7);  // frame id lengths
  r.skip(3);                           // superblock size, filter intra, intra edge filter
  if (!reduced) {
    r.skip(4);  // interintra, masked compound, warped motion, dual filter
    const bool orderHint = r.bit();
    if (orderHint) r.skip(2);
    uint32_t screenContent = 2;
    if (!r.bit()) screenContent = r.bit();
    if (screenContent > 0 && !r.bit()) r.bit();  // integer mv
    if (orderHint) r.skip(3);
  }
  r.skip(3);  // superres, cdef, restoration
  return !r.failed() && parseAv1ColorConfig(r, s);
}

bool adtsHeader(const uint8_t* d, size_t size, size_t& headerSize, size_t& frameLength) {
  if (size < 7 || d[0] != 0xFF || (d[1] & 0xF6) != 0xF0) return false;
  headerSize = (d[1] & 1) ? 7 : 9;
  frameLength = (size_t{d[3] & 3u} << 11) | (size_t{d[4]} << 3) | (d[5] >> 5);
  return frameLength >= headerSize && ((d[2] >> 2) & 0x0F) < 13;
}

}  // namespace

bool isAnnexB(const uint8_t* data, size_t size) {
  return data && (startCodeAt(data, size, 0) || (size >= 4 && data[0] == 0 && startCodeAt(data, size, 1)));
}

bool isAvcConfigurationRecord(const uint8_t* data, size_t size) { return data && size >= 7 && data[0] == 1; }

bool isHevcConfigurationRecord(const uint8_t* data, size_t size) { return data && size >= 23 && data[0] == 1; }

std::vector<NalUnit> splitAnnexB(const uint8_t* data, size_t size) {
  std::vector<NalUnit> units;
  if (!data) return units;
  size_t begin = 0;
  bool inUnit = false;
  for (size_t i = 0; i + 3 <= size;) {
    if (!startCodeAt(data, size, i)) {
      ++i;
      continue;
    }
    if (inUnit) {
      size_t end = i;
      while (end > begin && data[end - 1] == 0) --end;
      if (end > begin) units.push_back({data + begin, end - begin});
    }
    i += 3;
    begin = i;
    inUnit = true;
  }
  size_t end = size;
  while (inUnit && end > begin && data[end - 1] == 0) --end;
  if (inUnit && end > begin) units.push_back({data + begin, end - begin});
  return units;
}

bool annexBToLengthPrefixed(const uint8_t* data, size_t size, CodecBytes& out) {
  out.clear();
  if (!isAnnexB(data, size)) return false;
  const auto units = splitAnnexB(data, size);
  for (const auto& n : units) {
    put32(out, n.size);
    appendNal(out, n);
  }
  return true;
}

bool buildAvcConfigurationRecord(const uint8_t* annexB, size_t size, CodecBytes& record) {
  record.clear();
  std::vector<NalUnit> sps, pps, ext;
  for (const auto& n : splitAnnexB(annexB, size)) {
    const int type = n.data[0] & 0x1F;
    if (type == 7) addUnique(sps, n);
    if (type == 8) addUnique(pps, n);
    if (type == 13) addUnique(ext, n);
  }
  AvcSps info;
  if (sps.empty() || pps.empty() || sps.size() > 31 || pps.size() > 255 || ext.size() > 255 ||
      !parseAvcSps(sps[0], info))
    return false;
  for (const auto* list : {&sps, &pps, &ext})
    for (const auto& n : *list)
      if (n.size > 0xFFFF) return false;
  record = {1, info.profile, info.compatibility, info.level, 0xFF, static_cast<uint8_t>(0xE0 | sps.size())};
  for (const auto& n : sps) putSized(record, n);
  record.push_back(static_cast<uint8_t>(pps.size()));
  for (const auto& n : pps) putSized(record, n);
  // Later editions of ISO/IEC 14496-15 carry the extension for every profile but Baseline, Main and Extended.
  if (info.profile != 66 && info.profile != 77 && info.profile != 88) {
    record.push_back(static_cast<uint8_t>(0xFC | info.chromaFormat));
    record.push_back(static_cast<uint8_t>(0xF8 | (info.bitDepthLuma - 8)));
    record.push_back(static_cast<uint8_t>(0xF8 | (info.bitDepthChroma - 8)));
    record.push_back(static_cast<uint8_t>(ext.size()));
    for (const auto& n : ext) putSized(record, n);
  }
  return true;
}

bool buildHevcConfigurationRecord(const uint8_t* annexB, size_t size, CodecBytes& record) {
  record.clear();
  std::vector<NalUnit> vps, sps, pps;
  for (const auto& n : splitAnnexB(annexB, size)) {
    const int type = hevcType(n);
    if (type == 32) addUnique(vps, n);
    if (type == 33) addUnique(sps, n);
    if (type == 34) addUnique(pps, n);
  }
  HevcSps info;
  if (vps.empty() || sps.empty() || pps.empty() || !parseHevcSps(sps[0], info)) return false;
  for (const auto* list : {&vps, &sps, &pps})
    for (const auto& n : *list)
      if (n.size > 0xFFFF || list->size() > 0xFFFF) return false;
  record = {1, info.ptl.spaceTierProfile};
  record.insert(record.end(), info.ptl.compatibility, info.ptl.compatibility + 4);
  record.insert(record.end(), info.ptl.constraints, info.ptl.constraints + 6);
  record.push_back(info.ptl.level);
  put16(record, 0xF000);  // min_spatial_segmentation_idc 0
  record.push_back(0xFC);  // parallelismType 0
  record.push_back(static_cast<uint8_t>(0xFC | info.chromaFormat));
  record.push_back(static_cast<uint8_t>(0xF8 | (info.bitDepthLuma - 8)));
  record.push_back(static_cast<uint8_t>(0xF8 | (info.bitDepthChroma - 8)));
  put16(record, 0);  // avgFrameRate
  // constantFrameRate 0, numTemporalLayers, temporalIdNested, lengthSizeMinusOne 3
  record.push_back(static_cast<uint8_t>(((info.maxSubLayersMinus1 + 1) << 3) | (info.temporalIdNested << 2) | 3));
  record.push_back(3);
  for (const auto* list : {&vps, &sps, &pps}) {
    // array_completeness 0: the blocks keep whatever parameter sets the stream repeats in-band.
    record.push_back(static_cast<uint8_t>(hevcType(list->front())));
    put16(record, list->size());
    for (const auto& n : *list) putSized(record, n);
  }
  return true;
}

bool isAv1ConfigurationRecord(const uint8_t* data, size_t size) { return data && size >= 4 && data[0] == 0x81; }

bool buildAv1ConfigurationRecord(const uint8_t* obus, size_t size, CodecBytes& record) {
  record.clear();
  if (!obus) return false;
  Obu obu;
  for (size_t pos = 0; nextObu(obus, size, pos, obu);) {
    if (obu.type != 1) continue;
    Av1Sequence s;
    const uint8_t* payload = obus + obu.begin + obu.headerSize;
    if (!parseAv1Sequence(payload, obu.payloadSize, s)) return false;
    record = {0x81, static_cast<uint8_t>(s.profile << 5 | s.level0),
              static_cast<uint8_t>(s.tier0 << 7 | s.highBitdepth << 6 | s.twelveBit << 5 | s.mono << 4 | s.subX << 3 |
                                   s.subY << 2 | s.chromaPosition),
              0};
    const size_t fixedHeader = (obus[obu.begin] & 0x04) ? 2 : 1;
    record.push_back(static_cast<uint8_t>(obus[obu.begin] | 0x02));
    if (fixedHeader == 2) record.push_back(obus[obu.begin + 1]);
    putLeb128(record, obu.payloadSize);
    record.insert(record.end(), payload, payload + obu.payloadSize);
    return true;
  }
  return false;
}

bool stripAv1TemporalDelimiters(const uint8_t* obus, size_t size, CodecBytes& out) {
  out.clear();
  if (!obus) return size == 0;
  Obu obu;
  size_t pos = 0;
  while (pos < size) {
    if (!nextObu(obus, size, pos, obu)) return false;
    if (obu.type != 2 && obu.type != 15) out.insert(out.end(), obus + obu.begin, obus + pos);
  }
  return true;
}

bool isAdts(const uint8_t* data, size_t size) {
  size_t header = 0, length = 0;
  return data && adtsHeader(data, size, header, length);
}

bool adtsAudioSpecificConfig(const uint8_t* data, size_t size, CodecBytes& config) {
  config.clear();
  size_t header = 0, length = 0;
  if (!data || !adtsHeader(data, size, header, length)) return false;
  const unsigned objectType = (data[2] >> 6) + 1;
  const unsigned frequency = (data[2] >> 2) & 0x0F;
  const unsigned channels = ((data[2] & 1) << 2) | (data[3] >> 6);
  if (channels == 0) return false;
  config = {static_cast<uint8_t>(objectType << 3 | frequency >> 1),
            static_cast<uint8_t>((frequency & 1) << 7 | channels << 3)};
  return true;
}

bool stripAdts(const uint8_t* data, size_t size, CodecBytes& out) {
  out.clear();
  size_t header = 0, length = 0;
  if (!data || !adtsHeader(data, size, header, length) || length != size || (data[6] & 3) != 0) return false;
  out.assign(data + header, data + size);
  return true;
}

bool flacCodecPrivate(const uint8_t* data, size_t size, CodecBytes& out) {
  out.clear();
  if (!data) return false;
  if (size == 34) {
    out = {'f', 'L', 'a', 'C', 0x80, 0, 0, 34};
    out.insert(out.end(), data, data + size);
    return true;
  }
  if (size == 38 && (data[0] & 0x7F) == 0 && data[1] == 0 && data[2] == 0 && data[3] == 34) {
    out = {'f', 'L', 'a', 'C', static_cast<uint8_t>(data[0] | 0x80), 0, 0, 34};
    out.insert(out.end(), data + 4, data + size);
    return true;
  }
  if (size < 42 || std::memcmp(data, "fLaC", 4) != 0 || (data[4] & 0x7F) != 0) return false;
  // Walk the blocks so that the last one present carries the last-block flag.
  size_t pos = 4, last = 0;
  while (pos + 4 <= size) {
    const size_t length = (size_t{data[pos + 1]} << 16) | (size_t{data[pos + 2]} << 8) | data[pos + 3];
    if (length > size - pos - 4) break;
    last = pos;
    const bool flagged = data[pos] & 0x80;
    pos += 4 + length;
    if (flagged) break;
  }
  out.assign(data, data + pos);
  out[last] |= 0x80;
  return true;
}

bool opusCodecDelay(const uint8_t* head, size_t size, uint64_t& nanoseconds) {
  if (!head || size < 19 || std::memcmp(head, "OpusHead", 8) != 0) return false;
  const uint64_t preSkip = head[10] | (uint64_t{head[11]} << 8);
  nanoseconds = (preSkip * 1000000000 + 24000) / 48000;
  return true;
}

bool xiphCodecPrivate(const std::vector<CodecBytes>& headers, CodecBytes& out) {
  out.clear();
  if (headers.size() != 3 || headers[0].empty() || headers[1].empty() || headers[2].empty()) return false;
  out.push_back(2);
  for (size_t i = 0; i < 2; ++i) {
    out.insert(out.end(), headers[i].size() / 255, 255);
    out.push_back(static_cast<uint8_t>(headers[i].size() % 255));
  }
  for (const auto& h : headers) out.insert(out.end(), h.begin(), h.end());
  return true;
}

bool splitXiphHeaders(const uint8_t* data, size_t size, std::vector<CodecBytes>& headers) {
  headers.clear();
  if (!data || size < 3) return false;
  size_t sizes[3] = {0, 0, 0};
  size_t pos = 0;
  if (data[0] == 2) {
    pos = 1;
    for (size_t i = 0; i < 2; ++i) {
      while (pos < size && data[pos] == 255) sizes[i] += data[pos++];
      if (pos >= size) return false;
      sizes[i] += data[pos++];
    }
    if (sizes[0] > size - pos || sizes[1] > size - pos - sizes[0]) return false;
    sizes[2] = size - pos - sizes[0] - sizes[1];
  } else {
    // Three headers each behind a 16-bit big-endian size, as Ogg demuxers hand Theora and some Vorbis over.
    for (auto& s : sizes) {
      if (size - pos < 2) return false;
      s = (size_t{data[pos]} << 8) | data[pos + 1];
      pos += 2;
      if (s > size - pos) return false;
      headers.emplace_back(data + pos, data + pos + s);
      pos += s;
    }
    if (sizes[0] && sizes[1] && sizes[2]) return true;
    headers.clear();
    return false;
  }
  for (const auto s : sizes) {
    headers.emplace_back(data + pos, data + pos + s);
    pos += s;
  }
  if (sizes[0] && sizes[1] && sizes[2]) return true;
  headers.clear();
  return false;
}

bool alacCodecPrivate(const uint8_t* data, size_t size, CodecBytes& out) {
  out.clear();
  if (!data) return false;
  if (size >= 36 && std::memcmp(data + 4, "alac", 4) == 0) {
    data += 12;
    size -= 12;
  }
  if (size < 24) return false;
  out.assign(data, data + 24);
  return true;
}

}  // namespace Kapsel
