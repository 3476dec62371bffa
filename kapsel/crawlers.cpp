#include "kapsel/crawlers.h"

#include <algorithm>

#include "kapsel/block.h"
#include "kapsel/cluster.h"
#include "kapsel/payload.h"

namespace Kapsel {

bool RemoveVoids::evalPayload(IPayload& payload) {
  if (payload.isComposite()) payload.clearVoids();
  return payload.eval(*this);
}

bool writeCrc32(const IElement& element, TCrc32Order order) {
  ReceiptPtr crcReceipt = element.crc32Receipt();
  ReceiptPtr payload = element.payloadReceipt();
  if (!crcReceipt || !payload) return false;
  // Voids and unknown elements kept after the element follow it outside its size: they are not summed.
  uint64_t trailing = 0;
  for (const auto& v : element.getPayload().voids()) {
    ReceiptPtr r = v.storageReceipt();
    if (r) trailing += r->numBytes();
  }
  if (const auto* opaques = element.getPayload().opaques(false))
    for (const auto& o : *opaques)
      if (ReceiptPtr r = o.storageReceipt()) trailing += r->numBytes();
  if (trailing > payload->numBytes()) return false;
  ReceiptPtr covered = payload->receipt(0, payload->numBytes() - trailing);
  Crc32 crc;
  if (!covered || !covered->calcCrc32(crc, crcReceipt)) return false;
  unsigned char bytes[6] = {0xBF, 0, 0, 0, 0, 0};
  vsizeEncode(4, bytes + 1, 1);
  const uint32_t sum = crc.checksum();
  uintEncode(order == kCrc32LittleEndian ? __builtin_bswap32(sum) : sum, bytes + 2, 4);
  return crcReceipt->save(bytes, 6);
}

bool ReplaceCrc32Placeholders::eval(IElement& element) {
  // Children first: a parent's sum covers its children's CRC-32 values.
  const bool stop = evalPayload(element.getPayload());
  if (element.crc32Receipt()) writeCrc32(element, order_);
  return stop;
}

bool RewriteReferences::evalPayload(IPayload& payload) {
  if (auto* ref = dynamic_cast<VEltPosition*>(&payload)) ref->rewrite();
  return payload.eval(*this);
}

bool OptimizeReferences::evalPayload(IPayload& payload) {
  if (auto* ref = dynamic_cast<VEltPosition*>(&payload)) {
    ref->discardReceipt();
    ref->setMaxSize(ref->calcSize());
  }
  return payload.eval(*this);
}

bool ResetReferences::evalPayload(IPayload& payload) {
  if (auto* ref = dynamic_cast<VEltPosition*>(&payload)) {
    ref->setMaxSize(8);
    ref->discardReceipt();
  }
  return payload.eval(*this);
}

bool DiscardReceipts::eval(IElement& element) {
  element.discardReceipts();
  return evalPayload(element.getPayload());
}

bool DiscardReceipts::evalPayload(IPayload& payload) {
  if (auto* ref = dynamic_cast<VEltPosition*>(&payload)) ref->discardReceipt();
  return payload.eval(*this);
}

template <class Elt>
void Optimizer::optimizeBlock(Elt& element) {
  VBinary& payload = *element;
  const uint64_t old = payload.numBytes();
  // An unlaced block with its track number in the fewest bytes is as small as it gets. Its first bytes say so:
  // reading only those spares a pass over every frame in the file.
  const auto& receipts = payload.data().receipts();
  unsigned char head[11] = {};
  const unsigned long headBytes = static_cast<unsigned long>(std::min<uint64_t>(old, sizeof head));
  if (receipts.size() == 1 && receipts.front() && receipts.front()->peek(head, headBytes)) {
    unsigned trackBytes = 0;
    const uint64_t track = vsizeDecode(head, trackBytes);
    if (trackBytes > 0 && trackBytes + 3 <= headBytes && trackBytes == vsizeNumBytes(track) &&
        (head[trackBytes + 2] & 0x06) == 0)
      return;
  }
  SimpleBlock block;
  if (block.importData(payload.data()) == 0) return;
  // The smallest lacing for the block's frames, whatever the input chose.
  block.setAutoLacing();
  HodgePodge data;
  block.exportData(data, storage_);
  if (data.numBytes() < old) payload.set(data);
}

bool Optimizer::eval(IElement& element) {
  element.setCrc32(false);
  const uint64_t id = element.getId();
  if (id == 0x1F43B675) {
    if (clustersDone_) return true;
    if (auto* cluster = dynamic_cast<Cluster*>(&element.getPayload())) {
      VEltPosition& pos = *cluster->position_;
      pos.setElt(nullptr);
      pos.setOrigin(nullptr);
      // Loaded positions and sizes would be stale once blocks shrink.
      pos.setPosition(uintMax[8]);
      cluster->position_.clearAlwaysSave();
      cluster->prevSize_->set(cluster->prevSize_->getDefault());
      cluster->prevSize_.clearAlwaysSave();
    }
  } else if (id == 0xB7) {
    // Offsets inside clusters move when blocks shrink.
    if (auto* pos = dynamic_cast<CueTrkPos*>(&element.getPayload())) {
      pos->relativePosition_->set(pos->relativePosition_->getDefault());
      pos->relativePosition_.clearAlwaysSave();
    }
  } else if (id == 0xA3) {
    if (auto* e = dynamic_cast<Cluster::SimpleBlockElt*>(&element)) optimizeBlock(*e);
  } else if (id == 0xA1) {
    if (auto* e = dynamic_cast<BlockGroup::BlockElt*>(&element)) optimizeBlock(*e);
  }
  return evalPayload(element.getPayload());
}

bool Optimizer::evalPayload(IPayload& payload) {
  if (payload.isComposite()) payload.clearVoids();
  return payload.eval(*this);
}

void OptimizeClustersOnLoad::loaded(IElement& element) {
  if (element.getId() == 0x1F43B675) optimizer_.eval(element);
}

template void Optimizer::optimizeBlock(Cluster::SimpleBlockElt&);
template void Optimizer::optimizeBlock(BlockGroup::BlockElt&);

}  // namespace Kapsel
