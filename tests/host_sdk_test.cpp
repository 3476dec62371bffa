#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "host_sdk/host_sdk.h"

namespace {

TEST(HostSdkFourCC, FirstCharacterInHighByteAndUnprintableMasked) {
  static_assert(FourCC("KVI ") == 0x4B564920u, "usable at compile time");
  // Bytes above 0x7F must not sign-extend into the neighbouring bytes.
  EXPECT_EQ(FourCC("A\x80\xfe\xff"), 0x4180FEFFu);
  EXPECT_EQ(FourCCToString(FourCC("KVI ")), "KVI ");
  EXPECT_EQ(FourCCToString(0x41004243u), "A.BC");
  EXPECT_EQ(FourCCToString(0), "....");
}

TEST(HostSdkMarker, SecondsAndExplicitUnits) {
  CAceMarker fromSeconds(CAceMarker::kMarkerTypeChapter, "Intro", 1.5);
  EXPECT_EQ(fromSeconds.GetTimeValue(), 1500000);
  EXPECT_EQ(fromSeconds.GetTimeUnits(), 1000000u);
  // Rounded, not truncated.
  EXPECT_EQ(CAceMarker(2, "x", 0.0000019).GetTimeValue(), 2);
  EXPECT_DOUBLE_EQ(CAceMarker(2, "Two", int64_t{90000}, uint64_t{45000}).GetEncodedFrameTime(), 2.0);
  EXPECT_DOUBLE_EQ(CAceMarker(2, "Zero units", int64_t{5}, uint64_t{0}).GetEncodedFrameTime(), 0.0);
}

class HostSdkBundle : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(RefPacket::LiveCount(), packets0_);
    EXPECT_EQ(RefPacketBundle::LiveCount(), bundles0_);
  }
  const int64_t packets0_ = RefPacket::LiveCount();
  const int64_t bundles0_ = RefPacketBundle::LiveCount();
};

TEST_F(HostSdkBundle, TakeFindAndReleaseOwnership) {
  auto* bundle = new RefPacketBundle;
  bundle->Add(new RefPacket({1}, 0, 1000));
  bundle->Add(new RefPacket({2}, 10, 1000, IPacket::kPacketTypeDescriptor));
  bundle->Add(new RefPacket({3}, 20, 1000));
  bundle->Add(new RefPacket({4}, 30, 1000, IPacket::kPacketTypeDescriptor));
  EXPECT_EQ(RefPacket::LiveCount(), packets0_ + 4);
  // Occurrences count from 1.
  EXPECT_EQ(bundle->Find(IPacket::kPacketTypeDescriptor, nullptr, 1)->GetData()[0], 2);
  EXPECT_EQ(bundle->Find(IPacket::kPacketTypeDescriptor, nullptr, 2)->GetData()[0], 4);
  EXPECT_EQ(bundle->Find(IPacket::kPacketTypeDescriptor, nullptr, 4), nullptr);
  EXPECT_EQ(bundle->TakePacket(4), nullptr);

  // Taking removes the packet and shifts the rest down.
  IPacket* taken = bundle->TakePacket(1);
  ASSERT_NE(taken, nullptr);
  EXPECT_EQ(taken->GetData()[0], 2);
  EXPECT_EQ(bundle->GetPacket(1)->GetData()[0], 3);
  EXPECT_EQ(bundle->Find(IPacket::kPacketTypeDescriptor)->GetData()[0], 4);

  // The bundle must not release what it gave away, and must release the rest.
  bundle->Release();
  EXPECT_EQ(RefPacket::LiveCount(), packets0_ + 1);
  EXPECT_EQ(RefPacketBundle::LiveCount(), bundles0_);
  taken->Release();
}

// Exposes the protected state.
class ProbeFormatter : public CAFormatter {
 public:
  using CAFormatter::ChapterMarkers;
  using CAFormatter::MetaData;
};

