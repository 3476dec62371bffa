#include "kapsel/edit.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "kapsel/crawlers.h"
#include "kapsel/ebml.h"
#include "kapsel/file.h"
#include "kapsel/inplace.h"
#include "kapsel/payload.h"
#include "kapsel/segment.h"

namespace Kapsel {

namespace {

using namespace inplace;

struct SeekHeadMap : SeekHeadContent {
  size_t element = 0;  // index in the element list
  bool changed = false;
  bool relocated = false;  // written into a Void before the clusters instead of its own place
  uint64_t target = 0;
};

uint64_t randomUid() {
  static std::mt19937_64 engine{std::random_device{}()};
  uint64_t v = 0;
  while (v == 0) v = engine();
  return v;
}

bool isThreeLetterCode(const std::string& s) {
  return s.size() == 3 && std::all_of(s.begin(), s.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

// Writes each CRC-32 back in the byte order the element had, children first.
class RestoreCrc32 : public IElementCrawler {
 public:
  bool eval(IElement& element) override {
    const bool stop = evalPayload(element.getPayload());
    if (element.crc32Receipt())
      writeCrc32(element, element.crc32Order() == kCrc32FoundLittleEndian ? kCrc32LittleEndian : kCrc32BigEndian);
    return stop;
  }
};

bool parseTime(const std::string& s, uint64_t& ns) {
  unsigned h = 0, m = 0, sec = 0, ms = 0;
  char c1 = 0, c2 = 0, c3 = 0;
  std::istringstream in(s);
  if (!(in >> h >> c1 >> m >> c2 >> sec >> c3 >> ms) || c1 != ':' || c2 != ':' || c3 != '.' || m > 59 || sec > 59 ||
      ms > 999)
    return false;
  std::string rest;
  if (in >> rest) return false;
  const size_t dot = s.find('.');
  if (s.size() - dot - 1 != 3) return false;
  ns = ((uint64_t(h) * 3600 + m * 60 + sec) * 1000 + ms) * 1000000ull;
  return true;
}

// Calls fn(line, number) for each line of a list file, without its line end; stops at the first line fn refuses.
template <class Fn>
bool forEachListLine(const std::string& text, Fn fn) {
  std::istringstream in(text);
  std::string line;
  unsigned number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!fn(line, number)) return false;
  }
  return true;
}

}  // namespace

bool parseChapterList(const std::string& text, std::vector<EditRequest::Chapter>& out, std::string& error) {
  const bool ok = forEachListLine(text, [&](std::string line, unsigned number) {
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') return true;
    line = line.substr(first);
    const size_t space = line.find_first_of(" \t");
    const std::string times = line.substr(0, space);
    const size_t nameStart = space == std::string::npos ? std::string::npos : line.find_first_not_of(" \t", space);
    EditRequest::Chapter c;
    const size_t dash = times.find('-');
    uint64_t end = 0;
    if (!parseTime(times.substr(0, dash), c.start) ||
        (dash != std::string::npos && (!parseTime(times.substr(dash + 1), end) || end < c.start)) ||
        nameStart == std::string::npos) {
      error = "line " + std::to_string(number) + ": expected 'hh:mm:ss.mmm[-hh:mm:ss.mmm] Name'";
      return false;
    }
    if (dash != std::string::npos) c.end = end;
    c.name = line.substr(nameStart);
    out.push_back(c);
    return true;
  });
  if (!ok) return false;
  if (out.empty()) {
    error = "no chapters in the list";
    return false;
  }
  return true;
}

bool parseTagList(const std::string& text, std::vector<std::pair<std::string, std::optional<std::string>>>& out,
                  std::string& error) {
  return forEachListLine(text, [&](const std::string& line, unsigned number) {
    if (line.empty() || line[0] == '#') return true;
    const size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0) {
      error = "line " + std::to_string(number) + ": expected NAME=VALUE";
      return false;
    }
    if (eq + 1 == line.size())
      out.emplace_back(line.substr(0, eq), std::nullopt);
    else
      out.emplace_back(line.substr(0, eq), line.substr(eq + 1));
    return true;
  });
}

struct InPlaceEditor::State {
  std::string path;
  uint64_t fileSize = 0;
  bool webm = false;
  uint64_t segmentPosition = 0, segmentSizePosition = 0, segmentPayload = 0, segmentSize = 0;
  unsigned segmentSizeWidth = 0;
  bool segmentUnknown = false, segmentLast = false;
  std::vector<TopElement> elements;
  std::vector<SeekHeadMap> seekHeads;
  uint64_t firstCluster = 0;  // where the clusters start (the Segment's end without any)
  // Voids before the clusters that moved elements take from the front; what is left stays a Void.
  struct Gap {
    uint64_t position, size;
    bool used;
  };
  std::vector<Gap> gaps;

