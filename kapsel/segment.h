#pragma once
// The Segment: its members, save order, load paths and reference resolution.

#include "kapsel/chapters.h"
#include "kapsel/cluster.h"
#include "kapsel/element.h"
#include "kapsel/shared_ptr.h"
#include "kapsel/tracks.h"

namespace Kapsel {

struct SegmentChildNames {
  KAPSEL_ELT_NAME(0x1549A966, "SegInfo");
  KAPSEL_ELT_NAME(0x1654AE6B, "Tracks");
  KAPSEL_ELT_NAME(0x114D9B74, "SeekHead");
  KAPSEL_ELT_NAME(0x1C53BB6B, "Cues");
  KAPSEL_ELT_NAME(0x1941A469, "Attachments");
  KAPSEL_ELT_NAME(0x1043A770, "Chapters");
  KAPSEL_ELT_NAME(0x1254C367, "Tags");
  KAPSEL_ELT_NAME(0x1F43B675, "Cluster");
};

using SegInfoElt = TElt<SegInfo, 0x1549A966, SegmentChildNames::EltName0x1549A966>;
using TracksElt = TElt<Tracks, 0x1654AE6B, SegmentChildNames::EltName0x1654AE6B>;
using SeekHeadElt = TElt<SeekHead, 0x114D9B74, SegmentChildNames::EltName0x114D9B74>;
using CuesElt = TElt<Cues, 0x1C53BB6B, SegmentChildNames::EltName0x1C53BB6B>;
using AttachmentsElt = TElt<Attachments, 0x1941A469, SegmentChildNames::EltName0x1941A469>;
using ChaptersElt = TElt<Chapters, 0x1043A770, SegmentChildNames::EltName0x1043A770>;
using TagsElt = TElt<Tags, 0x1254C367, SegmentChildNames::EltName0x1254C367>;
using ClusterElt = TElt<Cluster, 0x1F43B675, SegmentChildNames::EltName0x1F43B675>;

class Segment : public EbmlMaster, public SegmentChildNames {
 public:
  static constexpr uint64_t kId = 0x18538067;

  class IDelegateSave {
   public:
    virtual ~IDelegateSave() = default;
    virtual ReceiptPtr save(const Segment& segment, IStorage& storage) = 0;
  };

  SegInfoElt info_;
  TracksElt tracks_;
  TEltDeque<SeekHeadElt> seekHeads_;
  CuesElt cues_;
  AttachmentsElt attachments_;
  ChaptersElt chapters_;
  TEltList<TagsElt> tags_;
  TEltList<ClusterElt> clusters_;
  TSharedPtr<IDelegateSave> delegateSave_;

  KAPSEL_CHILDREN(info_, tracks_, chapters_, cues_, attachments_, seekHeads_, tags_, clusters_);

  bool isDefault() const override;
  ReceiptPtr save(IStorage& storage) const override;
  // The next Cluster: its ID followed by a size that fits within the segment and the file.
  uint64_t resyncAfterDamage(FileStorage& storage, uint64_t from, uint64_t limit) override;

  void setCrc32(bool enable);
  void resolveReferences(const IElement& origin);
  // Removes seek entries, cue positions and cluster positions whose target was never loaded.
  void dropDanglingReferences();
  // The segment's own element: positions in its seek heads are relative to its payload.
  void setOrigin(const IElement* origin) { origin_ = origin; }
  bool loadViaSeekHead(FileStorage& storage, IDelegateLoad* delegate, bool loadClusters);
  // The element that starts at an absolute position, among the top-level members.
  IElement* eltsFind(uint64_t position);

 private:
  bool followSeekHeads(FileStorage& storage, const IElement& origin);
  const IElement* origin_ = nullptr;
};

// Reads only the seek heads at the start of the first segment and skips the rest.
class SeekHeadReader : public IDelegateLoad {
 public:
  uint64_t load(FileStorage& storage, uint64_t bytesToRead, uint64_t eltId, IPayload& payload) override;
  bool done = false;
};

// Prints how far loading has come, and keeps SilentTracks read from a file.
class LoadWithProgress : public IDelegateLoad {
 public:
  explicit LoadWithProgress(uint64_t fileSize) : fileSize(fileSize) {}
  uint64_t load(FileStorage& storage, uint64_t bytesToRead, uint64_t eltId, IPayload& payload) override;
  void loaded(IElement& element) override;
  uint64_t fileSize;
};

// Gives a segment the top-level order of a WebM file.
class WebmSegmentSaver : public Segment::IDelegateSave {
 public:
  ReceiptPtr save(const Segment& segment, IStorage& storage) override;
};

}  // namespace Kapsel
