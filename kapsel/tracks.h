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

class MasteringMetadata : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x55D1, "PrimaryRChromaticityX");
  KAPSEL_ELT_NAME(0x55D2, "PrimaryRChromaticityY");
  KAPSEL_ELT_NAME(0x55D3, "PrimaryGChromaticityX");
  KAPSEL_ELT_NAME(0x55D4, "PrimaryGChromaticityY");
  KAPSEL_ELT_NAME(0x55D5, "PrimaryBChromaticityX");
  KAPSEL_ELT_NAME(0x55D6, "PrimaryBChromaticityY");
  KAPSEL_ELT_NAME(0x55D7, "WhitePointChromaticityX");
  KAPSEL_ELT_NAME(0x55D8, "WhitePointChromaticityY");
  KAPSEL_ELT_NAME(0x55D9, "LuminanceMax");
  KAPSEL_ELT_NAME(0x55DA, "LuminanceMin");
  TElt<VFloat, 0x55D1, EltName0x55D1> primaryRChromaticityX_;
  TElt<VFloat, 0x55D2, EltName0x55D2> primaryRChromaticityY_;
  TElt<VFloat, 0x55D3, EltName0x55D3> primaryGChromaticityX_;
  TElt<VFloat, 0x55D4, EltName0x55D4> primaryGChromaticityY_;
  TElt<VFloat, 0x55D5, EltName0x55D5> primaryBChromaticityX_;
  TElt<VFloat, 0x55D6, EltName0x55D6> primaryBChromaticityY_;
  TElt<VFloat, 0x55D7, EltName0x55D7> whitePointChromaticityX_;
  TElt<VFloat, 0x55D8, EltName0x55D8> whitePointChromaticityY_;
  TElt<VFloat, 0x55D9, EltName0x55D9> luminanceMax_;
  TElt<VFloat, 0x55DA, EltName0x55DA> luminanceMin_;
  KAPSEL_CHILDREN(primaryRChromaticityX_, primaryRChromaticityY_, primaryGChromaticityX_, primaryGChromaticityY_,
                  primaryBChromaticityX_, primaryBChromaticityY_, whitePointChromaticityX_, whitePointChromaticityY_,
                  luminanceMax_, luminanceMin_);
};

class Colour : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x55B1, "MatrixCoefficients");
  KAPSEL_ELT_NAME(0x55B2, "BitsPerChannel");
  KAPSEL_ELT_NAME(0x55B3, "ChromaSubsamplingHorz");
  KAPSEL_ELT_NAME(0x55B4, "ChromaSubsamplingVert");
  KAPSEL_ELT_NAME(0x55B5, "CbSubsamplingHorz");
  KAPSEL_ELT_NAME(0x55B6, "CbSubsamplingVert");
  KAPSEL_ELT_NAME(0x55B7, "ChromaSitingHorz");
  KAPSEL_ELT_NAME(0x55B8, "ChromaSitingVert");
  KAPSEL_ELT_NAME(0x55B9, "Range");
  KAPSEL_ELT_NAME(0x55BA, "TransferCharacteristics");
  KAPSEL_ELT_NAME(0x55BB, "Primaries");
  KAPSEL_ELT_NAME(0x55BC, "MaxCLL");
  KAPSEL_ELT_NAME(0x55BD, "MaxFALL");
  KAPSEL_ELT_NAME(0x55D0, "MasteringMetadata");
  Colour();
  TElt<VUInt, 0x55B1, EltName0x55B1> matrixCoefficients_;
  TElt<VUInt, 0x55B2, EltName0x55B2> bitsPerChannel_;
  TElt<VUInt, 0x55B3, EltName0x55B3> chromaSubsamplingHorz_;
  TElt<VUInt, 0x55B4, EltName0x55B4> chromaSubsamplingVert_;
  TElt<VUInt, 0x55B5, EltName0x55B5> cbSubsamplingHorz_;
  TElt<VUInt, 0x55B6, EltName0x55B6> cbSubsamplingVert_;
  TElt<VUInt, 0x55B7, EltName0x55B7> chromaSitingHorz_;
  TElt<VUInt, 0x55B8, EltName0x55B8> chromaSitingVert_;
  TElt<VUInt, 0x55B9, EltName0x55B9> range_;
  TElt<VUInt, 0x55BA, EltName0x55BA> transferCharacteristics_;
  TElt<VUInt, 0x55BB, EltName0x55BB> primaries_;
  TElt<VUInt, 0x55BC, EltName0x55BC> maxCll_;
  TElt<VUInt, 0x55BD, EltName0x55BD> maxFall_;
  TElt<MasteringMetadata, 0x55D0, EltName0x55D0> masteringMetadata_;
  KAPSEL_CHILDREN(matrixCoefficients_, bitsPerChannel_, chromaSubsamplingHorz_, chromaSubsamplingVert_,
                  cbSubsamplingHorz_, cbSubsamplingVert_, chromaSitingHorz_, chromaSitingVert_, range_,
                  transferCharacteristics_, primaries_, maxCll_, maxFall_, masteringMetadata_);
};

