#include "kapsel/element.h"

#include <algorithm>
#include <cstring>

namespace Kapsel {

namespace {

constexpr uint64_t kIdCrc32 = 0xBF;
constexpr uint64_t kIdVoid = 0xEC;
constexpr uint64_t kCrc32ElementSize = 6;  // ID 0xBF, size 0x84, four value bytes
// Added to the size offered to a master's payload of unknown size: it then ends at the first
// element that cannot be its child, and still within the rest of the size offered.
constexpr uint64_t kOpenEnded = 1ull << 63;

ReceiptPtr saveId(IStorage& storage, uint64_t id) {
  unsigned char buffer[8];
  const unsigned n = uintEncode(id, buffer);
  return storage.save(buffer, n);
}

ReceiptPtr saveSize(IStorage& storage, uint64_t size, unsigned width) {
  unsigned char buffer[8];
  vsizeEncode(size, buffer, width);
  return storage.save(buffer, width);
}

uint64_t remainingInFile(FileStorage& storage) {
  const uint64_t size = storage.file().size();
  const uint64_t pos = storage.file().absolutePosition();
  return pos < size ? size - pos : 0;
}

// What the loads on one thread share: their settings, how deep they are, the last child each level
// loaded (unknown elements are kept after it) and what they may still allocate.
struct LoadContext {
  bool keepUnknown = false;
  std::vector<TByteRange>* damaged = nullptr;
  bool scoped = false;
  uint64_t budget = 0;
  unsigned depth = 0;
  IElement* last[kMaxLoadDepth + 2] = {};
};

thread_local LoadContext t_load;

// Charges an element object against the budget; an unscoped outermost load sets its own.
bool chargeLoad(const IElement& element, FileStorage& storage) {
  if (!t_load.scoped && t_load.depth == 0) t_load.budget = LoadScope::budgetFor(storage.file().size());
  const uint64_t cost = element.memoryFootprint() + 512;  // and the receipts of its bytes
  if (t_load.budget < cost) return false;
  t_load.budget -= cost;
  return true;
}

// Passes over one element by its size when it has one that fits; returns the bytes passed over.
uint64_t skipElement(FileStorage& storage, uint64_t left) {
  File& file = storage.file();
  const uint64_t here = file.absolutePosition();
  File::Seek guard(file);
  if (loadEbmlId(storage) == 0) return 0;
  unsigned sizeBytes = 0;
  const uint64_t size = vsizeDecode(storage, sizeBytes);
  if (sizeBytes == 0 || size == ~0ull) return 0;
  const uint64_t headerBytes = file.absolutePosition() - here;
  if (headerBytes > left || size > left - headerBytes || size > remainingInFile(storage)) return 0;
  if (!file.seek(static_cast<int64_t>(size), File::kRelativeToCurrent)) return 0;
  guard.doNotRestore();
  return headerBytes + size;
}

}  // namespace

// ---------------------------------------------------------------- LoadScope

struct LoadScope::Saved {
  LoadContext context;
};

LoadScope::LoadScope(bool keepUnknown, std::vector<TByteRange>* damaged, uint64_t inputSize)
    : saved_(new Saved{t_load}) {
  t_load.keepUnknown = keepUnknown;
  t_load.damaged = damaged;
  t_load.scoped = true;
  t_load.budget = budgetFor(inputSize);
}

LoadScope::~LoadScope() { t_load = saved_->context; }

uint64_t LoadScope::budgetFor(uint64_t inputSize) {
  const uint64_t fixed = 64ull << 20;
  const uint64_t perByte = 32;
  return inputSize > (~0ull - fixed) / perByte ? ~0ull : fixed + perByte * inputSize;
}

void LoadScope::noteDamage(uint64_t begin, uint64_t end) {
  if (!t_load.damaged || end <= begin) return;
  auto& ranges = *t_load.damaged;
  // Overlapping or touching notes (a parent cut short and its child) become one range.
  for (auto& r : ranges)
    if (begin <= r.end && r.begin <= end) {
      r.begin = std::min(r.begin, begin);
      r.end = std::max(r.end, end);
      return;
    }
  ranges.push_back({begin, end});
}

// ---------------------------------------------------------------- IPayload

IPayload::IPayload() = default;
IPayload::IPayload(const IPayload& other)
    : voids_(other.voids_), opaques_(other.opaques_ ? new OpaqueChildren(*other.opaques_) : nullptr) {}
IPayload& IPayload::operator=(const IPayload& other) {
  if (this == &other) return *this;
  voids_ = other.voids_;
  opaques_.reset(other.opaques_ ? new OpaqueChildren(*other.opaques_) : nullptr);
  return *this;
}
IPayload::~IPayload() = default;

void IPayload::addOpaque(const OpaqueElement& element, bool leading) {
  if (!opaques_) opaques_.reset(new OpaqueChildren);
  (leading ? opaques_->leading : opaques_->trailing).push_back(element);
}

bool IPayload::hasOpaque() const { return opaques_ && (!opaques_->leading.empty() || !opaques_->trailing.empty()); }

const std::list<OpaqueElement>* IPayload::opaques(bool leading) const {
  if (!opaques_) return nullptr;
  return leading ? &opaques_->leading : &opaques_->trailing;
}

uint64_t IPayload::calcOpaqueSize(bool leading) const {
  uint64_t total = 0;
  if (const auto* list = opaques(leading))
    for (const auto& e : *list) total += e.calcSize();
  return total;
}

bool IPayload::saveOpaques(IStorage& storage, bool leading, ReceiptPtr& result) const {
  if (const auto* list = opaques(leading))
    for (const auto& e : *list) {
      ReceiptPtr r = e.save(storage);
      if (!r) return false;
      *result += r;
    }
  return true;
}

bool IPayload::eval(IElementCrawler&) { return false; }

void IPayload::addVoid(uint64_t payloadSize) { voids_.emplace_back()->set(payloadSize); }

bool IPayload::hasVoid() const { return !voids_.empty(); }

void IPayload::clearVoids() { voids_.clear(); }

ReceiptPtr VVoid::save(IStorage& storage) const {
  static const unsigned char zeros[1024] = {};
  ReceiptPtr result = storage.receipt();
  if (!result) return result;
  uint64_t remaining = size_;
  while (remaining > 0) {
    const unsigned long chunk = static_cast<unsigned long>(std::min<uint64_t>(remaining, sizeof zeros));
    ReceiptPtr part = storage.save(zeros, chunk);
    if (!part) return part;
    *result += part;
    remaining -= chunk;
  }
  return result;
}

uint64_t VVoid::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  if (!storage.file().seek(static_cast<int64_t>(payloadSize), File::kRelativeToCurrent)) return 0;
  size_ = payloadSize;
  return payloadSize;
}

