#pragma once
// Blocks: the block header, lacing, and the masters that wrap a block.

#include <cstdint>
#include <ostream>
#include <vector>

#include "kapsel/element.h"
#include "kapsel/hodgepodge.h"
#include "kapsel/payload.h"

namespace Kapsel {

class SimpleBlock {
 public:
  enum Lacing { kNoLacing = 0, kXiphLacing = 1, kFixedSizeLacing = 2, kEBMLLacing = 3 };
  static constexpr unsigned kMaxFrames = 256;

  uint64_t getTrackNumber() const { return trackNumber_; }
  void setTrackNumber(uint64_t n) { trackNumber_ = n; }
  short getRelativeTimecode() const { return relativeTimecode_; }
  void setRelativeTimecode(short t) { relativeTimecode_ = t; }

  bool isKeyframe() const { return flags_ & 0x80; }
  void setKeyframe(bool on) { flags_ = on ? (flags_ | 0x80) : (flags_ & 0x7F); }
  bool isInvisible() const { return flags_ & 0x08; }
  SimpleBlock& setInvisible(bool on) { flags_ = on ? (flags_ | 0x08) : (flags_ & 0xF7); return *this; }
  bool isDiscardable() const { return flags_ & 0x01; }
  SimpleBlock& setDiscardable(bool on) { flags_ = on ? (flags_ | 0x01) : (flags_ & 0xFE); return *this; }
  unsigned char getFlags() const { return flags_; }
  Lacing getLacing() const { return static_cast<Lacing>((flags_ & 0x06) >> 1); }
  void setLacing(Lacing lacing) { flags_ = setLacingBits(flags_, lacing); autoLacing_ = false; }
  void setAutoLacing() { autoLacing_ = true; }
  bool autoLacing() const { return autoLacing_; }
  static unsigned char setLacingBits(unsigned char flags, Lacing lacing) {
    return static_cast<unsigned char>((flags & 0xF9) | (static_cast<unsigned>(lacing) * 2));
  }

  unsigned long getNumberOfFrames() const { return static_cast<unsigned long>(frames_.size()); }
  ReceiptPtr getFrame(unsigned long i) const { return frames_[i]; }
  const HodgePodge& frames() const { return frames_; }
  bool mayAddFrame() const { return frames_.size() < kMaxFrames; }
  bool addFrame(const unsigned char* data, unsigned long numBytes, IStorage& storage);
  bool addFrame(const ReceiptPtr& frame);

  // The lacing the header will use.
  Lacing effectiveLacing() const;
  std::vector<unsigned char> headerBytes() const;
  ReceiptPtr writeHeader(IStorage& storage) const;
  void exportData(HodgePodge& data, IStorage& storage) const;
  uint64_t importData(const HodgePodge& data);

 private:
  bool autoLacing_ = false;
  uint64_t trackNumber_ = 0;
  short relativeTimecode_ = 0;
  unsigned char flags_ = 0;
  HodgePodge frames_;
};

std::ostream& operator<<(std::ostream& os, const SimpleBlock& block);

class BlockMore : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xEE, "BlockAddID");
  KAPSEL_ELT_NAME(0xA5, "BlockAdditional");
  BlockMore() { addId_->init(1); }
  TElt<VUInt, 0xEE, EltName0xEE> addId_;
  TElt<VBinary, 0xA5, EltName0xA5> additional_;
  KAPSEL_CHILDREN(addId_, additional_);
};

class BlockAdditions : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xA6, "BlockMore");
  TEltList<TElt<BlockMore, 0xA6, EltName0xA6>> more_;
  KAPSEL_CHILDREN(more_);
};

class ReferenceFrame : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xC9, "ReferenceOffset");
  KAPSEL_ELT_NAME(0xCA, "ReferenceTimestamp");
  TElt<VUInt, 0xC9, EltName0xC9> offset_;
  TElt<VUInt, 0xCA, EltName0xCA> timestamp_;
  KAPSEL_CHILDREN(offset_, timestamp_);
};

class BlockGroup : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x9B, "BlockDuration");
  KAPSEL_ELT_NAME(0xA1, "Block");
  KAPSEL_ELT_NAME(0xA2, "BlockVirtual");
  KAPSEL_ELT_NAME(0x75A1, "BlockAdditions");
  KAPSEL_ELT_NAME(0xFA, "ReferencePriority");
  KAPSEL_ELT_NAME(0xFB, "ReferenceBlock");
  KAPSEL_ELT_NAME(0xFD, "ReferenceVirtual");
  KAPSEL_ELT_NAME(0xA4, "CodecState");
  KAPSEL_ELT_NAME(0x8E, "Slice");
  KAPSEL_ELT_NAME(0x75A2, "DiscardPadding");
  KAPSEL_ELT_NAME(0xC8, "ReferenceFrame");
  using BlockElt = TElt<VBinary, 0xA1, EltName0xA1>;

  TElt<VUInt, 0x9B, EltName0x9B> duration_;
  BlockElt block_;
  TEltList<TElt<VBinary, 0xA2, EltName0xA2>> blockVirtual_;
  TElt<BlockAdditions, 0x75A1, EltName0x75A1> additions_;
  TElt<VUInt, 0xFA, EltName0xFA> referencePriority_;
  TEltList<TElt<VInt, 0xFB, EltName0xFB>> referenceBlock_;
  TElt<VInt, 0xFD, EltName0xFD> referenceVirtual_;
  TElt<VBinary, 0xA4, EltName0xA4> codecState_;
  TElt<VInt, 0x75A2, EltName0x75A2> discardPadding_;
  TEltList<TElt<VBinary, 0x8E, EltName0x8E>> slice_;
  TElt<ReferenceFrame, 0xC8, EltName0xC8> referenceFrame_;
  KAPSEL_CHILDREN(duration_, block_, blockVirtual_, additions_, referencePriority_, referenceBlock_,
                  referenceVirtual_, codecState_, discardPadding_, slice_, referenceFrame_);
};

}  // namespace Kapsel
