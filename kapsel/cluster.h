#pragma once
// Clusters, the cue index and the seek head.

#include "kapsel/block.h"
#include "kapsel/element.h"
#include "kapsel/payload.h"

namespace Kapsel {

class SilentTracks : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x58D7, "SilentTrackNumber");
  TEltList<TElt<VUInt, 0x58D7, EltName0x58D7>> numbers_;
  KAPSEL_CHILDREN(numbers_);
};

class Cluster : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xE7, "Timecode");
  KAPSEL_ELT_NAME(0x5854, "SilentTracks");
  KAPSEL_ELT_NAME(0xA7, "Position");
  KAPSEL_ELT_NAME(0xAB, "PrevSize");
  KAPSEL_ELT_NAME(0xA0, "BlockGroup");
  KAPSEL_ELT_NAME(0xA3, "SimpleBlock");
  KAPSEL_ELT_NAME(0xAF, "EncryptedBlock");
  using BlockGroupElt = TElt<BlockGroup, 0xA0, EltName0xA0>;
  using SimpleBlockElt = TElt<VBinary, 0xA3, EltName0xA3>;
  using EncryptedBlockElt = TElt<VBinary, 0xAF, EltName0xAF>;

  Cluster();

  TElt<VUInt, 0xE7, EltName0xE7> timecode_;
  TElt<SilentTracks, 0x5854, EltName0x5854> silentTracks_;
  TElt<VEltPosition, 0xA7, EltName0xA7> position_;
  TElt<VUInt, 0xAB, EltName0xAB> prevSize_;
  MixedElements blocks_;

  // The timecode is left out on purpose: a cluster without content is default.
  bool isDefault() const override;
  KAPSEL_CHILDREN(timecode_, silentTracks_, position_, prevSize_, blocks_);
};

class CueRef : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x96, "CueRefTime");
  KAPSEL_ELT_NAME(0x97, "CueRefCluster");
  KAPSEL_ELT_NAME(0x535F, "CueRefNumber");
  KAPSEL_ELT_NAME(0xEB, "CueRefCodecState");
  CueRef() { number_->init(1); }
  TElt<VUInt, 0x96, EltName0x96> time_;
  TElt<VEltPosition, 0x97, EltName0x97> cluster_;
  TElt<VUInt, 0x535F, EltName0x535F> number_;
  TElt<VEltPosition, 0xEB, EltName0xEB> codecState_;
  KAPSEL_CHILDREN(time_, cluster_, number_, codecState_);
};

class CueTrkPos : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xF7, "Track");
  KAPSEL_ELT_NAME(0xF1, "ClusterPosition");
  KAPSEL_ELT_NAME(0xF0, "CueRelativePosition");
  KAPSEL_ELT_NAME(0xB2, "CueDuration");
  KAPSEL_ELT_NAME(0x5378, "CueBlockNumber");
  KAPSEL_ELT_NAME(0xEA, "CueCodecState");
  KAPSEL_ELT_NAME(0xDB, "CueReference");
  CueTrkPos() {
    track_.alwaysSave();
    blockNumber_->init(1);
  }
  TElt<VUInt, 0xF7, EltName0xF7> track_;
  TElt<VEltPosition, 0xF1, EltName0xF1> clusterPosition_;
  // Kept as read: it stays right only while the cluster is written back with the same layout.
  TElt<VUInt, 0xF0, EltName0xF0> relativePosition_;
  TElt<VUInt, 0xB2, EltName0xB2> duration_;
  TElt<VUInt, 0x5378, EltName0x5378> blockNumber_;
  TElt<VEltPosition, 0xEA, EltName0xEA> codecState_;
  TEltList<TElt<CueRef, 0xDB, EltName0xDB>> references_;
  KAPSEL_CHILDREN(track_, clusterPosition_, relativePosition_, duration_, blockNumber_, codecState_, references_);
};

class CuePoint : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xB3, "CueTime");
  KAPSEL_ELT_NAME(0xB7, "CueTrackPosition");
  // Readers drop a cue point without its time, and the first one is usually at 0.
  CuePoint() { time_.alwaysSave(); }
  TElt<VUInt, 0xB3, EltName0xB3> time_;
  TEltList<TElt<CueTrkPos, 0xB7, EltName0xB7>> positions_;
  KAPSEL_CHILDREN(time_, positions_);
};

class Cues : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xBB, "CuePoint");
  TEltList<TElt<CuePoint, 0xBB, EltName0xBB>> points_;
  KAPSEL_CHILDREN(points_);
};

class SeekEntry : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x53AB, "SeekID");
  KAPSEL_ELT_NAME(0x53AC, "SeekPosition");
  TElt<VUInt, 0x53AB, EltName0x53AB> id_;
  TElt<VEltPosition, 0x53AC, EltName0x53AC> position_;
  KAPSEL_CHILDREN(id_, position_);
};

class SeekHead : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x4DBB, "Seek");
  using SeekElt = TElt<SeekEntry, 0x4DBB, EltName0x4DBB>;
  TEltList<SeekElt> entries_;
  KAPSEL_CHILDREN(entries_);

  void indexThis(const IElement* origin, const IElement* element);
  void indexThis(uint64_t eltId, uint64_t position);
  SeekElt* findFirst(uint64_t eltId);
  SeekElt* findIndex(const IElement* element);
};

}  // namespace Kapsel