uint64_t VOpaque::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  if (payloadSize > remainingInFile(storage)) return 0;
  return data_.load(storage, payloadSize);
}

uint64_t OpaqueElement::calcSize() const {
  const uint64_t p = payload_.calcSize();
  return uintNumBytes(id_) + std::max<uint64_t>(sizeWidth_, vsizeNumBytes(p)) + p;
}

ReceiptPtr OpaqueElement::save(IStorage& storage, uint64_t sizeBytes) const {
  const uint64_t p = payload_.calcSize();
  return IElement::save(storage, sizeBytes ? sizeBytes : std::max<uint64_t>(sizeWidth_, vsizeNumBytes(p)));
}

// Takes whatever ID starts here, with a known size that fits; the receipt says where it stood.
uint64_t OpaqueElement::load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad*) {
  File& file = storage.file();
  const uint64_t here = file.absolutePosition();
  uint64_t id = 0, size = 0, headerBytes = 0, inFile = 0;
  unsigned sizeBytes = 0;
  {
    File::Seek guard(file);
    id = loadEbmlId(storage);
    if (id != 0) size = vsizeDecode(storage, sizeBytes);
    headerBytes = file.absolutePosition() - here;
    inFile = remainingInFile(storage);
  }
  if (id == 0 || sizeBytes == 0 || size == ~0ull) return 0;
  if (headerBytes > bytesToRead || size > bytesToRead - headerBytes || size > inFile) return 0;
  id_ = id;
  sizeWidth_ = sizeBytes;
  return IElement::load(storage, bytesToRead, nullptr);
}

// ---------------------------------------------------------------- IElement

IElement::IElement()
    : flags_(0), checksum_(0), receipt_(), payloadOffset_(kUndefinedOffset), crc32Offset_(kUndefinedOffset), fixedSize_(0) {}

IElement::~IElement() = default;

bool IElement::mustSave() const {
  if (fixedSize_ != 0 || (flags_ & kAlwaysSave)) return true;
  const IPayload& p = getPayload();
  if (!p.isDefault() || p.hasOpaque()) return true;
  if (!p.isComposite()) return false;
  return p.hasVoid();
}

