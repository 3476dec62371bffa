#pragma once
// Chapters, tags and attachments.

#include "kapsel/element.h"
#include "kapsel/payload.h"

namespace Kapsel {

class ChapTrk : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x89, "ChapterTrackNumber");
  TEltList<TElt<VUInt, 0x89, EltName0x89>> numbers_;
  KAPSEL_CHILDREN(numbers_);
};

class ChapDisp : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x85, "ChapString");
  KAPSEL_ELT_NAME(0x437C, "ChapLanguage");
  KAPSEL_ELT_NAME(0x437D, "ChapLanguageBCP47");
  KAPSEL_ELT_NAME(0x437E, "ChapCountry");
  ChapDisp();
  TElt<VString, 0x85, EltName0x85> string_;
  TElt<VString, 0x437C, EltName0x437C> language_;
  TEltList<TElt<VString, 0x437D, EltName0x437D>> languagesBcp47_;
  TElt<VString, 0x437E, EltName0x437E> country_;
  KAPSEL_CHILDREN(string_, language_, languagesBcp47_, country_);
};

class ChapProcCmd : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x6922, "ChapProcessTime");
  KAPSEL_ELT_NAME(0x6933, "ChapProcessData");
  TElt<VUInt, 0x6922, EltName0x6922> time_;
  TElt<VBinary, 0x6933, EltName0x6933> data_;
  KAPSEL_CHILDREN(time_, data_);
};

class ChapProc : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x6955, "ChapProcessCodecID");
  KAPSEL_ELT_NAME(0x450D, "ChapProcessPrivate");
  KAPSEL_ELT_NAME(0x6911, "ChapProcCommands");
  TElt<VUInt, 0x6955, EltName0x6955> codecId_;
  TElt<VBinary, 0x450D, EltName0x450D> private_;
  TEltList<TElt<ChapProcCmd, 0x6911, EltName0x6911>> commands_;
  KAPSEL_CHILDREN(codecId_, private_, commands_);
};

class ChapAtom : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x73C4, "ChapterUID");
  KAPSEL_ELT_NAME(0x5654, "ChapterStringUID");
  KAPSEL_ELT_NAME(0x91, "ChapterTimeStart");
  KAPSEL_ELT_NAME(0x92, "ChapterTimeEnd");
  KAPSEL_ELT_NAME(0x98, "ChapterFlagHidden");
  KAPSEL_ELT_NAME(0x4598, "ChapterFlagEnabled");
  KAPSEL_ELT_NAME(0x6E67, "ChapterSegmentUID");
  KAPSEL_ELT_NAME(0x4588, "ChapterSkipType");
  KAPSEL_ELT_NAME(0x6EBC, "ChapSegmentEditionUID");
  KAPSEL_ELT_NAME(0x63C3, "ChapterPhysicalEquiv");
  KAPSEL_ELT_NAME(0x8F, "ChapterTracks");
  KAPSEL_ELT_NAME(0x80, "ChapterDisplay");
  KAPSEL_ELT_NAME(0x6944, "ChapProcess");
  KAPSEL_ELT_NAME(0xB6, "SubChapterAtom");
  ChapAtom();
  TElt<VUInt, 0x73C4, EltName0x73C4> uid_;
  TElt<VString, 0x5654, EltName0x5654> stringUid_;
  TElt<VUInt, 0x91, EltName0x91> timeStart_;
  TElt<VUInt, 0x92, EltName0x92> timeEnd_;
  TElt<VUInt, 0x98, EltName0x98> flagHidden_;
  TElt<VUInt, 0x4598, EltName0x4598> flagEnabled_;
  TElt<VBinary, 0x6E67, EltName0x6E67> segmentUid_;
  TElt<VUInt, 0x4588, EltName0x4588> skipType_;
  TElt<VUInt, 0x6EBC, EltName0x6EBC> segmentEditionUid_;
  TElt<VUInt, 0x63C3, EltName0x63C3> physicalEquiv_;
  TElt<ChapTrk, 0x8F, EltName0x8F> tracks_;
  TEltList<TElt<ChapDisp, 0x80, EltName0x80>> displays_;
  TEltList<TElt<ChapProc, 0x6944, EltName0x6944>> processes_;
  TEltList<TElt<ChapAtom, 0xB6, EltName0xB6>> atoms_;
  KAPSEL_CHILDREN(uid_, stringUid_, timeStart_, timeEnd_, flagHidden_, flagEnabled_, segmentUid_, skipType_,
                  segmentEditionUid_, physicalEquiv_, tracks_, displays_, processes_, atoms_);
};

class EditionDisplay : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x4521, "EditionString");
  KAPSEL_ELT_NAME(0x45E4, "EditionLanguageIETF");
  TElt<VString, 0x4521, EltName0x4521> string_;
  TEltList<TElt<VString, 0x45E4, EltName0x45E4>> languages_;
  KAPSEL_CHILDREN(string_, languages_);
};

class Edition : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x45BC, "EditionUID");
  KAPSEL_ELT_NAME(0x45BD, "EditionFlagHidden");
  KAPSEL_ELT_NAME(0x45DB, "EditionFlagDefault");
  KAPSEL_ELT_NAME(0x45DD, "EditionFlagOrdered");
  KAPSEL_ELT_NAME(0x4520, "EditionDisplay");
  KAPSEL_ELT_NAME(0xB6, "ChapterAtom");
  TElt<VUInt, 0x45BC, EltName0x45BC> uid_;
  TElt<VUInt, 0x45BD, EltName0x45BD> flagHidden_;
  TElt<VUInt, 0x45DB, EltName0x45DB> flagDefault_;
  TElt<VUInt, 0x45DD, EltName0x45DD> flagOrdered_;
  TEltList<TElt<EditionDisplay, 0x4520, EltName0x4520>> displays_;
  TEltList<TElt<ChapAtom, 0xB6, EltName0xB6>> atoms_;
  KAPSEL_CHILDREN(uid_, flagHidden_, flagDefault_, flagOrdered_, displays_, atoms_);
};

