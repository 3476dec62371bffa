// Codes beyond the first ones: VP9, AV1, HEVC, Opus and FLAC through the plug-in, with what readers need of each.

#include <gtest/gtest.h>

#include <iostream>

#include "formatter/matroska_formatter.h"
#include "host_sdk/reference.h"
#include "kapsel/kapsel.h"
#include "support/readers.h"

using namespace kapsel_test;

TEST(NewCodecs, AcceptedWhereTheFormatHoldsThemAndWrittenWithTheirFields) {
  kapsel_formatter::CKVMatroskaFormatter mkv(FourCC("MKV ")), webm(FourCC("WEBM"));
  const uint32_t anyMaker = FourCC("ACME");
  for (uint32_t c : {FourCC("VP90"), FourCC("AV01")}) EXPECT_TRUE(webm.SupportsVideoCodec(anyMaker, c));
  EXPECT_TRUE(mkv.SupportsVideoCodec(anyMaker, FourCC("HEVC")));
  EXPECT_FALSE(webm.SupportsVideoCodec(anyMaker, FourCC("HEVC")));
  EXPECT_TRUE(webm.SupportsAudioCodec(anyMaker, FourCC("Opus")));
  EXPECT_TRUE(mkv.SupportsAudioCodec(anyMaker, FourCC("FLAC")));
  EXPECT_FALSE(webm.SupportsAudioCodec(anyMaker, FourCC("FLAC")));

  TempDir dir;
  std::streambuf* saved = std::cerr.rdbuf(nullptr);  // the summary lines
  const std::string path = dir.path("out.webm");
  RefVideoCompressor vc({anyMaker, FourCC("VP90"), 64, 48, 25.0, "VP9", {}, {}, {}});
  RefAudioCompressor ac({anyMaker, FourCC("Opus"), 48000, 16, "Stereo", "Opus"});
  // An OpusHead with a pre-skip of 312 samples: 6.5 ms of codec delay.
  const std::vector<uint8_t> head = {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, 2, 0x38, 1, 0x80, 0xBB, 0, 0, 0, 0, 0};
  {
    kapsel_formatter::CKVMatroskaFormatter f(FourCC("WEBM"));
    f.SetOutputFile(path);
    f.SetDurationHint(0, 1000, 1000);
    SetStreams(f, &vc, &ac);
    ASSERT_EQ(f.BeginFormatting(), 0u);
    const std::vector<uint8_t> frame(100, 7);
    for (int i = 0; i < 25; ++i) {
      KVAudio_t a = MakeAudioSample({{std::vector<uint8_t>(50, 3), i * 40, 1000}}, i == 0 ? &head : nullptr);
      f.AddAudioSample(&a);
      ReleaseSample(a);
      KVImage_t v = MakeVideoSample(frame.data(), frame.size(), i * 40, 1000, 0, i == 0);
      f.AddVideoSample(&v);
      ReleaseSample(v);
    }
    f.EndFormatting(nullptr);
  }
  std::cerr.rdbuf(saved);
  CommandResult j = mkvmergeJson(path);
  for (const char* expected : {"\"codec_id\": \"V_VP9\"", "\"codec_id\": \"A_OPUS\"", "\"codec_delay\": 6500000",
                               "\"codec_private_data\": \"4f707573486561640102380180bb0000000000\""})
    EXPECT_NE(j.out.find(expected), std::string::npos) << expected << "\n" << j.out;
  Kapsel::FileStorage in(path, Kapsel::File::kReadOnly);
  Kapsel::MatroskaDoc doc;
  doc.load(in, in.file().size());
  ASSERT_EQ(doc.segments_.size(), 1u);
  const auto& tracks = doc.segments_.front()->tracks_->tracks_;
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ((*std::next(tracks.begin()))->seekPreRoll_->get(), 80000000u);
}
