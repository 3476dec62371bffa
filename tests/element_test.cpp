#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "kapsel/ebml.h"
#include "kapsel/element.h"
#include "kapsel/file.h"
#include "kapsel/payload.h"
#include "kapsel/storage.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using Bytes = std::vector<unsigned char>;

using kapsel_test::readFile;
using kapsel_test::writeFile;

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

struct Inner : EbmlMaster {
  KAPSEL_ELT_NAME(0x81, "Number");
  KAPSEL_ELT_NAME(0x82, "Label");
  TElt<VUInt, 0x81, EltName0x81> number;
  TElt<VString, 0x82, EltName0x82> label;
  KAPSEL_CHILDREN(number, label);
};

struct Outer : EbmlMaster {
  KAPSEL_ELT_NAME(0x4286, "Version");
  KAPSEL_ELT_NAME(0x4282, "Name");
  KAPSEL_ELT_NAME(0xAE, "Item");
  KAPSEL_ELT_NAME(0xA0, "Group");
  TElt<VUInt, 0x4286, EltName0x4286> version;
  TElt<VString, 0x4282, EltName0x4282> name;
  TEltList<TElt<VUInt, 0xAE, EltName0xAE>> items;
  TEltDeque<TElt<Inner, 0xA0, EltName0xA0>> groups;
  KAPSEL_CHILDREN(version, name, items, groups);
};
struct OuterName {
  static const char* text() { return "Outer"; }
};
using OuterElt = TElt<Outer, 0x1A45DFA3, OuterName>;

struct Pointer : EbmlMaster {
  KAPSEL_ELT_NAME(0x53AC, "Position");
  TElt<VEltPosition, 0x53AC, EltName0x53AC> position;
  KAPSEL_CHILDREN(position);
};
KAPSEL_ELT_NAME(0x4DBB, "Pointer");
using PointerElt = TElt<Pointer, 0x4DBB, EltName0x4DBB>;

KAPSEL_ELT_NAME(0xA3, "Simple");
KAPSEL_ELT_NAME(0xA1, "Text");
KAPSEL_ELT_NAME(0x5555, "Stranger");
using SimpleElt = TElt<VUInt, 0xA3, EltName0xA3>;
using TextElt = TElt<VString, 0xA1, EltName0xA1>;
using StrangerElt = TElt<VUInt, 0x5555, EltName0x5555>;
using VersionElt = TElt<VUInt, 0x4286, Outer::EltName0x4286>;
using NameElt = TElt<VString, 0x4282, Outer::EltName0x4282>;

struct Blocks : EbmlMaster {
  KAPSEL_ELT_NAME(0xE7, "Stamp");
  TElt<VUInt, 0xE7, EltName0xE7> stamp;
  MixedElements blocks;
  Blocks() {
    blocks.addType<SimpleElt>();
    blocks.addType<TextElt>();
  }
  KAPSEL_CHILDREN(stamp, blocks);
};
KAPSEL_ELT_NAME(0x1F43B675, "Blocks");
using BlocksElt = TElt<Blocks, 0x1F43B675, EltName0x1F43B675>;

uint64_t simpleValue(const IElement* e) { return static_cast<const VUInt&>(e->getPayload()).get(); }
std::string textValue(const IElement* e) { return static_cast<const VString&>(e->getPayload()).get(); }

const Bytes kOuterId = {0x1A, 0x45, 0xDF, 0xA3};
const Bytes kUnknownSize = {0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

class ElementFile : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    base_ = ::testing::TempDir() + "kapsel_element_" + info->test_suite_name() + "_" + info->name() + "_" +
            std::to_string(getpid());
    path_ = base_ + ".bin";
    std::remove(path_.c_str());
  }
  void TearDown() override {
    std::remove(path_.c_str());
    std::remove((base_ + ".again").c_str());
  }

  // Saves into a new file (sizeBytes 0: minimal size field) and returns the file's bytes.
  Bytes save(const IElement& e, uint64_t sizeBytes = 0, const std::string& path = {}) {
    const std::string& p = path.empty() ? path_ : path;
    std::remove(p.c_str());
    {
      FileStorage fs(p, File::kReadWrite);
      receipt_ = e.save(fs, sizeBytes);
      EXPECT_TRUE(receipt_);
      if (receipt_) {
        EXPECT_EQ(receipt_->numBytes(), fs.file().absolutePosition());
      }
      fs.file().close();  // receipts share the file: closing is what writes it back
    }
    return readFile(p);
  }

  Bytes saveAgain(const IElement& e) { return save(e, 0, base_ + ".again"); }

  Bytes savePadded(const IElement& e, uint64_t total) {
    std::remove(path_.c_str());
    {
      FileStorage fs(path_, File::kReadWrite);
      receipt_ = e.savePaddedUpToSize(fs, total);
      if (receipt_) {
        EXPECT_EQ(receipt_->numBytes(), fs.file().absolutePosition());
      }
      fs.file().close();
    }
    return readFile(path_);
  }

  FileStorage& source(const Bytes& bytes) {
    storage_.reset();
    writeFile(path_, bytes);
    storage_.reset(new FileStorage(path_, File::kReadOnly));
    return *storage_;
  }

  // Loads from a file holding exactly these bytes, offering all of them.
  uint64_t load(IElement& e, const Bytes& bytes) {
    FileStorage& fs = source(bytes);
    const uint64_t n = e.load(fs, bytes.size());
    position_ = fs.file().absolutePosition();
    return n;
  }

  std::string base_, path_;
  std::unique_ptr<FileStorage> storage_;
  ReceiptPtr receipt_;
  uint64_t position_ = 0;
};