void IElement::alwaysSave() { flags_ |= kAlwaysSave; }

void IElement::setCrc32(bool enable) {
  if (enable && getPayload().isComposite())
    flags_ |= kComputeCrc32;
  else
    flags_ &= ~static_cast<uint32_t>(kComputeCrc32);
}

bool IElement::shouldComputeCrc32() const { return (flags_ & kComputeCrc32) && getPayload().isComposite(); }

void IElement::setFixedSize(uint64_t size) { fixedSize_ = size; }

uint64_t IElement::payloadSizeWithCrc() const {
  uint64_t p = getPayload().calcSize();
  if (shouldComputeCrc32()) p += kCrc32ElementSize;
  return p;
}

uint64_t IElement::calcSize() const {
  if (!mustSave()) return 0;
  return calcSizeAlways();
}

uint64_t IElement::calcSizeAlways() const {
  const uint64_t p = payloadSizeWithCrc();
  uint64_t total = uintNumBytes(getId()) + vsizeNumBytes(p) + p;
  for (const auto& v : getPayload().voids()) total += v.calcSize();
  return total + getPayload().calcOpaqueSize(false);
}

ReceiptPtr IElement::save(IStorage& storage, uint64_t sizeBytes) const {
  if (fixedSize_ != 0) return savePaddedUpToSize(storage, fixedSize_);
  if (!mustSave()) return storage.receipt();
  return saveUnchecked(storage, sizeBytes);
}

ReceiptPtr IElement::saveAlways(IStorage& storage) const {
  if (fixedSize_ != 0) return savePaddedUpToSize(storage, fixedSize_);
  return saveUnchecked(storage, 0);
}

ReceiptPtr IElement::saveUnchecked(IStorage& storage, uint64_t sizeBytes) const {
  ReceiptPtr r = saveId(storage, getId());
  receipt_ = r;
  payloadOffset_ = crc32Offset_ = kUndefinedOffset;
  if (!r) return r;
  const uint64_t p = payloadSizeWithCrc();
  unsigned width = static_cast<unsigned>(sizeBytes == 0 ? vsizeNumBytes(p) : std::min<uint64_t>(sizeBytes, 8));
  ReceiptPtr sizeReceipt = saveSize(storage, p, width);
  if (!sizeReceipt) return sizeReceipt;
  *r += sizeReceipt;
  payloadOffset_ = storage.receipt()->position() - r->position();
  if (shouldComputeCrc32()) {
    const unsigned char placeholder[kCrc32ElementSize] = {0xBF, 0x84, 0, 0, 0, 0};
    ReceiptPtr crc = storage.save(placeholder, kCrc32ElementSize);
    if (!crc) return crc;
    *r += crc;
    crc32Offset_ = crc->position() - r->position();
  }
  ReceiptPtr payload = getPayload().save(storage);
  if (!payload) return payload;
  *r += payload;
  const uint64_t written = r->numBytes() - payloadOffset_;
  if (written < p) {
    // The payload came out shorter than computed: the size field states what was written.
    unsigned char buffer[8];
    vsizeEncode(written, buffer, width);
    sizeReceipt->save(buffer, width);
  }
  for (const auto& v : getPayload().voids()) {
    ReceiptPtr vr = v.save(storage, 0);
    if (!vr) return vr;
    *r += vr;
  }
  if (!getPayload().saveOpaques(storage, false, r)) return ReceiptPtr();
  return r;
}

ReceiptPtr IElement::savePaddedUpToSize(IStorage& storage, uint64_t total) const {
  const bool unknown = total == uintMax[8];
  const unsigned idBytes = uintNumBytes(getId());
  const uint64_t p = getPayload().calcSize();
  const unsigned sizeBytes = vsizeNumBytes(p);
  const uint64_t header = idBytes + sizeBytes;
  if (!unknown && total != header + p && header + p + 2 > total) return ReceiptPtr();
  ReceiptPtr r = saveId(storage, getId());
  receipt_ = r;
  payloadOffset_ = crc32Offset_ = kUndefinedOffset;
  if (!r) return r;
  ReceiptPtr sizeReceipt = unknown ? saveSize(storage, vsizeUnknown[8], 8) : saveSize(storage, p, sizeBytes);
  if (!sizeReceipt) return sizeReceipt;
  *r += sizeReceipt;
  payloadOffset_ = storage.receipt()->position() - r->position();
  ReceiptPtr payload = getPayload().save(storage);
  if (!payload) return payload;
  *r += payload;
  if (unknown) return r;
  const uint64_t n = payload->numBytes();
  if (n < p) {
    unsigned char buffer[8];
    vsizeEncode(n, buffer, sizeBytes);
    sizeReceipt->save(buffer, sizeBytes);
  }
  const uint64_t rest = total - header - n;
  if (rest > 1) {
    // With 1 byte left no Void fits; the element then ends one byte short, as intended.
    VoidElement filler;
    const uint64_t v = rest - uintNumBytes(kIdVoid);
    const unsigned w = vsizeNumBytes(v);
    filler->set(v - w);
    ReceiptPtr vr = filler.save(storage, w);
    if (!vr) return vr;
    *r += vr;
  }
  return r;
}

