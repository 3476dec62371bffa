// kapsel edit: change a file's title, track properties, tags and chapters in place.

#include <fstream>
#include <iostream>
#include <sstream>

#include "kapsel/edit.h"
#include "tools/cli_support.h"
#include "tools/commands.h"

namespace kapsel_cli {

namespace {

const char* kEditHelp =
    "Usage: kapsel edit FILE [options]\n"
    "Change metadata in place; clusters are never rewritten. Every change is checked before the first byte is written.\n"
    "  --title TEXT            set the title\n"
    "  --remove-title          remove the title\n"
    "  --track N               the following track options apply to track number N (repeatable)\n"
    "    --name TEXT           set the track's name\n"
    "    --remove-name         remove the track's name\n"
    "    --language CODE       3-letter code or BCP 47 tag (WebM: 3-letter codes only)\n"
    "    --default yes|no      the track's default flag\n"
    "    --forced yes|no       the track's forced flag\n"
    "  --tag NAME=VALUE        set a global tag (repeatable); NAME= removes it\n"
    "  --tags-file F           NAME=VALUE lines, as many --tag options\n"
    "  --chapters F            replace the chapters: lines 'hh:mm:ss.mmm[-hh:mm:ss.mmm] Name'\n"
    "  --remove-chapters       remove the chapters\n"
    "  --dry-run               say what would be written, write nothing\n";

// Like usageError(), pointing at this command's own help.
int editUsage(const std::string& message) {
  note(message + " (see kapsel edit --help)");
  return kExitUsage;
}

bool readText(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream os;
  os << in.rdbuf();
  text = os.str();
  return true;
}

bool yesNo(const std::string& v, bool& out) {
  if (v == "yes" || v == "1") return out = true, true;
  if (v == "no" || v == "0") return out = false, true;
  return false;
}

}  // namespace

int runEdit(const std::vector<std::string>& args) {
  Kapsel::EditRequest request;
  std::string file;
  bool dryRun = false;
  Kapsel::EditRequest::TrackEdit* track = nullptr;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      std::cout << kEditHelp;
      return kExitOk;
    }
    if (a.empty() || a[0] != '-') {
      if (!file.empty()) return editUsage("edit takes one file, not '" + file + "' and '" + a + "'");
      file = a;
      continue;
    }
    const bool takesValue = a == "--title" || a == "--track" || a == "--name" || a == "--language" ||
                            a == "--default" || a == "--forced" || a == "--tag" || a == "--tags-file" ||
                            a == "--chapters";
    if (takesValue && i + 1 >= args.size()) return editUsage(a + " needs a value");
    const std::string value = takesValue ? args[++i] : "";
    const bool trackOption = a == "--name" || a == "--remove-name" || a == "--language" || a == "--default" || a == "--forced";
    if (trackOption && !track) return editUsage(a + " needs a --track N before it");
    bool flag = false;
    if (a == "--title") {
      if (value.empty()) return editUsage("--title needs a text; --remove-title removes it");
      request.title = value;
    } else if (a == "--remove-title") {
      request.title = "";
    } else if (a == "--track") {
      char* end = nullptr;
      const unsigned long long n = std::strtoull(value.c_str(), &end, 10);
      if (value.empty() || *end || n == 0) return editUsage("--track takes a track number, not '" + value + "'");
      request.tracks.emplace_back();
      track = &request.tracks.back();
      track->number = n;
    } else if (a == "--name") {
      if (value.empty()) return editUsage("--name needs a text; --remove-name removes it");
      track->name = value;
    } else if (a == "--remove-name") {
      track->name = "";
    } else if (a == "--language") {
      track->language = value;
    } else if (a == "--default" || a == "--forced") {
      if (!yesNo(value, flag)) return editUsage(a + " takes yes or no, not '" + value + "'");
      (a == "--default" ? track->flagDefault : track->flagForced) = flag;
    } else if (a == "--tag") {
      const size_t eq = value.find('=');
      if (eq == std::string::npos || eq == 0) return editUsage("--tag takes NAME=VALUE, not '" + value + "'");
      if (eq + 1 == value.size())
        request.tags.emplace_back(value.substr(0, eq), std::nullopt);
      else
        request.tags.emplace_back(value.substr(0, eq), value.substr(eq + 1));
    } else if (a == "--tags-file") {
      std::string text, error;
      if (!readText(value, text)) return fail("cannot read " + value);
      if (!Kapsel::parseTagList(text, request.tags, error)) return editUsage(value + ": " + error);
    } else if (a == "--chapters") {
      std::string text, error;
      if (!readText(value, text)) return fail("cannot read " + value);
      std::vector<Kapsel::EditRequest::Chapter> chapters;
      if (!Kapsel::parseChapterList(text, chapters, error)) return editUsage(value + ": " + error);
      request.chapters = chapters;
    } else if (a == "--remove-chapters") {
      request.chapters = std::vector<Kapsel::EditRequest::Chapter>();
    } else if (a == "--dry-run") {
      dryRun = true;
    } else {
      return editUsage("unknown edit option '" + a + "'");
    }
  }
  if (file.empty()) return editUsage("edit needs a FILE");
  if (request.empty()) return editUsage("nothing to change");

  Kapsel::InPlaceEditor editor;
  std::string error;
  if (!editor.open(file, error) || !editor.plan(request, error)) {
    if (editor.damagedInput() && dryRun) return damaged(error + "; nothing would be written");
    return fail(error + "; " + file + " is unchanged");
  }
  if (dryRun) {
    for (const auto& line : editor.actions()) std::cout << line << "\n";
    return kExitOk;
  }
  if (!editor.execute(error)) return fail(error);
  return kExitOk;
}

}  // namespace kapsel_cli
