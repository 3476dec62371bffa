// Lists a Matroska or WebM file's tracks: number, kind, codec, language, name; and the file's duration.
//   list_tracks FILE

#include <cstdio>

#include "kapsel/kapsel.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: list_tracks FILE\n");
    return 2;
  }
  Kapsel::FileStorage in(argv[1], Kapsel::File::kReadOnly);
  if (!in.file().isOpen()) {
    std::fprintf(stderr, "list_tracks: cannot open %s\n", argv[1]);
    return 1;
  }
  Kapsel::MatroskaDoc doc;
  // The seek head first, then what it points at, without the clusters: only the header elements are read.
  if (!doc.loadSeekHead(in, in.file().size()) || !doc.loadViaSeekHead(in, nullptr, false) || doc.segments_.size() == 0) {
    std::fprintf(stderr, "list_tracks: %s is not a Matroska or WebM file\n", argv[1]);
    return 1;
  }
  const Kapsel::Segment& segment = *doc.segments_.front();
  const Kapsel::SegInfo& info = *segment.info_;
  const double seconds = info.duration_->get() * static_cast<double>(info.timecodeScale_->get()) / 1e9;
  std::printf("duration %.3f s\n", seconds);
  for (const auto& entry : segment.tracks_->tracks_) {
    const Kapsel::Track& t = *entry;
    const uint64_t type = t.trackType_->get();
    const char* kind = type == 1 ? "video" : type == 2 ? "audio" : type == 0x11 ? "subtitles" : "other";
    std::printf("track %llu: %s %s language %s", static_cast<unsigned long long>(t.trackNumber_->get()), kind,
                t.codecId_->get().c_str(), t.language_->get().c_str());
    if (!t.name_->get().empty()) std::printf(" name \"%s\"", t.name_->get().c_str());
    std::printf("\n");
  }
  return 0;
}
