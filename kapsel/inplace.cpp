#include "kapsel/inplace.h"

#include <algorithm>
#include <cstring>

#include "kapsel/ebml.h"
#include "kapsel/file.h"

namespace Kapsel {
namespace inplace {

namespace {
constexpr uint64_t kWindow = 16384;
}

RawReader::RawReader(const std::string& path) : file_(fopen_utf8(path.c_str(), "rb")) {
  if (!file_) return;
  if (fseeko(file_, 0, SEEK_END) == 0) size_ = static_cast<uint64_t>(ftello(file_));
}

RawReader::~RawReader() {
  if (file_) std::fclose(file_);
}

bool RawReader::read(uint64_t pos, void* dst, uint64_t n) {
  if (!file_ || pos > size_ || n > size_ - pos) return false;
  if (pos >= windowPos_ && pos + n <= windowPos_ + window_.size()) {
    std::memcpy(dst, window_.data() + (pos - windowPos_), n);
    return true;
  }
  if (n > kWindow / 2) {
    return fseeko(file_, static_cast<off_t>(pos), SEEK_SET) == 0 && std::fread(dst, 1, n, file_) == n;
  }
  window_.resize(std::min<uint64_t>(kWindow, size_ - pos));
  windowPos_ = pos;
  if (fseeko(file_, static_cast<off_t>(pos), SEEK_SET) != 0 ||
      std::fread(window_.data(), 1, window_.size(), file_) != window_.size()) {
    window_.clear();
    return false;
  }
  std::memcpy(dst, window_.data(), n);
  return true;
}

bool RawReader::header(uint64_t pos, Header& h) {
  unsigned char b[12] = {};
  const uint64_t n = std::min<uint64_t>(12, size_ > pos ? size_ - pos : 0);
  if (n < 2 || !read(pos, b, n)) return false;
  unsigned idLen = 1;
  while (idLen <= 4 && !(b[0] & (0x80 >> (idLen - 1)))) ++idLen;
  if (idLen > 4) return false;
  h.id = readUInt(b, idLen);
  unsigned w = 1;
  while (w <= 8 && !(b[idLen] & (0x80 >> (w - 1)))) ++w;
  if (w > 8 || idLen + w > n) return false;
  uint64_t size = b[idLen] & (0xFF >> w);
  bool allOnes = size == (0xFFu >> w);
  for (unsigned i = 1; i < w; ++i) {
    size = size << 8 | b[idLen + i];
    allOnes = allOnes && b[idLen + i] == 0xFF;
  }
  h.size = size;
  h.unknown = allOnes;
  h.headerBytes = idLen + w;
  h.sizeWidth = w;
  return true;
}

bool RawReader::header(uint64_t pos, uint64_t& id, uint64_t& size, unsigned& headerBytes, unsigned& sizeWidth,
                       bool& unknown) {
  Header h;
  if (!header(pos, h)) return false;
  id = h.id, size = h.size, headerBytes = h.headerBytes, sizeWidth = h.sizeWidth, unknown = h.unknown;
  return true;
}

const char* topLevelName(uint64_t id) {
  switch (id) {
    case kIdInfo: return "Info";
    case kIdTracks: return "Tracks";
    case kIdTags: return "Tags";
    case kIdChapters: return "Chapters";
    case kIdAttachments: return "Attachments";
    case kIdSeekHead: return "SeekHead";
    case kIdCues: return "Cues";
    case kIdCluster: return "Cluster";
    case kIdVoid: return "Void";
    default: return "element";
  }
}

uint64_t readUInt(const unsigned char* p, uint64_t n) {
  uint64_t v = 0;
  for (uint64_t i = 0; i < n; ++i) v = v << 8 | p[i];
  return v;
}

void putId(std::vector<unsigned char>& out, uint64_t id) {
  unsigned char b[8];
  const unsigned n = uintEncode(id, b);
  out.insert(out.end(), b, b + n);
}

void putSize(std::vector<unsigned char>& out, uint64_t size, unsigned width) {
  unsigned char b[8];
  if (width == 0) width = vsizeNumBytes(size);
  vsizeEncode(size, b, width);
  out.insert(out.end(), b, b + width);
}

void putUInt(std::vector<unsigned char>& out, uint64_t id, uint64_t value) {
  unsigned char b[8];
  const unsigned n = uintEncode(value, b);
  putId(out, id);
  putSize(out, n);
  out.insert(out.end(), b, b + n);
}

uint64_t vsizeLargest(unsigned width) { return width >= 8 ? (1ull << 56) - 2 : (1ull << (7 * width)) - 2; }

std::vector<unsigned char> voidBytes(uint64_t total) {
  std::vector<unsigned char> out;
  unsigned w = 1;
  while (w < 8 && total - 1 - w > vsizeLargest(w)) ++w;
  out.push_back(0xEC);
  putSize(out, total - 1 - w, w);
  out.resize(total, 0);
  return out;
}

SeekHeadContent parseSeekHead(const unsigned char* bytes, uint64_t size) {
  SeekHeadContent map;
  for (uint64_t q = 0; q < size;) {
    unsigned char tmp[12] = {};
    std::copy(bytes + q, bytes + std::min<uint64_t>(size, q + 12), tmp);
    unsigned idLen = 1, sw = 1;
    while (idLen <= 4 && !(tmp[0] & (0x80 >> (idLen - 1)))) ++idLen;
    if (idLen > 4) { map.plain = false; break; }
    const uint64_t cid = readUInt(tmp, idLen);
    const uint64_t csize = vsizeDecode(tmp + idLen, sw);
    if (sw == 0 || q + idLen + sw + csize > size) { map.plain = false; break; }
    const unsigned char* payload = bytes + q + idLen + sw;
    if (cid == kIdCrc && csize == 4 && q == 0) {
      map.hasCrc = true;
      Crc32 crc;
      crc.compute(payload + 4, size - q - idLen - sw - 4);
      map.littleEndianCrc = __builtin_bswap32(crc.checksum()) == readUInt(payload, 4);
    } else if (cid == kIdSeek) {
      SeekRef e;
      bool hasId = false, hasPos = false;
      for (uint64_t r = 0; r < csize;) {
        unsigned char t2[12] = {};
        std::copy(payload + r, payload + std::min<uint64_t>(csize, r + 12), t2);
        unsigned il = 1, w2 = 1;
        while (il <= 4 && !(t2[0] & (0x80 >> (il - 1)))) ++il;
        const uint64_t gid = il > 4 ? 0 : readUInt(t2, il);
        const uint64_t gsize = il > 4 ? 0 : vsizeDecode(t2 + il, w2);
        if (il > 4 || w2 == 0 || r + il + w2 + gsize > csize || gsize > 8) { map.plain = false; break; }
        if (gid == kIdSeekId) e.id = readUInt(payload + r + il + w2, gsize), hasId = true;
        else if (gid == kIdSeekPos) e.position = readUInt(payload + r + il + w2, gsize), hasPos = true;
        else map.plain = false;
        r += il + w2 + gsize;
      }
      if (hasId && hasPos) map.entries.push_back(e);
      else map.plain = false;
    } else if (cid != kIdVoid) {
      map.plain = false;
    }
    q += idLen + sw + csize;
  }
  return map;
}

std::vector<unsigned char> seekHeadBytes(const SeekHeadContent& h, unsigned sizeWidth) {
  std::vector<unsigned char> payload;
  for (const auto& e : h.entries) {
    std::vector<unsigned char> seek;
    unsigned char idBytes[8];
    const unsigned n = uintEncode(e.id, idBytes);
    putId(seek, kIdSeekId);
    putSize(seek, n);
    seek.insert(seek.end(), idBytes, idBytes + n);
    putUInt(seek, kIdSeekPos, e.position);
    putId(payload, kIdSeek);
    putSize(payload, seek.size());
    payload.insert(payload.end(), seek.begin(), seek.end());
  }
  std::vector<unsigned char> bytes;
  putId(bytes, kIdSeekHead);
  putSize(bytes, payload.size() + (h.hasCrc ? 6 : 0), sizeWidth);
  if (h.hasCrc) {
    Crc32 crc;
    crc.compute(payload.data(), payload.size());
    uint32_t sum = crc.checksum();
    if (h.littleEndianCrc) sum = __builtin_bswap32(sum);
    const unsigned char c[6] = {0xBF, 0x84, static_cast<unsigned char>(sum >> 24), static_cast<unsigned char>(sum >> 16),
                                static_cast<unsigned char>(sum >> 8), static_cast<unsigned char>(sum)};
    bytes.insert(bytes.end(), c, c + 6);
  }
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

std::vector<unsigned char> seekHeadInto(const SeekHeadContent& h, uint64_t room) {
  std::vector<unsigned char> bytes = seekHeadBytes(h);
  // One byte cannot be a Void: a wider size field takes it instead.
  if (bytes.size() + 1 == room)
    for (unsigned width = 2; width <= 8; ++width) {
      std::vector<unsigned char> wider = seekHeadBytes(h, width);
      if (wider.size() == room) return wider;
    }
  if (bytes.size() > room || (bytes.size() < room && room - bytes.size() < 2)) return {};
  if (bytes.size() < room) {
    const auto v = voidBytes(room - bytes.size());
    bytes.insert(bytes.end(), v.begin(), v.end());
  }
  return bytes;
}

}  // namespace inplace
}  // namespace Kapsel