uint64_t IElement::load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) {
  if (bytesToRead == 0 || t_load.depth >= kMaxLoadDepth) return 0;
  File& file = storage.file();
  ReceiptPtr start = storage.receipt();
  File::Seek guard(file);
  if (loadEbmlId(storage) != getId()) return 0;
  unsigned sizeBytes = 0;
  uint64_t size = vsizeDecode(storage, sizeBytes);
  if (sizeBytes == 0) return 0;
  const uint64_t headerBytes = file.absolutePosition() - start->position();
  if (headerBytes > bytesToRead) return 0;
  const bool unknown = size == ~0ull;
  // Only masters may leave their size open.
  if (unknown && !getPayload().isComposite()) return 0;
  if (!chargeLoad(*this, storage)) return 0;
  // A size running past its parent or the file is cut to what is there; an open one too.
  const uint64_t payloadStart = file.absolutePosition();
  const uint64_t inParent = bytesToRead - headerBytes, inFile = remainingInFile(storage);
  if (!unknown && size > inFile && inFile <= inParent)
    LoadScope::noteDamage(payloadStart + inFile, size > ~0ull - payloadStart ? ~0ull : payloadStart + size);
  else if (!unknown && size > inParent)
    LoadScope::noteDamage(start->position(), payloadStart + inParent);  // the element overruns its parent
  size = std::min({size, inParent, inFile});
  guard.doNotRestore();
  receipt_ = start;
  receipt_->add(headerBytes);
  flags_ &= ~static_cast<uint32_t>(kComputeCrc32);
  checksum_ = 0;
  crc32Found_ = kCrc32None;
  payloadOffset_ = storage.receipt()->position() - receipt_->position();
  crc32Offset_ = kUndefinedOffset;

  IPayload& payload = getPayload();
  uint64_t remaining = size;
  uint64_t consumed = 0;
  // One level deeper while the payload loads; the last child of the level starts empty.
  struct Level {
    Level() { t_load.last[++t_load.depth] = nullptr; }
    ~Level() { --t_load.depth; }
  } level;
  while (remaining > 0) {
    uint64_t pass = 0;
    bool loadedPayload = false;
    if (delegate) {
      const uint64_t n = delegate->load(storage, remaining, getId(), payload);
      if (n == ~0ull) {
        guard.doRestore();
        guard.restorePosition();
        receipt_ = ReceiptPtr();
        delegate->loaded(*this);
        return 0;
      }
      pass = n;
    }
    if (pass == 0) pass = payload.load(storage, unknown ? kOpenEnded + remaining : remaining, delegate);
    loadedPayload = pass > 0;
    pass = std::min(pass, remaining);
    remaining -= pass;
    if (remaining > 0) {
      const uint64_t voidPos = file.absolutePosition();
      VoidElement v;
      const uint64_t nv = v.load(storage, remaining, nullptr);
      if (nv > 0) {
        IPayload* owner = &payload;
        if (loadedPayload && payload.isComposite()) {
          FindElement finder(voidPos);
          payload.eval(finder);
          if (finder.found()) owner = &finder.found()->getPayload();
        }
        owner->voids().push_back(v);
        pass += nv;
        remaining -= std::min(nv, remaining);
      }
    }
    if (remaining > 0) {
      const uint64_t nc = loadCrc32(storage, remaining);
      pass += nc;
      remaining -= std::min(nc, remaining);
    }
    consumed += pass;
    if (pass == 0) break;
  }
  if (consumed < size && !unknown) {
    // What the payload could not read is passed over, and noted as damage.
    LoadScope::noteDamage(payloadStart + consumed, payloadStart + size);
    file.seek(static_cast<int64_t>(payloadStart + size), File::kAbsolutePosition);
    consumed = size;
  }
  receipt_->add(consumed);
  if (crc32Offset_ != kUndefinedOffset) {
    Crc32 crc;
    ReceiptPtr pr = payloadReceipt();
    ReceiptPtr cr = crc32Receipt();
    crc32Found_ = kCrc32Mismatch;
    if (pr && pr->calcCrc32(crc, cr)) {
      const uint32_t sum = crc.checksum();
      if (sum == checksum_)
        crc32Found_ = kCrc32FoundBigEndian;
      else if (__builtin_bswap32(sum) == checksum_)
        crc32Found_ = kCrc32FoundLittleEndian;
    }
  }
  // A lossless load writes back what the file holds, explicit default values included.
  if (t_load.keepUnknown) flags_ |= kAlwaysSave;
  if (delegate && receipt_->numBytes() > 0) delegate->loaded(*this);
  return receipt_->numBytes();
}