  // The model of each changed element and where it goes.
  struct Change {
    uint64_t id = 0;
    std::unique_ptr<IElement> element;  // null: removed
    long index = -1;                    // in elements; -1: new
    uint64_t newSize = 0;
    uint64_t target = 0;  // where it is written
    uint64_t room = 0;    // bytes it and its padding take there
    bool moved = false;
  };
  std::vector<Change> changes;
  std::vector<std::string> actions;
  uint64_t appended = 0;
  bool planned = false;
  bool damaged = false;  // the file could not be read as it claims to be
  std::string snapshot;  // the loaded elements' bytes, at their positions in an otherwise empty (sparse) file

  long find(uint64_t id) const {
    for (size_t i = 0; i < elements.size(); ++i)
      if (elements[i].id == id) return static_cast<long>(i);
    return -1;
  }
};

InPlaceEditor::InPlaceEditor() : s_(new State) {}
InPlaceEditor::~InPlaceEditor() {
  s_->changes.clear();
  if (!s_->snapshot.empty()) std::remove(s_->snapshot.c_str());
  delete s_;
}
const std::vector<std::string>& InPlaceEditor::actions() const { return s_->actions; }
const std::vector<TopElement>& InPlaceEditor::elements() const { return s_->elements; }
bool InPlaceEditor::isWebm() const { return s_->webm; }
bool InPlaceEditor::damagedInput() const { return s_->damaged; }

bool InPlaceEditor::open(const std::string& path, std::string& error) {
  State& s = *s_;
  s = State();
  s.path = path;
  RawReader in(path);
  if (!in.ok()) {
    error = "cannot open " + path;
    return false;
  }
  s.fileSize = in.size();
  uint64_t id = 0, size = 0;
  unsigned hb = 0, w = 0;
  bool unknown = false;
  if (!in.header(0, id, size, hb, w, unknown) || id != kIdEbml || unknown || hb + size > s.fileSize) {
    error = path + " is not an EBML file";
    return false;
  }
  for (uint64_t p = hb; p < hb + size;) {
    uint64_t cid = 0, csize = 0;
    unsigned chb = 0, cw = 0;
    bool cu = false;
    if (!in.header(p, cid, csize, chb, cw, cu) || cu || p + chb + csize > hb + size) break;
    if (cid == kIdDocType) {
      std::string docType(csize, '\0');
      in.read(p + chb, docType.data(), csize);
      s.webm = docType.c_str() == std::string("webm");
    }
    p += chb + csize;
  }
  uint64_t pos = hb + size;
  for (;;) {
    if (!in.header(pos, id, size, hb, w, unknown)) {
      error = path + ": no Segment";
      return false;
    }
    if (id == kIdSegment) break;
    if (id != kIdVoid || unknown) {
      error = path + ": no Segment after the EBML header";
      return false;
    }
    pos += hb + size;
  }
  s.segmentPosition = pos;
  s.segmentSizePosition = pos + hb - w;
  s.segmentSizeWidth = w;
  s.segmentPayload = pos + hb;
  s.segmentUnknown = unknown;
  s.segmentSize = unknown ? s.fileSize - s.segmentPayload : size;
  if (s.segmentPayload + s.segmentSize > s.fileSize) {
    error = path + ": the Segment runs past the end of the file (cut short?)";
    s.damaged = true;
    return false;
  }
  s.segmentLast = s.segmentPayload + s.segmentSize == s.fileSize;
  const uint64_t end = s.segmentPayload + s.segmentSize;
  for (pos = s.segmentPayload; pos < end;) {
    if (!in.header(pos, id, size, hb, w, unknown) || (!unknown && pos + hb + size > end)) {
      error = path + ": unreadable element at byte " + std::to_string(pos) + " of the Segment's top level";
      s.damaged = true;
      return false;
    }
    if (unknown) {
      // An open-ended cluster: what follows cannot be found without reading it.
      if (id != kIdCluster) {
        error = path + ": top-level element of unknown size at byte " + std::to_string(pos);
        return false;
      }
      s.segmentLast = false;
      break;
    }
    if (id == kIdVoid && !s.elements.empty() && s.elements.back().id != kIdVoid &&
        s.elements.back().voidAfter == 0)
      s.elements.back().voidAfter = hb + size;
    if (id == kIdCluster && s.firstCluster == 0) s.firstCluster = pos;
    s.elements.push_back(TopElement{id, pos, hb + size, 0});
    if (id == kIdSeekHead) {
      SeekHeadMap map;
      map.element = s.elements.size() - 1;
      std::vector<unsigned char> bytes(size);
      if (!in.read(pos + hb, bytes.data(), size)) {
        error = path + ": unreadable SeekHead";
        return false;
      }
      static_cast<SeekHeadContent&>(map) = parseSeekHead(bytes.data(), size);
      s.seekHeads.push_back(map);
    }
    pos += hb + size;
  }
  return true;
}

