#include "kapsel/block.h"

namespace Kapsel {

namespace {

void xiphSize(std::vector<unsigned char>& out, uint64_t size) {
  while (size >= 255) {
    out.push_back(255);
    size -= 255;
  }
  out.push_back(static_cast<unsigned char>(size));
}

std::vector<unsigned char> xiphSizes(const std::vector<uint64_t>& sizes) {
  std::vector<unsigned char> out;
  for (size_t i = 0; i + 1 < sizes.size(); ++i) xiphSize(out, sizes[i]);
  return out;
}

std::vector<unsigned char> ebmlSizes(const std::vector<uint64_t>& sizes) {
  std::vector<unsigned char> out;
  unsigned char buffer[8];
  for (size_t i = 0; i + 1 < sizes.size(); ++i) {
    const unsigned n = i == 0 ? vsizeEncode(sizes[0], buffer)
                              : vsizeSignedEncode(static_cast<int64_t>(sizes[i] - sizes[i - 1]), buffer);
    out.insert(out.end(), buffer, buffer + n);
  }
  return out;
}

std::vector<uint64_t> frameSizes(const HodgePodge& frames) {
  std::vector<uint64_t> sizes;
  sizes.reserve(frames.size());
  for (const auto& r : frames.receipts()) sizes.push_back(r ? r->numBytes() : 0);
  return sizes;
}

}  // namespace

bool SimpleBlock::addFrame(const unsigned char* data, unsigned long numBytes, IStorage& storage) {
  if (frames_.size() > 255) return false;
  frames_.add(data, numBytes, storage);
  return true;
}

bool SimpleBlock::addFrame(const ReceiptPtr& frame) {
  if (frames_.size() > 255) return false;
  frames_.add(frame);
  return true;
}

SimpleBlock::Lacing SimpleBlock::effectiveLacing() const {
  if (frames_.size() == 1) return kNoLacing;
  if (!autoLacing_) return getLacing();
  if (frames_.size() <= 1) return kNoLacing;
  const std::vector<uint64_t> sizes = frameSizes(frames_);
  bool same = true;
  for (uint64_t s : sizes) same = same && s == sizes[0];
  if (same) return kFixedSizeLacing;
  // Xiph only when strictly smaller; a tie goes to EBML lacing.
  return xiphSizes(sizes).size() < ebmlSizes(sizes).size() ? kXiphLacing : kEBMLLacing;
}

std::vector<unsigned char> SimpleBlock::headerBytes() const {
  std::vector<unsigned char> out;
  unsigned char buffer[8];
  out.insert(out.end(), buffer, buffer + vsizeEncode(trackNumber_, buffer));
  const uint16_t tc = static_cast<uint16_t>(relativeTimecode_);
  out.push_back(static_cast<unsigned char>(tc >> 8));
  out.push_back(static_cast<unsigned char>(tc & 0xFF));
  const Lacing lacing = effectiveLacing();
  out.push_back(setLacingBits(flags_, lacing));
  if (lacing != kNoLacing) {
    out.push_back(static_cast<unsigned char>(frames_.size() - 1));
    const std::vector<uint64_t> sizes = frameSizes(frames_);
    if (lacing == kXiphLacing) {
      const auto s = xiphSizes(sizes);
      out.insert(out.end(), s.begin(), s.end());
    } else if (lacing == kEBMLLacing) {
      const auto s = ebmlSizes(sizes);
      out.insert(out.end(), s.begin(), s.end());
    }
  }
  return out;
}

ReceiptPtr SimpleBlock::writeHeader(IStorage& storage) const { return save(storage, headerBytes()); }

void SimpleBlock::exportData(HodgePodge& data, IStorage& storage) const {
  data.set(writeHeader(storage));
  for (const auto& r : frames_.receipts()) data.add(r);
}

uint64_t SimpleBlock::importData(const HodgePodge& data) {
  const uint64_t total = data.numBytes();
  HodgePodgeConstIter it(data);
  unsigned n = 0;
  const uint64_t track = vsizeDecode(it, n);
  if (n == 0 || total < n || total - n < 3) return 0;
  uint64_t pos = n;
  it.setpos(pos);
  unsigned tc = (static_cast<unsigned>(it[0]) << 8) | it[1];
  const unsigned char flags = it[2];
  pos += 3;
  const Lacing lacing = static_cast<Lacing>((flags & 0x06) >> 1);
  uint64_t count = 1;
  if (lacing != kNoLacing) {
    if (pos >= total) return 0;
    it.setpos(pos);
    count = static_cast<uint64_t>(*it) + 1;
    ++pos;
  }
  std::vector<uint64_t> sizes;
  uint64_t sum = 0;
  if (lacing == kFixedSizeLacing) {
    const uint64_t each = (total - pos) / count;
    sizes.assign(count - 1, each);
    sum = each * (count - 1);
  } else if (lacing == kXiphLacing) {
    for (uint64_t f = 0; f + 1 < count; ++f) {
      uint64_t size = 0;
      unsigned char b = 255;
      while (b == 255 && pos < total) {
        it.setpos(pos++);
        b = *it;
        size += b;
      }
      sizes.push_back(size);
      sum += size;
      if (sum > total) return 0;
    }
  } else if (lacing == kEBMLLacing) {
    int64_t prev = 0;
    for (uint64_t f = 0; f + 1 < count; ++f) {
      if (pos >= total) return 0;
      it.setpos(pos);
      unsigned len = 0;
      int64_t size;
      if (f == 0) {
        const uint64_t first = vsizeDecode(it, len);
        if (first == ~0ull) return 0;
        size = static_cast<int64_t>(first);
      } else {
        size = prev + vsizeSignedDecode(it, len);
      }
      // No frame is larger than the block: a size past that would let the next ones (and their sum) overflow.
      if (len == 0 || size < 0 || static_cast<uint64_t>(size) > total) return 0;
      pos += len;
      sizes.push_back(static_cast<uint64_t>(size));
      sum += static_cast<uint64_t>(size);
      if (sum > total) return 0;
      prev = size;
    }
  }
  // Sizes that claim more than the data holds are not a block.
  if (pos > total || sum > total - pos) return 0;
  sizes.push_back(total - pos - sum);
  trackNumber_ = track;
  relativeTimecode_ = static_cast<short>(tc > 0x7FFF ? static_cast<int>(tc) - 0x10000 : static_cast<int>(tc));
  autoLacing_ = false;
  flags_ = flags;
  const uint64_t header = pos;
  frames_.clear();
  static const unsigned char kNothing = 0;
  for (uint64_t s : sizes) {
    // An empty frame has no bytes to cut out of the data.
    ReceiptPtr r = s == 0 ? receiptForConstMemory(&kNothing, 0) : it.receipt(pos, s);
    if (!r) break;
    frames_.add(r);
    pos += s;
  }
  return header;
}

std::ostream& operator<<(std::ostream& os, const SimpleBlock& block) {
  os << "track " << block.getTrackNumber() << ", ltc " << block.getRelativeTimecode();
  if (block.isKeyframe()) os << ", keyframe";
  if (block.isInvisible()) os << ", invisible";
  if (block.isDiscardable()) os << ", discardable";
  os << ", " << block.getNumberOfFrames() << " frame(s)";
  switch (block.getLacing()) {
    case SimpleBlock::kXiphLacing: os << ", Xiph lacing"; break;
    case SimpleBlock::kFixedSizeLacing: os << ", fixed size lacing"; break;
    case SimpleBlock::kEBMLLacing: os << ", EBML lacing"; break;
    default: break;
  }
  for (unsigned long i = 0; i < block.getNumberOfFrames(); ++i) {
    ReceiptPtr f = block.getFrame(i);
    os << ", f[" << i << "] " << (f ? f->numBytes() : 0) << " bytes";
  }
  return os;
}

}  // namespace Kapsel
