#include "kapsel/cluster.h"

namespace Kapsel {

Cluster::Cluster() {
  timecode_.alwaysSave();
  blocks_.addType<BlockGroupElt>();
  blocks_.addType<SimpleBlockElt>();
  blocks_.addType<EncryptedBlockElt>();
}

bool Cluster::isDefault() const {
  if (silentTracks_.mustSave() || position_.mustSave() || prevSize_.mustSave()) return false;
  return !blocks_.mustSave();
}

void SeekHead::indexThis(const IElement* origin, const IElement* element) {
  if (element == nullptr) return;
  SeekElt& e = entries_.add();
  e->id_->set(element->getId());
  e->position_->setOrigin(origin);
  e->position_->setElt(element);
}

void SeekHead::indexThis(uint64_t eltId, uint64_t position) {
  SeekElt& e = entries_.add();
  e->id_->set(eltId);
  e->position_->setPosition(position);
}

SeekHead::SeekElt* SeekHead::findFirst(uint64_t eltId) {
  for (auto& e : entries_)
    if (e->id_->get() == eltId) return &e;
  return nullptr;
}

SeekHead::SeekElt* SeekHead::findIndex(const IElement* element) {
  for (auto& e : entries_)
    if (e->position_->getElt() == element) return &e;
  return nullptr;
}

}  // namespace Kapsel
