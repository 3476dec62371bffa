// kapsel edit on files of three muxers: exactly the asked fields change, every packet stays, readers stay quiet.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "kapsel/kapsel.h"
#include "support/readers.h"

using namespace kapsel_test;

namespace {

std::string packets(const std::string& file) {
  return runCommand("ffmpeg -v error -i " + shellQuote(file) + " -map 0 -c copy -f framemd5 -").out;
}

nlohmann::json mkvmerge(const std::string& file) {
  nlohmann::json j = nlohmann::json::parse(mkvmergeJson(file).out, nullptr, false);
  if (!j.is_discarded()) j.erase("file_name");
  return j;
}

// Top-level elements with a CRC-32 that matches, stored least significant byte first; -1 when one does not.
int littleEndianCrcs(const std::string& file) {
  Kapsel::FileStorage storage(file, Kapsel::File::kReadOnly);
  Kapsel::MatroskaDoc doc;
  doc.setKeepUnknown(true);
  doc.loadAndKeepReceipts(storage, storage.file().size());
  struct Count : Kapsel::IElementCrawler {
    int n = 0;
    bool eval(Kapsel::IElement& e) override {
      if (e.crc32Order() == Kapsel::kCrc32FoundLittleEndian) ++n;
      if (e.crc32Order() == Kapsel::kCrc32Mismatch || e.crc32Order() == Kapsel::kCrc32FoundBigEndian) n = -1000;
      return false;
    }
  } count;
  for (auto& segment : doc.segments_) segment->eval(count);
  return count.n < 0 ? -1 : count.n;
}

}  // namespace