// ---------------------------------------------------------------- saving

class EltSave : public ElementFile {};

TEST_F(EltSave, SizeFieldMinimalOrForced) {
  OuterElt e;
  e->version->set(3);
  EXPECT_EQ(e.calcSize(), 9u);
  EXPECT_EQ(save(e), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03}}));
  ASSERT_TRUE(e.payloadReceipt());
  EXPECT_EQ(e.payloadReceipt()->position(), 5u);
  EXPECT_EQ(e.payloadReceipt()->numBytes(), 4u);

  EXPECT_EQ(save(e, 2), cat({kOuterId, {0x40, 0x04, 0x42, 0x86, 0x81, 0x03}}));
  EXPECT_EQ(save(e, 8), cat({kOuterId, {0x01, 0, 0, 0, 0, 0, 0, 0x04, 0x42, 0x86, 0x81, 0x03}}));
  EXPECT_EQ(e.payloadReceipt()->position(), 12u);
  EXPECT_EQ(save(e->version, 3), Bytes({0x42, 0x86, 0x20, 0x00, 0x01, 0x03}));

  // 127 is the unknown size in one byte, so it takes two.
  NameElt name;
  name->set(std::string(126, 'x'));
  EXPECT_EQ(name.calcSize(), 129u);
  Bytes disk = save(name);
  EXPECT_EQ(Bytes(disk.begin(), disk.begin() + 3), Bytes({0x42, 0x82, 0xFE}));
  name->set(std::string(127, 'x'));
  EXPECT_EQ(name.calcSize(), 131u);
  disk = save(name);
  ASSERT_EQ(disk.size(), 131u);
  EXPECT_EQ(Bytes(disk.begin(), disk.begin() + 4), Bytes({0x42, 0x82, 0x40, 0x7F}));
}

TEST_F(EltSave, Crc32Placeholder) {
  OuterElt e;
  e->version->set(3);
  e.setCrc32(true);
  EXPECT_TRUE(e.shouldComputeCrc32());
  EXPECT_EQ(e.calcSize(), 15u);
  EXPECT_EQ(save(e), cat({kOuterId, {0x8A, 0xBF, 0x84, 0, 0, 0, 0, 0x42, 0x86, 0x81, 0x03}}));
  ASSERT_TRUE(e.crc32Receipt());
  EXPECT_EQ(e.crc32Receipt()->position(), 5u);
  EXPECT_EQ(e.crc32Receipt()->numBytes(), 6u);
  EXPECT_EQ(e.payloadReceipt()->position(), 5u);
  EXPECT_EQ(e.payloadReceipt()->numBytes(), 10u);

  e.setCrc32(false);
  EXPECT_EQ(save(e), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03}}));
  EXPECT_FALSE(e.crc32Receipt());

  // An empty payload with its CRC-32 child is six bytes long, once the element is saved at all.
  OuterElt empty;
  empty.setCrc32(true);
  EXPECT_EQ(empty.calcSize(), 0u);
  empty.alwaysSave();
  EXPECT_EQ(empty.calcSize(), 11u);
  EXPECT_EQ(save(empty), cat({kOuterId, {0x86, 0xBF, 0x84, 0, 0, 0, 0}}));
}

