#pragma once
// The EBML header and whole Matroska/WebM documents.

#include <list>
#include <string>
#include <vector>

#include "kapsel/element.h"
#include "kapsel/payload.h"
#include "kapsel/segment.h"

namespace Kapsel {

// A fixed underlying type keeps any other value well-defined: it behaves as Matroska.
enum TFileFormat : int { kFileFormatMatroska = 0, kFileFormatWebm = 1 };

class DocTypeExtension : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x4283, "DocTypeExtensionName");
  KAPSEL_ELT_NAME(0x4284, "DocTypeExtensionVersion");
  TElt<VString, 0x4283, EltName0x4283> name_;
  TElt<VUInt, 0x4284, EltName0x4284> version_;
  KAPSEL_CHILDREN(name_, version_);
};

class EbmlHead : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x4286, "EBMLVersion");
  KAPSEL_ELT_NAME(0x42F7, "EBMLReadVersion");
  KAPSEL_ELT_NAME(0x42F2, "EBMLMaxIDLength");
  KAPSEL_ELT_NAME(0x42F3, "EBMLMaxSizeLength");
  KAPSEL_ELT_NAME(0x4282, "DocType");
  KAPSEL_ELT_NAME(0x4287, "DocTypeVersion");
  KAPSEL_ELT_NAME(0x4285, "DocTypeReadVersion");
  KAPSEL_ELT_NAME(0x4281, "DocTypeExtension");
  EbmlHead();
  TElt<VUInt, 0x4286, EltName0x4286> version_;
  TElt<VUInt, 0x42F7, EltName0x42F7> readVersion_;
  TElt<VUInt, 0x42F2, EltName0x42F2> maxIdLength_;
  TElt<VUInt, 0x42F3, EltName0x42F3> maxSizeLength_;
  TElt<VString, 0x4282, EltName0x4282> docType_;
  TElt<VUInt, 0x4287, EltName0x4287> docTypeVersion_;
  TElt<VUInt, 0x4285, EltName0x4285> docTypeReadVersion_;
  TEltList<TElt<DocTypeExtension, 0x4281, EltName0x4281>> docTypeExtensions_;
  KAPSEL_CHILDREN(version_, readVersion_, maxIdLength_, maxSizeLength_, docType_, docTypeVersion_,
                  docTypeReadVersion_, docTypeExtensions_);
};

class EbmlDoc : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x1A45DFA3, "EBML");
  KAPSEL_ELT_NAME(0x18538067, "Segment");
  using HeadElt = TElt<EbmlHead, 0x1A45DFA3, EltName0x1A45DFA3>;

  EbmlDoc(const std::string& docType, uint64_t docTypeVersion, uint64_t docTypeReadVersion);
  bool eval(IElementCrawler& crawler) override;
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) override;
  KAPSEL_CHILDREN(head_);

  HeadElt head_;
};

class MatroskaDoc : public EbmlDoc {
 public:
  using SegmentElt = TElt<Segment, 0x18538067, EltName0x18538067>;

  MatroskaDoc();
  MatroskaDoc(const MatroskaDoc& other);
  MatroskaDoc& operator=(const MatroskaDoc& other);

  bool eval(IElementCrawler& crawler) override;
  bool isDefault() const override;
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate = nullptr) override;
  KAPSEL_CHILDREN(head_, segments_);

  uint64_t loadAndKeepReceipts(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate = nullptr);
  bool loadSeekHead(FileStorage& storage, uint64_t bytesToRead);
  bool loadViaSeekHead(FileStorage& storage, IDelegateLoad* delegate, bool loadClusters);
  // CRC-32 elements in every top-level element; saving writes their values in the given byte order.
  void setCrc32(bool enable, TCrc32Order order = kCrc32BigEndian);
  TCrc32Order crc32Order() const { return crc32Order_; }
  // Before loading: elements the tables do not know are kept in their place and written back unchanged.
  void setKeepUnknown(bool keep) { keepUnknown_ = keep; }
  bool keepUnknown() const { return keepUnknown_; }
  // After loading: the byte ranges the loader could not read, in the order found.
  const std::vector<TByteRange>& damagedRanges() const { return damaged_; }
  void resolveReferences();
  // With clustersDone, clusters were optimised as they loaded (OptimizeClustersOnLoad) and are left alone.
  void optimize(IStorage& storage, bool clustersDone = false);
  void discardReceipts();

  TEltList<SegmentElt> segments_;

 private:
  bool keepUnknown_ = false;
  TCrc32Order crc32Order_ = kCrc32BigEndian;
  std::vector<TByteRange> damaged_;
};

class WebmDoc : public MatroskaDoc {
 public:
  explicit WebmDoc(TFileFormat format = kFileFormatMatroska);
  ReceiptPtr save(IStorage& storage) const override;
  TFileFormat fileFormat() const { return fileFormat_; }
  void setFileFormat(TFileFormat format) { fileFormat_ = format; }

 private:
  TFileFormat fileFormat_;
};

}  // namespace Kapsel
