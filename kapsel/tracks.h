#pragma once
// Segment information and the track list with everything nested in it.

#include "kapsel/element.h"
#include "kapsel/payload.h"

namespace Kapsel {

// Names this library in every file it writes ("MuxingApp").
extern const char* const kLibraryIdentification;

class ChapTranslate : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x69FC, "EditionUID");
  KAPSEL_ELT_NAME(0x69BF, "ChapTransCodec");
  KAPSEL_ELT_NAME(0x69A5, "ChapTransID");
  TElt<VUInt, 0x69FC, EltName0x69FC> editionUid_;
  TElt<VUInt, 0x69BF, EltName0x69BF> codec_;
  TElt<VBinary, 0x69A5, EltName0x69A5> id_;
  KAPSEL_CHILDREN(editionUid_, codec_, id_);
};

class SegInfo : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x73A4, "SegmentUID");
  KAPSEL_ELT_NAME(0x7384, "SegmentFilename");
  KAPSEL_ELT_NAME(0x3CB923, "PrevUID");
  KAPSEL_ELT_NAME(0x3C83AB, "PrevFilename");
  KAPSEL_ELT_NAME(0x3EB923, "NextUID");
  KAPSEL_ELT_NAME(0x3E83BB, "NextFilename");
  KAPSEL_ELT_NAME(0x4444, "FamilyUID");
  KAPSEL_ELT_NAME(0x6924, "ChapTranslate");
  KAPSEL_ELT_NAME(0x2AD7B1, "TimecodeScale");
  KAPSEL_ELT_NAME(0x4489, "Duration");
  KAPSEL_ELT_NAME(0x4461, "DateUTC");
  KAPSEL_ELT_NAME(0x7BA9, "Title");
  KAPSEL_ELT_NAME(0x4D80, "MuxingApp");
  KAPSEL_ELT_NAME(0x5741, "WritingApp");

  SegInfo();

  TElt<VBytes<16>, 0x73A4, EltName0x73A4> segmentUid_;
  TElt<VString, 0x7384, EltName0x7384> segmentFilename_;
  TElt<VBytes<16>, 0x3CB923, EltName0x3CB923> prevUid_;
  TElt<VString, 0x3C83AB, EltName0x3C83AB> prevFilename_;
  TElt<VBytes<16>, 0x3EB923, EltName0x3EB923> nextUid_;
  TElt<VString, 0x3E83BB, EltName0x3E83BB> nextFilename_;
  TElt<VBytes<16>, 0x4444, EltName0x4444> familyUid_;
  TElt<ChapTranslate, 0x6924, EltName0x6924> chapTranslate_;
  TElt<VUInt, 0x2AD7B1, EltName0x2AD7B1> timecodeScale_;
  TElt<VFloat, 0x4489, EltName0x4489> duration_;
  TElt<VDate, 0x4461, EltName0x4461> dateUtc_;
  TElt<VString, 0x7BA9, EltName0x7BA9> title_;
  TElt<VString, 0x4D80, EltName0x4D80> muxingApp_;
  TElt<VString, 0x5741, EltName0x5741> writingApp_;

  KAPSEL_CHILDREN(segmentUid_, segmentFilename_, prevUid_, prevFilename_, nextUid_, nextFilename_, familyUid_,
                  chapTranslate_, timecodeScale_, duration_, dateUtc_, title_, muxingApp_, writingApp_);
};