bool InPlaceEditor::plan(const EditRequest& request, std::string& error) {
  State& s = *s_;
  s.changes.clear();
  s.actions.clear();
  s.appended = 0;
  s.planned = false;
  // Loaded binaries hold their bytes by reference to where they were read. They are read from a copy at the same
  // positions, so that writing over the file cannot change them before they are written out.
  if (s.snapshot.empty()) {
    std::string name = (std::filesystem::temp_directory_path() / "kapsel-edit-XXXXXX").string();
    const int fd = mkstemp(name.data());
    if (fd < 0) {
      error = "cannot create a temporary file";
      return false;
    }
    close(fd);
    s.snapshot = name;
  }
  {
    RawReader in(s.path);
    std::ofstream out(s.snapshot, std::ios::binary | std::ios::trunc);
    for (const auto& t : s.elements) {
      if (t.id != kIdInfo && t.id != kIdTracks && t.id != kIdTags && t.id != kIdChapters) continue;
      std::vector<char> bytes(t.size);
      out.seekp(static_cast<std::streamoff>(t.position));
      if (!in.read(t.position, bytes.data(), t.size) || !out.write(bytes.data(), static_cast<std::streamsize>(t.size))) {
        error = "cannot copy the elements to change to " + s.snapshot;
        return false;
      }
    }
  }
  FileStorage storage(s.snapshot, File::kReadOnly);
  std::vector<TByteRange> damaged;
  LoadScope scope(true, &damaged, s.fileSize);

  auto load = [&](uint64_t id, IElement& element) -> long {
    const long i = s.find(id);
    if (i < 0) return -1;
    const TopElement& t = s.elements[static_cast<size_t>(i)];
    storage.file().seek(static_cast<int64_t>(t.position));
    if (element.load(storage, t.size) != t.size || !damaged.empty()) {
      s.damaged = true;
      return -2;
    }
    DiscardReceipts discard;
    discard.eval(element);
    return i;
  };
  auto change = [&](uint64_t id, IElement* element, long index) {
    State::Change c;
    c.id = id;
    c.element.reset(element);
    c.index = index;
    s.changes.push_back(std::move(c));
  };

  if (request.title) {
    auto* info = new SegInfoElt;
    const long i = load(kIdInfo, *info);
    if (i < 0) {
      delete info;
      error = i == -1 ? "the file has no Info element" : "the Info element is damaged";
      return false;
    }
    (*info)->title_->set(*request.title);
    if (request.title->empty()) (*info)->title_.clearAlwaysSave();
    change(kIdInfo, info, i);
  }

  if (!request.tracks.empty()) {
    auto* tracks = new TracksElt;
    const long i = load(kIdTracks, *tracks);
    change(kIdTracks, tracks, i);
    if (i < 0) {
      error = i == -1 ? "the file has no Tracks element" : "the Tracks element is damaged";
      return false;
    }
    for (const auto& edit : request.tracks) {
      Track* track = nullptr;
      for (auto& t : (*tracks)->tracks_)
        if (t->trackNumber_->get() == edit.number) track = &*t;
      if (!track) {
        error = "no track number " + std::to_string(edit.number);
        return false;
      }
      if (edit.name) {
        track->name_->set(*edit.name);
        if (edit.name->empty()) track->name_.clearAlwaysSave();
      }
      if (edit.language) {
        const std::string& code = *edit.language;
        if (isThreeLetterCode(code)) {
          track->language_->set(code);
          track->language_.alwaysSave();
          if (!s.webm && track->languageBcp47_.mustSave()) track->languageBcp47_->set(code);
        } else if (s.webm) {
          error = "a WebM track's language is a 3-letter code, not '" + code + "'";
          return false;
        } else {
          if (code.empty() || code.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-") !=
                                  std::string::npos) {
            error = "'" + code + "' is not a language code";
            return false;
          }
          track->languageBcp47_->set(code);
          const std::string primary = code.substr(0, code.find('-'));
          track->language_->set(isThreeLetterCode(primary) ? primary : "und");
          track->language_.alwaysSave();
        }
      }
      if (edit.flagDefault) track->flagDefault_->set(*edit.flagDefault ? 1 : 0);
      if (edit.flagForced) track->flagForced_->set(*edit.flagForced ? 1 : 0);
    }
  }

  if (!request.tags.empty()) {
    auto* tags = new TagsElt;
    long i = load(kIdTags, *tags);
    if (i == -2) {
      delete tags;
      error = "the Tags element is damaged";
      return false;
    }
    change(kIdTags, tags, i);
    Tag* global = nullptr;
    for (auto& t : (*tags)->tags_) {
      const TagTargets& g = *t->targets_;
      if (g.typeValue_->get() == 50 && g.trackUids_.empty() && g.editionUids_.empty() && g.chapterUids_.empty() &&
          g.attachmentUids_.empty())
        global = &*t;
    }
    if (!global) {
      auto& t = (*tags)->tags_.add();
      t->targets_->typeValue_.alwaysSave();
      global = &*t;
    }
    for (const auto& [name, value] : request.tags) {
      auto& list = global->simpleTags_.items;
      bool set = false;
      for (auto it = list.begin(); it != list.end();) {
        if ((*it)->name_->get() != name) {
          ++it;
        } else if (value && !set) {
          (*it)->string_->set(*value);
          set = true;
          ++it;
        } else {
          it = list.erase(it);
        }
      }
      if (value && !set) {
        auto& t = global->simpleTags_.add();
        t->name_->set(name);
        t->string_->set(*value);
        t->string_.alwaysSave();
      }
    }
    if (global->simpleTags_.empty()) {
      for (auto it = (*tags)->tags_.items.begin(); it != (*tags)->tags_.items.end(); ++it)
        if (&**it == global) {
          (*tags)->tags_.items.erase(it);
          break;
        }
    }
    if ((*tags)->tags_.empty()) s.changes.back().element.reset();
  }

  if (request.chapters) {
    const long i = s.find(kIdChapters);
    ChaptersElt* chapters = nullptr;
    if (!request.chapters->empty()) {
      chapters = new ChaptersElt;
      auto& edition = (*chapters)->editions_.add();
      edition->uid_->set(randomUid());
      for (const auto& c : *request.chapters) {
        auto& atom = edition->atoms_.add();
        atom->uid_->set(randomUid());
        atom->timeStart_->set(c.start);
        if (c.end) {
          atom->timeEnd_->set(*c.end);
          atom->timeEnd_.alwaysSave();
        }
        auto& display = atom->displays_.add();
        display->string_->set(c.name);
        display->language_.alwaysSave();
      }
    }
    change(kIdChapters, chapters, i);
  }

  // Where each changed element goes: into free Voids before the clusters when elementsIntoVoids, else at the end.
  auto place = [&](bool elementsIntoVoids, std::string& error) -> bool {
  s.actions.clear();
  s.appended = 0;
  for (auto& c : s.changes) c.moved = false, c.target = c.room = 0;
  std::vector<SeekHeadMap> heads = s.seekHeads;
  auto seekHeadFor = [&](uint64_t id, uint64_t relative) -> SeekHeadMap* {
    for (auto& h : heads)
      for (auto& e : h.entries)
        if (e.id == id && e.position == relative) return &h;
    return nullptr;
  };
  if (s.firstCluster == 0) s.firstCluster = s.segmentPayload + s.segmentSize;
  s.gaps.clear();
  // Free Voids: before the clusters, and not the room of an element that changes or of a seek head.
  for (size_t j = 1; j < s.elements.size(); ++j) {
    const TopElement& v = s.elements[j];
    if (v.id != kIdVoid || v.position >= s.firstCluster || s.elements[j - 1].voidAfter == v.size) continue;
    s.gaps.push_back(State::Gap{v.position, v.size, false});
  }
  for (size_t j = 0; j + 1 < s.elements.size(); ++j) {
    bool reserved = s.elements[j].id == kIdSeekHead;
    for (const auto& c : s.changes) reserved = reserved || c.index == static_cast<long>(j);
    if (reserved || s.elements[j].voidAfter == 0 || s.elements[j].id == kIdVoid) continue;
    // The Void after an element that stays is free as well.
    const TopElement& v = s.elements[j + 1];
    if (v.position < s.firstCluster) s.gaps.push_back(State::Gap{v.position, v.size, false});
  }
  auto allocate = [&](uint64_t need, uint64_t& position) {
    for (auto& g : s.gaps)
      if (g.size == need || g.size >= need + 2) {
        position = g.position;
        g.position += need;
        g.size -= need;
        g.used = true;
        return true;
      }
    return false;
  };
  uint64_t appendAt = s.segmentPayload + s.segmentSize;
  for (auto& c : s.changes) {
    const TopElement* old = c.index >= 0 ? &s.elements[static_cast<size_t>(c.index)] : nullptr;
    if (c.element) {
      NullStorage counter(0);
      ReceiptPtr r = c.element->save(counter);
      c.newSize = r ? r->numBytes() : 0;
      if (c.newSize == 0) {
        error = std::string("the new ") + topLevelName(c.id) + " element would be empty";
        return false;
      }
    }
    if (old) {
      const uint64_t room = old->size + old->voidAfter;
      if (!c.element) {
        s.actions.push_back(std::string(topLevelName(c.id)) + " at " + std::to_string(old->position) + ": removed (" +
                            std::to_string(room) + " bytes become a Void)");
      } else if (c.newSize == room || (c.newSize < room && room - c.newSize >= 2)) {
        c.target = old->position;
        c.room = room;
        s.actions.push_back(std::string(topLevelName(c.id)) + " at " + std::to_string(old->position) + ": rewritten in place (" +
                            std::to_string(old->size) + " -> " + std::to_string(c.newSize) + " bytes, Void after: " +
                            std::to_string(room - c.newSize) + ")");
        continue;
      }
    }
    // Readers want Info and Tracks before the first cluster; WebM readers want Tracks right after Info.
    const bool header = c.id == kIdInfo || c.id == kIdTracks;
    if (header && c.element && s.webm) {
      error = std::string("the new ") + topLevelName(c.id) + " does not fit in its place, and in WebM it cannot move";
      return false;
    }
    if (c.element && (elementsIntoVoids || header) && allocate(c.newSize, c.target)) {
      c.moved = true;
      c.room = c.newSize;
      s.actions.push_back(std::string(topLevelName(c.id)) + (old ? " moved" : " added") + " into the Void at " +
                          std::to_string(c.target) + " (" + std::to_string(c.newSize) + " bytes)" +
                          (old ? "; its old place becomes a Void" : ""));
    } else if (c.element) {
      if (header) {
        error = std::string("the new ") + topLevelName(c.id) + " fits neither in its place nor in a Void before the clusters";
        return false;
      }
      if (!s.segmentLast || s.segmentUnknown) {
        error = std::string("the new ") + topLevelName(c.id) + " does not fit in place and cannot be appended: " +
                (s.segmentUnknown ? "the Segment's size is unknown" : "the Segment is not the last thing in the file");
        return false;
      }
      c.moved = true;
      c.target = appendAt;
      c.room = c.newSize;
      appendAt += c.newSize;
      s.appended += c.newSize;
      s.actions.push_back(std::string(topLevelName(c.id)) + (old ? " moved to the end of the file at " : " added at the end of the file at ") +
                          std::to_string(c.target) + " (" + std::to_string(c.newSize) + " bytes)" +
                          (old ? "; its old place becomes a Void" : ""));
    }
    if (old && old->position < s.firstCluster) s.gaps.push_back(State::Gap{old->position, old->size + old->voidAfter, false});
    // The seek entries that name it.
    const uint64_t oldRelative = old ? old->position - s.segmentPayload : 0;
    SeekHeadMap* head = old ? seekHeadFor(c.id, oldRelative) : nullptr;
    if (head) {
      auto& entries = head->entries;
      for (auto it = entries.begin(); it != entries.end();) {
        if (it->id == c.id && it->position == oldRelative) {
          if (c.element) {
            it->position = c.target - s.segmentPayload;
            ++it;
          } else {
            it = entries.erase(it);
          }
        } else {
          ++it;
        }
      }
      head->changed = true;
    } else if (c.element) {
      if (heads.empty()) {
        error = std::string("no SeekHead to name the moved ") + topLevelName(c.id) + " element in";
        return false;
      }
      heads.front().entries.push_back(SeekRef{c.id, c.target - s.segmentPayload});
      heads.front().changed = true;
    }
  }
  if (s.appended > 0 && s.segmentSize + s.appended > vsizeLargest(s.segmentSizeWidth)) {
    error = "the Segment's size field is too narrow for the grown Segment";
    return false;
  }
  // The seek heads that change are rebuilt within their own room.
  for (auto& h : heads) {
    if (!h.changed) continue;
    const TopElement& t = s.elements[h.element];
    if (!h.plain) {
      error = "the SeekHead at " + std::to_string(t.position) + " holds elements other than Seek entries";
      return false;
    }
    const std::vector<unsigned char> bytes = seekHeadBytes(h);
    const uint64_t room = t.size + t.voidAfter;
    bool named = false;
    for (const auto& other : heads)
      for (const auto& e : other.entries) named = named || (e.id == kIdSeekHead && e.position == t.position - s.segmentPayload);
    if (bytes.size() != room && (bytes.size() > room || room - bytes.size() < 2) && !named &&
        allocate(bytes.size(), h.target)) {
      h.relocated = true;
      s.actions.push_back("SeekHead at " + std::to_string(t.position) + " moved into the Void at " +
                          std::to_string(h.target) + " (" + std::to_string(h.entries.size()) + " entries)");
      continue;
    }
    if (bytes.size() != room && (bytes.size() > room || room - bytes.size() < 2)) {
      error = "no room in the SeekHead at " + std::to_string(t.position) + " for its new entries (" +
              std::to_string(bytes.size()) + " bytes needed, " + std::to_string(room) + " there)";
      return false;
    }
    s.actions.push_back("SeekHead at " + std::to_string(t.position) + ": entries rewritten (" +
                        std::to_string(h.entries.size()) + " entries)");
  }
  if (s.appended > 0)
    s.actions.push_back("Segment size " + std::to_string(s.segmentSize) + " -> " +
                        std::to_string(s.segmentSize + s.appended));
  s.seekHeads = heads;
  return true;
  };
  // A seek head that has to move needs a Void too, so a second plan leaves the Voids to it (and to Info and Tracks).
  if (!place(true, error)) {
    std::string other;
    if (!place(false, other)) return false;
  }
  s.planned = true;
  return true;
}

