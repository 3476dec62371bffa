// Shared by the fuzz targets: in-memory files and a canonical dump of a loaded tree.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "kapsel/kapsel.h"

namespace fuzz {

using namespace Kapsel;

// A memfd reached through its /proc path, so the library opens it like any file.
class MemFile {
 public:
  explicit MemFile(const char* name) : fd_(memfd_create(name, 0)) {}
  bool ok() const { return fd_ >= 0; }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }
  bool assign(const uint8_t* data, size_t size) {
    return ftruncate(fd_, 0) == 0 && (size == 0 || pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
  }
  bool clear() { return ftruncate(fd_, 0) == 0; }

 private:
  int fd_;
};

[[noreturn]] inline void finding(const char* what, const std::string& a = "", const std::string& b = "") {
  std::fprintf(stderr, "ORACLE FAILURE: %s\n", what);
  // KAPSEL_FUZZ_DUMP=prefix writes both dumps whole, for diffing.
  if (const char* prefix = std::getenv("KAPSEL_FUZZ_DUMP")) {
    for (int k = 0; k < 2; ++k)
      if (FILE* f = std::fopen((std::string(prefix) + (k ? ".reload" : ".first")).c_str(), "w")) {
        std::fputs((k ? b : a).c_str(), f);
        std::fclose(f);
      }
  }
  if (!a.empty() || !b.empty()) {
    // The first differing line of the two dumps, with a little context.
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i]) ++i;
    const size_t from = a.rfind('\n', i == 0 ? 0 : i - 1);
    const size_t start = from == std::string::npos ? 0 : from + 1;
    std::fprintf(stderr, "first load: %.300s\nreload:     %.300s\n", a.c_str() + start,
                 start < b.size() ? b.c_str() + start : "<end>");
  }
  __builtin_trap();
}

inline uint64_t fnv(const std::vector<unsigned char>& bytes) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : bytes) h = (h ^ c) * 1099511628211ull;
  return h;
}

// One line per element in tree order: depth, ID, name and the leaf value. References print the
// dump index of their target, since positions legitimately change when a file is written again.
class Dump : public IElementCrawler {
 public:
  explicit Dump(bool saved) : saved_(saved) {}
  std::string run(MatroskaDoc& doc) {
    Index index(targets_);
    doc.eval(index);
    doc.eval(*this);
    return out_;
  }

  bool eval(IElement& e) override {
    line(e.getId(), e.getName());
    IPayload& p = e.getPayload();
    if (auto* m = dynamic_cast<EbmlMaster*>(&p)) {
      opaques(p, true);
      ++depth_;
      m->eval(*this);
      --depth_;
    } else {
      out_ += ' ';
      out_ += value(p);
    }
    // Voids are padding, not part of the tree: where a save puts them is not compared.
    opaques(p, false);
    out_ += '\n';
    return false;
  }

 private:
  struct Index : IElementCrawler {
    explicit Index(std::unordered_map<const IElement*, size_t>& m) : map(m) {}
    bool eval(IElement& e) override {
      map.emplace(&e, map.size());
      return evalPayload(e.getPayload());
    }
    std::unordered_map<const IElement*, size_t>& map;
  };

  void line(uint64_t id, const char* name, const std::string& tail = "") {
    char head[64];
    std::snprintf(head, sizeof head, "\n%*s%" PRIx64 " ", depth_ * 2, "", id);
    out_ += head;
    out_ += name;
    out_ += tail;
  }

  void opaques(const IPayload& p, bool leading) {
    if (const auto* list = p.opaques(leading))
      for (const auto& o : *list) {
        std::vector<unsigned char> bytes;
        o.opaque().data().get(bytes);
        line(o.getId(), "Unknown", " " + std::to_string(bytes.size()) + ":" + std::to_string(fnv(bytes)));
      }
  }

  std::string value(IPayload& p) {
    char buf[96];
    if (auto* v = dynamic_cast<VUInt*>(&p)) return std::to_string(v->get());
    if (auto* v = dynamic_cast<VInt*>(&p)) return std::to_string(v->get());
    if (auto* v = dynamic_cast<VDate*>(&p)) return std::to_string(v->get());
    if (auto* v = dynamic_cast<VFloat*>(&p)) {
      const double d = v->get();
      if (d != d) return "nan";
      uint64_t bits;
      std::memcpy(&bits, &d, 8);
      std::snprintf(buf, sizeof buf, "f%016" PRIx64, bits);
      return buf;
    }
    if (auto* v = dynamic_cast<VString*>(&p)) return "\"" + v->get() + "\"";
    if (auto* v = dynamic_cast<VBinary*>(&p)) {
      std::vector<unsigned char> bytes;
      if (!v->get(bytes)) return "unreadable";
      return std::to_string(bytes.size()) + ":" + std::to_string(fnv(bytes));
    }
    if (auto* v = dynamic_cast<VEltPosition*>(&p)) {
      // KAPSEL_FUZZ_TOLERATE=unsaved-refs passes over the open fault of references to elements that
      // are not written: both sides print them as dangling.
      static const bool tolerate = [] {
        const char* t = std::getenv("KAPSEL_FUZZ_TOLERATE");
        return t && std::strstr(t, "unsaved-refs");
      }();
      if (tolerate && (v->getElt() ? saved_ && !v->getElt()->storageReceipt() : v->hasPosition())) return "dangling";
      if (const IElement* t = v->getElt()) {
        auto it = targets_.find(t);
        char id[24];
        std::snprintf(id, sizeof id, ":%" PRIx64, t->getId());
        return (it == targets_.end() ? std::string("->outside") : "->#" + std::to_string(it->second)) + id;
      }
      return v->hasPosition() ? "@" + std::to_string(v->position()) : "unset";
    }
    if (auto* v = dynamic_cast<VVoid*>(&p)) return "void " + std::to_string(v->get());
    if (auto* v = dynamic_cast<VBytes<16>*>(&p)) return "b" + std::to_string(fnv({v->get().begin(), v->get().end()}));
    if (auto* v = dynamic_cast<VBytes<4>*>(&p)) return "b" + std::to_string(fnv({v->get().begin(), v->get().end()}));
    return "?";
  }

  std::unordered_map<const IElement*, size_t> targets_;
  std::string out_;
  int depth_ = 0;
  bool saved_;
};

// `saved`: the document has just been saved, so written elements hold their receipts.
inline std::string dump(MatroskaDoc& doc, bool saved = false) { return Dump(saved).run(doc); }

// Writes the document into the memory file and reports whether the save succeeded.
inline bool saveTo(MatroskaDoc& doc, MemFile& file) {
  if (!file.clear()) return false;
  FileStorage out(file.path(), File::kReadWrite);
  if (!out.file().isOpen()) return false;
  ReceiptPtr r = doc.save(out);
  out.file().close();
  return static_cast<bool>(r) && !out.file().hadWriteError();
}

}  // namespace fuzz