class Projection : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x7671, "ProjectionType");
  KAPSEL_ELT_NAME(0x7672, "ProjectionPrivate");
  KAPSEL_ELT_NAME(0x7673, "ProjectionPoseYaw");
  KAPSEL_ELT_NAME(0x7674, "ProjectionPosePitch");
  KAPSEL_ELT_NAME(0x7675, "ProjectionPoseRoll");
  TElt<VUInt, 0x7671, EltName0x7671> type_;
  TElt<VBinary, 0x7672, EltName0x7672> private_;
  TElt<VFloat, 0x7673, EltName0x7673> poseYaw_;
  TElt<VFloat, 0x7674, EltName0x7674> posePitch_;
  TElt<VFloat, 0x7675, EltName0x7675> poseRoll_;
  KAPSEL_CHILDREN(type_, private_, poseYaw_, posePitch_, poseRoll_);
};

class Video : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x9A, "FlagInterlaced");
  KAPSEL_ELT_NAME(0x9D, "FieldOrder");
  KAPSEL_ELT_NAME(0x53B8, "StereoMode");
  KAPSEL_ELT_NAME(0x53C0, "AlphaMode");
  KAPSEL_ELT_NAME(0x53B9, "OldStereoMode");
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
  KAPSEL_ELT_NAME(0x2EB524, "UncompressedFourCC");
  KAPSEL_ELT_NAME(0x2FB523, "GammaValue");
  KAPSEL_ELT_NAME(0x2383E3, "FrameRate");
  KAPSEL_ELT_NAME(0x55B0, "Colour");
  KAPSEL_ELT_NAME(0x7670, "Projection");

  Video();

  TElt<VUInt, 0x9A, EltName0x9A> flagInterlaced_;
  TElt<VUInt, 0x9D, EltName0x9D> fieldOrder_;
  TElt<VUInt, 0x53B8, EltName0x53B8> stereoMode_;
  TElt<VUInt, 0x53C0, EltName0x53C0> alphaMode_;
  TElt<VUInt, 0x53B9, EltName0x53B9> oldStereoMode_;
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
  TElt<Colour, 0x55B0, EltName0x55B0> colour_;
  TElt<Projection, 0x7670, EltName0x7670> projection_;

  KAPSEL_CHILDREN(flagInterlaced_, fieldOrder_, stereoMode_, alphaMode_, oldStereoMode_, pixelWidth_, pixelHeight_,
                  pixelCropBottom_, pixelCropTop_, pixelCropLeft_, pixelCropRight_, displayWidth_, displayHeight_,
                  displayUnits_, aspectRatioType_, colorSpace_, gammaValue_, frameRate_, colour_, projection_);
};

