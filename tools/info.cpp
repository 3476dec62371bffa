// kapsel info: the library's loader and dump from the shell.

#include <cinttypes>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "kapsel/kapsel.h"
#include "tools/commands.h"

namespace kapsel_cli {

namespace {

using namespace Kapsel;
using nlohmann::json;

std::string hexId(uint64_t id) {
  std::ostringstream os;
  os << "0x" << std::hex << std::uppercase << id;
  return os.str();
}

std::string hexPrefix(const unsigned char* bytes, size_t n) {
  std::ostringstream os;
  serialize(os, bytes, n);
  return os.str();
}

bool isBlock(uint64_t id) { return id == 0xA3 || id == 0xA1; }

// The value of a leaf element as text and as JSON; false for masters.
bool describe(IElement& e, std::string& text, json& value) {
  IPayload& p = e.getPayload();
  if (auto* v = dynamic_cast<VUInt*>(&p)) {
    text = std::to_string(v->get());
    value = v->get();
  } else if (auto* v = dynamic_cast<VDate*>(&p)) {
    const std::time_t t = static_cast<std::time_t>(v->getTime());
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[40];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    text = buf;
    value = buf;
  } else if (auto* v = dynamic_cast<VInt*>(&p)) {
    text = std::to_string(v->get());
    value = v->get();
  } else if (auto* v = dynamic_cast<VFloat*>(&p)) {
    std::ostringstream os;
    os << std::setprecision(10) << v->get();
    text = os.str();
    value = std::isfinite(v->get()) ? json(v->get()) : json(text);
  } else if (auto* v = dynamic_cast<VString*>(&p)) {
    text = "\"" + v->get() + "\"";
    value = v->get();
  } else if (auto* v = dynamic_cast<VBinary*>(&p)) {
    std::ostringstream os;
    if (isBlock(e.getId())) {
      SimpleBlock block;
      if (block.importData(v->data()))
        os << block;
      else
        os << v->numBytes() << " bytes (not a valid block)";
      text = os.str();
      value = text;
    } else {
      std::vector<unsigned char> bytes;
      const HodgePodge& data = v->data();
      if (data.size() == 1 && data[0]) {
        // Only the first bytes are read: the payload may be large.
        const uint64_t n = std::min<uint64_t>(data[0]->numBytes(), 16);
        ReceiptPtr head = data[0]->receipt(0, n);
        bytes.resize(n);
        if (!head || !head->load(bytes.data())) bytes.clear();
      }
      os << v->numBytes() << " bytes";
      if (!bytes.empty()) os << " " << hexPrefix(bytes.data(), bytes.size()) << (v->numBytes() > bytes.size() ? "…" : "");
      text = os.str();
      value = json{{"bytes", v->numBytes()}, {"hex", bytes.empty() ? "" : hexPrefix(bytes.data(), bytes.size())}};
    }
  } else if (auto* v = dynamic_cast<VBytes<16>*>(&p)) {
    text = hexPrefix(v->get().data(), 16);
    value = text;
  } else if (auto* v = dynamic_cast<VBytes<4>*>(&p)) {
    text = hexPrefix(v->get().data(), 4);
    value = text;
  } else if (auto* v = dynamic_cast<VEltPosition*>(&p)) {
    uint64_t pos = v->position();
    if (const IElement* target = v->getElt()) {
      ReceiptPtr r = target->storageReceipt();
      if (r) pos = r->position() - v->getOriginPosition();
      text = std::to_string(pos) + " (" + target->getName() + ")";
    } else {
      text = std::to_string(pos);
    }
    value = pos;
  } else if (dynamic_cast<VVoid*>(&p)) {
    text.clear();
    return false;
  } else {
    return false;
  }
  return true;
}

class TreePrinter : public IElementCrawler {
 public:
  TreePrinter(const InfoOptions& o, std::ostream& out) : o_(o), out_(out) { stack_.push_back(json::array()); }
  bool eval(IElement& e) override {
    if (!o_.blocks && (e.getId() == 0xA3 || e.getId() == 0xA0 || e.getId() == 0xAF)) return false;
    ReceiptPtr r = e.storageReceipt();
    // Members the file did not contain have no receipt: they are not shown.
    if (!r) return false;
    std::string text;
    json value;
    const bool leaf = describe(e, text, value);
    if (o_.json) {
      json node{{"name", e.getName()}, {"id", hexId(e.getId())}};
      if (r) {
        node["position"] = r->position();
        node["size"] = r->numBytes();
      }
      if (leaf) node["value"] = value;
      if (e.shouldComputeCrc32()) node["crc32"] = e.crc32Matched() ? "ok" : "mismatch";
      stack_.back().push_back(node);
    } else {
      out_ << indent(2 * static_cast<unsigned>(depth_)) << e.getName() << " [" << hexId(e.getId()) << "]";
      if (r) out_ << " @" << r->position() << " size " << r->numBytes();
      if (leaf) out_ << ": " << text;
      if (e.shouldComputeCrc32()) out_ << (e.crc32Matched() ? " (CRC-32 ok)" : " (CRC-32 MISMATCH)");
      out_ << "\n";
    }
    bool stop = false;
    if (!leaf && (o_.depth < 0 || depth_ < o_.depth)) stop = descend(e);
    // Voids kept with an element follow it.
    for (const auto& v : e.getPayload().voids()) {
      ReceiptPtr vr = v.storageReceipt();
      if (o_.json) {
        json node{{"name", "Void"}, {"id", "0xEC"}};
        if (vr) {
          node["position"] = vr->position();
          node["size"] = vr->numBytes();
        }
        stack_.back().push_back(node);
        continue;
      }
      out_ << indent(2 * static_cast<unsigned>(depth_)) << "Void [0xEC]";
      if (vr) out_ << " @" << vr->position() << " size " << vr->numBytes();
      out_ << "\n";
    }
    return stop;
  }

 private:
  bool descend(IElement& e) {
    ++depth_;
    if (o_.json) stack_.push_back(json::array());
    const bool stop = evalPayload(e.getPayload());
    if (o_.json) {
      json children = std::move(stack_.back());
      stack_.pop_back();
      if (!children.empty()) stack_.back().back()["children"] = std::move(children);
    }
    --depth_;
    return stop;
  }

 public:
  json result() const { return stack_.front(); }

 private:
  const InfoOptions& o_;
  std::ostream& out_;
  int depth_ = 0;
  std::vector<json> stack_;
};

}  // namespace

int runInfo(const InfoOptions& o) {
  FileStorage in(o.file, File::kReadOnly);
  if (!in.file().isOpen()) return fail("cannot open " + o.file);
  const uint64_t size = in.file().size();
  MatroskaDoc doc;

  IDelegateLoad* delegate = nullptr;
  bool loaded;
  if (o.seekHead) {
    loaded = doc.loadSeekHead(in, size);
    if (loaded) doc.loadViaSeekHead(in, delegate, true);
  } else {
    loaded = doc.loadAndKeepReceipts(in, size, delegate) > 0;
  }

  if (!doc.head_.storageReceipt() || doc.head_->docType_->get().empty())
    return fail(o.file + " is not a Matroska or WebM file");
  if (!loaded && o.seekHead) return fail(o.file + " has no seek head");
  TreePrinter printer(o, std::cout);
  if (!o.json) std::cout << o.file << ": " << size << " bytes\n";
  doc.eval(printer);
  if (o.json) {
    json out{{"file", o.file}, {"size", size}, {"elements", printer.result()}};
    std::cout << out.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
  }
  return 0;
}

}  // namespace kapsel_cli
