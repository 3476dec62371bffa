#pragma once
// Payloads, elements, master elements and tree walks.

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kapsel/ebml.h"
#include "kapsel/file.h"
#include "kapsel/hodgepodge.h"
#include "kapsel/storage.h"

namespace Kapsel {

class IElement;
class IElementCrawler;
class IDelegateLoad;
class VVoid;
class OpaqueElement;
struct OpaqueChildren;
template <class Payload, uint64_t Id, class EltName>
class TElt;

// Declares the tag class that names a child element: KAPSEL_ELT_NAME(0x4DBB, "Seek").
#define KAPSEL_ELT_NAME(ID, TEXT) \
  struct EltName##ID {            \
    static const char* text() { return TEXT; } \
  }

class IPayload {
 public:
  KAPSEL_ELT_NAME(kIdVoid, "Void");
  using VoidElt = TElt<VVoid, 0xEC, EltNamekIdVoid>;
  using VoidList = std::list<VoidElt>;

  IPayload();
  IPayload(const IPayload& other);
  IPayload& operator=(const IPayload& other);
  virtual ~IPayload();
  virtual bool eval(IElementCrawler& crawler);
  virtual bool isDefault() const = 0;
  virtual uint64_t calcSize() const = 0;
  virtual ReceiptPtr save(IStorage& storage) const = 0;
  virtual uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) = 0;
  virtual bool isComposite() const { return false; }
  virtual void addVoid(uint64_t payloadSize);
  virtual bool hasVoid() const;

  VoidList& voids() { return voids_; }
  const VoidList& voids() const { return voids_; }
  void clearVoids();

  // Elements the tables do not know, kept when a load asks for it. Trailing ones follow this payload's
  // element inside its parent; leading ones come first inside this (master) payload.
  void addOpaque(const OpaqueElement& element, bool leading);
  bool hasOpaque() const;
  const std::list<OpaqueElement>* opaques(bool leading) const;
  uint64_t calcOpaqueSize(bool leading) const;
  bool saveOpaques(IStorage& storage, bool leading, ReceiptPtr& result) const;

 private:
  VoidList voids_;
  std::unique_ptr<OpaqueChildren> opaques_;
};

class IDelegateLoad {
 public:
  virtual ~IDelegateLoad() = default;
  // Bytes consumed; 0 to load the payload normally; all ones to abandon the element.
  virtual uint64_t load(FileStorage& storage, uint64_t bytesToRead, uint64_t eltId, IPayload& payload) = 0;
  virtual void loaded(IElement&) {}
};

// A stretch of the input that could not be read; `end` lies past the end of the file when an element
// claims to run past it.
struct TByteRange {
  uint64_t begin;
  uint64_t end;
  bool operator==(const TByteRange& o) const { return begin == o.begin && end == o.end; }
};

// How a loaded CRC-32 value matched its element: RFC 8794 stores it least significant byte first.
enum TCrc32Order : int { kCrc32BigEndian = 0, kCrc32LittleEndian = 1 };
enum TCrc32Found : int { kCrc32None = 0, kCrc32FoundBigEndian, kCrc32FoundLittleEndian, kCrc32Mismatch };

// No real file nests deeper; a deeper element fails to load and is passed over.
constexpr unsigned kMaxLoadDepth = 64;

// Settings for the loads made on this thread while it lives: unknown elements kept, damage recorded,
// and element objects bounded by a multiple of the input's size.
class LoadScope {
 public:
  LoadScope(bool keepUnknown, std::vector<TByteRange>* damaged, uint64_t inputSize);
  ~LoadScope();
  LoadScope(const LoadScope&) = delete;
  LoadScope& operator=(const LoadScope&) = delete;
  // Bytes of element objects a load may create for an input of this size.
  static uint64_t budgetFor(uint64_t inputSize);
  // Notes a damaged range in the scope that is recording, if any.
  static void noteDamage(uint64_t begin, uint64_t end);

 private:
  struct Saved;
  std::unique_ptr<Saved> saved_;
};

class IElement {
 public:
  static constexpr uint64_t kUndefinedOffset = ~0ull;
  enum Flags : uint32_t { kAlwaysSave = 1, kComputeCrc32 = 2 };

