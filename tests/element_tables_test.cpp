// The element tables: elements of RFC 9559 and RFC 8794 load into their members and save back unchanged.
// Files from other muxers going through a load and save are the corpus's optimize rows.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kapsel/kapsel.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using namespace kapsel_test;
using Bytes = std::vector<unsigned char>;

// An element with a one-byte size; IDs are written with their length marker.
Bytes el(uint64_t id, const Bytes& payload) {
  Bytes out;
  for (int shift = 24; shift >= 0; shift -= 8)
    if (id >> shift || !out.empty() || shift == 0) out.push_back(static_cast<unsigned char>(id >> shift));
  EXPECT_LT(payload.size(), 127u);
  out.push_back(static_cast<unsigned char>(0x80 | payload.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes el(uint64_t id, std::initializer_list<Bytes> children) { return el(id, cat(children)); }

Bytes str(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes f32(float v) {
  uint32_t bits;
  std::memcpy(&bits, &v, 4);
  return {static_cast<unsigned char>(bits >> 24), static_cast<unsigned char>(bits >> 16),
          static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
}

Bytes f64(double v) {
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  Bytes out;
  for (int shift = 56; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(bits >> shift));
  return out;
}

struct Row {
  const char* what;
  Bytes bytes;
  std::function<std::unique_ptr<IElement>()> make;
  std::function<void(IElement&)> check;
};

template <class Elt>
Row row(const char* what, Bytes bytes, std::function<void(Elt&)> check) {
  return {what, std::move(bytes), [] { return std::make_unique<Elt>(); },
          [check](IElement& e) { check(static_cast<Elt&>(e)); }};
}

using TrackElt = Tracks::TrackElt;
using VideoElt = TElt<Video, 0xE0, Track::EltName0xE0>;
using AudioElt = TElt<Audio, 0xE1, Track::EltName0xE1>;
using EncodingElt = TElt<ContentEnc, 0x6240, ContentEncodings::EltName0x6240>;
using EditionElt = TElt<Edition, 0x45B9, Chapters::EltName0x45B9>;
using TagElt = TElt<Tag, 0x7373, Tags::EltName0x7373>;
using CuePosElt = TElt<CueTrkPos, 0xB7, CuePoint::EltName0xB7>;

std::vector<Row> rows() {
  return {
      row<TrackElt>("TrackEntry: Opus delays, BCP 47 language, flags",
                    el(0xAE, {el(0xD7, {0x01}), el(0x55AE, {0x01}), el(0x22B59D, str("pt-BR")),
                              el(0x86, str("A_OPUS")), el(0x56AA, {0x63, 0x2E, 0xA0}),
                              el(0x56BB, {0x04, 0xC4, 0xB4, 0x00})}),
                    [](TrackElt& t) {
                      EXPECT_EQ(t->codecDelay_->get(), 6500000u);
                      EXPECT_EQ(t->seekPreRoll_->get(), 80000000u);
                      EXPECT_EQ(t->languageBcp47_->get(), "pt-BR");
                      EXPECT_EQ(t->flagOriginal_->get(), 1u);
                      EXPECT_EQ(t->language_->get(), "eng");
                    }),
      row<TrackElt>("TrackEntry: block addition mappings and a track operation",
                    el(0xAE, {el(0x55EE, {0x04}),
                              el(0x41E4, {el(0x41F0, {0x04}), el(0x41A4, str("hdr10+")), el(0x41E7, {0x04}),
                                          el(0x41ED, {0xB5, 0x00})}),
                              el(0x41E4, {el(0x41F0, {0x05})}), el(0xE2, {el(0xE9, {el(0xED, {0x07})})})}),
                    [](TrackElt& t) {
                      ASSERT_EQ(t->blockAdditionMappings_.size(), 2u);
                      const BlockAdditionMapping& m = *t->blockAdditionMappings_[0];
                      EXPECT_EQ(m.value_->get(), 4u);
                      EXPECT_EQ(m.name_->get(), "hdr10+");
                      EXPECT_EQ(m.type_->get(), 4u);
                      EXPECT_EQ(m.extraData_->numBytes(), 2u);
                      EXPECT_EQ(t->blockAdditionMappings_[1]->value_->get(), 5u);
                      ASSERT_EQ(t->trackOperation_->joinBlocks_->uids_.size(), 1u);
                    }),
      // MatrixCoefficients 0 (identity) differs from the default 2 and is kept.
      row<VideoElt>(
          "Video: field order, alpha, Colour with mastering metadata, Projection",
          el(0xE0, {el(0x9D, {0x09}), el(0x53C0, {0x01}), el(0xB0, {0x40}), el(0xBA, {0x30}),
                    el(0x55B0, {el(0x55B1, {0x00}), el(0x55B2, {0x0A}), el(0x55B7, {0x01}), el(0x55B9, {0x01}),
                                el(0x55BA, {0x10}), el(0x55BB, {0x09}), el(0x55BC, {0x03, 0xE8}),
                                el(0x55D0, {el(0x55D1, f32(0.708f)), el(0x55D8, f32(0.329f)),
                                            el(0x55D9, f64(1000.0)), el(0x55DA, f32(0.005f))})}),
                    el(0x7670, {el(0x7671, {0x01}), el(0x7672, {0x00, 0x00, 0x00, 0x00}), el(0x7673, f32(90.0f))})}),
          [](VideoElt& v) {
            EXPECT_EQ(v->fieldOrder_->get(), 9u);
            EXPECT_EQ(v->alphaMode_->get(), 1u);
            const Colour& c = *v->colour_;
            EXPECT_EQ(c.matrixCoefficients_->get(), 0u);
            EXPECT_EQ(c.bitsPerChannel_->get(), 10u);
            EXPECT_EQ(c.chromaSitingHorz_->get(), 1u);
            EXPECT_EQ(c.range_->get(), 1u);
            EXPECT_EQ(c.transferCharacteristics_->get(), 16u);
            EXPECT_EQ(c.primaries_->get(), 9u);
            EXPECT_EQ(c.maxCll_->get(), 1000u);
            EXPECT_FLOAT_EQ(static_cast<float>(c.masteringMetadata_->primaryRChromaticityX_->get()), 0.708f);
            EXPECT_FLOAT_EQ(static_cast<float>(c.masteringMetadata_->whitePointChromaticityY_->get()), 0.329f);
            EXPECT_EQ(c.masteringMetadata_->luminanceMax_->get(), 1000.0);
            EXPECT_EQ(v->projection_->type_->get(), 1u);
            EXPECT_EQ(v->projection_->poseYaw_->get(), 90.0);
          }),
      row<AudioElt>("Audio: Emphasis", el(0xE1, {el(0x9F, {0x02}), el(0x52F1, {0x0A})}),
                    [](AudioElt& a) { EXPECT_EQ(a->emphasis_->get(), 10u); }),
      row<EncodingElt>("ContentEncoding: AES settings",
                       el(0x6240, {el(0x5033, {0x01}),
                                   el(0x5035, {el(0x47E1, {0x05}), el(0x47E2, {0x11, 0x22, 0x33, 0x44}),
                                               el(0x47E7, {el(0x47E8, {0x01})})})}),
                       [](EncodingElt& e) { EXPECT_EQ(e->encryption_->aesSettings_->cipherMode_->get(), 1u); }),
      row<EditionElt>(
          "EditionEntry: EditionDisplay, ChapterStringUID, ChapterSkipType, ChapLanguageBCP47",
          el(0x45B9, {el(0x45BC, {0x2A}),
                      el(0x4520, {el(0x4521, str("Director's cut")), el(0x45E4, str("en")), el(0x45E4, str("de"))}),
                      el(0xB6, {el(0x73C4, {0x01}), el(0x5654, str("intro")), el(0x91, {0x00}),
                                el(0x4588, {0x02}),
                                el(0x80, {el(0x85, str("Intro")), el(0x437D, str("en-GB"))})})}),
          [](EditionElt& e) {
            ASSERT_EQ(e->displays_.size(), 1u);
            EXPECT_EQ(e->displays_[0]->string_->get(), "Director's cut");
            ASSERT_EQ(e->displays_[0]->languages_.size(), 2u);
            EXPECT_EQ(e->displays_[0]->languages_[1]->get(), "de");
            const ChapAtom& atom = *e->atoms_[0];
            EXPECT_EQ(atom.stringUid_->get(), "intro");
            EXPECT_EQ(atom.skipType_->get(), 2u);
            ASSERT_EQ(atom.displays_[0]->languagesBcp47_.size(), 1u);
            EXPECT_EQ(atom.displays_[0]->languagesBcp47_[0]->get(), "en-GB");
          }),
      row<TagElt>("Tag: TagBinary, TagLanguageBCP47, a nested SimpleTag",
                  el(0x7373, {el(0x63C0, Bytes{}),
                              el(0x67C8, {el(0x45A3, str("COVER")), el(0x447B, str("fr-CA")),
                                          el(0x4485, {0x89, 0x50, 0x4E, 0x47}),
                                          el(0x67C8, {el(0x45A3, str("URL")), el(0x4487, str("x"))})})}),
                  [](TagElt& t) {
                    const SimpleTag& s = *t->simpleTags_[0];
                    EXPECT_EQ(s.languageBcp47_->get(), "fr-CA");
                    EXPECT_EQ(s.binary_->numBytes(), 4u);
                    ASSERT_EQ(s.simpleTags_.size(), 1u);
                    EXPECT_EQ(s.simpleTags_[0]->string_->get(), "x");
                  }),
      row<Cluster::BlockGroupElt>(
          "BlockGroup: BlockAdditions, DiscardPadding, ReferenceFrame",
          el(0xA0, {el(0xA1, {0x81, 0x00, 0x00, 0x00, 0xFC}),
                    el(0x75A1, {el(0xA6, {el(0xEE, {0x04}), el(0xA5, {0xB5, 0x00, 0x3C})})}),
                    el(0x75A2, {0xE1, 0x7B, 0x80}), el(0xC8, {el(0xC9, {0x10}), el(0xCA, {0x20})})}),
          [](Cluster::BlockGroupElt& g) {
            EXPECT_EQ(g->discardPadding_->get(), -2000000);
            EXPECT_EQ(g->additions_->more_[0]->addId_->get(), 4u);
            EXPECT_EQ(g->referenceFrame_->timestamp_->get(), 0x20u);
          }),
      row<CuePosElt>("CueTrackPositions: CueRelativePosition, CueDuration",
                     el(0xB7, {el(0xF7, {0x01}), el(0xF0, {0x01, 0x23}), el(0xB2, {0x28})}),
                     [](CuePosElt& p) {
                       EXPECT_EQ(p->relativePosition_->get(), 0x123u);
                       EXPECT_EQ(p->duration_->get(), 40u);
                     }),
      row<EbmlDoc::HeadElt>(
          "EBML header: DocTypeExtension",
          el(0x1A45DFA3, {el(0x4286, {0x01}), el(0x42F7, {0x01}), el(0x42F2, {0x04}), el(0x42F3, {0x08}),
                          el(0x4282, str("matroska")), el(0x4287, {0x04}), el(0x4285, {0x02}),
                          el(0x4281, {el(0x4283, str("x-cues")), el(0x4284, {0x03})})}),
          [](EbmlDoc::HeadElt& h) {
            ASSERT_EQ(h->docTypeExtensions_.size(), 1u);
            EXPECT_EQ(h->docTypeExtensions_[0]->name_->get(), "x-cues");
            EXPECT_EQ(h->docTypeExtensions_[0]->version_->get(), 3u);
          }),
  };
}

TEST(ElementTables, NewElementsLoadIntoTheirMembersAndSaveBackByteForByte) {
  TempDir dir;
  int n = 0;
  for (const Row& r : rows()) {
    SCOPED_TRACE(r.what);
    const std::string in = dir.path("in" + std::to_string(++n)), out = dir.path("out" + std::to_string(n));
    writeFile(in, r.bytes);
    std::unique_ptr<IElement> e = r.make();
    {
      FileStorage fs(in, File::kReadOnly);
      ASSERT_EQ(e->load(fs, r.bytes.size()), r.bytes.size());
    }
    r.check(*e);
    {
      FileStorage fs(out, File::kReadWrite);
      ASSERT_TRUE(e->save(fs));
      fs.file().close();
    }
    EXPECT_EQ(readFile(out), r.bytes);
  }
}

}  // namespace