bool InPlaceEditor::execute(std::string& error) {
  State& s = *s_;
  if (!s.planned) {
    error = "nothing planned";
    return false;
  }
  FileStorage storage(s.path, File::kReadWrite);
  File& file = storage.file();
  if (!file.isOpen()) {
    error = "cannot open " + s.path + " for writing";
    return false;
  }
  auto writeAt = [&](uint64_t pos, const std::vector<unsigned char>& bytes) {
    return file.seek(static_cast<int64_t>(pos)) && file.save(bytes.data(), static_cast<unsigned long>(bytes.size()));
  };
  bool ok = true;
  for (auto& c : s.changes) {
    const TopElement* old = c.index >= 0 ? &s.elements[static_cast<size_t>(c.index)] : nullptr;
    if (old && (c.moved || !c.element)) ok = ok && writeAt(old->position, voidBytes(old->size + old->voidAfter));
    if (!c.element) continue;
    file.seek(static_cast<int64_t>(c.target));
    ReceiptPtr r = c.element->save(storage);
    ok = ok && r && r->numBytes() == c.newSize;
    if (ok && c.room > c.newSize) ok = writeAt(c.target + c.newSize, voidBytes(c.room - c.newSize));
    RestoreCrc32 crc;
    if (ok) crc.eval(*c.element);
  }
  for (const auto& h : s.seekHeads) {
    if (!h.changed) continue;
    const TopElement& t = s.elements[h.element];
    std::vector<unsigned char> bytes = seekHeadBytes(h);
    const uint64_t room = t.size + t.voidAfter;
    if (h.relocated) {
      ok = ok && writeAt(t.position, voidBytes(room)) && writeAt(h.target, bytes);
      continue;
    }
    if (room > bytes.size()) {
      const auto v = voidBytes(room - bytes.size());
      bytes.insert(bytes.end(), v.begin(), v.end());
    }
    ok = ok && writeAt(t.position, bytes);
  }
  for (const auto& g : s.gaps)
    if (g.used && g.size > 0) ok = ok && writeAt(g.position, voidBytes(g.size));
  if (s.appended > 0) {
    std::vector<unsigned char> size;
    putSize(size, s.segmentSize + s.appended, s.segmentSizeWidth);
    ok = ok && writeAt(s.segmentSizePosition, size);
  }
  file.close();
  if (!ok || file.hadWriteError()) {
    error = "writing " + s.path + " failed";
    return false;
  }
  return true;
}

}  // namespace Kapsel