TEST_F(EltSave, Crc32NeverOnLeaves) {
  VersionElt leaf;
  leaf->set(3);
  leaf.setCrc32(true);
  EXPECT_EQ(leaf.flags() & IElement::kComputeCrc32, 0u);
  EXPECT_FALSE(leaf.shouldComputeCrc32());
  EXPECT_EQ(leaf.calcSize(), 4u);
  EXPECT_EQ(save(leaf), Bytes({0x42, 0x86, 0x81, 0x03}));
  EXPECT_FALSE(leaf.crc32Receipt());

  // Switched on for every child: only the master among them takes it.
  OuterElt e;
  e->version->set(3);
  e->groups.add()->number->set(5);
  eltsSetCrc32(*e, true);
  EXPECT_FALSE(e.shouldComputeCrc32());
  EXPECT_EQ(save(e), cat({kOuterId, {0x8F, 0x42, 0x86, 0x81, 0x03, 0xA0, 0x89, 0xBF, 0x84, 0, 0, 0, 0, 0x81, 0x81, 0x05}}));
}

TEST_F(EltSave, VoidsFollowOutsideTheSizeField) {
  OuterElt e;
  e->version->set(3);
  e->addVoid(2);
  EXPECT_EQ(e.calcSize(), 13u);
  EXPECT_EQ(save(e), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x82, 0x00, 0x00}}));

  // A child's Void is padding inside its parent.
  OuterElt c;
  c->version->set(3);
  c->version.getPayload().addVoid(1);
  EXPECT_EQ(c.calcSize(), 12u);
  EXPECT_EQ(save(c), cat({kOuterId, {0x87, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x81, 0x00}}));

  OuterElt nothing;
  EXPECT_FALSE(nothing.mustSave());
  EXPECT_EQ(nothing.calcSize(), 0u);
  EXPECT_TRUE(save(nothing).empty());
  nothing->addVoid(0);
  EXPECT_TRUE(nothing.mustSave());
  EXPECT_EQ(nothing.calcSize(), 7u);
  EXPECT_EQ(save(nothing), cat({kOuterId, {0x80, 0xEC, 0x80}}));
}

TEST_F(EltSave, ListItemsAreWrittenEvenWhenDefault) {
  OuterElt e;
  e->items.add();
  e->groups.add();
  EXPECT_FALSE(e->isDefault());
  EXPECT_EQ(e.calcSize(), 10u);
  const Bytes disk = cat({kOuterId, {0x85, 0xAE, 0x81, 0x00, 0xA0, 0x80}});
  EXPECT_EQ(save(e), disk);

  OuterElt back;
  EXPECT_EQ(load(back, disk), 10u);
  ASSERT_EQ(back->items.size(), 1u);
  EXPECT_EQ(back->items.front()->get(), 0u);
  EXPECT_EQ(back->groups.size(), 1u);
  EXPECT_EQ(saveAgain(back), disk);
}

TEST_F(EltSave, SizeFieldStatesWhatWasWritten) {
  // Width 8 promised, one byte written: both the child's and the parent's size fields follow.
  PointerElt p;
  p->position->setPosition(5);
  p->position->setMaxSize(8);
  EXPECT_EQ(p.calcSize(), 14u);
  EXPECT_EQ(save(p), Bytes({0x4D, 0xBB, 0x84, 0x53, 0xAC, 0x81, 0x05}));
  EXPECT_EQ(save(p, 4), Bytes({0x4D, 0xBB, 0x10, 0x00, 0x00, 0x04, 0x53, 0xAC, 0x81, 0x05}));

  NameElt name;
  name->setSizeHint(8);
  name->set("ab");
  EXPECT_EQ(name.calcSize(), 11u);
  EXPECT_EQ(save(name), Bytes({0x42, 0x82, 0x82, 0x61, 0x62}));
}

TEST_F(EltSave, PaddedUpToSize) {
  OuterElt e;
  e->version->set(3);
  const Bytes plain = cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03}});

  EXPECT_EQ(savePadded(e, 9), plain);
  EXPECT_EQ(savePadded(e, 11), cat({plain, {0xEC, 0x80}}));
  Bytes filler(125, 0x00);
  EXPECT_EQ(savePadded(e, 9 + 128), cat({plain, {0xEC, 0x40, 0x7D}, filler}));

  // No room for a Void, or no room at all: nothing is written.
  EXPECT_TRUE(savePadded(e, 10).empty());
  EXPECT_FALSE(receipt_);
  EXPECT_TRUE(savePadded(e, 8).empty());
  EXPECT_FALSE(receipt_);

  const Bytes open = cat({kOuterId, kUnknownSize, {0x42, 0x86, 0x81, 0x03}});
  EXPECT_EQ(savePadded(e, uintMax[8]), open);
  OuterElt back;
  EXPECT_EQ(load(back, open), 16u);
  EXPECT_EQ(back->version->get(), 3u);

  e.setFixedSize(11);
  EXPECT_EQ(save(e, 8), cat({plain, {0xEC, 0x80}}));
}

