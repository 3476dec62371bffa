#pragma once
// What the in-place editor and the repairer share: raw reads of a file's top level and the few elements they write
// byte by byte (Voids and SeekHeads).

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace Kapsel {
namespace inplace {

constexpr uint64_t kIdEbml = 0x1A45DFA3, kIdDocType = 0x4282, kIdSegment = 0x18538067, kIdVoid = 0xEC, kIdCrc = 0xBF,
                   kIdSeekHead = 0x114D9B74, kIdSeek = 0x4DBB, kIdSeekId = 0x53AB, kIdSeekPos = 0x53AC,
                   kIdInfo = 0x1549A966, kIdTracks = 0x1654AE6B, kIdTags = 0x1254C367, kIdChapters = 0x1043A770,
                   kIdAttachments = 0x1941A469, kIdCues = 0x1C53BB6B, kIdCluster = 0x1F43B675;

// An element's ID and size field as they lie in the file.
struct Header {
  uint64_t id = 0;
  uint64_t size = 0;         // payload bytes; meaningless when unknown
  unsigned headerBytes = 0;  // ID and size field
  unsigned sizeWidth = 0;
  bool unknown = false;      // all ones: an open element
};

// Reads of a file through a small window, so that walking element headers costs no system call per header.
class RawReader {
 public:
  explicit RawReader(const std::string& path);
  ~RawReader();
  RawReader(const RawReader&) = delete;
  RawReader& operator=(const RawReader&) = delete;
  bool ok() const { return file_ != nullptr; }
  uint64_t size() const { return size_; }
  // False unless all n bytes are there.
  bool read(uint64_t pos, void* dst, uint64_t n);
  // The ID (at most 4 bytes) and size field at pos.
  bool header(uint64_t pos, Header& h);
  bool header(uint64_t pos, uint64_t& id, uint64_t& size, unsigned& headerBytes, unsigned& sizeWidth, bool& unknown);

 private:
  std::FILE* file_ = nullptr;
  uint64_t size_ = 0;
  std::vector<unsigned char> window_;
  uint64_t windowPos_ = 0;
};

// The name of a top-level element, for messages ("element" for others).
const char* topLevelName(uint64_t id);
uint64_t readUInt(const unsigned char* p, uint64_t n);
void putId(std::vector<unsigned char>& out, uint64_t id);
// width 0: the fewest bytes that hold the size.
void putSize(std::vector<unsigned char>& out, uint64_t size, unsigned width = 0);
void putUInt(std::vector<unsigned char>& out, uint64_t id, uint64_t value);
// The largest size a size field of this width holds (all ones means unknown).
uint64_t vsizeLargest(unsigned width);
// A Void of exactly `total` bytes (at least 2).
std::vector<unsigned char> voidBytes(uint64_t total);

struct SeekRef {
  uint64_t id = 0;
  uint64_t position = 0;  // relative to the Segment's payload
};

struct SeekHeadContent {
  std::vector<SeekRef> entries;
  bool hasCrc = false;
  bool littleEndianCrc = false;
  bool plain = true;  // nothing but Seek entries, a CRC-32 and Voids
};

// The entries of a SeekHead's payload; a child it cannot read ends the list and clears `plain`.
SeekHeadContent parseSeekHead(const unsigned char* payload, uint64_t size);
// A SeekHead holding the entries, with a CRC-32 first when it had one; sizeWidth 0: the fewest bytes.
std::vector<unsigned char> seekHeadBytes(const SeekHeadContent& h, unsigned sizeWidth = 0);
// The SeekHead padded to exactly `room` bytes (a Void after it, or a size field one byte wider when one byte is
// left over); empty when it does not fit.
std::vector<unsigned char> seekHeadInto(const SeekHeadContent& h, uint64_t room);

}  // namespace inplace
}  // namespace Kapsel