class Chapters : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x45B9, "EditionEntry");
  TEltList<TElt<Edition, 0x45B9, EltName0x45B9>> editions_;
  KAPSEL_CHILDREN(editions_);
};

class TagTargets : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x68CA, "TargetTypeValue");
  KAPSEL_ELT_NAME(0x63CA, "TargetType");
  KAPSEL_ELT_NAME(0x63C5, "TrackUID");
  KAPSEL_ELT_NAME(0x63C9, "EditionUID");
  KAPSEL_ELT_NAME(0x63C4, "ChapterUID");
  KAPSEL_ELT_NAME(0x63C6, "AttachmentUID");
  TagTargets() { typeValue_->init(50); }
  TElt<VUInt, 0x68CA, EltName0x68CA> typeValue_;
  TElt<VString, 0x63CA, EltName0x63CA> type_;
  TEltList<TElt<VUInt, 0x63C5, EltName0x63C5>> trackUids_;
  TEltList<TElt<VUInt, 0x63C9, EltName0x63C9>> editionUids_;
  TEltList<TElt<VUInt, 0x63C4, EltName0x63C4>> chapterUids_;
  TEltList<TElt<VUInt, 0x63C6, EltName0x63C6>> attachmentUids_;
  KAPSEL_CHILDREN(typeValue_, type_, trackUids_, editionUids_, chapterUids_, attachmentUids_);
};

class SimpleTag : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x45A3, "TagName");
  KAPSEL_ELT_NAME(0x447A, "TagLanguage");
  KAPSEL_ELT_NAME(0x447B, "TagLanguageBCP47");
  KAPSEL_ELT_NAME(0x4484, "TagDefault");
  KAPSEL_ELT_NAME(0x44B4, "TagDefaultBogus");
  KAPSEL_ELT_NAME(0x4487, "TagString");
  KAPSEL_ELT_NAME(0x4485, "TagBinary");
  KAPSEL_ELT_NAME(0x67C8, "SimpleTag");
  SimpleTag();
  TElt<VString, 0x45A3, EltName0x45A3> name_;
  TElt<VString, 0x447A, EltName0x447A> language_;
  TElt<VString, 0x447B, EltName0x447B> languageBcp47_;
  TElt<VUInt, 0x4484, EltName0x4484> default_;
  TElt<VUInt, 0x44B4, EltName0x44B4> defaultBogus_;
  TElt<VString, 0x4487, EltName0x4487> string_;
  TElt<VBinary, 0x4485, EltName0x4485> binary_;
  // Tags nest: a value can carry details of its own.
  TEltList<TElt<SimpleTag, 0x67C8, EltName0x67C8>> simpleTags_;
  KAPSEL_CHILDREN(name_, language_, languageBcp47_, default_, defaultBogus_, string_, binary_, simpleTags_);
};

class Tag : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x63C0, "Targets");
  KAPSEL_ELT_NAME(0x67C8, "SimpleTags");
  Tag();
  TElt<TagTargets, 0x63C0, EltName0x63C0> targets_;
  TEltList<TElt<SimpleTag, 0x67C8, EltName0x67C8>> simpleTags_;
  KAPSEL_CHILDREN(targets_, simpleTags_);
};

class Tags : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x7373, "Tag");
  TEltList<TElt<Tag, 0x7373, EltName0x7373>> tags_;
  KAPSEL_CHILDREN(tags_);
};

class AttdFile : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x467E, "FileDescription");
  KAPSEL_ELT_NAME(0x466E, "FileName");
  KAPSEL_ELT_NAME(0x4660, "FileMimeType");
  KAPSEL_ELT_NAME(0x465C, "FileData");
  KAPSEL_ELT_NAME(0x46AE, "FileUID");
  KAPSEL_ELT_NAME(0x4675, "FileReferral");
  KAPSEL_ELT_NAME(0x4661, "FileUsedStartTime");
  KAPSEL_ELT_NAME(0x4662, "FileUsedEndTime");
  TElt<VString, 0x467E, EltName0x467E> description_;
  TElt<VString, 0x466E, EltName0x466E> name_;
  TElt<VString, 0x4660, EltName0x4660> mimeType_;
  TElt<VBinary, 0x465C, EltName0x465C> data_;
  TElt<VUInt, 0x46AE, EltName0x46AE> uid_;
  TElt<VBinary, 0x4675, EltName0x4675> referral_;
  TElt<VUInt, 0x4661, EltName0x4661> usedStartTime_;
  TElt<VUInt, 0x4662, EltName0x4662> usedEndTime_;
  KAPSEL_CHILDREN(description_, name_, mimeType_, data_, uid_, referral_, usedStartTime_, usedEndTime_);
};

class Attachments : public EbmlMaster {
 public:
  KAPSEL_ELT_NAME(0x61A7, "AttachedFile");
  TEltList<TElt<AttdFile, 0x61A7, EltName0x61A7>> files_;
  KAPSEL_CHILDREN(files_);
};

}  // namespace Kapsel