class Audio : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xB5, "SamplingFrequency");
  KAPSEL_ELT_NAME(0x78B5, "OutputSamplingFrequency");
  KAPSEL_ELT_NAME(0x9F, "Channels");
  KAPSEL_ELT_NAME(0x7D7B, "ChannelPositions");
  KAPSEL_ELT_NAME(0x6264, "BitDepth");
  KAPSEL_ELT_NAME(0x52F1, "Emphasis");

  Audio();

  TElt<VFloat, 0xB5, EltName0xB5> samplingFrequency_;
  TElt<VFloat, 0x78B5, EltName0x78B5> outputSamplingFrequency_;
  TElt<VUInt, 0x9F, EltName0x9F> channels_;
  TElt<VBinary, 0x7D7B, EltName0x7D7B> channelPositions_;
  TElt<VUInt, 0x6264, EltName0x6264> bitDepth_;
  TElt<VUInt, 0x52F1, EltName0x52F1> emphasis_;

  KAPSEL_CHILDREN(samplingFrequency_, outputSamplingFrequency_, channels_, channelPositions_, bitDepth_, emphasis_);
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
  // Inside an encoding that does not compress, it is left out unless it says something.
  bool isDefault() const override;
  TElt<VUInt, 0x4254, EltName0x4254> algo_;
  TElt<VBinary, 0x4255, EltName0x4255> settings_;
  KAPSEL_CHILDREN(algo_, settings_);
  // The ContentEncodingType of the encoding this belongs to, if any.
  const VUInt* encodingType_ = nullptr;
};

class ContentEncAesSettings : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x47E8, "AESSettingsCipherMode");
  TElt<VUInt, 0x47E8, EltName0x47E8> cipherMode_;
  KAPSEL_CHILDREN(cipherMode_);
};

class ContentEncrypt : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x47E1, "ContentEncAlgo");
  KAPSEL_ELT_NAME(0x47E2, "ContentEncKeyID");
  KAPSEL_ELT_NAME(0x47E7, "ContentEncAESSettings");
  KAPSEL_ELT_NAME(0x47E3, "ContentSignature");
  KAPSEL_ELT_NAME(0x47E4, "ContentSigKeyID");
  KAPSEL_ELT_NAME(0x47E5, "ContentSigAlgo");
  KAPSEL_ELT_NAME(0x47E6, "ContentSigHashAlgo");
  TElt<VUInt, 0x47E1, EltName0x47E1> encAlgo_;
  TElt<VBinary, 0x47E2, EltName0x47E2> encKeyId_;
  TElt<ContentEncAesSettings, 0x47E7, EltName0x47E7> aesSettings_;
  TElt<VBinary, 0x47E3, EltName0x47E3> signature_;
  TElt<VBinary, 0x47E4, EltName0x47E4> sigKeyId_;
  TElt<VUInt, 0x47E5, EltName0x47E5> sigAlgo_;
  TElt<VUInt, 0x47E6, EltName0x47E6> sigHashAlgo_;
  KAPSEL_CHILDREN(encAlgo_, encKeyId_, aesSettings_, signature_, sigKeyId_, sigAlgo_, sigHashAlgo_);
};

class ContentEnc : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x5031, "ContentEncodingOrder");
  KAPSEL_ELT_NAME(0x5032, "ContentEncodingScope");
  KAPSEL_ELT_NAME(0x5033, "ContentEncodingType");
  KAPSEL_ELT_NAME(0x5034, "ContentCompression");
  KAPSEL_ELT_NAME(0x5035, "ContentEncryption");
  ContentEnc();
  ContentEnc(const ContentEnc& other);
  ContentEnc& operator=(const ContentEnc& other);
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

class BlockAdditionMapping : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x41F0, "BlockAddIDValue");
  KAPSEL_ELT_NAME(0x41A4, "BlockAddIDName");
  KAPSEL_ELT_NAME(0x41E7, "BlockAddIDType");
  KAPSEL_ELT_NAME(0x41ED, "BlockAddIDExtraData");
  TElt<VUInt, 0x41F0, EltName0x41F0> value_;
  TElt<VString, 0x41A4, EltName0x41A4> name_;
  TElt<VUInt, 0x41E7, EltName0x41E7> type_;
  TElt<VBinary, 0x41ED, EltName0x41ED> extraData_;
  KAPSEL_CHILDREN(value_, name_, type_, extraData_);
};