TEST(HostSdkFormatterBase, KeepsCopiesOfWhatTheCallerHandsOver) {
  ProbeFormatter f;
  {
    Array_c<CAceNameValuePair> meta;
    meta.Add(CAceNameValuePair("Title", "Sunrise"));
    meta.Add(CAceNameValuePair("Artist", "Someone"));
    CAceMarker one(CAceMarker::kMarkerTypeChapter, "One", 0.0);
    CAceMarker two(CAceMarker::kMarkerTypeChapter, "Two", 12.25);
    CAceMarkerPtrList markers;
    markers.Add(&one);
    markers.Add(nullptr);  // skipped, not dereferenced
    markers.Add(&two);
    f.SetMetaData(&meta);
    f.SetChapterMarkers(&markers);
  }  // the caller's objects are gone now
  ASSERT_EQ(f.MetaData().GetCount(), 2u);
  EXPECT_EQ(f.MetaData()[1].GetValue(), "Someone");
  ASSERT_EQ(f.ChapterMarkers().size(), 2u);
  EXPECT_EQ(f.ChapterMarkers()[1].GetName(), "Two");
  EXPECT_DOUBLE_EQ(f.ChapterMarkers()[1].GetEncodedFrameTime(), 12.25);
  // Null clears.
  f.SetMetaData(nullptr);
  f.SetChapterMarkers(nullptr);
  EXPECT_TRUE(f.MetaData().IsEmpty());
  EXPECT_TRUE(f.ChapterMarkers().empty());
}

#if defined(__x86_64__) || defined(__i386__)
// On this ABI a pointer to a virtual member holds 1 + the byte offset of its slot.
template <typename F>
long Slot(F member) {
  struct {
    uintptr_t ptr;
    ptrdiff_t adj;
  } rep;
  static_assert(sizeof(F) == sizeof(rep), "two-word member pointer");
  std::memcpy(&rep, &member, sizeof rep);
  return static_cast<long>((rep.ptr - 1) / sizeof(void*));
}
#endif

TEST(HostSdkFormatterBase, VirtualSlotsMatchTheHost) {
#if defined(__x86_64__) || defined(__i386__)
  using F = CAFormatter;
  const long slots[] = {
      Slot(&F::CreateCopy),           Slot(&F::Release),
      Slot(&F::SupportsEncoding),     Slot(&F::SupportsAudioCodec),
      Slot(&F::SupportsVideoCodec),   Slot(&F::ImplementsAudioCodec),
      Slot(&F::ImplementsVideoCodec), Slot(&F::SetOutputFile),
      Slot(&F::SetMetaData),          Slot(&F::SetChapterMarkers),
      Slot(&F::GetVideoPrivateData),  Slot(&F::GetFragmentDurations),
      Slot(&F::SetDurationHint),      Slot(&F::SetEncodeAudio),
      Slot(&F::SetEncodeVideo),       Slot(&F::SetAddHintTrack),
      Slot(&F::GetProcessingAudio),   Slot(&F::GetProcessingImages),
      Slot(&F::SetVideoCompressors),  Slot(&F::SetAudioCompressors),
      Slot(&F::GetNextImageTime),     Slot(&F::GetNextInterestingTime),
      Slot(&F::BeginFormatting),      Slot(&F::AddAudioSample),
      Slot(&F::AddVideoSample),       Slot(&F::EndFormatting),
      Slot(&F::GetDoAnotherPass),     Slot(&F::GetPassInfo),
      Slot(&F::Reset),                Slot(&F::GetNumberFramesToBuffer),
      Slot(&F::SetupVideoFormatter),  Slot(&F::GetOutputStreamMode),
      Slot(&F::SetOutputStreamMode),  Slot(&F::IsUsingGPU),
      Slot(&F::GetGpuIndex),          Slot(&F::GetClosedCaptionFormats),
      Slot(&F::SetInputColorFormat),
  };
  for (long i = 0; i < static_cast<long>(std::size(slots)); ++i) EXPECT_EQ(slots[i], i) << "entry " << i + 1;
  // The destructor pair sits in 37 and 38 (zero-based).
  EXPECT_EQ(Slot(&F::GetSequenceParameterSet), 39);
#else
  GTEST_SKIP() << "member-pointer layout check written for x86";
#endif
}

}  // namespace
