#include "kapsel/segment.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <cstring>
#include <vector>
#include <map>

#include "kapsel/payload.h"

namespace Kapsel {

namespace {

bool append(ReceiptPtr& result, const ReceiptPtr& part) {
  if (!part) return false;
  *result += part;
  return true;
}

template <class List>
bool appendAll(ReceiptPtr& result, const List& list, IStorage& storage, size_t skip = 0) {
  size_t i = 0;
  for (const auto& e : list)
    if (i++ >= skip && !append(result, e.saveAlways(storage))) return false;
  return true;
}

}  // namespace

bool Segment::isDefault() const {
  if (info_.mustSave() || tracks_.mustSave() || cues_.mustSave() || attachments_.mustSave() || chapters_.mustSave())
    return false;
  return clusters_.empty();
}

ReceiptPtr Segment::save(IStorage& storage) const {
  if (delegateSave_) return delegateSave_->save(*this, storage);
  ReceiptPtr result = storage.receipt();
  if (!result) return result;
  const bool ok = saveOpaques(storage, true, result) && (seekHeads_.empty() || append(result, seekHeads_.front().saveAlways(storage))) &&
                  append(result, info_.save(storage)) && append(result, tracks_.save(storage)) &&
                  append(result, cues_.save(storage)) && append(result, chapters_.save(storage)) &&
                  append(result, attachments_.save(storage)) && appendAll(result, clusters_, storage) &&
                  appendAll(result, tags_, storage) && appendAll(result, seekHeads_, storage, 1);
  return ok ? result : ReceiptPtr();
}

ReceiptPtr WebmSegmentSaver::save(const Segment& s, IStorage& storage) {
  ReceiptPtr result = storage.receipt();
  if (!result) return result;
  const bool ok = s.saveOpaques(storage, true, result) && (s.seekHeads_.empty() || append(result, s.seekHeads_.front().saveAlways(storage))) &&
                  append(result, s.info_.save(storage)) && append(result, s.tracks_.save(storage)) &&
                  append(result, s.chapters_.save(storage)) && append(result, s.cues_.save(storage)) &&
                  append(result, s.attachments_.save(storage)) && appendAll(result, s.tags_, storage) &&
                  appendAll(result, s.clusters_, storage) && appendAll(result, s.seekHeads_, storage, 1);
  return ok ? result : ReceiptPtr();
}

uint64_t Segment::resyncAfterDamage(FileStorage& storage, uint64_t from, uint64_t limit) {
  File& file = storage.file();
  limit = std::min(limit, file.size());
  File::Seek guard(file);
  static const unsigned char kCluster[4] = {0x1F, 0x43, 0xB6, 0x75};
  std::vector<unsigned char> buffer(1 << 16);
  // Windows overlap by three bytes so that an ID across two windows is still seen.
  for (uint64_t pos = from + 1; pos + 4 <= limit; pos += buffer.size() - 3) {
    if (!file.seek(static_cast<int64_t>(pos), File::kAbsolutePosition)) return 0;
    const unsigned long got = file.peek(buffer.data(), static_cast<unsigned long>(
                                                           std::min<uint64_t>(buffer.size(), limit - pos)));
    if (got < 4) return 0;
    for (unsigned long i = 0; i + 4 <= got; ++i) {
      if (std::memcmp(&buffer[i], kCluster, 4) != 0) continue;
      const uint64_t at = pos + i;
      file.seek(static_cast<int64_t>(at + 4), File::kAbsolutePosition);
      unsigned sizeBytes = 0;
      const uint64_t size = vsizeDecode(storage, sizeBytes);
      if (sizeBytes == 0) continue;
      const uint64_t payload = at + 4 + sizeBytes;
      if (size == ~0ull || (payload <= limit && size <= limit - payload)) return at;
    }
    if (got < buffer.size()) return 0;
  }
  return 0;
}

void Segment::setCrc32(bool enable) {
  info_.setCrc32(enable);
  tracks_.setCrc32(enable);
  chapters_.setCrc32(enable);
  cues_.setCrc32(enable);
  attachments_.setCrc32(enable);
  for (auto& e : seekHeads_) e.setCrc32(enable);
  for (auto& e : clusters_) e.setCrc32(enable);
  for (auto& e : tags_) e.setCrc32(enable);
}

IElement* Segment::eltsFind(uint64_t position) {
  IElement* found = nullptr;
  auto check = [&](IElement& e) {
    ReceiptPtr r = e.storageReceipt();
    if (r && r->position() == position) {
      found = &e;
      return true;
    }
    return false;
  };
  if (check(info_) || check(tracks_) || check(cues_) || check(attachments_) || check(chapters_)) return found;
  for (auto& e : seekHeads_)
    if (check(e)) return found;
  for (auto& e : tags_)
    if (check(e)) return found;
  for (auto& e : clusters_)
    if (check(e)) return found;
  return nullptr;
}

void Segment::resolveReferences(const IElement& origin) {
  ReceiptPtr payload = origin.payloadReceipt();
  if (!payload) return;
  const uint64_t base = payload->position();
  // One pass over the top-level members, then one lookup per reference.
  std::map<uint64_t, IElement*> byPosition;
  auto note = [&](IElement& e) {
    ReceiptPtr r = e.storageReceipt();
    if (r) byPosition.emplace(r->position(), &e);
  };
  note(info_);
  note(tracks_);
  note(cues_);
  note(attachments_);
  note(chapters_);
  for (auto& e : seekHeads_) note(e);
  for (auto& e : tags_) note(e);
  for (auto& e : clusters_) note(e);
  auto resolve = [&](VEltPosition& ref) {
    if (!ref.hasPosition() || ref.getElt()) return;
    auto it = byPosition.find(base + ref.position());
    if (it == byPosition.end()) return;
    ref.setOrigin(&origin);
    ref.setElt(it->second);
  };
  for (auto& head : seekHeads_)
    for (auto& entry : head->entries_) resolve(*entry->position_);
  for (auto& point : cues_->points_)
    for (auto& pos : point->positions_) {
      resolve(*pos->clusterPosition_);
      for (auto& ref : pos->references_) resolve(*ref->cluster_);
    }
  for (auto& cluster : clusters_) resolve(*cluster->position_);
}

namespace {

template <class List, class Pred>
void eraseIf(List& list, Pred pred) {
  for (auto it = list.items.begin(); it != list.items.end();) it = pred(*it) ? list.items.erase(it) : std::next(it);
}

}  // namespace

void Segment::dropDanglingReferences() {
  // Also a reference to a single member that will not be written, or a seek entry naming another ID.
  const IElement* singles[] = {&info_, &tracks_, &cues_, &attachments_, &chapters_};
  auto unsaved = [&](const IElement* e) {
    return e && std::find(std::begin(singles), std::end(singles), e) != std::end(singles) && !e->mustSave();
  };
  for (auto& head : seekHeads_)
    eraseIf(head->entries_, [&](auto& e) {
      const IElement* target = e->position_->getElt();
      return e->position_->isDangling() || unsaved(target) || (target && target->getId() != e->id_->get());
    });
  eraseIf(cues_->points_, [](auto& point) {
    eraseIf(point->positions_, [](auto& pos) {
      eraseIf(pos->references_, [](auto& ref) { return ref->cluster_->isDangling(); });
      return pos->clusterPosition_->isDangling();
    });
    return point->positions_.empty();
  });
  for (auto& cluster : clusters_)
    if (cluster->position_->isDangling()) {
      cluster->position_->setPosition(uintMax[8]);
      cluster->position_.clearAlwaysSave();
    }
}

bool Segment::followSeekHeads(FileStorage& storage, const IElement& origin) {
  bool result = true;
  ReceiptPtr payload = origin.payloadReceipt();
  // The queue may grow while it is walked; indices stay valid in a deque.
  for (size_t h = 0; h < seekHeads_.size(); ++h) {
    std::vector<SeekHead::SeekElt*> chained;
    for (auto& entry : seekHeads_[h]->entries_)
      if (entry->id_->get() == SeekHeadElt::kId) chained.push_back(&entry);
    for (SeekHead::SeekElt* entry : chained) {
      VEltPosition& ref = *(*entry)->position_;
      if (ref.getElt()) continue;
      if (!ref.hasPosition() || !payload) {
        result = false;
        continue;
      }
      const uint64_t offset = payload->position() + ref.position();
      bool known = false;
      for (auto& head : seekHeads_) {
        ReceiptPtr r = head.storageReceipt();
        if (r && r->position() == offset) {
          ref.setOrigin(&origin);
          ref.setElt(&head);
          known = true;
          break;
        }
      }
      if (known) continue;
      if (seekHeads_.size() > 64) {  // a loop of seek heads pointing at each other
        result = false;
        continue;
      }
      storage.file().seek(static_cast<int64_t>(offset), File::kAbsolutePosition);
      SeekHeadElt& head = seekHeads_.add();
      const uint64_t remaining = storage.file().size() > offset ? storage.file().size() - offset : 0;
      if (head.load(storage, remaining, nullptr) == 0) {
        seekHeads_.removeLast();
        result = false;
        continue;
      }
      for (auto& e : head->entries_) e->position_->setOrigin(&origin);
      ref.setOrigin(&origin);
      ref.setElt(&head);
    }
  }
  return result;
}

bool Segment::loadViaSeekHead(FileStorage& storage, IDelegateLoad* delegate, bool loadClusters) {
  if (!origin_) return false;
  const IElement& origin = *origin_;
  for (auto& head : seekHeads_)
    for (auto& entry : head->entries_)
      if (!entry->position_->getOrigin()) entry->position_->setOrigin(&origin);
  bool result = followSeekHeads(storage, origin);
  File& file = storage.file();
  ClusterElt* lastCluster = nullptr;
  // Every position is loaded once, however many entries name it.
  std::map<uint64_t, uint64_t> loaded;  // position -> bytes
  for (auto& head : seekHeads_)
    if (ReceiptPtr r = head.storageReceipt()) loaded.emplace(r->position(), r->numBytes());
  // Elements already read on the way to the first SeekHead are not read a second time.
  for (const IElement* e : {static_cast<const IElement*>(&info_), static_cast<const IElement*>(&tracks_),
                            static_cast<const IElement*>(&cues_), static_cast<const IElement*>(&attachments_),
                            static_cast<const IElement*>(&chapters_)})
    if (ReceiptPtr r = e->storageReceipt()) loaded.emplace(r->position(), r->numBytes());
  for (auto& t : tags_)
    if (ReceiptPtr r = t.storageReceipt()) loaded.emplace(r->position(), r->numBytes());
  for (size_t h = 0; h < seekHeads_.size(); ++h) {
    for (auto& entry : seekHeads_[h]->entries_) {
      const uint64_t id = entry->id_->get();
      if (id == SeekHeadElt::kId) continue;
      VEltPosition& ref = *entry->position_;
      if (id == ClusterElt::kId && !loadClusters) continue;
      ReceiptPtr payload = origin.payloadReceipt();
      if (!ref.hasPosition() || !ref.getOrigin() || !payload) {
        result = false;
        continue;
      }
      const uint64_t offset = payload->position() + ref.position();
      if (offset < ref.position() || offset >= file.size() ||
          !file.seek(static_cast<int64_t>(offset), File::kAbsolutePosition)) {
        result = false;
        continue;
      }
      if (!loaded.emplace(offset, 0).second) continue;
      const uint64_t remaining = file.size() - offset;
      uint64_t n = 0;
      switch (id) {
        case SegInfoElt::kId: n = info_.load(storage, remaining, delegate); break;
        case TracksElt::kId: n = tracks_.load(storage, remaining, delegate); break;
        case CuesElt::kId: n = cues_.load(storage, remaining, delegate); break;
        case AttachmentsElt::kId: n = attachments_.load(storage, remaining, delegate); break;
        case ChaptersElt::kId: n = chapters_.load(storage, remaining, delegate); break;
        case TagsElt::kId: {
          TagsElt& t = tags_.add();
          n = t.load(storage, remaining, delegate);
          if (n == 0) tags_.removeLast();
          break;
        }
        case ClusterElt::kId: {
          ClusterElt& c = clusters_.add();
          n = c.load(storage, remaining, delegate);
          if (n == 0)
            clusters_.removeLast();
          else
            lastCluster = &c;
          break;
        }
        default: break;
      }
      if (n == 0) result = false;
      loaded[offset] = n;
    }
  }
  if (loadClusters && lastCluster) {
    // A seek head that names only the first cluster still yields every cluster after it.
    ReceiptPtr r = lastCluster->storageReceipt();
    file.seek(static_cast<int64_t>(r->position() + r->numBytes()), File::kAbsolutePosition);
    while (file.absolutePosition() < file.size()) {
      const uint64_t at = file.absolutePosition();
      auto known = loaded.find(at);
      if (known != loaded.end()) {
        // Named by the seek head too: already loaded, pass over it.
        if (known->second == 0 || !file.seek(static_cast<int64_t>(at + known->second), File::kAbsolutePosition)) break;
        continue;
      }
      ClusterElt& c = clusters_.add();
      const uint64_t n = c.load(storage, ~0ull, delegate);
      if (n == 0) {
        clusters_.removeLast();
        break;
      }
      loaded.emplace(at, n);
    }
  }
  return result;
}

uint64_t SeekHeadReader::load(FileStorage& storage, uint64_t bytesToRead, uint64_t eltId, IPayload& payload) {
  File& file = storage.file();
  const uint64_t inFile = file.size() > file.absolutePosition() ? file.size() - file.absolutePosition() : 0;
  if (done) {
    const uint64_t n = std::min(bytesToRead, inFile);
    file.seek(static_cast<int64_t>(n), File::kRelativeToCurrent);
    return n;
  }
  if (eltId != Segment::kId) return 0;
  Segment* segment = dynamic_cast<Segment*>(&payload);
  if (!segment) return 0;
  uint64_t consumed = 0;
  const uint64_t limit = std::min(bytesToRead, inFile);
  while (consumed < limit) {
    SeekHeadElt& head = segment->seekHeads_.add();
    uint64_t n = head.load(storage, limit - consumed, nullptr);
    if (n == 0) {
      segment->seekHeads_.removeLast();
      IPayload::VoidElt v;
      n = v.load(storage, limit - consumed, nullptr);
      if (n == 0) break;
    }
    consumed += n;
  }
  if (!segment->seekHeads_.empty()) done = true;
  return segment->seekHeads_.empty() ? 0 : consumed;
}

uint64_t LoadWithProgress::load(FileStorage& storage, uint64_t, uint64_t, IPayload&) {
  const double pos = static_cast<double>(storage.file().absolutePosition());
  std::printf("\r%3.6f%%  ", fileSize ? 100.0 * pos / static_cast<double>(fileSize) : 100.0);
  std::fflush(stdout);
  return 0;
}

void LoadWithProgress::loaded(IElement& element) {
  if (element.getId() == 0x5854) element.alwaysSave();
}

}  // namespace Kapsel