class Video : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x9A, "FlagInterlaced");
  KAPSEL_ELT_NAME(0x53B8, "StereoMode");
  KAPSEL_ELT_NAME(0xB0, "PixelWidth");
  KAPSEL_ELT_NAME(0xBA, "PixelHeight");
  KAPSEL_ELT_NAME(0x54AA, "PixelCropBottom");
  KAPSEL_ELT_NAME(0x54BB, "PixelCropTop");
  KAPSEL_ELT_NAME(0x54CC, "PixelCropLeft");
  KAPSEL_ELT_NAME(0x54DD, "PixelCropRight");
  KAPSEL_ELT_NAME(0x54B0, "DisplayWidth");
  KAPSEL_ELT_NAME(0x54BA, "DisplayHeight");
  KAPSEL_ELT_NAME(0x54B2, "DisplayUnits");
  KAPSEL_ELT_NAME(0x54B3, "AspectRatioType");
  KAPSEL_ELT_NAME(0x2EB524, "ColorSpace");
  KAPSEL_ELT_NAME(0x2FB523, "GammaValue");
  KAPSEL_ELT_NAME(0x2383E3, "FrameRate");

  TElt<VUInt, 0x9A, EltName0x9A> flagInterlaced_;
  TElt<VUInt, 0x53B8, EltName0x53B8> stereoMode_;
  TElt<VUInt, 0xB0, EltName0xB0> pixelWidth_;
  TElt<VUInt, 0xBA, EltName0xBA> pixelHeight_;
  TElt<VUInt, 0x54AA, EltName0x54AA> pixelCropBottom_;
  TElt<VUInt, 0x54BB, EltName0x54BB> pixelCropTop_;
  TElt<VUInt, 0x54CC, EltName0x54CC> pixelCropLeft_;
  TElt<VUInt, 0x54DD, EltName0x54DD> pixelCropRight_;
  TElt<VUInt, 0x54B0, EltName0x54B0> displayWidth_;
  TElt<VUInt, 0x54BA, EltName0x54BA> displayHeight_;
  TElt<VUInt, 0x54B2, EltName0x54B2> displayUnits_;
  TElt<VUInt, 0x54B3, EltName0x54B3> aspectRatioType_;
  TElt<VBytes<4>, 0x2EB524, EltName0x2EB524> colorSpace_;
  TElt<VFloat, 0x2FB523, EltName0x2FB523> gammaValue_;
  TElt<VFloat, 0x2383E3, EltName0x2383E3> frameRate_;

  KAPSEL_CHILDREN(flagInterlaced_, stereoMode_, pixelWidth_, pixelHeight_, pixelCropBottom_, pixelCropTop_,
                  pixelCropLeft_, pixelCropRight_, displayWidth_, displayHeight_, displayUnits_, aspectRatioType_,
                  colorSpace_, gammaValue_, frameRate_);
};

class Audio : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xB5, "SamplingFrequency");
  KAPSEL_ELT_NAME(0x78B5, "OutputSamplingFrequency");
  KAPSEL_ELT_NAME(0x9F, "Channels");
  KAPSEL_ELT_NAME(0x7D7B, "ChannelPositions");
  KAPSEL_ELT_NAME(0x6264, "BitDepth");

  Audio();

  TElt<VFloat, 0xB5, EltName0xB5> samplingFrequency_;
  TElt<VFloat, 0x78B5, EltName0x78B5> outputSamplingFrequency_;
  TElt<VUInt, 0x9F, EltName0x9F> channels_;
  TElt<VBinary, 0x7D7B, EltName0x7D7B> channelPositions_;
  TElt<VUInt, 0x6264, EltName0x6264> bitDepth_;

  KAPSEL_CHILDREN(samplingFrequency_, outputSamplingFrequency_, channels_, channelPositions_, bitDepth_);
};

class TrackTranslate : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x66FC, "EditionUID");
  KAPSEL_ELT_NAME(0x66BF, "TrackTransCodec");
  KAPSEL_ELT_NAME(0x66A5, "TrackTransID");
  TElt<VUInt, 0x66FC, EltName0x66FC> editionUid_;
  TElt<VUInt, 0x66BF, EltName0x66BF> codec_;
  TElt<VBinary, 0x66A5, EltName0x66A5> id_;
  KAPSEL_CHILDREN(editionUid_, codec_, id_);
};

class TrackPlane : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xE5, "TrackPlaneUID");
  KAPSEL_ELT_NAME(0xE6, "TrackPlaneType");
  TElt<VUInt, 0xE5, EltName0xE5> uid_;
  TElt<VUInt, 0xE6, EltName0xE6> type_;
  KAPSEL_CHILDREN(uid_, type_);
};

class TrackCombinePlanes : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xE4, "TrackPlane");
  TEltList<TElt<TrackPlane, 0xE4, EltName0xE4>> planes_;
  KAPSEL_CHILDREN(planes_);
};

class TrackJoinBlocks : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xED, "TrackJoinUID");
  TEltList<TElt<VUInt, 0xED, EltName0xED>> uids_;
  KAPSEL_CHILDREN(uids_);
};

