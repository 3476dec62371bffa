#pragma once
// Tree walks that change a document in one pass.

#include "kapsel/element.h"

namespace Kapsel {

class RemoveVoids : public IElementCrawler {
 public:
  bool evalPayload(IPayload& payload) override;
};

class ReplaceCrc32Placeholders : public IElementCrawler {
 public:
  explicit ReplaceCrc32Placeholders(TCrc32Order order = kCrc32BigEndian) : order_(order) {}
  bool eval(IElement& element) override;

 private:
  TCrc32Order order_;
};

class RewriteReferences : public IElementCrawler {
 public:
  bool evalPayload(IPayload& payload) override;
};

class OptimizeReferences : public IElementCrawler {
 public:
  bool evalPayload(IPayload& payload) override;
};

class ResetReferences : public IElementCrawler {
 public:
  bool evalPayload(IPayload& payload) override;
};

class DiscardReceipts : public IElementCrawler {
 public:
  bool eval(IElement& element) override;
  bool evalPayload(IPayload& payload) override;
};

// Drops CRC-32 elements and Voids and re-encodes blocks more compactly where it pays.
class Optimizer : public IElementCrawler {
 public:
  // With clustersDone, clusters (already optimised as they loaded) are passed over.
  explicit Optimizer(IStorage& storage, bool clustersDone = false) : storage_(storage), clustersDone_(clustersDone) {}
  bool eval(IElement& element) override;
  bool evalPayload(IPayload& payload) override;
  template <class Elt>
  void optimizeBlock(Elt& element);

 private:
  IStorage& storage_;
  bool clustersDone_;
};

// Optimises each cluster as soon as it has loaded, while its bytes are still cached: a later pass would read every
// block's header from the file again. Then MatroskaDoc::optimize(storage, true) does the rest.
class OptimizeClustersOnLoad : public IDelegateLoad {
 public:
  explicit OptimizeClustersOnLoad(IStorage& storage) : optimizer_(storage) {}
  uint64_t load(FileStorage&, uint64_t, uint64_t, IPayload&) override { return 0; }
  void loaded(IElement& element) override;

 private:
  Optimizer optimizer_;
};

// Writes the CRC-32 value of one element over its placeholder; false when it cannot.
bool writeCrc32(const IElement& element, TCrc32Order order = kCrc32BigEndian);

}  // namespace Kapsel