TEST(KapselEdit, ChangesExactlyTheAskedFieldsInFilesOfEveryMuxer) {
  if (!haveTool("mkvmerge") || !haveTool("ffmpeg")) GTEST_SKIP() << "needs ffmpeg and mkvmerge";
  TempDir dir;
  const std::string ff = dir.path("ffmpeg.mkv"), mm = dir.path("mkvmerge.mkv"), ours = dir.path("ours.mkv");
  ASSERT_EQ(runCommand("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=10:duration=1 -f lavfi -i "
                       "sine=duration=1 -c:v libx264 -c:a aac -metadata title='A title long enough' " + shellQuote(ff))
                .exitCode, 0);
  ASSERT_EQ(runCommand("mkvmerge -q -o " + shellQuote(mm) + " " + shellQuote(ff)).exitCode, 0);
  ASSERT_EQ(kapsel("mux -q " + shellQuote(ff) + " -o " + shellQuote(ours) +
                   " --meta title='A title long enough' --meta ARTIST='Somebody with a long name'"
                   " --chapter 0=Intro --chapter 0.5=Rest").exitCode, 0);
  const std::string crc = dir.path("crc.mkv");
  ASSERT_EQ(kapsel("optimize --crc32 " + shellQuote(ff) + " " + shellQuote(crc)).exitCode, 0);
  const int crcs = littleEndianCrcs(crc);
  ASSERT_GE(crcs, 4);
  writeText(dir.path("chapters.txt"), "# name times\n00:00:00.000-00:00:00.400 One\n00:00:00.400 Two\n");
  const std::string full = "--title Hello --track 2 --language ger --name Dub --track 1 --default no --forced yes"
                           " --tag ARTIST=Me --chapters " + shellQuote(dir.path("chapters.txt"));
  const std::string webm = dir.path("ffmpeg.webm");
  ASSERT_EQ(runCommand("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=10:duration=1 -f lavfi -i "
                       "sine=duration=1 -c:v libvpx -c:a libvorbis " + shellQuote(webm)).exitCode, 0);
  writeText(dir.path("tags.txt"), "ARTIST=Me\n");
  struct Case {
    std::string file, args;
    bool tracks, chapters, title = true;
  } cases[] = {
      {ff, full, true, true},
      {mm, full, true, true},
      // In WebM Info cannot move, so the title stays; tags from a file.
      {webm, "--track 2 --language ger --name Dub --track 1 --default no --forced yes --tags-file " +
                 shellQuote(dir.path("tags.txt")) + " --chapters " + shellQuote(dir.path("chapters.txt")),
       true, true, false},
      // Optimised files have no Voids: only what shrinks can change (Info, and Tags less ENCODER).
      {crc, "--title Hello --tag ENCODER= --tag ARTIST=Me", false, false},
      // Our files leave no padding: elements move to the end, the seek head into the Void after the index.
      {ours, full, true, true},
      {ours, "--title Hello --tag ARTIST=Me --remove-chapters", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const nlohmann::json before = mkvmerge(c.file);
    ASSERT_FALSE(before.is_discarded());
    const std::string packetsBefore = packets(c.file);
    const auto bytesBefore = readFile(c.file);

    CommandResult dry = kapsel("edit " + shellQuote(c.file) + " " + c.args + " --dry-run");
    ASSERT_EQ(dry.exitCode, 0) << dry.err;
    EXPECT_FALSE(dry.out.empty());
    EXPECT_EQ(readFile(c.file), bytesBefore) << "a dry run writes nothing";

    CommandResult r = kapsel("edit " + shellQuote(c.file) + " " + c.args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(packets(c.file), packetsBefore);
    nlohmann::json after = mkvmerge(c.file);
    ASSERT_FALSE(after.is_discarded());
    nlohmann::json expected = before;
    if (c.title) expected["container"]["properties"]["title"] = "Hello";
    if (c.tracks) {
      auto& video = expected["tracks"][0]["properties"];
      auto& audio = expected["tracks"][1]["properties"];
      video["default_track"] = false;
      video["forced_track"] = true;
      audio["language"] = "ger";
      audio["track_name"] = "Dub";
      // The BCP 47 form follows when the file carries it.
      for (auto* t : {&after, &expected}) (*t)["tracks"][1]["properties"].erase("language_ietf");
    }
    for (auto* t : {&after, &expected}) t->erase("global_tags");
    expected["chapters"] = c.chapters ? nlohmann::json::array({{{"num_entries", 2}}}) : nlohmann::json::array();
    EXPECT_EQ(after, expected) << "before: " << before.dump() << "\nafter: " << after.dump();

    CommandResult probe = runCommand("ffprobe -v error -show_chapters -show_format -of json " + shellQuote(c.file));
    EXPECT_EQ(probe.err, "");
    nlohmann::json p = nlohmann::json::parse(probe.out, nullptr, false);
    ASSERT_FALSE(p.is_discarded());
    EXPECT_EQ(p["format"]["tags"]["ARTIST"], "Me");
    if (c.chapters) {
      ASSERT_EQ(p["chapters"].size(), 2u);
      EXPECT_EQ(p["chapters"][0]["tags"]["title"], "One");
      EXPECT_EQ(p["chapters"][0]["end_time"], "0.400000");
      EXPECT_EQ(p["chapters"][1]["start_time"], "0.400000");
    } else {
      EXPECT_TRUE(p["chapters"].empty());
    }
    // CRC-32s are recomputed in the order they had; the new Chapters has none.
    if (c.file == crc) {
      EXPECT_EQ(littleEndianCrcs(crc), crcs);
    }
    if (c.file == webm) {
      EXPECT_EQ(webmInfo(webm).exitCode, 0);
    }
    CommandResult info = mkvinfo(c.file);
    EXPECT_EQ(info.exitCode, 0) << info.out;
  }

  // Refusals: one line, the file unchanged.
  const auto bytes = readFile(mm);
  for (const auto& [args, status] : std::vector<std::pair<std::string, int>>{
           {"--name X", 2}, {"--track 9 --name X", 1}, {"--track 1 --default maybe", 2}, {"", 2}}) {
    CommandResult r = kapsel("edit " + shellQuote(mm) + " " + args);
    EXPECT_EQ(r.exitCode, status) << args;
    EXPECT_EQ(r.err.rfind("kapsel: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(readFile(mm), bytes) << args;
  }
  // WebM's Info stays in place: a title that does not fit there is refused.
  const auto webmBytes = readFile(webm);
  CommandResult refused = kapsel("edit " + shellQuote(webm) + " --title '" + std::string(200, 'x') + "'");
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.err.find("WebM"), std::string::npos) << refused.err;
  EXPECT_EQ(readFile(webm), webmBytes);
  // A cut-off file: a dry run says so and exits 3, an edit refuses.
  const std::string cut = dir.path("cut.mkv");
  writeFile(cut, std::vector<unsigned char>(bytes.begin(), bytes.begin() + 5000));
  EXPECT_EQ(kapsel("edit " + shellQuote(cut) + " --title X --dry-run").exitCode, 3);
  EXPECT_EQ(kapsel("edit " + shellQuote(cut) + " --title X").exitCode, 1);
  EXPECT_EQ(readFile(cut).size(), 5000u);
}
