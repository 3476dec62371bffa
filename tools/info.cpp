// kapsel info: a file's elements in file order, or a JSON summary for scripts.

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "kapsel/kapsel.h"
#include "tools/cli_support.h"
#include "tools/commands.h"

namespace kapsel_cli {

namespace {

using namespace Kapsel;
using nlohmann::json;
using ojson = nlohmann::ordered_json;

constexpr uint64_t kIdCluster = 0x1F43B675;
constexpr uint64_t kIdCues = 0x1C53BB6B;
constexpr uint64_t kIdSimpleBlock = 0xA3;
constexpr uint64_t kIdBlockGroup = 0xA0;
constexpr uint64_t kIdBlock = 0xA1;
constexpr uint64_t kUnknownSize = ~0ull;

std::string hexId(uint64_t id) {
  std::ostringstream os;
  os << "0x" << std::hex << std::uppercase << id;
  return os.str();
}

std::string hexBytes(const unsigned char* bytes, size_t n) {
  std::ostringstream os;
  serialize(os, bytes, n);
  return os.str();
}

// hh:mm:ss.mmm
std::string clock(int64_t ns) {
  const bool negative = ns < 0;
  const uint64_t a = static_cast<uint64_t>(negative ? -ns : ns);
  const uint64_t ms = (a + 500000) / 1000000;
  char buf[40];
  std::snprintf(buf, sizeof buf, "%s%02" PRIu64 ":%02" PRIu64 ":%02" PRIu64 ".%03" PRIu64, negative ? "-" : "",
                ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
  return buf;
}

std::string isoDate(int64_t seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[40];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

// Strings may be padded with NULs up to their size.
std::string unpadded(const std::string& s) { return s.substr(0, s.find('\0')); }

template <class E>
bool present(const E& e) {
  return static_cast<bool>(e.storageReceipt());
}

// ---- Reading clusters without keeping them -----------------------------------------------------------------

bool isTopLevel(uint64_t id) {
  switch (id) {
    case kIdCluster: case kIdCues: case 0x1549A966: case 0x1654AE6B: case 0x114D9B74: case 0x1941A469:
    case 0x1043A770: case 0x1254C367: case 0x18538067: case 0x1A45DFA3:
      return true;
    default:
      return false;
  }
}

// An element header at `pos`: false when it does not fit before `end` or is not valid.
bool readHeader(File& f, uint64_t pos, uint64_t end, uint64_t& id, uint64_t& size, unsigned& headerBytes) {
  unsigned char b[12] = {};
  if (!f.seek(static_cast<int64_t>(pos))) return false;
  const unsigned long got = f.peek(b, static_cast<unsigned long>(std::min<uint64_t>(sizeof b, end - pos)));
  if (got == 0 || b[0] < 0x10) return false;
  const unsigned idLen = b[0] >= 0x80 ? 1 : b[0] >= 0x40 ? 2 : b[0] >= 0x20 ? 3 : 4;
  if (got <= idLen || b[idLen] == 0) return false;
  id = 0;
  for (unsigned i = 0; i < idLen; ++i) id = id << 8 | b[i];
  unsigned sizeLen = 1;
  while (!(b[idLen] & (0x80 >> (sizeLen - 1)))) ++sizeLen;
  if (got < idLen + sizeLen) return false;
  size = b[idLen] & (0xFF >> sizeLen);
  bool allOnes = size == (0xFFu >> sizeLen);
  for (unsigned i = 1; i < sizeLen; ++i) {
    size = size << 8 | b[idLen + i];
    allOnes = allOnes && b[idLen + i] == 0xFF;
  }
  if (allOnes) size = kUnknownSize;
  headerBytes = idLen + sizeLen;
  return true;
}

// The track number a block's payload starts with (0 when unreadable) and its number of frames.
std::pair<uint64_t, uint64_t> blockHeader(File& f, uint64_t pos, uint64_t end) {
  unsigned char b[16] = {};
  if (pos >= end || !f.seek(static_cast<int64_t>(pos))) return {0, 1};
  const unsigned long got = f.peek(b, static_cast<unsigned long>(std::min<uint64_t>(sizeof b, end - pos)));
  if (got == 0 || b[0] == 0) return {0, 1};
  unsigned len = 1;
  while (!(b[0] & (0x80 >> (len - 1)))) ++len;
  if (got < len) return {0, 1};
  uint64_t track = b[0] & (0xFF >> len);
  for (unsigned i = 1; i < len; ++i) track = track << 8 | b[i];
  // Laced blocks count their frames in the byte after the flags.
  const bool laced = got > len + 3 && (b[len + 2] & 0x06);
  return {track, laced ? b[len + 3] + 1u : 1u};
}

struct ClusterSummary {
  uint64_t timecode = 0;
  uint64_t blocks = 0;
};

// Skips every Cluster's payload, reading only its Timecode and its blocks' track numbers, so that a file of any
// size is read in little memory. Also reports progress.
class ClusterSkipper : public IDelegateLoad {
 public:
  ClusterSkipper(uint64_t fileSize, Progress* progress) : fileSize_(fileSize), progress_(progress) {}

  uint64_t load(FileStorage& storage, uint64_t bytesToRead, uint64_t eltId, IPayload&) override {
    File& f = storage.file();
    const uint64_t start = f.absolutePosition();
    if (progress_) progress_->update(start);
    if (eltId != kIdCluster || start == lastStart_ || start >= fileSize_) return 0;
    lastStart_ = start;
    ClusterSummary& s = clusters[start];
    const uint64_t end = start + std::min(bytesToRead, fileSize_ - start);
    uint64_t pos = start, id = 0, size = 0;
    unsigned header = 0;
    while (pos < end && readHeader(f, pos, end, id, size, header)) {
      // An open-ended cluster ends where the next top-level element starts.
      if (isTopLevel(id) || size == kUnknownSize) break;
      const uint64_t data = pos + header;
      const uint64_t dataEnd = std::min(end, data + size);
      if (id == 0xE7 && size <= 8) {
        unsigned char b[8] = {};
        f.seek(static_cast<int64_t>(data));
        f.peek(b, static_cast<unsigned long>(dataEnd - data));
        s.timecode = 0;
        for (uint64_t i = 0; i < dataEnd - data; ++i) s.timecode = s.timecode << 8 | b[i];
      } else if (id == kIdSimpleBlock) {
        ++s.blocks;
        const auto [track, frames] = blockHeader(f, data, dataEnd);
        packets[track] += frames;
      } else if (id == kIdBlockGroup) {
        uint64_t p = data, cid = 0, csize = 0;
        unsigned ch = 0;
        while (p < dataEnd && readHeader(f, p, dataEnd, cid, csize, ch) && csize != kUnknownSize) {
          if (cid == kIdBlock) {
            ++s.blocks;
            const auto [track, frames] = blockHeader(f, p + ch, std::min(dataEnd, p + ch + csize));
            packets[track] += frames;
          }
          p += ch + csize;
        }
      }
      pos = data + size;
    }
    pos = std::min(pos, end);
    f.seek(static_cast<int64_t>(pos));
    return pos - start;
  }

  std::map<uint64_t, ClusterSummary> clusters;  // by payload position
  std::map<uint64_t, uint64_t> packets;         // frames by track number

 private:
  uint64_t fileSize_;
  Progress* progress_;
  uint64_t lastStart_ = kUnknownSize;
};

// ---- Elements in file order -------------------------------------------------------------------------------

struct Node {
  enum Kind { Element, Crc } kind = Element;
  uint64_t position = 0, size = 0, header = 0;
  IElement* e = nullptr;
};

// Every element with a place in the file, with the Voids, unknown elements and CRC-32 elements kept beside them.
class Collector : public IElementCrawler {
 public:
  std::vector<Node> nodes;

  bool eval(IElement& e) override {
    add(e);
    IPayload& p = e.getPayload();
    ReceiptPtr c = e.crc32Receipt();
    if (c) nodes.push_back({Node::Crc, c->position(), c->numBytes(), 2, &e});
    for (auto& v : p.voids()) add(v);
    ReceiptPtr r = e.storageReceipt(), pr = e.payloadReceipt();
    if (r) {
      // Unknown elements keep no position: they stand where the file continues after what precedes them.
      uint64_t at = pr ? pr->position() : r->position();
      if (c && c->position() == at) at += c->numBytes();
      addOpaques(p, true, at);
      addOpaques(p, false, r->position() + r->numBytes());
    }
    if (p.isComposite()) evalPayload(p);
    return false;
  }

  void addOpaques(IPayload& p, bool leading, uint64_t at) {
    const auto* list = p.opaques(leading);
    if (!list) return;
    for (const auto& o : *list) {
      for (bool moved = true; moved;) {
        moved = false;
        for (auto& v : p.voids())
          if (v.storageReceipt() && v.storageReceipt()->position() == at) {
            at += v.storageReceipt()->numBytes();
            moved = true;
          }
      }
      const uint64_t size = o.calcSize();
      nodes.push_back({Node::Element, at, size, size - o.getPayload().calcSize(), const_cast<OpaqueElement*>(&o)});
      at += size;
    }
  }

  // What the document holds beside its EBML header and segments.
  void addDocument(MatroskaDoc& doc) {
    for (auto& v : doc.voids()) add(v);
    addOpaques(doc, true, 0);
    doc.eval(*this);
  }

  // Sorted by position, each element once (a file loaded through its seek head may hold one twice).
  void sort() {
    std::stable_sort(nodes.begin(), nodes.end(), [](const Node& a, const Node& b) { return a.position < b.position; });
    nodes.erase(std::unique(nodes.begin(), nodes.end(),
                            [](const Node& a, const Node& b) {
                              return a.position == b.position && a.kind == b.kind && a.e->getId() == b.e->getId();
                            }),
                nodes.end());
  }

 private:
  void add(IElement& e) {
    ReceiptPtr r = e.storageReceipt();
    // Members the file did not contain have no receipt.
    if (!r) return;
    ReceiptPtr pr = e.payloadReceipt();
    const uint64_t header = pr && pr->position() >= r->position() ? pr->position() - r->position() : 0;
    nodes.push_back({Node::Element, r->position(), r->numBytes(), header, &e});
  }
};

class Printer {
 public:
  Printer(const InfoOptions& o, FileStorage& in, uint64_t fileSize, uint64_t scale, const ClusterSkipper& skipper)
      : o_(o), in_(in), fileSize_(fileSize), scale_(scale), skipper_(skipper) {}

  void print(std::vector<Node>& nodes, int baseDepth, std::ostream& out) {
    std::vector<uint64_t> ends;
    uint64_t skipUntil = 0;
    for (const Node& n : nodes) {
      if (n.position < skipUntil) continue;
      while (!ends.empty() && ends.back() <= n.position) ends.pop_back();
      const int depth = baseDepth + static_cast<int>(ends.size());
      if (n.kind == Node::Element && n.e->getPayload().isComposite()) ends.push_back(n.position + n.size);
      if (o_.depth >= 0 && depth > o_.depth) continue;
      const uint64_t id = n.kind == Node::Crc ? 0xBF : n.e->getId();
      const char* name = n.kind == Node::Crc ? "CRC-32" : n.e->getName();
      out << std::string(2 * static_cast<size_t>(depth), ' ') << name << " [" << hexId(id) << "] @" << n.position
          << " size " << n.size << " (header " << n.header << ", data " << n.size - n.header << ")";
      const std::string value = n.kind == Node::Crc ? crcText(*n.e) : text(*n.e);
      if (!value.empty()) out << ": " << value;
      out << "\n";
      if (n.kind != Node::Element) continue;
      if (id == kIdCues && !o_.blocks) skipUntil = n.position + n.size;
      if (id == kIdCluster && o_.blocks && (o_.depth < 0 || depth < o_.depth)) printCluster(*n.e, depth + 1, out);
    }
  }

 private:
  static std::string crcText(const IElement& e) {
    switch (e.crc32Order()) {
      case kCrc32FoundLittleEndian: return "ok (little-endian)";
      case kCrc32FoundBigEndian: return "ok (big-endian)";
      default: return "mismatch";
    }
  }

  // A cluster's content, loaded on its own and dropped once printed.
  void printCluster(IElement& cluster, int depth, std::ostream& out) {
    ReceiptPtr r = cluster.storageReceipt();
    std::vector<TByteRange> ignored;  // the whole-file load has recorded the damage already
    LoadScope scope(true, &ignored, fileSize_);
    ClusterElt c;
    in_.file().seek(static_cast<int64_t>(r->position()));
    if (c.load(in_, std::max<uint64_t>(r->numBytes(), 1), nullptr) == 0) return;
    clusterTime_ = c->timecode_->get();
    Collector collector;
    collector.eval(c);
    collector.nodes.erase(collector.nodes.begin());  // the cluster itself, printed already
    collector.sort();
    print(collector.nodes, depth, out);
  }

  std::string text(IElement& e) {
    const uint64_t id = e.getId();
    IPayload& p = e.getPayload();
    std::ostringstream os;
    if (id == kIdCluster) {
      auto s = skipper_.clusters.find(e.payloadReceipt() ? e.payloadReceipt()->position() : 0);
      if (s == skipper_.clusters.end()) return "";
      os << "timecode " << s->second.timecode << " (" << clock(static_cast<int64_t>(s->second.timecode * scale_))
         << "), " << s->second.blocks << " blocks";
      return os.str();
    }
    if (id == kIdCues && !o_.blocks) {
      auto* cues = dynamic_cast<Cues*>(&p);
      if (cues) os << cues->points_.size() << " cue points (--blocks lists them)";
      return os.str();
    }
    if (auto* v = dynamic_cast<VUInt*>(&p)) {
      const uint64_t x = v->get();
      os << x;
      switch (id) {
        case 0xE7: case 0xB3: case 0x96: case 0xB2: case 0x9B:  // in TimecodeScale units
          os << " (" << clock(static_cast<int64_t>(x * scale_)) << ")";
          break;
        case 0x91: case 0x92: case 0x56AA: case 0x56BB: case 0x4661: case 0x4662:  // in nanoseconds
          os << " (" << clock(static_cast<int64_t>(x)) << ")";
          break;
        case 0x23E383:
          if (x) os << " (" << std::setprecision(6) << 1e9 / static_cast<double>(x) << " per second)";
          break;
        case 0x53AB:
          os.str("");
          os << hexId(x);
          break;
        case 0x73C5: case 0x73C4: case 0x45BC: case 0x46AE: case 0x63C5:
          break;
      }
    } else if (auto* v = dynamic_cast<VDate*>(&p)) {
      os << isoDate(v->getTime());
    } else if (auto* v = dynamic_cast<VInt*>(&p)) {
      os << v->get();
    } else if (auto* v = dynamic_cast<VFloat*>(&p)) {
      os << std::setprecision(10) << v->get();
      if (id == 0x4489) os << " (" << clock(std::llround(v->get() * static_cast<double>(scale_))) << ")";
    } else if (auto* v = dynamic_cast<VString*>(&p)) {
      os << "\"" << unpadded(v->get()) << "\"";
    } else if (auto* v = dynamic_cast<VBinary*>(&p)) {
      if (id == kIdSimpleBlock || id == kIdBlock) {
        SimpleBlock block;
        if (!block.importData(v->data())) return std::to_string(v->numBytes()) + " bytes (not a valid block)";
        const int64_t t = (static_cast<int64_t>(clusterTime_) + block.getRelativeTimecode()) * static_cast<int64_t>(scale_);
        os << "track " << block.getTrackNumber() << ", " << clock(t) << " (relative " << block.getRelativeTimecode()
           << ")";
        if (id == kIdSimpleBlock && block.isKeyframe()) os << ", key";
        os << ", " << block.getNumberOfFrames() << (block.getNumberOfFrames() == 1 ? " frame" : " frames");
        return os.str();
      }
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
      if (!bytes.empty()) os << " " << hexBytes(bytes.data(), bytes.size()) << (v->numBytes() > bytes.size() ? "…" : "");
    } else if (auto* v = dynamic_cast<VBytes<16>*>(&p)) {
      os << hexBytes(v->get().data(), 16);
    } else if (auto* v = dynamic_cast<VBytes<4>*>(&p)) {
      os << hexBytes(v->get().data(), 4);
    } else if (auto* v = dynamic_cast<VEltPosition*>(&p)) {
      uint64_t pos = v->position();
      if (const IElement* target = v->getElt()) {
        ReceiptPtr r = target->storageReceipt();
        if (r) pos = r->position() - v->getOriginPosition();
        os << pos << " (" << target->getName() << ")";
      } else {
        os << pos;
      }
    }
    return os.str();
  }

  const InfoOptions& o_;
  FileStorage& in_;
  uint64_t fileSize_, scale_;
  const ClusterSkipper& skipper_;
  uint64_t clusterTime_ = 0;
};

// A leaf's value for the JSON tree; null for masters and blocks.
json leafValue(IElement& e) {
  IPayload& p = e.getPayload();
  if (auto* v = dynamic_cast<VUInt*>(&p)) return v->get();
  if (auto* v = dynamic_cast<VDate*>(&p)) return isoDate(v->getTime());
  if (auto* v = dynamic_cast<VInt*>(&p)) return v->get();
  if (auto* v = dynamic_cast<VFloat*>(&p)) return std::isfinite(v->get()) ? json(v->get()) : json(nullptr);
  if (auto* v = dynamic_cast<VString*>(&p)) return unpadded(v->get());
  if (auto* v = dynamic_cast<VBytes<16>*>(&p)) return hexBytes(v->get().data(), 16);
  if (auto* v = dynamic_cast<VBytes<4>*>(&p)) return hexBytes(v->get().data(), 4);
  if (auto* v = dynamic_cast<VBinary*>(&p)) return json{{"bytes", v->numBytes()}};
  return nullptr;
}

// The element tree as JSON.
json treeJson(const std::vector<Node>& nodes, int maxDepth) {
  std::vector<json> stack{json::array()};
  std::vector<uint64_t> ends;
  auto close = [&] {
    json children = std::move(stack.back());
    stack.pop_back();
    ends.pop_back();
    if (!children.empty()) stack.back().back()["children"] = std::move(children);
  };
  for (const Node& n : nodes) {
    while (!ends.empty() && ends.back() <= n.position) close();
    const bool shown = maxDepth < 0 || static_cast<int>(ends.size()) <= maxDepth;
    const uint64_t id = n.kind == Node::Crc ? 0xBF : n.e->getId();
    json node{{"name", n.kind == Node::Crc ? "CRC-32" : n.e->getName()},
              {"id", hexId(id)},
              {"position", n.position},
              {"size", n.size},
              {"header", n.header}};
    if (n.kind == Node::Crc || n.e->crc32Receipt())
      node["crc32"] = n.e->crc32Order() == kCrc32Mismatch ? "mismatch" : "ok";
    if (n.kind == Node::Element) {
      json value = leafValue(*n.e);
      if (!value.is_null()) node["value"] = std::move(value);
    }
    if (shown) stack.back().push_back(node);
    if (n.kind == Node::Element && n.e->getPayload().isComposite()) {
      stack.push_back(json::array());
      ends.push_back(n.position + n.size);
    }
  }
  while (!ends.empty()) close();
  return stack.front();
}

// ---- The summary --------------------------------------------------------------------------------------------

std::string codecName(const std::string& id) {
  static const std::pair<const char*, const char*> names[] = {
      {"V_VP8", "VP8"}, {"V_VP9", "VP9"}, {"V_AV1", "AV1"}, {"V_MPEG4/ISO/AVC", "H.264 / AVC"},
      {"V_MPEGH/ISO/HEVC", "H.265 / HEVC"}, {"V_MPEG4/ISO", "MPEG-4 Part 2"}, {"V_MPEG1", "MPEG-1 video"},
      {"V_MPEG2", "MPEG-2 video"}, {"V_THEORA", "Theora"}, {"V_PRORES", "ProRes"}, {"V_FFV1", "FFV1"},
      {"V_MS/VFW/FOURCC", "Video for Windows"}, {"V_UNCOMPRESSED", "uncompressed video"},
      {"A_OPUS", "Opus"}, {"A_VORBIS", "Vorbis"}, {"A_AAC", "AAC"}, {"A_AC3", "AC-3"}, {"A_EAC3", "E-AC-3"},
      {"A_DTS", "DTS"}, {"A_MPEG/L3", "MP3"}, {"A_MPEG/L2", "MP2"}, {"A_FLAC", "FLAC"}, {"A_ALAC", "ALAC"},
      {"A_TRUEHD", "TrueHD"}, {"A_PCM/INT/LIT", "PCM"}, {"A_PCM/INT/BIG", "PCM (big-endian)"},
      {"A_PCM/FLOAT/IEEE", "PCM (float)"}, {"A_MS/ACM", "ACM audio"}, {"S_TEXT/UTF8", "SubRip text"},
      {"S_TEXT/ASS", "ASS"}, {"S_TEXT/SSA", "SSA"}, {"S_TEXT/WEBVTT", "WebVTT"}, {"S_VOBSUB", "VobSub"},
      {"S_HDMV/PGS", "PGS"}, {"D_WEBVTT/SUBTITLES", "WebVTT"},
  };
  for (const auto& [prefix, name] : names)
    if (id.rfind(prefix, 0) == 0) return name;
  return id;
}

const char* trackType(uint64_t t) {
  switch (t) {
    case 1: return "video";
    case 2: return "audio";
    case 3: return "complex";
    case 0x10: return "logo";
    case 0x11: return "subtitles";
    case 0x12: return "buttons";
    case 0x20: return "control";
    case 0x21: return "metadata";
    default: return "unknown";
  }
}

double rounded(double v, int decimals) {
  const double f = std::pow(10.0, decimals);
  return std::round(v * f) / f;
}

ojson seconds(uint64_t ns) { return rounded(static_cast<double>(ns) / 1e9, 9); }

ojson chapterJson(ChapAtom& a) {
  ojson c;
  if (present(a.uid_)) c["uid"] = a.uid_->get();
  c["start"] = seconds(a.timeStart_->get());
  c["start_ns"] = a.timeStart_->get();
  if (present(a.timeEnd_)) {
    c["end"] = seconds(a.timeEnd_->get());
    c["end_ns"] = a.timeEnd_->get();
  }
  c["hidden"] = present(a.flagHidden_) && a.flagHidden_->get() != 0;
  c["enabled"] = !present(a.flagEnabled_) || a.flagEnabled_->get() != 0;
  ojson names = ojson::array();
  for (auto& d : a.displays_) {
    std::string lang = present(d->language_) ? unpadded(d->language_->get()) : "eng";
    if (!d->languagesBcp47_.empty()) lang = unpadded(d->languagesBcp47_.front()->get());
    names.push_back({{"name", unpadded(d->string_->get())}, {"language", lang}});
  }
  c["names"] = names;
  if (!a.atoms_.empty()) {
    ojson nested = ojson::array();
    for (auto& n : a.atoms_) nested.push_back(chapterJson(*n));
    c["chapters"] = nested;
  }
  return c;
}

ojson simpleTagJson(SimpleTag& t) {
  ojson s{{"name", unpadded(t.name_->get())}};
  if (present(t.binary_))
    s["binary_size"] = t.binary_->numBytes();
  else
    s["value"] = unpadded(t.string_->get());
  s["language"] = present(t.languageBcp47_) ? unpadded(t.languageBcp47_->get())
                  : present(t.language_)    ? unpadded(t.language_->get())
                                            : "und";
  s["default"] = !present(t.default_) || t.default_->get() != 0;
  if (!t.simpleTags_.empty()) {
    ojson nested = ojson::array();
    for (auto& n : t.simpleTags_) nested.push_back(simpleTagJson(*n));
    s["tags"] = nested;
  }
  return s;
}

template <class List>
ojson uids(const List& list) {
  ojson a = ojson::array();
  for (const auto& u : list) a.push_back(u->get());
  return a;
}

ojson summary(MatroskaDoc& doc, uint64_t fileSize, const ClusterSkipper& skipper,
              const std::vector<TByteRange>& damage) {
  ojson out;
  out["format_version"] = 1;
  ojson container;
  container["kind"] = unpadded(doc.head_->docType_->get()) == "webm" ? "webm" : "matroska";
  ojson tracks = ojson::array(), chapters = ojson::array(), tags = ojson::array(), attachments = ojson::array();
  if (!doc.segments_.empty()) {
    Segment& seg = *doc.segments_.front();
    SegInfo& info = *seg.info_;
    const uint64_t scale = present(info.timecodeScale_) ? info.timecodeScale_->get() : 1000000;
    if (present(info.duration_)) {
      const uint64_t ns = static_cast<uint64_t>(std::llround(info.duration_->get() * static_cast<double>(scale)));
      container["duration"] = seconds(ns);
      container["duration_ns"] = ns;
      if (ns) container["bit_rate"] = static_cast<uint64_t>(std::llround(8.0 * static_cast<double>(fileSize) * 1e9 / static_cast<double>(ns)));
    }
    container["timecode_scale"] = scale;
    if (present(info.title_)) container["title"] = unpadded(info.title_->get());
    if (present(info.muxingApp_)) container["muxing_application"] = unpadded(info.muxingApp_->get());
    if (present(info.writingApp_)) container["writing_application"] = unpadded(info.writingApp_->get());
    if (present(info.dateUtc_)) container["date"] = isoDate(info.dateUtc_->getTime());
    if (present(info.segmentUid_)) container["segment_uid"] = hexBytes(info.segmentUid_->get().data(), 16);

    for (auto& te : seg.tracks_->tracks_) {
      Track& t = *te;
      ojson j;
      const uint64_t number = t.trackNumber_->get();
      j["number"] = number;
      j["uid"] = t.trackUid_->get();
      j["type"] = trackType(t.trackType_->get());
      const std::string codec = unpadded(t.codecId_->get());
      j["codec_id"] = codec;
      j["codec"] = codecName(codec);
      if (present(t.languageBcp47_))
        j["language"] = unpadded(t.languageBcp47_->get());
      else
        j["language"] = present(t.language_) ? unpadded(t.language_->get()) : "eng";
      if (present(t.name_)) j["name"] = unpadded(t.name_->get());
      j["default"] = !present(t.flagDefault_) || t.flagDefault_->get() != 0;
      j["forced"] = present(t.flagForced_) && t.flagForced_->get() != 0;
      j["enabled"] = !present(t.flagEnabled_) || t.flagEnabled_->get() != 0;
      if (present(t.defaultDuration_) && t.defaultDuration_->get()) {
        j["default_duration_ns"] = t.defaultDuration_->get();
        j["frame_rate"] = rounded(1e9 / static_cast<double>(t.defaultDuration_->get()), 3);
      }
      if (present(t.video_)) {
        Video& v = *t.video_;
        const uint64_t w = v.pixelWidth_->get(), h = v.pixelHeight_->get();
        j["pixel_width"] = w;
        j["pixel_height"] = h;
        j["display_width"] = present(v.displayWidth_) ? v.displayWidth_->get() : w;
        j["display_height"] = present(v.displayHeight_) ? v.displayHeight_->get() : h;
      }
      if (present(t.audio_)) {
        Audio& a = *t.audio_;
        j["sampling_rate"] = present(a.samplingFrequency_) ? a.samplingFrequency_->get() : 8000.0;
        j["channels"] = present(a.channels_) ? a.channels_->get() : 1;
        if (present(a.bitDepth_)) j["bit_depth"] = a.bitDepth_->get();
      }
      if (present(t.codecDelay_)) j["codec_delay_ns"] = t.codecDelay_->get();
      if (present(t.seekPreRoll_)) j["seek_pre_roll_ns"] = t.seekPreRoll_->get();
      auto p = skipper.packets.find(number);
      j["packets"] = p == skipper.packets.end() ? 0 : p->second;
      tracks.push_back(j);
    }
    for (auto& e : seg.chapters_->editions_) {
      ojson ed;
      if (present(e->uid_)) ed["uid"] = e->uid_->get();
      ed["default"] = present(e->flagDefault_) && e->flagDefault_->get() != 0;
      ed["hidden"] = present(e->flagHidden_) && e->flagHidden_->get() != 0;
      ed["ordered"] = present(e->flagOrdered_) && e->flagOrdered_->get() != 0;
      ojson atoms = ojson::array();
      for (auto& a : e->atoms_) atoms.push_back(chapterJson(*a));
      ed["chapters"] = atoms;
      chapters.push_back(ed);
    }
    for (auto& tl : seg.tags_) {
      for (auto& tag : tl->tags_) {
        TagTargets& tg = *tag->targets_;
        ojson targets{{"type_value", present(tg.typeValue_) ? tg.typeValue_->get() : 50}};
        if (present(tg.type_)) targets["type"] = unpadded(tg.type_->get());
        targets["track_uids"] = uids(tg.trackUids_);
        targets["edition_uids"] = uids(tg.editionUids_);
        targets["chapter_uids"] = uids(tg.chapterUids_);
        targets["attachment_uids"] = uids(tg.attachmentUids_);
        ojson simple = ojson::array();
        for (auto& s : tag->simpleTags_) simple.push_back(simpleTagJson(*s));
        tags.push_back({{"targets", targets}, {"tags", simple}});
      }
    }
    for (auto& f : seg.attachments_->files_) {
      ojson a{{"name", unpadded(f->name_->get())}, {"mime_type", unpadded(f->mimeType_->get())},
              {"size", f->data_->numBytes()}, {"uid", f->uid_->get()}};
      if (present(f->description_)) a["description"] = unpadded(f->description_->get());
      attachments.push_back(a);
    }
  }
  container["file_size"] = fileSize;
  if (!container.contains("bit_rate")) container["bit_rate"] = nullptr;
  out["container"] = container;
  out["tracks"] = tracks;
  out["chapters"] = chapters;
  out["tags"] = tags;
  out["attachments"] = attachments;
  ojson d = ojson::array();
  for (const auto& r : damage) d.push_back({{"begin", r.begin}, {"end", r.end}, {"past_end_of_file", r.end > fileSize}});
  out["damage"] = d;
  return out;
}


}  // namespace

int runInfo(const InfoOptions& o) {
  FileStorage in(o.file, File::kReadOnly);
  if (!in.file().isOpen()) return fail("cannot open " + o.file);
  const uint64_t size = in.file().size();
  Progress progress("info", progressMode(o.progress));
  progress.setTotals(0, size);
  ClusterSkipper skipper(size, progress.active() ? &progress : nullptr);
  MatroskaDoc doc;
  doc.setKeepUnknown(true);
  bool loaded;
  if (o.seekHead) {
    loaded = doc.loadSeekHead(in, size);
    if (loaded) doc.loadViaSeekHead(in, &skipper, true);
  } else {
    loaded = doc.loadAndKeepReceipts(in, size, &skipper) > 0;
  }
  progress.update(size);
  progress.finish(true);
  if (!doc.head_.storageReceipt() || doc.head_->docType_->get().empty())
    return fail(o.file + " is not a Matroska or WebM file");
  if (!loaded && o.seekHead) return fail(o.file + " has no seek head");
  const std::vector<TByteRange> damage = doc.damagedRanges();

  if (o.json && !o.tree) {
    std::cout << summary(doc, size, skipper, damage).dump(2, ' ', false, json::error_handler_t::replace) << "\n";
  } else {
    Collector collector;
    collector.addDocument(doc);
    collector.sort();
    if (o.json) {
      json out{{"file", o.file}, {"size", size}, {"elements", treeJson(collector.nodes, o.depth)}};
      std::cout << out.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
    } else {
      uint64_t scale = 1000000;
      if (!doc.segments_.empty() && present(doc.segments_.front()->info_->timecodeScale_))
        scale = doc.segments_.front()->info_->timecodeScale_->get();
      std::cout << o.file << ": " << size << " bytes\n";
      Printer printer(o, in, size, scale, skipper);
      printer.print(collector.nodes, 0, std::cout);
    }
  }
  std::cout.flush();
  if (!damage.empty()) return damaged(o.file + " is damaged: " + describeDamage(damage, size) + " could not be read");
  return kExitOk;
}

}  // namespace kapsel_cli
