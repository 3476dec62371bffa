#include "kapsel/repair.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <sstream>

#include "kapsel/ebml.h"
#include "kapsel/file.h"
#include "kapsel/inplace.h"

namespace Kapsel {

namespace {

using namespace inplace;

constexpr uint64_t kIdTimecode = 0xE7, kIdSimpleBlock = 0xA3, kIdBlockGroup = 0xA0, kIdBlock = 0xA1,
                   kIdReferenceBlock = 0xFB, kIdBlockDuration = 0x9B, kIdTrackEntry = 0xAE, kIdTrackNumber = 0xD7,
                   kIdTrackType = 0x83, kIdDefaultDuration = 0x23E383, kIdTimecodeScale = 0x2AD7B1,
                   kIdDuration = 0x4489, kIdCuePoint = 0xBB, kIdCueTime = 0xB3, kIdCueTrackPositions = 0xB7,
                   kIdCueTrack = 0xF7, kIdCueClusterPosition = 0xF1;
constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();
// Info and Tracks are read whole; anything larger is not what a writer puts there.
constexpr uint64_t kMaxHeaderElement = 16 << 20;

bool isTopLevel(uint64_t id) {
  return id == kIdCluster || id == kIdCues || id == kIdInfo || id == kIdTracks || id == kIdSeekHead ||
         id == kIdTags || id == kIdChapters || id == kIdAttachments;
}

bool isClusterChild(uint64_t id) {
  return id == kIdTimecode || id == 0x5854 || id == 0xA7 || id == 0xAB || id == kIdSimpleBlock ||
         id == kIdBlockGroup || id == 0xAF || id == kIdVoid || id == kIdCrc;
}

std::string str(uint64_t v) { return std::to_string(v); }

std::string seconds(double s) {
  std::ostringstream os;
  os.precision(3);
  os << std::fixed << s << " s";
  return os.str();
}

// A top-level element as it lies in the file; `size` is what it really spans (an open one ends where the next begins).
struct Element {
  uint64_t id = 0, position = 0, size = 0;
  Header header;
  bool open = false;
  uint64_t end() const { return position + size; }
};

struct Track {
  uint64_t number = 0, type = 0, defaultDuration = 0;  // nanoseconds
};

// The latest end of a track's blocks; blocks without a known duration last as long as the gap before them.
struct TrackEnd {
  double knownEnd = 0;
  int64_t lastTime = std::numeric_limits<int64_t>::min();
  int64_t maxTime = std::numeric_limits<int64_t>::min();
  uint64_t maxFrames = 1, lastFrames = 1;
  int64_t frameGap = 0;  // the shortest step between blocks, per frame
  bool unknownDuration = false;
};

struct KeyBlock {
  int64_t time;  // TimecodeScale units
  uint64_t track, cluster;
};

struct ClusterScan {
  uint64_t end = 0;      // of the last whole child (or the whole cluster)
  bool cut = false;      // it runs past the data, or its children break off
  uint64_t blocks = 0;
  uint64_t crcChild = kNone;  // position of a leading CRC-32
};

std::vector<unsigned char> floatBytes(double value, uint64_t width) {
  std::vector<unsigned char> out(width);
  uint64_t bits = 0;
  if (width == 4) {
    const float f = static_cast<float>(value);
    uint32_t b32;
    std::memcpy(&b32, &f, 4);
    bits = b32;
  } else {
    std::memcpy(&bits, &value, 8);
  }
  for (uint64_t i = 0; i < width; ++i) out[width - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
  return out;
}

double floatValue(const unsigned char* p, uint64_t width) {
  const uint64_t bits = readUInt(p, width);
  if (width == 4) {
    const uint32_t b32 = static_cast<uint32_t>(bits);
    float f;
    std::memcpy(&f, &b32, 4);
    return f;
  }
  double d;
  std::memcpy(&d, &bits, 8);
  return d;
}

// One element: ID, the fewest size bytes, payload.
std::vector<unsigned char> element(uint64_t id, const std::vector<unsigned char>& payload) {
  std::vector<unsigned char> out;
  putId(out, id);
  putSize(out, payload.size());
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

void append(std::vector<unsigned char>& out, const std::vector<unsigned char>& more) {
  out.insert(out.end(), more.begin(), more.end());
}

// The children of an element held in memory: (id, offset of the child, header bytes, payload size).
struct Child {
  uint64_t id, offset, headerBytes, size;
};
bool children(const std::vector<unsigned char>& bytes, uint64_t from, std::vector<Child>& out) {
  for (uint64_t q = from; q < bytes.size();) {
    unsigned char tmp[12] = {};
    std::copy(bytes.begin() + q, bytes.begin() + std::min<uint64_t>(bytes.size(), q + 12), tmp);
    unsigned idLen = 1, w = 0;
    while (idLen <= 4 && !(tmp[0] & (0x80 >> (idLen - 1)))) ++idLen;
    if (idLen > 4) return false;
    const uint64_t size = vsizeDecode(tmp + idLen, w);
    if (w == 0 || q + idLen + w + size > bytes.size()) return false;
    out.push_back(Child{readUInt(tmp, idLen), q, idLen + w, size});
    q += idLen + w + size;
  }
  return true;
}

class Analysis {
 public:
  Analysis(const std::string& path, const Repairer::ProgressFn& progress) : in_(path), path_(path), progress_(progress) {}
  RepairPlan run();

 private:
  bool segmentStart(RepairPlan& plan);
  void walk();
  ClusterScan scanCluster(uint64_t pos, const Header& h);
  bool block(uint64_t payload, uint64_t size, uint64_t cluster, int64_t clusterTime, bool group, bool referenced,
             int64_t duration);
  uint64_t openEnd(uint64_t from, bool& clean);
  void dropTrailing();
  void readTracks(const Element& tracks);
  void readInfo(size_t index);
  double durationUnits() const;
  void patchClusters(RepairPlan& plan);
  std::vector<unsigned char> cues(RepairPlan& plan, uint64_t& cueTrack);
  void seekHeads(RepairPlan& plan, uint64_t cuesAt, uint64_t& end);
  void duration(RepairPlan& plan);
  void segmentSize(RepairPlan& plan, uint64_t end);

  RawReader in_;
  std::string path_;
  const Repairer::ProgressFn& progress_;
  uint64_t segment_ = 0, payload_ = 0, limit_ = 0, declaredEnd_ = kNone;
  Header segHeader_;
  std::vector<Element> elements_;
  std::map<uint64_t, ClusterScan> scans_;  // by cluster position
  uint64_t cut_ = kNone;                   // where whole data ends, when the walk broke off
  std::vector<KeyBlock> keys_;
  std::map<uint64_t, TrackEnd> ends_;
  std::vector<Track> tracks_;
  uint64_t scale_ = 1000000;
  uint64_t blocks_ = 0;
  std::vector<unsigned char> info_;  // the Info element's bytes
  uint64_t infoTakesVoid_ = kNone;   // a Void after Info that Info grows into
  long infoIndex_ = -1;
};

RepairPlan Analysis::run() {
  RepairPlan plan;
  plan.fileSize = in_.size();
  plan.newSize = plan.fileSize;
  if (!in_.ok()) {
    plan.message = "cannot open " + path_;
    return plan;
  }
  if (!segmentStart(plan)) return plan;
  walk();
  const bool whole = !segHeader_.unknown && declaredEnd_ <= plan.fileSize && cut_ == kNone &&
                     std::none_of(elements_.begin(), elements_.end(), [](const Element& e) { return e.open; });
  if (whole) {
    plan.status = RepairPlan::Status::Whole;
    return plan;
  }
  plan.status = RepairPlan::Status::Damaged;
  if (cut_ != kNone && !segHeader_.unknown && declaredEnd_ <= plan.fileSize) {
    plan.message = path_ + " is damaged at byte " + str(cut_) +
                   ", inside a Segment that ends within the file; repair only mends files cut off at the end";
    return plan;
  }
  if (!segHeader_.unknown && declaredEnd_ < plan.fileSize) {
    // Truncating would lose what follows the Segment.
    plan.message = path_ + " has bytes after its Segment and open elements inside it; repair only mends files cut "
                   "off at the end";
    return plan;
  }
  dropTrailing();
  if (tracks_.empty()) {
    plan.message = path_ + " has no readable Tracks element with a track: it cannot be repaired";
    return plan;
  }
  uint64_t kept = 0;
  for (const auto& e : elements_)
    if (e.id == kIdCluster) kept += scans_[e.position].blocks;
  if (kept == 0) {
    plan.message = path_ + " holds no whole block: nothing to keep";
    return plan;
  }
  plan.status = RepairPlan::Status::Repairable;
  plan.blocks = kept;
  if (infoIndex_ >= static_cast<long>(elements_.size())) infoIndex_ = -1;
  plan.duration = durationUnits() * static_cast<double>(scale_) / 1e9;

  const uint64_t cutAt = elements_.back().end();
  if (cutAt < plan.fileSize)
    plan.actions.push_back("cut at byte " + str(cutAt) + ": the " + str(plan.fileSize - cutAt) +
                           " bytes after the last whole element go");
  patchClusters(plan);
  uint64_t cueTrack = 0;
  std::vector<unsigned char> cueBytes = cues(plan, cueTrack);
  uint64_t end = cutAt;
  if (!cueBytes.empty()) {
    plan.actions.push_back("Cues written at byte " + str(end) + ": " + str(plan.cuePoints) +
                           " cue points, the key frames of track " + str(cueTrack) + " (" + str(cueBytes.size()) +
                           " bytes)");
    plan.writes.push_back(RepairPlan::Write{end, cueBytes});
    end += cueBytes.size();
  }
  duration(plan);
  seekHeads(plan, cueBytes.empty() ? kNone : cutAt, end);
  segmentSize(plan, end);
  plan.newSize = end;
  if (end != plan.fileSize)
    plan.actions.push_back("file size " + str(plan.fileSize) + " -> " + str(end) + " bytes");
  return plan;
}

bool Analysis::segmentStart(RepairPlan& plan) {
  Header h;
  if (!in_.header(0, h) || h.id != kIdEbml || h.unknown || h.headerBytes + h.size > in_.size()) {
    plan.message = path_ + " is not a Matroska or WebM file";
    return false;
  }
  uint64_t pos = h.headerBytes + h.size;
  for (;;) {
    if (!in_.header(pos, h) || (h.id != kIdSegment && (h.id != kIdVoid || h.unknown))) {
      plan.message = path_ + " is not a Matroska or WebM file: no Segment after the EBML header";
      return false;
    }
    if (h.id == kIdSegment) break;
    pos += h.headerBytes + h.size;
  }
  segment_ = pos;
  segHeader_ = h;
  payload_ = pos + h.headerBytes;
  if (!h.unknown) declaredEnd_ = payload_ + h.size;
  limit_ = std::min(declaredEnd_, in_.size());
  return true;
}

// The Segment's children in order, up to the end of what is there; cut_ marks where whole data stops.
void Analysis::walk() {
  uint64_t pos = payload_;
  while (pos < limit_) {
    Header h;
    if (!in_.header(pos, h)) {
      cut_ = pos;
      return;
    }
    Element e{h.id, pos, 0, h, h.unknown};
    if (h.id == kIdCluster) {
      const ClusterScan scan = scanCluster(pos, h);
      scans_[pos] = scan;
      e.size = scan.end - pos;
      elements_.push_back(e);
      if (progress_) progress_(scan.end, in_.size());
      if (scan.cut) {
        cut_ = scan.end;
        return;
      }
      pos = scan.end;
      continue;
    }
    if (h.unknown) {
      bool clean = false;
      const uint64_t end = openEnd(pos + h.headerBytes, clean);
      if (!clean) {
        cut_ = pos;
        return;
      }
      e.size = end - pos;
    } else if (h.size > limit_ - pos - h.headerBytes || pos + h.headerBytes > limit_) {
      cut_ = pos;
      return;
    } else {
      e.size = h.headerBytes + h.size;
    }
    elements_.push_back(e);
    if (e.id == kIdTracks) readTracks(e);
    if (e.id == kIdInfo) readInfo(elements_.size() - 1);
    pos = e.end();
  }
}

// Where an open element other than a Cluster ends: at the first top-level ID among its children.
uint64_t Analysis::openEnd(uint64_t pos, bool& clean) {
  while (pos < limit_) {
    Header c;
    if (!in_.header(pos, c)) return pos;
    if (isTopLevel(c.id)) {
      clean = true;
      return pos;
    }
    if (c.unknown || c.size > limit_ - pos - c.headerBytes) return pos;
    pos += c.headerBytes + c.size;
  }
  return pos;
}

ClusterScan Analysis::scanCluster(uint64_t pos, const Header& h) {
  ClusterScan scan;
  const uint64_t declared = h.unknown ? kNone : pos + h.headerBytes + h.size;
  const uint64_t limit = std::min(declared, limit_);
  int64_t clusterTime = 0;
  uint64_t p = pos + h.headerBytes;
  scan.end = p;
  bool broke = false;
  while (p < limit) {
    Header c;
    if (!in_.header(p, c)) {
      broke = true;
      break;
    }
    // An open cluster ends at the next top-level element (which may be open too).
    if (h.unknown && (isTopLevel(c.id) || !isClusterChild(c.id))) break;
    if (c.unknown) {
      broke = true;
      break;
    }
    if (c.size > limit - p - c.headerBytes || p + c.headerBytes > limit) {
      broke = true;
      break;
    }
    const uint64_t body = p + c.headerBytes;
    if (c.id == kIdTimecode && c.size <= 8) {
      unsigned char b[8];
      if (in_.read(body, b, c.size)) clusterTime = static_cast<int64_t>(readUInt(b, c.size));
    } else if (c.id == kIdCrc && p == pos + h.headerBytes) {
      scan.crcChild = p;
    } else if (c.id == kIdSimpleBlock) {
      if (block(body, c.size, pos, clusterTime, false, false, -1)) ++scan.blocks;
    } else if (c.id == kIdBlockGroup) {
      uint64_t blockAt = kNone, blockSize = 0;
      bool referenced = false;
      int64_t duration = -1;
      for (uint64_t q = body; q < body + c.size;) {
        Header g;
        if (!in_.header(q, g) || g.unknown || g.size > body + c.size - q - g.headerBytes) break;
        if (g.id == kIdBlock) blockAt = q + g.headerBytes, blockSize = g.size;
        if (g.id == kIdReferenceBlock) referenced = true;
        unsigned char b[8];
        if (g.id == kIdBlockDuration && g.size <= 8 && in_.read(q + g.headerBytes, b, g.size))
          duration = static_cast<int64_t>(readUInt(b, g.size));
        q += g.headerBytes + g.size;
      }
      if (blockAt != kNone && block(blockAt, blockSize, pos, clusterTime, true, referenced, duration)) ++scan.blocks;
    }
    p += c.headerBytes + c.size;
    scan.end = p;
  }
  if (declared != kNone && declared <= limit_) {
    // A cluster whose stated size is all there is whole, whatever its children hold.
    scan.end = declared;
    return scan;
  }
  scan.cut = broke || declared != kNone;
  return scan;
}

// Notes a whole block: its track's end and, for key frames, a cue candidate.
bool Analysis::block(uint64_t payload, uint64_t size, uint64_t cluster, int64_t clusterTime, bool group,
                     bool referenced, int64_t duration) {
  unsigned char b[12] = {};
  const uint64_t n = std::min<uint64_t>(12, size);
  if (n < 4 || !in_.read(payload, b, n)) return false;
  unsigned w = 0;
  const uint64_t track = vsizeDecode(b, w);
  if (w == 0 || w + 3 > n) return false;
  const int64_t time = clusterTime + static_cast<int16_t>(b[w] << 8 | b[w + 1]);
  const unsigned char flags = b[w + 2];
  uint64_t frames = 1;
  if ((flags & 0x06) && w + 3 < n) frames = b[w + 3] + 1u;
  const bool key = group ? !referenced : (flags & 0x80) != 0;
  ++blocks_;
  if (key) keys_.push_back(KeyBlock{time, track, cluster});
  TrackEnd& t = ends_[track];
  if (duration < 0) {
    for (const auto& tr : tracks_)
      if (tr.number == track && tr.defaultDuration)
        duration = static_cast<int64_t>(std::llround(double(frames) * double(tr.defaultDuration) / double(scale_)));
  }
  if (duration >= 0) {
    t.knownEnd = std::max(t.knownEnd, double(time + duration));
  } else {
    t.unknownDuration = true;
    if (t.lastTime != std::numeric_limits<int64_t>::min() && time > t.lastTime) {
      const int64_t step = (time - t.lastTime) / static_cast<int64_t>(t.lastFrames);
      if (step > 0 && (t.frameGap == 0 || step < t.frameGap)) t.frameGap = step;
    }
    if (time >= t.maxTime) t.maxTime = time, t.maxFrames = frames;
  }
  t.lastTime = time;
  t.lastFrames = frames;
  return true;
}

// Index, SeekHead and Void elements after the last cluster go (they are written anew); so does a last cluster
// without a whole block.
void Analysis::dropTrailing() {
  while (!elements_.empty()) {
    const Element& e = elements_.back();
    const bool emptyCluster = e.id == kIdCluster && scans_[e.position].blocks == 0;
    bool afterClusters = false;
    for (const auto& other : elements_) afterClusters = afterClusters || other.id == kIdCluster;
    const bool index = (e.id == kIdCues || e.id == kIdSeekHead || e.id == kIdVoid) && afterClusters &&
                       std::find_if(elements_.begin(), elements_.end(), [&](const Element& o) {
                         return o.id == kIdCluster && o.position > e.position;
                       }) == elements_.end();
    if (!emptyCluster && !index) return;
    elements_.pop_back();
  }
}

// The first Tracks element's track numbers, types and default durations.
void Analysis::readTracks(const Element& tracks) {
  std::vector<unsigned char> bytes(tracks.size);
  std::vector<Child> entries;
  if (!tracks_.empty() || tracks.open || tracks.size > kMaxHeaderElement ||
      !in_.read(tracks.position, bytes.data(), bytes.size()))
    return;
  children(bytes, tracks.header.headerBytes, entries);
  for (const auto& e : entries) {
    if (e.id != kIdTrackEntry) continue;
    std::vector<unsigned char> entry(bytes.begin() + e.offset, bytes.begin() + e.offset + e.headerBytes + e.size);
    std::vector<Child> fields;
    children(entry, e.headerBytes, fields);
    Track t;
    for (const auto& f : fields) {
      if (f.size > 8) continue;
      const uint64_t v = readUInt(entry.data() + f.offset + f.headerBytes, f.size);
      if (f.id == kIdTrackNumber) t.number = v;
      if (f.id == kIdTrackType) t.type = v;
      if (f.id == kIdDefaultDuration) t.defaultDuration = v;
    }
    if (t.number) tracks_.push_back(t);
  }
}

// The first Info element's bytes and TimecodeScale.
void Analysis::readInfo(size_t index) {
  const Element& e = elements_[index];
  if (infoIndex_ >= 0 || e.open || e.size > kMaxHeaderElement) return;
  info_.resize(e.size);
  if (!in_.read(e.position, info_.data(), e.size)) return info_.clear();
  infoIndex_ = static_cast<long>(index);
  std::vector<Child> fields;
  children(info_, e.header.headerBytes, fields);
  for (const auto& f : fields)
    if (f.id == kIdTimecodeScale && f.size <= 8 && f.size > 0)
      scale_ = std::max<uint64_t>(1, readUInt(info_.data() + f.offset + f.headerBytes, f.size));
}

// The end of the last whole block in TimecodeScale units. Blocks were timed while the scale was not yet known
// only when Info comes after the clusters, which no writer does.
double Analysis::durationUnits() const {
  double end = 0;
  for (const auto& [track, t] : ends_) {
    end = std::max(end, t.knownEnd);
    if (t.unknownDuration) end = std::max(end, double(t.maxTime + t.frameGap * static_cast<int64_t>(t.maxFrames)));
  }
  return end;
}

void Analysis::patchClusters(RepairPlan& plan) {
  for (const auto& e : elements_) {
    if (e.id != kIdCluster) continue;
    const uint64_t size = e.size - e.header.headerBytes;
    if (!e.open && size == e.header.size) continue;
    const std::string was = e.open ? "open" : str(e.header.size);
    if (size > vsizeLargest(e.header.sizeWidth)) {
      plan.notes.push_back("Cluster at " + str(e.position) + " stays open: its " + str(e.header.sizeWidth) +
                           "-byte size field cannot hold " + str(size));
      continue;
    }
    std::vector<unsigned char> field;
    putSize(field, size, e.header.sizeWidth);
    plan.writes.push_back(RepairPlan::Write{e.position + e.header.headerBytes - e.header.sizeWidth, field});
    plan.actions.push_back("Cluster at " + str(e.position) + ": size " + was + " -> " + str(size));
    const ClusterScan& scan = scans_.at(e.position);
    if (!e.open && scan.crcChild != kNone) {
      // Its CRC-32 covered the bytes that were cut off.
      plan.writes.push_back(RepairPlan::Write{scan.crcChild, voidBytes(6)});
      plan.actions.push_back("Cluster at " + str(e.position) + ": its CRC-32 becomes a Void");
    }
  }
}

std::vector<unsigned char> Analysis::cues(RepairPlan& plan, uint64_t& cueTrack) {
  cueTrack = 0;
  for (uint64_t type : {1, 2})
    for (const auto& t : tracks_)
      if (!cueTrack && t.type == type) cueTrack = t.number;
  if (!cueTrack) {
    plan.notes.push_back("no video or audio track: no Cues written");
    return {};
  }
  const uint64_t last = elements_.back().end();
  std::vector<KeyBlock> keys;
  for (const auto& k : keys_)
    if (k.track == cueTrack && k.time >= 0 && k.cluster < last) keys.push_back(k);
  std::stable_sort(keys.begin(), keys.end(), [](const KeyBlock& a, const KeyBlock& b) { return a.time < b.time; });
  std::vector<unsigned char> payload;
  for (const auto& k : keys) {
    std::vector<unsigned char> positions, point;
    putUInt(positions, kIdCueTrack, k.track);
    putUInt(positions, kIdCueClusterPosition, k.cluster - payload_);
    putUInt(point, kIdCueTime, static_cast<uint64_t>(k.time));
    append(point, element(kIdCueTrackPositions, positions));
    append(payload, element(kIdCuePoint, point));
  }
  plan.cuePoints = keys.size();
  if (keys.empty()) {
    plan.notes.push_back("track " + str(cueTrack) + " has no key frame: no Cues written");
    return {};
  }
  return element(kIdCues, payload);
}

// The front SeekHead names everything when it can; otherwise a second one at the end does, and the front one
// (or a Void before the clusters) points to it when there is room.
void Analysis::seekHeads(RepairPlan& plan, uint64_t cuesAt, uint64_t& end) {
  uint64_t firstCluster = kNone;
  for (const auto& e : elements_)
    if (e.id == kIdCluster) firstCluster = std::min(firstCluster, e.position);
  SeekHeadContent full;
  for (const auto& e : elements_)
    if (e.id == kIdInfo || e.id == kIdTracks || e.id == kIdTags || e.id == kIdChapters || e.id == kIdAttachments)
      full.entries.push_back(SeekRef{e.id, e.position - payload_});
  if (cuesAt != kNone) full.entries.push_back(SeekRef{kIdCues, cuesAt - payload_});

  // Where a front SeekHead can go: the first SeekHead (with a Void after it), else a Void before the clusters.
  long front = -1;
  uint64_t room = 0;
  SeekHeadContent old;
  for (size_t i = 0; i < elements_.size() && elements_[i].position < firstCluster; ++i)
    if (elements_[i].id == kIdSeekHead) {
      front = static_cast<long>(i);
      break;
    }
  if (front >= 0) {
    const Element& e = elements_[front];
    room = e.size;
    if (static_cast<size_t>(front) + 1 < elements_.size() && elements_[front + 1].id == kIdVoid)
      room += elements_[front + 1].size;
    std::vector<unsigned char> bytes(e.size - e.header.headerBytes);
    if (in_.read(e.position + e.header.headerBytes, bytes.data(), bytes.size()))
      old = parseSeekHead(bytes.data(), bytes.size());
    else
      old.plain = false;
    full.hasCrc = old.hasCrc;
    full.littleEndianCrc = old.littleEndianCrc;
  }
  std::vector<long> voids;
  if (front < 0)
    for (size_t i = 0; i < elements_.size() && elements_[i].position < firstCluster; ++i)
      if (elements_[i].id == kIdVoid && elements_[i].position != infoTakesVoid_) voids.push_back(static_cast<long>(i));

  // Tries a content at the front; true when written there.
  auto placeFront = [&](const SeekHeadContent& h, const std::string& what) {
    if (front >= 0) {
      if (!old.plain) return false;
      std::vector<unsigned char> bytes = seekHeadInto(h, room);
      if (bytes.empty()) return false;
      plan.writes.push_back(RepairPlan::Write{elements_[front].position, bytes});
      plan.actions.push_back("SeekHead at " + str(elements_[front].position) + ": rewritten in place, " + what);
      return true;
    }
    for (long i : voids) {
      std::vector<unsigned char> bytes = seekHeadInto(h, elements_[i].size);
      if (bytes.empty()) continue;
      plan.writes.push_back(RepairPlan::Write{elements_[i].position, bytes});
      plan.actions.push_back("SeekHead written into the Void at " + str(elements_[i].position) + ", " + what);
      return true;
    }
    return false;
  };
  auto names = [&](const SeekHeadContent& h) {
    std::string s;
    for (const auto& e : h.entries) s += (s.empty() ? "" : ", ") + std::string(topLevelName(e.id));
    return s;
  };
  // Other SeekHeads and Cues that stay would name what is gone: they become Voids.
  for (size_t i = 0; i < elements_.size(); ++i) {
    const Element& e = elements_[i];
    if ((e.id != kIdSeekHead && e.id != kIdCues) || static_cast<long>(i) == front) continue;
    // Only the header changes: the old payload becomes the Void's.
    std::vector<unsigned char> v = voidBytes(e.size);
    unsigned w = 1;
    while (!(v[1] & (0x80 >> (w - 1)))) ++w;
    v.resize(1 + w);
    plan.writes.push_back(RepairPlan::Write{e.position, v});
    plan.actions.push_back(std::string(topLevelName(e.id)) + " at " + str(e.position) + " (stale) becomes a Void");
  }
  if (placeFront(full, "naming " + names(full))) return;

  const uint64_t secondAt = end;
  std::vector<unsigned char> second = seekHeadBytes(SeekHeadContent{full.entries, false, false, true});
  plan.writes.push_back(RepairPlan::Write{secondAt, second});
  plan.actions.push_back("SeekHead written at byte " + str(secondAt) + ", naming " + names(full));
  end += second.size();
  const SeekRef pointer{kIdSeekHead, secondAt - payload_};
  SeekHeadContent withHeaders = full, onlyPointer = full;
  withHeaders.entries.clear();
  onlyPointer.entries = {pointer};
  for (const auto& e : full.entries)
    if (e.id == kIdInfo || e.id == kIdTracks) withHeaders.entries.push_back(e);
  withHeaders.entries.push_back(pointer);
  if (placeFront(withHeaders, "naming " + names(withHeaders)) || placeFront(onlyPointer, "naming the second"))
    return;
  if (front >= 0 && old.plain) {
    SeekHeadContent kept = old;
    kept.entries.clear();
    for (const auto& r : old.entries)
      for (const auto& e : elements_)
        if (e.id == r.id && e.position == payload_ + r.position && e.id != kIdCues && e.id != kIdSeekHead)
          kept.entries.push_back(r);
    if (kept.entries.size() != old.entries.size() || elements_[front].open) placeFront(kept, "stale entries dropped");
  }
  plan.notes.push_back("no room before the clusters to point at the SeekHead at the end: readers find the Cues only "
                       "by reading the whole file");
}

void Analysis::duration(RepairPlan& plan) {
  if (infoIndex_ < 0) {
    plan.notes.push_back("no readable Info element: Duration not set");
    return;
  }
  const Element& info = elements_[static_cast<size_t>(infoIndex_)];
  const double units = durationUnits();
  std::vector<unsigned char> bytes = info_;
  std::vector<Child> fields;
  children(bytes, info.header.headerBytes, fields);
  std::string how;
  uint64_t room = info.size, newInfoSize = info.size;
  auto durationAt = std::find_if(fields.begin(), fields.end(), [](const Child& f) {
    return f.id == kIdDuration && (f.size == 4 || f.size == 8);
  });
  if (durationAt != fields.end()) {
    const unsigned char* old = bytes.data() + durationAt->offset + durationAt->headerBytes;
    const double was = floatValue(old, durationAt->size);
    const auto value = floatBytes(units, durationAt->size);
    if (std::equal(value.begin(), value.end(), old)) return;
    std::copy(value.begin(), value.end(), bytes.begin() + durationAt->offset + durationAt->headerBytes);
    how = "Duration " + seconds(was * double(scale_) / 1e9) + " -> " + seconds(units * double(scale_) / 1e9);
  } else {
    std::vector<unsigned char> d = element(kIdDuration, floatBytes(units, 8));
    auto slot = std::find_if(fields.begin(), fields.end(), [&](const Child& f) {
      const uint64_t n = f.headerBytes + f.size;
      return f.id == kIdVoid && (n == d.size() || n >= d.size() + 2);
    });
    if (slot != fields.end()) {
      // A Void reserved inside Info for the Duration.
      const uint64_t n = slot->headerBytes + slot->size;
      if (n > d.size()) append(d, voidBytes(n - d.size()));
      std::copy(d.begin(), d.end(), bytes.begin() + slot->offset);
    } else {
      // Info grows into the Void after it.
      if (static_cast<size_t>(infoIndex_) + 1 < elements_.size() && elements_[infoIndex_ + 1].id == kIdVoid)
        room += elements_[infoIndex_ + 1].size;
      const uint64_t payload = info.size - info.header.headerBytes + d.size();
      const uint64_t grown = info.size + d.size();
      if (payload > vsizeLargest(info.header.sizeWidth) || (grown != room && grown + 2 > room)) {
        plan.notes.push_back("Info has no Duration element and no room for one: Duration not set");
        return;
      }
      std::vector<unsigned char> field;
      putSize(field, payload, info.header.sizeWidth);
      std::copy(field.begin(), field.end(), bytes.begin() + info.header.headerBytes - info.header.sizeWidth);
      append(bytes, d);
      newInfoSize = grown;
      if (room > info.size) infoTakesVoid_ = elements_[infoIndex_ + 1].position;
      if (grown < room) append(bytes, voidBytes(room - grown));
    }
    how = "Duration " + seconds(units * double(scale_) / 1e9) + " added";
  }
  const uint64_t h = info.header.headerBytes;
  if (bytes.size() >= h + 6 && bytes[h] == kIdCrc && bytes[h + 1] == 0x84) {
    // Its CRC-32 is computed anew, in the byte order it had, when it matched before.
    Crc32 before, after;
    before.compute(info_.data() + h + 6, info.size - h - 6);
    after.compute(bytes.data() + h + 6, newInfoSize - h - 6);
    const uint64_t stored = readUInt(info_.data() + h + 2, 4);
    const bool big = stored == before.checksum(), little = stored == __builtin_bswap32(before.checksum());
    const uint32_t sum = little ? __builtin_bswap32(after.checksum()) : after.checksum();
    if (big || little)
      for (int i = 0; i < 4; ++i) bytes[h + 2 + i] = static_cast<unsigned char>(sum >> (24 - 8 * i));
  }
  plan.writes.push_back(RepairPlan::Write{info.position, bytes});
  plan.actions.push_back(how);
}

void Analysis::segmentSize(RepairPlan& plan, uint64_t end) {
  const uint64_t size = end - payload_;
  const std::string was = segHeader_.unknown ? "open" : str(segHeader_.size);
  std::vector<unsigned char> field;
  if (size <= vsizeLargest(segHeader_.sizeWidth)) {
    putSize(field, size, segHeader_.sizeWidth);
    plan.actions.push_back("Segment size " + was + " -> " + str(size));
  } else if (segHeader_.unknown) {
    plan.notes.push_back("the Segment stays open: its size field is too narrow for " + str(size));
    return;
  } else {
    field.assign(segHeader_.sizeWidth, 0xFF);
    field[0] = static_cast<unsigned char>(0xFF >> (segHeader_.sizeWidth - 1));
    plan.actions.push_back("Segment size " + was + " -> open (its size field is too narrow for " + str(size) + ")");
  }
  plan.writes.push_back(RepairPlan::Write{segment_ + segHeader_.headerBytes - segHeader_.sizeWidth, field});
}

}  // namespace

RepairPlan Repairer::analyse() const {
  Analysis analysis(path_, progress_);
  return analysis.run();
}

bool Repairer::execute(const RepairPlan& plan, std::string& error) const {
  if (plan.status != RepairPlan::Status::Repairable) return true;
  File file(path_, File::kReadWrite);
  if (!file.isOpen()) {
    error = "cannot open " + path_ + " for writing";
    return false;
  }
  if (file.size() != plan.fileSize) {
    error = path_ + " changed since it was analysed";
    return false;
  }
  bool ok = true;
  for (const auto& w : plan.writes)
    ok = ok && file.seek(static_cast<int64_t>(w.position)) &&
         file.save(w.bytes.data(), static_cast<unsigned long>(w.bytes.size()));
  ok = ok && file.setSize(static_cast<int64_t>(plan.newSize));
  file.close();
  if (!ok || file.hadWriteError()) {
    error = "writing " + path_ + " failed";
    return false;
  }
  return true;
}

}  // namespace Kapsel
