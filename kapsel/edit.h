#pragma once
// Changing a file's metadata (Info, Tracks, Tags, Chapters) in place, without touching its clusters.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Kapsel {

struct EditRequest {
  struct TrackEdit {
    uint64_t number = 0;  // TrackNumber
    std::optional<std::string> name;  // empty: removed
    std::optional<std::string> language;
    std::optional<bool> flagDefault, flagForced;
  };
  struct Chapter {
    uint64_t start = 0;  // nanoseconds
    std::optional<uint64_t> end;
    std::string name;
  };
  std::optional<std::string> title;  // empty: removed
  std::vector<TrackEdit> tracks;
  // Global tags (TargetTypeValue 50): a value sets, none removes.
  std::vector<std::pair<std::string, std::optional<std::string>>> tags;
  std::optional<std::vector<Chapter>> chapters;  // empty list: chapters removed
  bool empty() const { return !title && tracks.empty() && tags.empty() && !chapters; }
};

// Lines "hh:mm:ss.mmm[-hh:mm:ss.mmm] Name"; blank lines and lines starting with # are passed over.
bool parseChapterList(const std::string& text, std::vector<EditRequest::Chapter>& out, std::string& error);
// Lines "NAME=VALUE" ("NAME=" removes); blank lines and lines starting with # are passed over.
bool parseTagList(const std::string& text, std::vector<std::pair<std::string, std::optional<std::string>>>& out,
                  std::string& error);

// One top-level element of the Segment as it lies in the file.
struct TopElement {
  uint64_t id = 0;
  uint64_t position = 0;  // absolute, of its ID
  uint64_t size = 0;      // ID, size field and payload
  uint64_t voidAfter = 0; // bytes of the Void that directly follows it, if any
};

// Analyse (open), change and check (plan), then write (execute). Nothing is written before every change is known
// to fit; plan() fails with one line saying why an edit cannot be done in place.
class InPlaceEditor {
 public:
  InPlaceEditor();
  ~InPlaceEditor();
  InPlaceEditor(const InPlaceEditor&) = delete;
  InPlaceEditor& operator=(const InPlaceEditor&) = delete;

  bool open(const std::string& path, std::string& error);
  bool plan(const EditRequest& request, std::string& error);
  // What execute() will do, one line per write.
  const std::vector<std::string>& actions() const;
  bool execute(std::string& error);

  const std::vector<TopElement>& elements() const;
  bool isWebm() const;
  // Whether open() or plan() failed on damage (a cut-off file, an unreadable element) rather than on lack of room.
  bool damagedInput() const;

 private:
  struct State;
  State* s_;
};

}  // namespace Kapsel