  IElement();
  virtual ~IElement();
  virtual uint64_t getId() const = 0;
  virtual const char* getName() const = 0;
  virtual const IPayload& getPayload() const = 0;
  virtual IPayload& getPayload() = 0;
  virtual bool mustSave() const;
  virtual void alwaysSave();
  virtual void setCrc32(bool enable);
  virtual uint64_t calcSize() const;
  virtual void setFixedSize(uint64_t size);
  virtual ReceiptPtr savePaddedUpToSize(IStorage& storage, uint64_t total) const;
  virtual ReceiptPtr save(IStorage& storage, uint64_t sizeBytes = 0) const;
  virtual uint64_t load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate = nullptr);
  virtual ReceiptPtr storageReceipt() const;
  virtual ReceiptPtr payloadReceipt() const;
  virtual ReceiptPtr crc32Receipt() const;
  virtual void discardReceipts();

  // Undoes alwaysSave(): the element is written only when it differs from its default again.
  void clearAlwaysSave() { flags_ &= ~static_cast<uint32_t>(kAlwaysSave); }
  bool shouldComputeCrc32() const;
  uint64_t loadCrc32(FileStorage& storage, uint64_t bytesToRead);
  uint32_t storedChecksum() const { return checksum_; }
  uint64_t fixedSize() const { return fixedSize_; }
  uint32_t flags() const { return flags_; }
  // Whether the CRC-32 computed on load matched the stored one in either byte order (true when there was none).
  bool crc32Matched() const { return crc32Found_ != kCrc32Mismatch; }
  TCrc32Found crc32Order() const { return crc32Found_; }
  // Bytes an object of this element takes in memory: what a load charges against its budget.
  virtual uint64_t memoryFootprint() const { return sizeof(IElement); }

  // Items of list children are written even when all their children are default.
  uint64_t calcSizeAlways() const;
  ReceiptPtr saveAlways(IStorage& storage) const;

 private:
  uint64_t payloadSizeWithCrc() const;
  ReceiptPtr saveUnchecked(IStorage& storage, uint64_t sizeBytes) const;

  uint32_t flags_;
  uint32_t checksum_;
  mutable ReceiptPtr receipt_;
  mutable uint64_t payloadOffset_;
  mutable uint64_t crc32Offset_;
  uint64_t fixedSize_;
  TCrc32Found crc32Found_ = kCrc32None;
};

template <class Payload, uint64_t Id, class EltName>
class TElt : public IElement {
 public:
  static constexpr uint64_t kId = Id;
  using payload_type = Payload;

  uint64_t getId() const override { return Id; }
  const char* getName() const override { return EltName::text(); }
  const IPayload& getPayload() const override { return payload_; }
  IPayload& getPayload() override { return payload_; }

  Payload& operator*() { return payload_; }
  const Payload& operator*() const { return payload_; }
  Payload* operator->() { return &payload_; }
  const Payload* operator->() const { return &payload_; }

  uint64_t memoryFootprint() const override { return sizeof(TElt); }
  static IElement* create() { return new TElt; }
  static IElement* createCopy(const IElement* e) {
    if (e == nullptr || e->getId() != Id) return nullptr;
    return new TElt(static_cast<const TElt&>(*e));
  }

 private:
  Payload payload_;
};

class IElementCrawler {
 public:
  virtual ~IElementCrawler() = default;
  // true ends the walk
  virtual bool eval(IElement& element) { return evalPayload(element.getPayload()); }
  virtual bool evalPayload(IPayload& payload) { return payload.eval(*this); }
};

// Filler: its payload is a run of zero bytes.
class VVoid : public IPayload {
 public:
  explicit VVoid(uint64_t size = 0) : size_(size) {}
  void set(uint64_t size) { size_ = size; }
  uint64_t get() const { return size_; }
  bool isDefault() const override { return false; }
  uint64_t calcSize() const override { return size_; }
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;

 private:
  uint64_t size_;
};

using VoidElement = IPayload::VoidElt;

// The payload of an element the tables do not know: its bytes, held by receipt.
class VOpaque : public IPayload {
 public:
  bool isDefault() const override { return false; }
  uint64_t calcSize() const override { return data_.numBytes(); }
  ReceiptPtr save(IStorage& storage) const override { return data_.save(storage); }
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;
  const HodgePodge& data() const { return data_; }

 private:
  HodgePodge data_;
};

// An element the tables do not know, written back with its ID, its size field's width and its bytes.
class OpaqueElement : public IElement {
 public:
  explicit OpaqueElement(uint64_t id = 0, unsigned sizeWidth = 0) : id_(id), sizeWidth_(sizeWidth) {}
  uint64_t getId() const override { return id_; }
  const char* getName() const override { return "Unknown"; }
  const IPayload& getPayload() const override { return payload_; }
  IPayload& getPayload() override { return payload_; }
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage, uint64_t sizeBytes = 0) const override;
  uint64_t load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate = nullptr) override;
  uint64_t memoryFootprint() const override { return sizeof(OpaqueElement); }
  const VOpaque& opaque() const { return payload_; }

 private:
  uint64_t id_;
  unsigned sizeWidth_;
  VOpaque payload_;
};

struct OpaqueChildren {
  std::list<OpaqueElement> leading;
  std::list<OpaqueElement> trailing;
};

// A repeated child of a master: an ordered container of elements of one type.
class IEltList {
 public:
  virtual ~IEltList() = default;
  virtual uint64_t id() const = 0;
  virtual size_t count() const = 0;
  virtual bool forEach(const std::function<bool(IElement&)>& fn) = 0;
  virtual IElement& appendNew() = 0;
  virtual void removeLast() = 0;
};