TEST_F(EltSave, PaddedWhenPayloadComesOutShort) {
  // Promised 14 bytes, wrote 7: a Void fills the reservation.
  PointerElt p;
  p->position->setPosition(5);
  p->position->setMaxSize(8);
  EXPECT_EQ(savePadded(p, 14), Bytes({0x4D, 0xBB, 0x84, 0x53, 0xAC, 0x81, 0x05, 0xEC, 0x85, 0, 0, 0, 0, 0}));

  // One byte left over fits no Void: the element ends one byte short of the total.
  VersionElt v;
  v->setSizeHint(2);
  v->set(5);
  EXPECT_EQ(savePadded(v, 5), Bytes({0x42, 0x86, 0x81, 0x05}));
  ASSERT_TRUE(receipt_);
  EXPECT_EQ(receipt_->numBytes(), 4u);
}

// ---------------------------------------------------------------- loading

class EltLoad : public ElementFile {};

TEST_F(EltLoad, UnknownChildrenAreSkipped) {
  // The stranger's payload looks like a Version; it must not be read as one.
  const Bytes disk = cat({kOuterId,
                          {0x90, 0x42, 0x86, 0x81, 0x03, 0x55, 0x55, 0x84, 0x42, 0x86, 0x81, 0x09, 0x42, 0x82, 0x82,
                           0x68, 0x69}});
  OuterElt e;
  EXPECT_EQ(load(e, disk), 21u);
  EXPECT_EQ(position_, 21u);
  EXPECT_EQ(e->version->get(), 3u);
  EXPECT_EQ(e->name->get(), "hi");

  OuterElt atEnd;
  EXPECT_EQ(load(atEnd, cat({kOuterId, {0x88, 0x42, 0x86, 0x81, 0x03, 0x55, 0x55, 0x81, 0x07}})), 13u);
  EXPECT_EQ(atEnd->version->get(), 3u);
}

TEST_F(EltLoad, VoidsGoBackAfterTheirChild) {
  const Bytes disk = cat({kOuterId,
                          {0x90, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x82, 0x00, 0x00, 0xAE, 0x81, 0x01, 0xEC, 0x80, 0xAE,
                           0x81, 0x02}});
  OuterElt e;
  EXPECT_EQ(load(e, disk), 21u);
  EXPECT_EQ(e->version->get(), 3u);
  ASSERT_EQ(e->items.size(), 2u);
  ASSERT_EQ(e->version.getPayload().voids().size(), 1u);
  EXPECT_EQ(e->version.getPayload().voids().front()->get(), 2u);
  ASSERT_EQ(e->items[0].getPayload().voids().size(), 1u);
  EXPECT_EQ(e->items[0].getPayload().voids().front()->get(), 0u);
  EXPECT_TRUE(e->items[1].getPayload().voids().empty());
  EXPECT_TRUE(e->voids().empty());
  EXPECT_EQ(e.calcSize(), disk.size());
  EXPECT_EQ(saveAgain(e), disk);
}

TEST_F(EltLoad, VoidBeforeAnyChildMovesBehindTheElement) {
  OuterElt e;
  EXPECT_EQ(load(e, cat({kOuterId, {0x86, 0xEC, 0x80, 0x42, 0x86, 0x81, 0x03}})), 11u);
  EXPECT_EQ(e->voids().size(), 1u);
  EXPECT_EQ(saveAgain(e), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x80}}));
}

