#include "kapsel/document.h"

#include "kapsel/crawlers.h"

namespace Kapsel {

EbmlHead::EbmlHead() {
  version_->init(1);
  readVersion_->init(1);
  maxIdLength_->init(4);
  maxSizeLength_->init(8);
  version_.alwaysSave();
  readVersion_.alwaysSave();
  maxIdLength_.alwaysSave();
  maxSizeLength_.alwaysSave();
  docType_.alwaysSave();
  docTypeVersion_.alwaysSave();
  docTypeReadVersion_.alwaysSave();
}

EbmlDoc::EbmlDoc(const std::string& docType, uint64_t docTypeVersion, uint64_t docTypeReadVersion) {
  head_->docType_->set(docType);
  head_->docTypeVersion_->set(docTypeVersion);
  head_->docTypeReadVersion_->set(docTypeReadVersion);
}

bool EbmlDoc::eval(IElementCrawler& crawler) { return crawler.eval(head_); }
uint64_t EbmlDoc::calcSize() const { return head_.calcSizeAlways(); }
ReceiptPtr EbmlDoc::save(IStorage& storage) const { return head_.save(storage, 0); }
uint64_t EbmlDoc::load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) {
  return head_.load(storage, bytesToRead, delegate);
}

MatroskaDoc::MatroskaDoc() : EbmlDoc("matroska", 1, 1) {}

MatroskaDoc::MatroskaDoc(const MatroskaDoc& other) : EbmlDoc(other) { *this = other; }

MatroskaDoc& MatroskaDoc::operator=(const MatroskaDoc& other) {
  if (this != &other) {
    EbmlDoc::operator=(other);
    segments_ = other.segments_;
    keepUnknown_ = other.keepUnknown_;
    crc32Order_ = other.crc32Order_;
    damaged_ = other.damaged_;
  }
  return *this;
}

bool MatroskaDoc::eval(IElementCrawler& crawler) {
  if (crawler.eval(head_)) return true;
  for (auto& s : segments_)
    if (crawler.eval(s)) return true;
  return false;
}

bool MatroskaDoc::isDefault() const { return EbmlMaster::isDefault(); }

uint64_t MatroskaDoc::calcSize() const {
  uint64_t total = head_.calcSizeAlways();
  for (const auto& s : segments_) total += s.calcSizeAlways();
  return total;
}

ReceiptPtr MatroskaDoc::save(IStorage& storage) const {
  MatroskaDoc& self = const_cast<MatroskaDoc&>(*this);
  for (auto& s : self.segments_) s->dropDanglingReferences();
  ReceiptPtr result = head_.save(storage, 0);
  if (!result) return result;
  DiscardReceipts discard;
  ResetReferences reset;
  self.eval(discard);
  self.eval(reset);
  ReceiptPtr here = storage.receipt();
  if (!here) return here;
  // Dry run: every element learns its final position, so references can be sized.
  NullStorage dryRun(here->position());
  for (const auto& s : segments_) s.saveAlways(dryRun);
  OptimizeReferences optimizeRefs;
  self.eval(optimizeRefs);
  self.eval(discard);
  ReceiptPtr segments = storage.receipt();
  for (const auto& s : segments_) {
    ReceiptPtr r = s.saveAlways(storage);
    if (!r) return r;
    *segments += r;
  }
  *result += segments;
  RewriteReferences rewrite;
  self.eval(rewrite);
  ReplaceCrc32Placeholders crc(crc32Order_);
  self.eval(crc);
  return result;
}

uint64_t MatroskaDoc::load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) {
  const uint64_t n = loadAndKeepReceipts(storage, bytesToRead, delegate);
  discardReceipts();
  return n;
}

uint64_t MatroskaDoc::loadAndKeepReceipts(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) {
  damaged_.clear();
  LoadScope scope(keepUnknown_, &damaged_, storage.file().size());
  uint64_t total = EbmlDoc::load(storage, bytesToRead, delegate);
  bytesToRead -= std::min(total, bytesToRead);
  while (bytesToRead > 0) {
    SegmentElt& s = segments_.add();
    const uint64_t n = s.load(storage, bytesToRead, delegate);
    if (n == 0) {
      segments_.removeLast();
      break;
    }
    s->setOrigin(&s);
    total += n;
    bytesToRead -= std::min(n, bytesToRead);
  }
  resolveReferences();
  return total;
}

bool MatroskaDoc::loadSeekHead(FileStorage& storage, uint64_t bytesToRead) {
  segments_.clear();
  SeekHeadReader reader;
  loadAndKeepReceipts(storage, bytesToRead, &reader);
  for (const auto& s : segments_)
    if (!s->seekHeads_.empty()) return true;
  return false;
}

bool MatroskaDoc::loadViaSeekHead(FileStorage& storage, IDelegateLoad* delegate, bool loadClusters) {
  LoadScope scope(keepUnknown_, &damaged_, storage.file().size());
  bool ok = true;
  for (auto& s : segments_) {
    s->setOrigin(&s);
    if (!s->loadViaSeekHead(storage, delegate, loadClusters)) ok = false;
    s->resolveReferences(s);
  }
  return ok;
}

void MatroskaDoc::setCrc32(bool enable, TCrc32Order order) {
  crc32Order_ = order;
  for (auto& s : segments_) s->setCrc32(enable);
}

void MatroskaDoc::resolveReferences() {
  for (auto& s : segments_) s->resolveReferences(s);
}

void MatroskaDoc::optimize(IStorage& storage, bool clustersDone) {
  Optimizer optimizer(storage, clustersDone);
  eval(optimizer);
}

void MatroskaDoc::discardReceipts() {
  DiscardReceipts discard;
  eval(discard);
}

WebmDoc::WebmDoc(TFileFormat format) : fileFormat_(format) {
  if (format == kFileFormatWebm) {
    head_->docType_->set("webm");
    head_->docType_->addVoid(2);
  }
  head_->docTypeVersion_->set(2);
  head_->docTypeReadVersion_->set(2);
}

ReceiptPtr WebmDoc::save(IStorage& storage) const {
  if (fileFormat_ == kFileFormatWebm) {
    for (auto& s : const_cast<WebmDoc*>(this)->segments_)
      s->delegateSave_ = TSharedPtr<Segment::IDelegateSave>(new WebmSegmentSaver);
  }
  return MatroskaDoc::save(storage);
}

}  // namespace Kapsel