class TrackOperation : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xE3, "TrackCombinePlanes");
  KAPSEL_ELT_NAME(0xE9, "TrackJoinBlocks");
  TElt<TrackCombinePlanes, 0xE3, EltName0xE3> combinePlanes_;
  TElt<TrackJoinBlocks, 0xE9, EltName0xE9> joinBlocks_;
  KAPSEL_CHILDREN(combinePlanes_, joinBlocks_);
};

class ContentCompr : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x4254, "ContentCompAlgo");
  KAPSEL_ELT_NAME(0x4255, "ContentCompSettings");
  ContentCompr();
  TElt<VUInt, 0x4254, EltName0x4254> algo_;
  TElt<VBinary, 0x4255, EltName0x4255> settings_;
  KAPSEL_CHILDREN(algo_, settings_);
};

class ContentEncrypt : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x47E1, "ContentEncAlgo");
  KAPSEL_ELT_NAME(0x47E2, "ContentEncKeyID");
  KAPSEL_ELT_NAME(0x47E3, "ContentSignature");
  KAPSEL_ELT_NAME(0x47E4, "ContentSigKeyID");
  KAPSEL_ELT_NAME(0x47E5, "ContentSigAlgo");
  KAPSEL_ELT_NAME(0x47E6, "ContentSigHashAlgo");
  TElt<VUInt, 0x47E1, EltName0x47E1> encAlgo_;
  TElt<VBinary, 0x47E2, EltName0x47E2> encKeyId_;
  TElt<VBinary, 0x47E3, EltName0x47E3> signature_;
  TElt<VBinary, 0x47E4, EltName0x47E4> sigKeyId_;
  TElt<VUInt, 0x47E5, EltName0x47E5> sigAlgo_;
  TElt<VUInt, 0x47E6, EltName0x47E6> sigHashAlgo_;
  KAPSEL_CHILDREN(encAlgo_, encKeyId_, signature_, sigKeyId_, sigAlgo_, sigHashAlgo_);
};

class ContentEnc : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x5031, "ContentEncodingOrder");
  KAPSEL_ELT_NAME(0x5032, "ContentEncodingScope");
  KAPSEL_ELT_NAME(0x5033, "ContentEncodingType");
  KAPSEL_ELT_NAME(0x5034, "ContentCompression");
  KAPSEL_ELT_NAME(0x5035, "ContentEncryption");
  ContentEnc();
  TElt<VUInt, 0x5031, EltName0x5031> order_;
  TElt<VUInt, 0x5032, EltName0x5032> scope_;
  TElt<VUInt, 0x5033, EltName0x5033> type_;
  TElt<ContentCompr, 0x5034, EltName0x5034> compression_;
  TElt<ContentEncrypt, 0x5035, EltName0x5035> encryption_;
  KAPSEL_CHILDREN(order_, scope_, type_, compression_, encryption_);
};

class ContentEncodings : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x6240, "ContentEnc");
  TEltList<TElt<ContentEnc, 0x6240, EltName0x6240>> encodings_;
  KAPSEL_CHILDREN(encodings_);
};