template <class E, template <class...> class C = std::list>
class TEltList : public IEltList {
 public:
  using container_type = C<E>;
  using iterator = typename container_type::iterator;
  using const_iterator = typename container_type::const_iterator;

  uint64_t id() const override { return E::kId; }
  size_t count() const override { return items.size(); }
  bool forEach(const std::function<bool(IElement&)>& fn) override {
    for (auto& e : items)
      if (fn(e)) return true;
    return false;
  }
  IElement& appendNew() override { return items.emplace_back(); }
  void removeLast() override { items.pop_back(); }

  iterator begin() { return items.begin(); }
  iterator end() { return items.end(); }
  const_iterator begin() const { return items.begin(); }
  const_iterator end() const { return items.end(); }
  size_t size() const { return items.size(); }
  bool empty() const { return items.empty(); }
  E& front() { return items.front(); }
  const E& front() const { return items.front(); }
  E& back() { return items.back(); }
  const E& back() const { return items.back(); }
  E& add() { return items.emplace_back(); }
  void push_back(const E& e) { items.push_back(e); }
  void clear() { items.clear(); }
  E& operator[](size_t i) { return *std::next(items.begin(), static_cast<long>(i)); }
  const E& operator[](size_t i) const { return *std::next(items.begin(), static_cast<long>(i)); }

  container_type items;
};

template <class E>
using TEltDeque = TEltList<E, std::deque>;

class MixedElements;

// Visits a master's children in declaration order; true ends the visit.
class ChildVisitor {
 public:
  virtual ~ChildVisitor() = default;
  virtual bool visit(IElement& single) = 0;
  virtual bool visit(IEltList& list) = 0;
  virtual bool visit(MixedElements& mixed) = 0;
};

class EbmlMaster : public IPayload {
 public:
  bool eval(IElementCrawler& crawler) override;
  bool isDefault() const override;
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate) override;
  bool isComposite() const override { return true; }

  virtual bool visitChildren(ChildVisitor& visitor) = 0;
  // Where loading goes on after unreadable bytes at `from` (an absolute position), or 0 to stop there.
  virtual uint64_t resyncAfterDamage(FileStorage& storage, uint64_t from, uint64_t limit);
  bool visitChildren(ChildVisitor& visitor) const { return const_cast<EbmlMaster*>(this)->visitChildren(visitor); }
  // Whether an unknown-size payload ends at an element of this ID.
  bool hasChild(uint64_t id) const;

 protected:
  template <class... C>
  static bool visitAll(ChildVisitor& v, C&... children) {
    return (v.visit(children) || ...);
  }
};

#define KAPSEL_CHILDREN(...) \
  bool visitChildren(::Kapsel::ChildVisitor& v) override { return visitAll(v, __VA_ARGS__); } \
  using ::Kapsel::EbmlMaster::visitChildren

// Generic helpers over a master's children.
uint64_t eltsCalcSize(const EbmlMaster& master);
uint64_t eltsLoad(EbmlMaster& master, FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate);
bool eltsEval(EbmlMaster& master, IElementCrawler& crawler);
void eltsSetCrc32(EbmlMaster& master, bool enable);

// Finds the element (at any depth below the start) whose saved bytes end at a position.
class FindElement : public IElementCrawler {
 public:
  explicit FindElement(uint64_t endPosition) : end_(endPosition) {}
  bool eval(IElement& element) override;
  bool evalPayload(IPayload&) override { return false; }
  IElement* found() const { return found_; }

 private:
  uint64_t end_;
  IElement* found_ = nullptr;
};

class MixedElements {
 public:
  using CreateFn = IElement* (*)();
  using CopyFn = IElement* (*)(const IElement*);

  MixedElements() = default;
  MixedElements(const MixedElements& other);
  MixedElements& operator=(const MixedElements& other);
  ~MixedElements();

  template <class T>
  bool addType() {
    for (auto& e : creators_)
      if (e.first == T::kId) return false;
    creators_.emplace_back(T::kId, &T::create);
    copiers_.emplace_back(T::kId, &T::createCopy);
    return true;
  }
  bool knows(uint64_t id) const;
  bool push_back(const IElement& element);
  // Takes ownership of an element of a registered type.
  bool adopt(IElement* element);
  uint64_t loadOneElement(IElement*& element, FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate);
  uint64_t load(FileStorage& storage, uint64_t bytesToRead, IDelegateLoad* delegate);
  void clear();
  bool eval(IElementCrawler& crawler);
  bool mustSave() const;
  uint64_t calcSize() const;
  ReceiptPtr save(IStorage& storage) const;

  uint32_t count() const { return count_; }
  const std::list<IElement*>& elements() const { return elements_; }

 private:
  std::vector<std::pair<uint64_t, CreateFn>> creators_;
  std::vector<std::pair<uint64_t, CopyFn>> copiers_;
  std::list<IElement*> elements_;
  uint32_t count_ = 0;
};

}  // namespace Kapsel