uint64_t IElement::loadCrc32(FileStorage& storage, uint64_t bytesToRead) {
  if (bytesToRead < kCrc32ElementSize || crc32Offset_ != kUndefinedOffset || !receipt_) return 0;
  File::Seek guard(storage.file());
  ReceiptPtr start = storage.receipt();
  if (loadEbmlId(storage) != kIdCrc32) return 0;
  unsigned n = 0;
  if (vsizeDecode(storage, n) != 4 || n == 0) return 0;
  unsigned char value[4];
  if (!storage.load(value, 4)) return 0;
  guard.doNotRestore();
  flags_ |= kComputeCrc32;
  checksum_ = static_cast<uint32_t>(uintDecode(value, 4));
  crc32Offset_ = start->position() - receipt_->position();
  return storage.file().absolutePosition() - start->position();
}

ReceiptPtr IElement::storageReceipt() const { return receipt_; }

ReceiptPtr IElement::payloadReceipt() const {
  if (payloadOffset_ == kUndefinedOffset || !receipt_ || payloadOffset_ > receipt_->numBytes()) return ReceiptPtr();
  return receipt_->receipt(payloadOffset_, receipt_->numBytes() - payloadOffset_);
}

ReceiptPtr IElement::crc32Receipt() const {
  if (crc32Offset_ == kUndefinedOffset || !receipt_) return ReceiptPtr();
  return receipt_->receipt(crc32Offset_, kCrc32ElementSize);
}

void IElement::discardReceipts() {
  receipt_ = ReceiptPtr();
  payloadOffset_ = crc32Offset_ = kUndefinedOffset;
}

// ---------------------------------------------------------------- EbmlMaster

namespace {

template <class Fn>
class LambdaVisitor : public ChildVisitor {
 public:
  explicit LambdaVisitor(Fn fn) : fn_(fn) {}
  bool visit(IElement& e) override { return fn_(&e, nullptr, nullptr); }
  bool visit(IEltList& l) override { return fn_(nullptr, &l, nullptr); }
  bool visit(MixedElements& m) override { return fn_(nullptr, nullptr, &m); }

 private:
  Fn fn_;
};

template <class Fn>
bool visitChildrenWith(const EbmlMaster& master, Fn fn) {
  LambdaVisitor<Fn> v(fn);
  return master.visitChildren(v);
}

}  // namespace

bool EbmlMaster::eval(IElementCrawler& crawler) { return eltsEval(*this, crawler); }

bool eltsEval(EbmlMaster& master, IElementCrawler& crawler) {
  return visitChildrenWith(master, [&](IElement* e, IEltList* l, MixedElements* m) {
    if (e) return crawler.eval(*e);
    if (l) return l->forEach([&](IElement& item) { return crawler.eval(item); });
    return m->eval(crawler);
  });
}

bool EbmlMaster::isDefault() const {
  // A master is default when no child needs saving: the visit stops at the first that does.
  return !visitChildrenWith(*this, [](IElement* e, IEltList* l, MixedElements* m) {
    if (e) return e->mustSave();
    if (l) return l->count() > 0;
    return m->mustSave();
  });
}

uint64_t EbmlMaster::calcSize() const { return eltsCalcSize(*this); }