TEST_F(EltLoad, Crc32ChildIsCheckedAndKept) {
  // 0x4E70D028 is the CRC-32 of 42 86 81 03.
  const Bytes good = cat({kOuterId, {0x8A, 0xBF, 0x84, 0x4E, 0x70, 0xD0, 0x28, 0x42, 0x86, 0x81, 0x03}});
  OuterElt e;
  EXPECT_EQ(load(e, good), 15u);
  EXPECT_EQ(e->version->get(), 3u);
  EXPECT_EQ(e.storedChecksum(), 0x4E70D028u);
  EXPECT_TRUE(e.crc32Matched());
  EXPECT_TRUE(e.shouldComputeCrc32());
  ASSERT_TRUE(e.crc32Receipt());
  EXPECT_EQ(e.crc32Receipt()->position(), 5u);
  EXPECT_EQ(e.crc32Receipt()->numBytes(), 6u);
  ASSERT_TRUE(e.payloadReceipt());
  EXPECT_EQ(e.payloadReceipt()->position(), 5u);
  EXPECT_EQ(e.payloadReceipt()->numBytes(), 10u);
  // Written back with a placeholder, to be filled in later.
  EXPECT_EQ(saveAgain(e), cat({kOuterId, {0x8A, 0xBF, 0x84, 0, 0, 0, 0, 0x42, 0x86, 0x81, 0x03}}));

  Bytes bad = good;
  bad[10] ^= 0x01;
  OuterElt b;
  EXPECT_EQ(load(b, bad), 15u);
  EXPECT_EQ(b->version->get(), 3u);
  EXPECT_EQ(b.storedChecksum(), 0x4E70D029u);
  EXPECT_FALSE(b.crc32Matched());

  // After the children the checksum still covers the payload without the CRC element.
  OuterElt last;
  EXPECT_EQ(load(last, cat({kOuterId, {0x8A, 0x42, 0x86, 0x81, 0x03, 0xBF, 0x84, 0x4E, 0x70, 0xD0, 0x28}})), 15u);
  EXPECT_TRUE(last.crc32Matched());
  EXPECT_EQ(last.crc32Receipt()->position(), 9u);

  last.discardReceipts();
  EXPECT_FALSE(last.storageReceipt());
  EXPECT_FALSE(last.payloadReceipt());
  EXPECT_FALSE(last.crc32Receipt());
}

TEST_F(EltLoad, OtherIdLeavesThePositionAlone) {
  FileStorage& fs = source({0xEC, 0x80, 0x42, 0x86, 0x81, 0x03});
  fs.file().seek(2);
  OuterElt e;
  EXPECT_EQ(e.load(fs, 4), 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 2u);
  EXPECT_FALSE(e.storageReceipt());
  EXPECT_EQ(e.load(fs, 0), 0u);
  // The caller tries another type at the same place.
  VersionElt v;
  EXPECT_EQ(v.load(fs, 4), 4u);
  EXPECT_EQ(v->get(), 3u);
  EXPECT_EQ(fs.file().absolutePosition(), 6u);
}

TEST_F(EltLoad, UnknownSizeEndsAtFirstStranger) {
  // Group (open) ends at Name, which only Outer knows; Outer (open) ends at the stranger.
  const Bytes disk = cat({kOuterId, kUnknownSize,
                          {0x42, 0x86, 0x81, 0x03, 0xA0, 0xFF, 0x81, 0x81, 0x05, 0x42, 0x82, 0x81, 0x78},
                          {0x55, 0x55, 0x81, 0x07}});
  FileStorage& fs = source(disk);
  OuterElt e;
  EXPECT_EQ(e.load(fs, disk.size()), 25u);
  EXPECT_EQ(fs.file().absolutePosition(), 25u);
  EXPECT_EQ(e->version->get(), 3u);
  EXPECT_EQ(e->name->get(), "x");
  ASSERT_EQ(e->groups.size(), 1u);
  EXPECT_EQ(e->groups[0]->number->get(), 5u);
  EXPECT_EQ(e->groups[0].storageReceipt()->numBytes(), 5u);
  StrangerElt next;
  EXPECT_EQ(next.load(fs, 4), 4u);
  EXPECT_EQ(next->get(), 7u);

  OuterElt toEnd;
  EXPECT_EQ(load(toEnd, Bytes(disk.begin(), disk.end() - 4)), 25u);
  EXPECT_EQ(toEnd->name->get(), "x");
}

TEST_F(EltLoad, UnknownSizeStopsAtItsParentsEnd) {
  // The bytes after Outer would be a Number; an open Group inside Outer must not reach them.
  const Bytes disk = cat({kOuterId, {0x85, 0xA0, 0xFF, 0x81, 0x81, 0x05}, {0x81, 0x81, 0x06}});
  OuterElt e;
  EXPECT_EQ(load(e, disk), 10u);
  EXPECT_EQ(position_, 10u);
  ASSERT_EQ(e->groups.size(), 1u);
  EXPECT_EQ(e->groups[0]->number->get(), 5u);
  EXPECT_EQ(e->groups[0].storageReceipt()->numBytes(), 5u);

  // Inside its parent it still ends at the first stranger.
  OuterElt sibling;
  EXPECT_EQ(load(sibling, cat({kOuterId, {0x89, 0xA0, 0xFF, 0x81, 0x81, 0x05, 0x42, 0x86, 0x81, 0x03}})), 14u);
  EXPECT_EQ(sibling->version->get(), 3u);
  EXPECT_EQ(sibling->groups[0]->number->get(), 5u);
}