class Track : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xD7, "TrackNumber");
  KAPSEL_ELT_NAME(0x73C5, "TrackUID");
  KAPSEL_ELT_NAME(0x83, "TrackType");
  KAPSEL_ELT_NAME(0xB9, "FlagEnabled");
  KAPSEL_ELT_NAME(0x88, "FlagDefault");
  KAPSEL_ELT_NAME(0x55AA, "FlagForced");
  KAPSEL_ELT_NAME(0x9C, "FlagLacing");
  KAPSEL_ELT_NAME(0x6DE7, "MinCache");
  KAPSEL_ELT_NAME(0x6DF8, "MaxCache");
  KAPSEL_ELT_NAME(0x23E383, "DefaultDuration");
  KAPSEL_ELT_NAME(0x23314F, "TrackTimecodeScale");
  KAPSEL_ELT_NAME(0x537F, "TrackOffset");
  KAPSEL_ELT_NAME(0x55EE, "MaxBlockAddID");
  KAPSEL_ELT_NAME(0x536E, "Name");
  KAPSEL_ELT_NAME(0x22B59C, "Language");
  KAPSEL_ELT_NAME(0x86, "CodecID");
  KAPSEL_ELT_NAME(0x63A2, "CodecPrivate");
  KAPSEL_ELT_NAME(0x258688, "CodecName");
  KAPSEL_ELT_NAME(0x7446, "AttachmentLink");
  KAPSEL_ELT_NAME(0x3A9697, "CodecSettings");
  KAPSEL_ELT_NAME(0x3B4040, "CodecInfoURL");
  KAPSEL_ELT_NAME(0x26B240, "CodecDownloadURL");
  KAPSEL_ELT_NAME(0xAA, "CodecDecodeAll");
  KAPSEL_ELT_NAME(0x6FAB, "TrackOverlay");
  KAPSEL_ELT_NAME(0x6624, "TrackTranslate");
  KAPSEL_ELT_NAME(0xE0, "Video");
  KAPSEL_ELT_NAME(0xE1, "Audio");
  KAPSEL_ELT_NAME(0x6D80, "ContentEncodings");

  Track();

  TElt<VUInt, 0xD7, EltName0xD7> trackNumber_;
  TElt<VUInt, 0x73C5, EltName0x73C5> trackUid_;
  TElt<VUInt, 0x83, EltName0x83> trackType_;
  TElt<VUInt, 0xB9, EltName0xB9> flagEnabled_;
  TElt<VUInt, 0x88, EltName0x88> flagDefault_;
  TElt<VUInt, 0x55AA, EltName0x55AA> flagForced_;
  TElt<VUInt, 0x9C, EltName0x9C> flagLacing_;
  TElt<VUInt, 0x6DE7, EltName0x6DE7> minCache_;
  TElt<VUInt, 0x6DF8, EltName0x6DF8> maxCache_;
  TElt<VUInt, 0x23E383, EltName0x23E383> defaultDuration_;
  TElt<VFloat, 0x23314F, EltName0x23314F> trackTimecodeScale_;
  TElt<VInt, 0x537F, EltName0x537F> trackOffset_;
  TElt<VUInt, 0x55EE, EltName0x55EE> maxBlockAddId_;
  TElt<VString, 0x536E, EltName0x536E> name_;
  TElt<VString, 0x22B59C, EltName0x22B59C> language_;
  TElt<VString, 0x86, EltName0x86> codecId_;
  TElt<VBinary, 0x63A2, EltName0x63A2> codecPrivate_;
  TElt<VString, 0x258688, EltName0x258688> codecName_;
  TElt<VUInt, 0x7446, EltName0x7446> attachmentLink_;
  TElt<VString, 0x3A9697, EltName0x3A9697> codecSettings_;
  TElt<VString, 0x3B4040, EltName0x3B4040> codecInfoUrl_;
  TElt<VString, 0x26B240, EltName0x26B240> codecDownloadUrl_;
  TElt<VUInt, 0xAA, EltName0xAA> codecDecodeAll_;
  TElt<VUInt, 0x6FAB, EltName0x6FAB> trackOverlay_;
  TElt<TrackTranslate, 0x6624, EltName0x6624> trackTranslate_;
  TElt<Video, 0xE0, EltName0xE0> video_;
  TElt<Audio, 0xE1, EltName0xE1> audio_;
  TElt<ContentEncodings, 0x6D80, EltName0x6D80> contentEncodings_;

  KAPSEL_CHILDREN(trackNumber_, trackUid_, trackType_, flagEnabled_, flagDefault_, flagForced_, flagLacing_,
                  minCache_, maxCache_, defaultDuration_, trackTimecodeScale_, trackOffset_, maxBlockAddId_, name_,
                  language_, codecId_, codecPrivate_, codecName_, attachmentLink_, codecSettings_, codecInfoUrl_,
                  codecDownloadUrl_, codecDecodeAll_, trackOverlay_, trackTranslate_, video_, audio_,
                  contentEncodings_);
};

class Tracks : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xAE, "TrackEntry");
  KAPSEL_ELT_NAME(0xE2, "TrackOperation");
  using TrackElt = TElt<Track, 0xAE, EltName0xAE>;
  TEltDeque<TrackElt> tracks_;
  TElt<TrackOperation, 0xE2, EltName0xE2> trackOperation_;
  KAPSEL_CHILDREN(tracks_, trackOperation_);
};

}  // namespace Kapsel