uint64_t eltsCalcSize(const EbmlMaster& master) {
  uint64_t total = master.calcOpaqueSize(true);
  visitChildrenWith(master, [&](IElement* e, IEltList* l, MixedElements* m) {
    if (e)
      total += e->calcSize();
    else if (l)
      l->forEach([&](IElement& item) {
        total += item.calcSizeAlways();
        return false;
      });
    else
      total += m->calcSize();
    return false;
  });
  return total;
}

ReceiptPtr EbmlMaster::save(IStorage& storage) const {
  ReceiptPtr result = storage.receipt();
  if (!result || !saveOpaques(storage, true, result)) return ReceiptPtr();
  const bool failed = visitChildrenWith(*this, [&](IElement* e, IEltList* l, MixedElements* m) {
    if (e) {
      ReceiptPtr r = e->save(storage, 0);
      if (!r) return true;
      *result += r;
      return false;
    }
    if (l)
      return l->forEach([&](IElement& item) {
        ReceiptPtr r = item.saveAlways(storage);
        if (!r) return true;
        *result += r;
        return false;
      });
    ReceiptPtr r = m->save(storage);
    if (!r) return true;
    *result += r;
    return false;
  });
  return failed ? ReceiptPtr() : result;
}

bool EbmlMaster::hasChild(uint64_t id) const {
  return visitChildrenWith(*this, [&](IElement* e, IEltList* l, MixedElements* m) {
    if (e) return e->getId() == id;
    if (l) return l->id() == id;
    return m->knows(id);
  });
}

uint64_t EbmlMaster::load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) {
  return eltsLoad(*this, storage, bytesToRead, delegate);
}

namespace {

// Loads the child with this ID into its member, list or mixed list: the element (null when none loaded)
// and the bytes it took.
IElement* loadChild(EbmlMaster& master, uint64_t id, FileStorage& storage, uint64_t left, IDelegateLoad* delegate,
                    uint64_t& n) {
  IElement* loaded = nullptr;
  n = 0;
  visitChildrenWith(master, [&](IElement* e, IEltList* l, MixedElements* m) {
    if (e && e->getId() == id) {
      n = e->load(storage, left, delegate);
      if (n > 0) loaded = e;
      return true;
    }
    if (l && l->id() == id) {
      IElement& item = l->appendNew();
      n = item.load(storage, left, delegate);
      if (n > 0)
        loaded = &item;
      else
        l->removeLast();
      return true;
    }
    if (m && m->knows(id)) {
      IElement* item = nullptr;
      n = m->loadOneElement(item, storage, left, delegate);
      if (item && m->adopt(item)) loaded = item;
      return true;
    }
    return false;
  });
  if (!loaded) n = 0;
  return loaded;
}

uint64_t keepOpaque(EbmlMaster& master, FileStorage& storage, uint64_t left);

}  // namespace

uint64_t eltsLoad(EbmlMaster& master, FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) {
  File& file = storage.file();
  uint64_t consumed = 0;
  // An open-ended payload ends at the first element that cannot be one of its children.
  const bool openEnded = bytesToRead >= kOpenEnded;
  if (openEnded) bytesToRead -= kOpenEnded;
  while (consumed < bytesToRead) {
    const uint64_t here = file.absolutePosition();
    if (here >= file.size()) break;
    uint64_t id;
    {
      File::Seek guard(file);
      id = loadEbmlId(storage);
    }
    const uint64_t left = bytesToRead - consumed;
    uint64_t n = 0;
    if (IElement* loaded = id ? loadChild(master, id, storage, left, delegate, n) : nullptr) {
      t_load.last[t_load.depth] = loaded;
      consumed += n;
      continue;
    }
    if (id == kIdVoid || id == kIdCrc32) break;  // the element's own business
    if (id != 0 && master.hasChild(id)) {
      // A child that cannot be read (too deep, too large, malformed) is passed over by its size.
      n = skipElement(storage, left);
      if (n > 0) LoadScope::noteDamage(here, here + n);
    } else if (id != 0 && openEnded) {
      break;  // the next element after this one
    } else if (id != 0) {
      n = t_load.keepUnknown ? keepOpaque(master, storage, left) : skipElement(storage, left);
    }
    if (n == 0) {
      const uint64_t next = master.resyncAfterDamage(storage, here, here + left);
      if (next <= here) break;
      LoadScope::noteDamage(here, next);
      file.seek(static_cast<int64_t>(next), File::kAbsolutePosition);
      n = next - here;
    }
    consumed += n;
  }
  return consumed;
}