class Track : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0xD7, "TrackNumber");
  KAPSEL_ELT_NAME(0x73C5, "TrackUID");
  KAPSEL_ELT_NAME(0x83, "TrackType");
  KAPSEL_ELT_NAME(0xB9, "FlagEnabled");
  KAPSEL_ELT_NAME(0x88, "FlagDefault");
  KAPSEL_ELT_NAME(0x55AA, "FlagForced");
  KAPSEL_ELT_NAME(0x55AB, "FlagHearingImpaired");
  KAPSEL_ELT_NAME(0x55AC, "FlagVisualImpaired");
  KAPSEL_ELT_NAME(0x55AD, "FlagTextDescriptions");
  KAPSEL_ELT_NAME(0x55AE, "FlagOriginal");
  KAPSEL_ELT_NAME(0x55AF, "FlagCommentary");
  KAPSEL_ELT_NAME(0x9C, "FlagLacing");
  KAPSEL_ELT_NAME(0x6DE7, "MinCache");
  KAPSEL_ELT_NAME(0x6DF8, "MaxCache");
  KAPSEL_ELT_NAME(0x23E383, "DefaultDuration");
  KAPSEL_ELT_NAME(0x234E7A, "DefaultDecodedFieldDuration");
  KAPSEL_ELT_NAME(0x23314F, "TrackTimecodeScale");
  KAPSEL_ELT_NAME(0x537F, "TrackOffset");
  KAPSEL_ELT_NAME(0x55EE, "MaxBlockAddID");
  KAPSEL_ELT_NAME(0x41E4, "BlockAdditionMapping");
  KAPSEL_ELT_NAME(0x536E, "Name");
  KAPSEL_ELT_NAME(0x22B59C, "Language");
  KAPSEL_ELT_NAME(0x22B59D, "LanguageBCP47");
  KAPSEL_ELT_NAME(0x86, "CodecID");
  KAPSEL_ELT_NAME(0x63A2, "CodecPrivate");
  KAPSEL_ELT_NAME(0x258688, "CodecName");
  KAPSEL_ELT_NAME(0x7446, "AttachmentLink");
  KAPSEL_ELT_NAME(0x3A9697, "CodecSettings");
  KAPSEL_ELT_NAME(0x3B4040, "CodecInfoURL");
  KAPSEL_ELT_NAME(0x26B240, "CodecDownloadURL");
  KAPSEL_ELT_NAME(0xAA, "CodecDecodeAll");
  KAPSEL_ELT_NAME(0x6FAB, "TrackOverlay");
  KAPSEL_ELT_NAME(0x56AA, "CodecDelay");
  KAPSEL_ELT_NAME(0x56BB, "SeekPreRoll");
  KAPSEL_ELT_NAME(0x6624, "TrackTranslate");
  KAPSEL_ELT_NAME(0xE0, "Video");
  KAPSEL_ELT_NAME(0xE1, "Audio");
  KAPSEL_ELT_NAME(0xE2, "TrackOperation");
  KAPSEL_ELT_NAME(0xC0, "TrickTrackUID");
  KAPSEL_ELT_NAME(0xC1, "TrickTrackSegmentUID");
  KAPSEL_ELT_NAME(0xC6, "TrickTrackFlag");
  KAPSEL_ELT_NAME(0xC7, "TrickMasterTrackUID");
  KAPSEL_ELT_NAME(0xC4, "TrickMasterTrackSegmentUID");
  KAPSEL_ELT_NAME(0x6D80, "ContentEncodings");

  Track();

  TElt<VUInt, 0xD7, EltName0xD7> trackNumber_;
  TElt<VUInt, 0x73C5, EltName0x73C5> trackUid_;
  TElt<VUInt, 0x83, EltName0x83> trackType_;
  TElt<VUInt, 0xB9, EltName0xB9> flagEnabled_;
  TElt<VUInt, 0x88, EltName0x88> flagDefault_;
  TElt<VUInt, 0x55AA, EltName0x55AA> flagForced_;
  TElt<VUInt, 0x55AB, EltName0x55AB> flagHearingImpaired_;
  TElt<VUInt, 0x55AC, EltName0x55AC> flagVisualImpaired_;
  TElt<VUInt, 0x55AD, EltName0x55AD> flagTextDescriptions_;
  TElt<VUInt, 0x55AE, EltName0x55AE> flagOriginal_;
  TElt<VUInt, 0x55AF, EltName0x55AF> flagCommentary_;
  TElt<VUInt, 0x9C, EltName0x9C> flagLacing_;
  TElt<VUInt, 0x6DE7, EltName0x6DE7> minCache_;
  TElt<VUInt, 0x6DF8, EltName0x6DF8> maxCache_;
  TElt<VUInt, 0x23E383, EltName0x23E383> defaultDuration_;
  TElt<VUInt, 0x234E7A, EltName0x234E7A> defaultDecodedFieldDuration_;
  TElt<VFloat, 0x23314F, EltName0x23314F> trackTimecodeScale_;
  TElt<VInt, 0x537F, EltName0x537F> trackOffset_;
  TElt<VUInt, 0x55EE, EltName0x55EE> maxBlockAddId_;
  TEltList<TElt<BlockAdditionMapping, 0x41E4, EltName0x41E4>> blockAdditionMappings_;
  TElt<VString, 0x536E, EltName0x536E> name_;
  TElt<VString, 0x22B59C, EltName0x22B59C> language_;
  TElt<VString, 0x22B59D, EltName0x22B59D> languageBcp47_;
  TElt<VString, 0x86, EltName0x86> codecId_;
  TElt<VBinary, 0x63A2, EltName0x63A2> codecPrivate_;
  TElt<VString, 0x258688, EltName0x258688> codecName_;
  TElt<VUInt, 0x7446, EltName0x7446> attachmentLink_;
  TElt<VString, 0x3A9697, EltName0x3A9697> codecSettings_;
  TElt<VString, 0x3B4040, EltName0x3B4040> codecInfoUrl_;
  TElt<VString, 0x26B240, EltName0x26B240> codecDownloadUrl_;
  TElt<VUInt, 0xAA, EltName0xAA> codecDecodeAll_;
  TElt<VUInt, 0x6FAB, EltName0x6FAB> trackOverlay_;
  TElt<VUInt, 0x56AA, EltName0x56AA> codecDelay_;
  TElt<VUInt, 0x56BB, EltName0x56BB> seekPreRoll_;
  TElt<TrackTranslate, 0x6624, EltName0x6624> trackTranslate_;
  TElt<Video, 0xE0, EltName0xE0> video_;
  TElt<Audio, 0xE1, EltName0xE1> audio_;
  TElt<TrackOperation, 0xE2, EltName0xE2> trackOperation_;
  TElt<VUInt, 0xC0, EltName0xC0> trickTrackUid_;
  TElt<VBinary, 0xC1, EltName0xC1> trickTrackSegmentUid_;
  TElt<VUInt, 0xC6, EltName0xC6> trickTrackFlag_;
  TElt<VUInt, 0xC7, EltName0xC7> trickMasterTrackUid_;
  TElt<VBinary, 0xC4, EltName0xC4> trickMasterTrackSegmentUid_;
  TElt<ContentEncodings, 0x6D80, EltName0x6D80> contentEncodings_;

  KAPSEL_CHILDREN(trackNumber_, trackUid_, trackType_, flagEnabled_, flagDefault_, flagForced_, flagHearingImpaired_,
                  flagVisualImpaired_, flagTextDescriptions_, flagOriginal_, flagCommentary_, flagLacing_, minCache_,
                  maxCache_, defaultDuration_, defaultDecodedFieldDuration_, trackTimecodeScale_, trackOffset_,
                  maxBlockAddId_, blockAdditionMappings_, name_, language_, languageBcp47_, codecId_, codecPrivate_,
                  codecName_, attachmentLink_, codecSettings_, codecInfoUrl_, codecDownloadUrl_, codecDecodeAll_,
                  trackOverlay_, codecDelay_, seekPreRoll_, trackTranslate_, video_, audio_, trackOperation_,
                  trickTrackUid_, trickTrackSegmentUid_, trickTrackFlag_, trickMasterTrackUid_,
                  trickMasterTrackSegmentUid_, contentEncodings_);
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
