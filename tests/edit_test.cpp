// In-place edits over a file built byte by byte: what lands where, and refusals that leave the file alone.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kapsel/edit.h"
#include "support/readers.h"

using namespace kapsel_test;
using Bytes = std::vector<unsigned char>;

namespace {

// An element with a one-byte size field (payloads under 127 bytes).
Bytes el(Bytes id, const Bytes& payload) {
  Bytes out = id;
  out.push_back(static_cast<unsigned char>(0x80 | payload.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes str(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes voidOf(size_t total) {
  Bytes out{0xEC, static_cast<unsigned char>(0x80 | (total - 2))};
  out.resize(total, 0);
  return out;
}

Bytes seek(Bytes id, unsigned char position) {
  return el({0x4D, 0xBB}, cat({el({0x53, 0xAB}, id), el({0x53, 0xAC}, {position})}));
}

const Bytes kInfoId{0x15, 0x49, 0xA9, 0x66}, kTracksId{0x16, 0x54, 0xAE, 0x6B};

// An empty title is left out.
Bytes info(const std::string& title) {
  return el(kInfoId, cat({el({0x2A, 0xD7, 0xB1}, {0x0F, 0x42, 0x40}), el({0x44, 0x89}, {0x44, 0x7A, 0, 0}),
                          title.empty() ? Bytes() : el({0x7B, 0xA9}, str(title)), el({0x4D, 0x80}, str("m")),
                          el({0x57, 0x41}, str("w"))}));
}

struct Layout {
  Bytes head, seekHead, seekVoid, info, infoVoid, rest, trailer, tracks, freeVoid, cluster;
  unsigned char infoPos = 0, tracksPos = 0;
  Bytes file() const {
    const Bytes payload = cat({seekHead, seekVoid, info, infoVoid, rest});
    Bytes segment{0x18, 0x53, 0x80, 0x67, 0x01, 0, 0, 0, 0, 0, 0, static_cast<unsigned char>(payload.size())};
    return cat({head, segment, payload, trailer});
  }
};

Layout layout(size_t seekVoid, bool trailer, size_t freeVoid) {
  Layout l;
  l.head = el({0x1A, 0x45, 0xDF, 0xA3}, cat({el({0x42, 0x86}, {1}), el({0x42, 0xF7}, {1}), el({0x42, 0xF2}, {4}),
                                            el({0x42, 0xF3}, {8}), el({0x42, 0x82}, str("matroska")),
                                            el({0x42, 0x87}, {4}), el({0x42, 0x85}, {2})}));
  l.info = info("abc");
  l.infoVoid = voidOf(10);
  const Bytes tracks = el(kTracksId, el({0xAE}, cat({el({0xD7}, {1}), el({0x73, 0xC5}, {7}), el({0x83}, {2}),
                                                     el({0x86}, str("A_PCM"))})));
  const Bytes cluster = el({0x1F, 0x43, 0xB6, 0x75}, cat({el({0xE7}, {0}), el({0xA3}, {0x81, 0, 0, 0x80, 0xAA})}));
  l.tracks = tracks;
  if (freeVoid) l.freeVoid = voidOf(freeVoid);
  l.rest = cat({tracks, l.freeVoid, cluster});
  l.cluster = cluster;
  const size_t seekHeadSize = el({0x11, 0x4D, 0x9B, 0x74}, cat({seek(kInfoId, 0), seek(kTracksId, 0)})).size();
  l.infoPos = static_cast<unsigned char>(seekHeadSize + seekVoid);
  l.tracksPos = static_cast<unsigned char>(l.infoPos + l.info.size() + l.infoVoid.size());
  l.seekHead = el({0x11, 0x4D, 0x9B, 0x74}, cat({seek(kInfoId, l.infoPos), seek(kTracksId, l.tracksPos)}));
  if (seekVoid) l.seekVoid = voidOf(seekVoid);
  if (trailer) l.trailer = voidOf(4);
  return l;
}

}  // namespace

TEST(InPlaceEditor, TitleEditsFitGrowMoveOrAreRefused) {
  const std::string longTitle(40, 'T');
  struct Case {
    const char* what;
    size_t seekVoid;
    bool trailer;
    std::string title;
    bool ok;
    std::string refusal;  // part of the message
    bool tag = false;     // a global tag instead of the title: a new Tags element and a new seek entry
    size_t freeVoid = 0;  // a Void between Tracks and the cluster
  } cases[] = {
      {"same size", 20, false, "xyz", true, ""},
      {"grows into the Void after it", 20, false, "abcd", true, ""},
      {"fills the Void exactly", 20, false, std::string(13, 'q'), true, ""},
      {"shrinks, the Void grows", 20, false, "a", true, ""},
      {"removed", 20, false, "", true, ""},
      {"moves into the free Void before the cluster", 20, false, longTitle, true, "", false, 100},
      {"would leave one byte; no free Void", 20, false, std::string(12, 'q'), false, "before the clusters"},
      {"new Tags at the end, new seek entry", 20, false, "", true, "", true},
      {"no room in the SeekHead", 0, false, "", false, "no room in the SeekHead", true},
      {"Segment not last", 20, true, "", false, "not the last", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    const std::string path = dir.path("f.mkv");
    const Layout l = layout(c.seekVoid, c.trailer, c.freeVoid);
    const Bytes before = l.file();
    writeFile(path, before);
    Kapsel::InPlaceEditor editor;
    std::string error;
    ASSERT_TRUE(editor.open(path, error)) << error;
    Kapsel::EditRequest request;
    if (c.tag)
      request.tags.emplace_back("A", "B");
    else
      request.title = c.title;
    const bool planned = editor.plan(request, error);
    ASSERT_EQ(planned, c.ok) << error;
    if (!planned) {
      EXPECT_NE(error.find(c.refusal), std::string::npos) << error;
      EXPECT_EQ(readFile(path), before);
      continue;
    }
    ASSERT_TRUE(editor.execute(error)) << error;
    const Bytes after = readFile(path);
    const Bytes newInfo = info(c.title);
    const size_t room = l.info.size() + l.infoVoid.size();
    Layout expected = l;
    if (c.tag) {
      const size_t newPos = l.file().size() - l.head.size() - 12;
      const Bytes tags = el({0x12, 0x54, 0xC3, 0x67},
                            el({0x73, 0x73}, cat({el({0x63, 0xC0}, el({0x68, 0xCA}, {50})),
                                                  el({0x67, 0xC8}, cat({el({0x45, 0xA3}, str("A")), el({0x44, 0x87}, str("B"))}))})));
      expected.rest = cat({l.rest, tags});
      expected.seekHead = el({0x11, 0x4D, 0x9B, 0x74}, cat({seek(kInfoId, l.infoPos), seek(kTracksId, l.tracksPos),
                                                           seek({0x12, 0x54, 0xC3, 0x67}, static_cast<unsigned char>(newPos))}));
      expected.seekVoid = voidOf(l.seekHead.size() + l.seekVoid.size() - expected.seekHead.size());
    } else if (newInfo.size() == room || newInfo.size() + 2 <= room) {
      expected.info = newInfo;
      expected.infoVoid = newInfo.size() == room ? Bytes() : voidOf(room - newInfo.size());
    } else {
      // Old place a Void, the Info at the start of the free Void, its seek entry changed.
      const size_t newPos = l.seekHead.size() + l.seekVoid.size() + room + l.tracks.size();
      ASSERT_LT(newPos, 256u);
      expected.info = voidOf(room);
      expected.infoVoid.clear();
      expected.rest = cat({l.tracks, newInfo, voidOf(l.freeVoid.size() - newInfo.size()), l.cluster});
      expected.seekHead = el({0x11, 0x4D, 0x9B, 0x74}, cat({seek(kInfoId, static_cast<unsigned char>(newPos)),
                                                           seek(kTracksId, l.tracksPos)}));
      expected.seekVoid = voidOf(l.seekHead.size() + l.seekVoid.size() - expected.seekHead.size());
    }
    EXPECT_EQ(after, expected.file());
  }
}

TEST(InPlaceEditor, ListsParseOrSayWhichLine) {
  std::vector<Kapsel::EditRequest::Chapter> chapters;
  std::string error;
  ASSERT_TRUE(Kapsel::parseChapterList("# intro\n00:00:01.500-00:01:00.000 First one\n\n01:02:03.004 Two\r\n", chapters, error));
  ASSERT_EQ(chapters.size(), 2u);
  EXPECT_EQ(chapters[0].start, 1500000000u);
  EXPECT_EQ(*chapters[0].end, 60000000000u);
  EXPECT_EQ(chapters[0].name, "First one");
  EXPECT_EQ(chapters[1].start, 3723004000000u);
  EXPECT_FALSE(chapters[1].end);
  EXPECT_EQ(chapters[1].name, "Two");
  for (const char* bad : {"00:00:01 A\n", "00:00:01.5 A\n", "00:00:02.000-00:00:01.000 A\n", "00:00:01.000\n",
                          "00:61:00.000 A\n", "ok 00:00:00.000 A\n"}) {
    chapters.clear();
    error.clear();
    EXPECT_FALSE(Kapsel::parseChapterList(bad, chapters, error)) << bad;
    EXPECT_FALSE(error.empty());
  }
  std::vector<std::pair<std::string, std::optional<std::string>>> tags;
  ASSERT_TRUE(Kapsel::parseTagList("ARTIST=Me=You\n#x\nEMPTY=\n", tags, error));
  ASSERT_EQ(tags.size(), 2u);
  EXPECT_EQ(*tags[0].second, "Me=You");
  EXPECT_FALSE(tags[1].second);
  EXPECT_FALSE(Kapsel::parseTagList("=x\n", tags, error));
}