TEST_F(EltLoad, DiscardReceiptsAfterSave) {
  OuterElt e;
  e->version->set(3);
  e.setCrc32(true);
  save(e);
  ASSERT_TRUE(e.payloadReceipt());
  ASSERT_TRUE(e.crc32Receipt());
  e.discardReceipts();
  EXPECT_FALSE(e.storageReceipt());
  EXPECT_FALSE(e.payloadReceipt());
  EXPECT_FALSE(e.crc32Receipt());
}

// ---------------------------------------------------------------- mixed element sequences

class EltMixed : public ElementFile {};

TEST_F(EltMixed, Registry) {
  MixedElements m;
  EXPECT_TRUE(m.addType<SimpleElt>());
  EXPECT_FALSE(m.addType<SimpleElt>());
  EXPECT_TRUE(m.addType<TextElt>());

  StrangerElt stranger;
  stranger->set(1);
  EXPECT_FALSE(m.push_back(stranger));
  EXPECT_EQ(m.count(), 0u);
  EXPECT_TRUE(m.elements().empty());
  EXPECT_EQ(SimpleElt::createCopy(&stranger), nullptr);

  SimpleElt a;
  a->set(1);
  EXPECT_TRUE(m.push_back(a));
  a->set(2);  // the sequence holds its own copy
  EXPECT_EQ(simpleValue(m.elements().front()), 1u);
  EXPECT_TRUE(m.mustSave());
  EXPECT_EQ(m.calcSize(), 3u);
}

TEST_F(EltMixed, CopiesAreDeep) {
  MixedElements m;
  m.addType<SimpleElt>();
  m.addType<TextElt>();
  SimpleElt a;
  a->set(1);
  TextElt t;
  t->set("t");
  m.push_back(a);
  m.push_back(t);

  MixedElements copy(m);
  ASSERT_EQ(copy.count(), 2u);
  EXPECT_NE(copy.elements().front(), m.elements().front());
  static_cast<VUInt&>(m.elements().front()->getPayload()).set(9);
  EXPECT_EQ(simpleValue(copy.elements().front()), 1u);
  EXPECT_EQ(textValue(copy.elements().back()), "t");
  EXPECT_TRUE(copy.push_back(t));  // the registry came along

  MixedElements assigned;
  assigned = m;
  EXPECT_EQ(assigned.count(), 2u);
  const IElement* first = m.elements().front();
  const MixedElements& self = m;
  m = self;
  EXPECT_EQ(m.count(), 2u);
  EXPECT_EQ(m.elements().front(), first);

  m.clear();
  EXPECT_EQ(m.count(), 0u);
  EXPECT_EQ(simpleValue(assigned.elements().front()), 9u);
  EXPECT_EQ(copy.calcSize(), 3u + 3u + 3u);
}