namespace {

uint64_t keepOpaque(EbmlMaster& master, FileStorage& storage, uint64_t left) {
  OpaqueElement opaque;
  const uint64_t n = opaque.load(storage, left, nullptr);
  if (n == 0) return 0;
  // In its place: after the child loaded before it, or first in the master.
  IElement* before = t_load.last[t_load.depth];
  if (before)
    before->getPayload().addOpaque(opaque, false);
  else
    master.addOpaque(opaque, true);
  return n;
}

}  // namespace

uint64_t EbmlMaster::resyncAfterDamage(FileStorage&, uint64_t, uint64_t) { return 0; }

void eltsSetCrc32(EbmlMaster& master, bool enable) {
  visitChildrenWith(master, [&](IElement* e, IEltList* l, MixedElements*) {
    if (e) e->setCrc32(enable);
    if (l)
      l->forEach([&](IElement& item) {
        item.setCrc32(enable);
        return false;
      });
    return false;
  });
}

bool FindElement::eval(IElement& element) {
  ReceiptPtr r = element.storageReceipt();
  if (r && r->position() + r->numBytes() == end_) {
    found_ = &element;
    return true;
  }
  return false;
}

// ---------------------------------------------------------------- MixedElements

MixedElements::MixedElements(const MixedElements& other) { *this = other; }

MixedElements& MixedElements::operator=(const MixedElements& other) {
  if (this == &other) return *this;
  clear();
  creators_ = other.creators_;
  copiers_ = other.copiers_;
  for (const IElement* e : other.elements_) {
    for (auto& c : copiers_) {
      if (c.first != e->getId()) continue;
      if (IElement* copy = c.second(e)) {
        elements_.push_back(copy);
        ++count_;
      }
      break;
    }
  }
  return *this;
}

MixedElements::~MixedElements() { clear(); }

bool MixedElements::knows(uint64_t id) const {
  for (auto& c : creators_)
    if (c.first == id) return true;
  return false;
}

bool MixedElements::push_back(const IElement& element) {
  for (auto& c : copiers_) {
    if (c.first != element.getId()) continue;
    IElement* copy = c.second(&element);
    if (!copy) return false;
    elements_.push_back(copy);
    ++count_;
    return true;
  }
  return false;
}

bool MixedElements::adopt(IElement* element) {
  if (element == nullptr || !knows(element->getId())) {
    delete element;
    return false;
  }
  elements_.push_back(element);
  ++count_;
  return true;
}

uint64_t MixedElements::loadOneElement(IElement*& element, FileStorage& storage, uint64_t bytesToRead,
                                       IDelegateLoad* delegate) {
  element = nullptr;
  if (bytesToRead == 0) return 0;
  uint64_t id;
  {
    File::Seek guard(storage.file());
    id = loadEbmlId(storage);
  }
  CreateFn create = nullptr;
  for (auto& c : creators_)
    if (c.first == id) create = c.second;
  if (!create) return 0;
  IElement* e = create();
  const uint64_t n = e->load(storage, bytesToRead, delegate);
  if (n == 0) {
    delete e;
    return 0;
  }
  element = e;
  return n;
}

uint64_t MixedElements::load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) {
  uint64_t total = 0;
  while (bytesToRead > 0) {
    IElement* e = nullptr;
    const uint64_t n = loadOneElement(e, storage, bytesToRead, delegate);
    if (n == 0) break;
    elements_.push_back(e);
    ++count_;
    total += n;
    bytesToRead -= std::min(n, bytesToRead);
  }
  return total;
}

void MixedElements::clear() {
  for (IElement* e : elements_) delete e;
  elements_.clear();
  count_ = 0;
}

bool MixedElements::eval(IElementCrawler& crawler) {
  for (IElement* e : elements_)
    if (crawler.eval(*e)) return true;
  return false;
}

bool MixedElements::mustSave() const {
  for (const IElement* e : elements_)
    if (e->mustSave()) return true;
  return false;
}

uint64_t MixedElements::calcSize() const {
  uint64_t total = 0;
  for (const IElement* e : elements_) total += e->calcSize();
  return total;
}

ReceiptPtr MixedElements::save(IStorage& storage) const {
  ReceiptPtr result = storage.receipt();
  if (!result) return result;
  for (const IElement* e : elements_) {
    ReceiptPtr r = e->save(storage, 0);
    if (!r) return r;
    *result += r;
  }
  return result;
}

}  // namespace Kapsel