TEST_F(EltMixed, LoadStopsAtUnregisteredId) {
  const Bytes disk = {0xA3, 0x81, 0x01, 0xA1, 0x81, 0x61, 0xA3, 0x81, 0x02, 0xAF, 0x81, 0x09, 0xA3, 0x81, 0x03};
  FileStorage& fs = source(disk);
  MixedElements m;
  m.addType<SimpleElt>();
  m.addType<TextElt>();
  EXPECT_EQ(m.load(fs, disk.size(), nullptr), 9u);
  EXPECT_EQ(m.count(), 3u);
  EXPECT_EQ(fs.file().absolutePosition(), 9u);
  SimpleElt dummy;
  IElement* out = &dummy;
  EXPECT_EQ(m.loadOneElement(out, fs, 6, nullptr), 0u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(fs.file().absolutePosition(), 9u);

  const std::string again = base_ + ".again";
  std::remove(again.c_str());
  {
    FileStorage out2(again, File::kReadWrite);
    ASSERT_TRUE(m.save(out2));
    out2.file().close();
  }
  EXPECT_EQ(readFile(again), Bytes(disk.begin(), disk.begin() + 9));
}

TEST_F(EltMixed, InsideAMasterKeepsOrder) {
  const Bytes disk = {0x1F, 0x43, 0xB6, 0x75, 0x90, 0xE7, 0x81, 0x07, 0xA3, 0x81, 0x01, 0xA1,
                      0x82, 0x68, 0x69, 0xAF, 0x81, 0x09, 0xA3, 0x81, 0x02};
  BlocksElt e;
  EXPECT_EQ(load(e, disk), 21u);
  EXPECT_EQ(e->stamp->get(), 7u);
  ASSERT_EQ(e->blocks.count(), 3u);
  std::vector<uint64_t> ids;
  for (const IElement* b : e->blocks.elements()) ids.push_back(b->getId());
  EXPECT_EQ(ids, std::vector<uint64_t>({0xA3, 0xA1, 0xA3}));

  const Bytes expected = {0x1F, 0x43, 0xB6, 0x75, 0x8D, 0xE7, 0x81, 0x07, 0xA3, 0x81,
                          0x01, 0xA1, 0x82, 0x68, 0x69, 0xA3, 0x81, 0x02};
  BlocksElt copy(e);
  e->blocks.clear();
  EXPECT_EQ(copy.calcSize(), expected.size());
  EXPECT_EQ(saveAgain(copy), expected);
}

// ---------------------------------------------------------------- crawling

class Recorder : public IElementCrawler {
 public:
  explicit Recorder(std::string stopAt = {}, bool descend = true) : stopAt_(std::move(stopAt)), descend_(descend) {}
  bool eval(IElement& element) override {
    names.push_back(element.getName());
    if (names.back() == stopAt_) return true;
    return descend_ ? IElementCrawler::eval(element) : false;
  }
  std::vector<std::string> names;

 private:
  std::string stopAt_;
  bool descend_;
};

using Names = std::vector<std::string>;

TEST(EltCrawl, DeclarationOrderAndEarlyStop) {
  OuterElt e;
  e->version->set(1);
  e->items.add()->set(1);
  e->items.add()->set(2);
  e->groups.add()->number->set(5);
  e->groups.add();

  Recorder all;
  EXPECT_FALSE(all.eval(e));
  EXPECT_EQ(all.names, Names({"Outer", "Version", "Name", "Item", "Item", "Group", "Number", "Label", "Group",
                              "Number", "Label"}));

  Recorder second("Name");
  EXPECT_TRUE(second.eval(e));
  EXPECT_EQ(second.names, Names({"Outer", "Version", "Name"}));

  Recorder nested("Number");
  EXPECT_TRUE(nested.eval(e));
  EXPECT_EQ(nested.names, Names({"Outer", "Version", "Name", "Item", "Item", "Group", "Number"}));

  Recorder shallow({}, false);
  EXPECT_FALSE(e->eval(shallow));
  EXPECT_EQ(shallow.names, Names({"Version", "Name", "Item", "Item", "Group", "Group"}));

  BlocksElt b;
  SimpleElt s;
  TextElt t;
  b->blocks.push_back(s);
  b->blocks.push_back(t);
  b->blocks.push_back(s);
  Recorder mixed;
  EXPECT_FALSE(mixed.eval(b));
  EXPECT_EQ(mixed.names, Names({"Blocks", "Stamp", "Simple", "Text", "Simple"}));
}

// ---------------------------------------------------------------- malformed input

class EltMalformed : public ElementFile {};

TEST_F(EltMalformed, SizesAreCutToWhatIsThere) {
  OuterElt pastFile;
  EXPECT_EQ(load(pastFile, cat({kOuterId, {0x90, 0x42, 0x86, 0x81, 0x03}})), 9u);
  EXPECT_EQ(position_, 9u);
  EXPECT_EQ(pastFile->version->get(), 3u);

  NameElt leaf;
  EXPECT_EQ(load(leaf, {0x42, 0x82, 0x88, 0x61, 0x62}), 5u);
  EXPECT_EQ(leaf->get(), "ab");

  VersionElt truncated;
  EXPECT_EQ(load(truncated, {0x42, 0x86, 0x84, 0x01, 0x02}), 5u);
  EXPECT_EQ(truncated->get(), 0x0102u);

  // The child claims 4 bytes; its parent has room for 1.
  OuterElt pastParent;
  EXPECT_EQ(load(pastParent, cat({kOuterId, {0x84, 0x42, 0x82, 0x84, 0x61, 0x62, 0x42, 0x86, 0x81, 0x07}})), 9u);
  EXPECT_EQ(position_, 9u);
  EXPECT_EQ(pastParent->name->get(), "a");
  EXPECT_EQ(pastParent->version->get(), 0u);
}

TEST_F(EltMalformed, HugeSizeFieldsAllocateNothing) {
  const Bytes huge = {0x01, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00};
  const Bytes vast = {0x01, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  for (const Bytes& size : {huge, vast}) {
    NameElt text;
    EXPECT_EQ(load(text, cat({{0x42, 0x82}, size, {0x61, 0x62, 0x63}})), 13u);
    EXPECT_EQ(text->get(), "abc");

    TElt<VBinary, 0x4282, Outer::EltName0x4282> binary;
    EXPECT_EQ(load(binary, cat({{0x42, 0x82}, size, {0x61, 0x62, 0x63}})), 13u);
    Bytes got;
    ASSERT_TRUE(binary->get(got));
    EXPECT_EQ(got, Bytes({0x61, 0x62, 0x63}));

    OuterElt master;
    EXPECT_EQ(load(master, cat({kOuterId, size, {0x42, 0x86, 0x81, 0x03}})), 16u);
    EXPECT_EQ(master->version->get(), 3u);

    // Inside a parent: cut to the parent's end.
    OuterElt parent;
    EXPECT_EQ(load(parent, cat({kOuterId, {0x8D, 0x42, 0x82}, size, {0x61, 0x62, 0x63}})), 18u);
    EXPECT_EQ(parent->name->get(), "abc");
  }
}

TEST_F(EltMalformed, UnknownSizeOnLeafFails) {
  NameElt leaf;
  EXPECT_EQ(load(leaf, {0x42, 0x82, 0xFF, 0x61, 0x62}), 0u);
  EXPECT_EQ(position_, 0u);
  EXPECT_EQ(load(leaf, cat({{0x42, 0x82}, kUnknownSize, {0x61}})), 0u);
  EXPECT_EQ(position_, 0u);
  EXPECT_EQ(leaf->get(), "");

  // Inside a parent the rest of the parent is passed over.
  OuterElt parent;
  EXPECT_EQ(load(parent, cat({kOuterId, {0x89, 0x42, 0x86, 0x81, 0x03, 0x42, 0x82, 0xFF, 0x61, 0x62}})), 14u);
  EXPECT_EQ(position_, 14u);
  EXPECT_EQ(parent->version->get(), 3u);
  EXPECT_EQ(parent->name->get(), "");
}

TEST_F(EltMalformed, InvalidIdBytes) {
  for (unsigned char bad : {0x00, 0x01, 0x08, 0x0F}) {
    SCOPED_TRACE(static_cast<int>(bad));
    OuterElt alone;
    EXPECT_EQ(load(alone, {bad, 0x81, 0x05}), 0u);
    EXPECT_EQ(position_, 0u);

    OuterElt known;
    EXPECT_EQ(load(known, cat({kOuterId, {0x87, 0x42, 0x86, 0x81, 0x03, bad, 0x81, 0x05}})), 12u);
    EXPECT_EQ(position_, 12u);
    EXPECT_EQ(known->version->get(), 3u);

    OuterElt open;
    EXPECT_EQ(load(open, cat({kOuterId, kUnknownSize, {0x42, 0x86, 0x81, 0x03, bad, 0x81, 0x05}})), 16u);
    EXPECT_EQ(position_, 16u);
  }
}

TEST_F(EltMalformed, TruncatedHeaders) {
  VersionElt v;
  EXPECT_EQ(load(v, {0x42, 0x86}), 0u);
  EXPECT_EQ(position_, 0u);
  EXPECT_EQ(load(v, {0x42, 0x86, 0x40}), 0u);
  EXPECT_EQ(position_, 0u);
  OuterElt e;
  EXPECT_EQ(load(e, {0x1A, 0x45}), 0u);
  FileStorage& empty = source({});
  EXPECT_EQ(e.load(empty, 10), 0u);
  // Header inside the parent, payload cut off by the end of the file.
  EXPECT_EQ(load(e, cat({kOuterId, {0x88, 0x42, 0x86, 0x84, 0x01}})), 9u);
  EXPECT_EQ(e->version->get(), 1u);
}

TEST_F(EltMalformed, EveryCutAndFlippedByteLoadsSafely) {
  OuterElt seed;
  seed->version->set(3);
  seed->name->set("abc");
  seed->items.add()->set(0x1234);
  Inner& g = *seed->groups.add();
  g.number->set(5);
  g.label->set("xy");
  seed->groups.front().setCrc32(true);
  seed->version.getPayload().addVoid(3);
  seed.setCrc32(true);
  const Bytes disk = save(seed);
  ASSERT_EQ(disk.size(), seed.calcSize());

  const unsigned char flips[] = {0x00, 0x01, 0x08, 0x40, 0x7F, 0x80, 0xBF, 0xEC, 0xFF};
  std::vector<Bytes> inputs;
  for (size_t cut = 0; cut < disk.size(); ++cut) inputs.emplace_back(disk.begin(), disk.begin() + cut);
  for (size_t i = 0; i < disk.size(); ++i)
    for (unsigned char f : flips) {
      Bytes b = disk;
      b[i] = f;
      inputs.push_back(b);
    }
  for (const Bytes& input : inputs) {
    OuterElt e;
    const uint64_t n = load(e, input);
    ASSERT_LE(n, input.size());
    ASSERT_LE(position_, input.size());
    NullStorage dry;
    e.save(dry);
    e.calcSize();
  }
}

}  // namespace
