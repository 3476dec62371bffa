#include <gtest/gtest.h>

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

using kapsel_test::cat;

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

const Bytes kOuterId = {0x1A, 0x45, 0xDF, 0xA3};
const Bytes kUnknownSize = {0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const Bytes kHugeSize = {0x01, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00};
const Bytes kVastSize = {0x01, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

class Elt : public ::testing::Test {
 protected:
  // Saves into a fresh file (sizeBytes 0: minimal size field) and returns the file's bytes.
  Bytes save(const IElement& e, uint64_t sizeBytes = 0, const char* name = "out.bin") {
    const Bytes disk = write(name, [&](FileStorage& fs) { return e.save(fs, sizeBytes); });
    EXPECT_TRUE(receipt_);
    return disk;
  }
  Bytes saveAgain(const IElement& e) { return save(e, 0, "again.bin"); }
  Bytes savePadded(const IElement& e, uint64_t total) {
    return write("out.bin", [&](FileStorage& fs) { return e.savePaddedUpToSize(fs, total); });
  }

  template <class F>
  Bytes write(const char* name, F saver) {
    const std::string path = dir_.path(name);
    std::remove(path.c_str());
    {
      FileStorage fs(path, File::kReadWrite);
      receipt_ = saver(fs);
      if (receipt_) {
        EXPECT_EQ(receipt_->numBytes(), fs.file().absolutePosition());
      }
      fs.file().close();  // receipts share the file: closing is what writes it back
    }
    return kapsel_test::readFile(path);
  }

  FileStorage& source(const Bytes& bytes) {
    storage_.reset();
    kapsel_test::writeFile(dir_.path("in.bin"), bytes);
    storage_.reset(new FileStorage(dir_.path("in.bin"), File::kReadOnly));
    return *storage_;
  }

  // Loads from a file holding exactly these bytes, offering all of them.
  uint64_t load(IElement& e, const Bytes& bytes) {
    FileStorage& fs = source(bytes);
    const uint64_t n = e.load(fs, bytes.size());
    position_ = fs.file().absolutePosition();
    return n;
  }

  kapsel_test::TempDir dir_;
  std::unique_ptr<FileStorage> storage_;
  ReceiptPtr receipt_;
  uint64_t position_ = 0;
};

TEST_F(Elt, SaveSizeFieldMinimalOrForced) {
  OuterElt e;
  e->version->set(3);
  EXPECT_EQ(e.calcSize(), 9u);
  EXPECT_EQ(save(e), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03}}));
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
  EXPECT_EQ(save(name), cat({{0x42, 0x82, 0xFE}, Bytes(126, 'x')}));
  name->set(std::string(127, 'x'));
  EXPECT_EQ(name.calcSize(), 131u);
  EXPECT_EQ(save(name), cat({{0x42, 0x82, 0x40, 0x7F}, Bytes(127, 'x')}));
}

TEST_F(Elt, SaveCrc32PlaceholderOnMastersOnly) {
  OuterElt e;
  e->version->set(3);
  e.setCrc32(true);
  EXPECT_EQ(e.calcSize(), 15u);
  EXPECT_EQ(save(e), cat({kOuterId, {0x8A, 0xBF, 0x84, 0, 0, 0, 0, 0x42, 0x86, 0x81, 0x03}}));
  EXPECT_EQ(e.crc32Receipt()->position(), 5u);
  EXPECT_EQ(e.crc32Receipt()->numBytes(), 6u);
  EXPECT_EQ(e.payloadReceipt()->numBytes(), 10u);
  e.setCrc32(false);
  EXPECT_EQ(save(e), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03}}));
  EXPECT_FALSE(e.crc32Receipt());

  // An empty payload with its CRC-32 child is six bytes long, once the element is saved at all.
  OuterElt empty;
  empty.setCrc32(true);
  EXPECT_EQ(empty.calcSize(), 0u);
  empty.alwaysSave();
  EXPECT_EQ(save(empty), cat({kOuterId, {0x86, 0xBF, 0x84, 0, 0, 0, 0}}));

  VersionElt leaf;
  leaf->set(3);
  leaf.setCrc32(true);
  EXPECT_EQ(save(leaf), Bytes({0x42, 0x86, 0x81, 0x03}));
  EXPECT_FALSE(leaf.crc32Receipt());
  // Switched on for every child: only the master among them takes it.
  OuterElt all;
  all->version->set(3);
  all->groups.add()->number->set(5);
  eltsSetCrc32(*all, true);
  EXPECT_EQ(save(all),
            cat({kOuterId, {0x8F, 0x42, 0x86, 0x81, 0x03, 0xA0, 0x89, 0xBF, 0x84, 0, 0, 0, 0, 0x81, 0x81, 0x05}}));
}

TEST_F(Elt, SaveVoidsFollowOutsideTheSizeField) {
  OuterElt e;
  e->version->set(3);
  e->addVoid(2);
  EXPECT_EQ(e.calcSize(), 13u);
  EXPECT_EQ(save(e), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x82, 0x00, 0x00}}));

  // A child's Void is padding inside its parent.
  OuterElt c;
  c->version->set(3);
  c->version.getPayload().addVoid(1);
  EXPECT_EQ(save(c), cat({kOuterId, {0x87, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x81, 0x00}}));

  OuterElt nothing;
  EXPECT_TRUE(save(nothing).empty());
  nothing->addVoid(0);
  EXPECT_EQ(save(nothing), cat({kOuterId, {0x80, 0xEC, 0x80}}));
}

TEST_F(Elt, SaveListItemsAreWrittenEvenWhenDefault) {
  OuterElt e;
  e->items.add();
  e->groups.add();
  const Bytes disk = cat({kOuterId, {0x85, 0xAE, 0x81, 0x00, 0xA0, 0x80}});
  EXPECT_EQ(save(e), disk);
  OuterElt back;
  EXPECT_EQ(load(back, disk), 10u);
  EXPECT_EQ(saveAgain(back), disk);
}

TEST_F(Elt, SaveSizeFieldStatesWhatWasWritten) {
  // Width 8 promised, one byte written: both the child's and the parent's size fields follow.
  PointerElt p;
  p->position->setPosition(5);
  p->position->setMaxSize(8);
  EXPECT_EQ(p.calcSize(), 14u);
  EXPECT_EQ(save(p), Bytes({0x4D, 0xBB, 0x84, 0x53, 0xAC, 0x81, 0x05}));
  EXPECT_EQ(save(p, 4), Bytes({0x4D, 0xBB, 0x10, 0x00, 0x00, 0x04, 0x53, 0xAC, 0x81, 0x05}));
  // Padded up to the promise, a Void fills the reservation.
  EXPECT_EQ(savePadded(p, 14), Bytes({0x4D, 0xBB, 0x84, 0x53, 0xAC, 0x81, 0x05, 0xEC, 0x85, 0, 0, 0, 0, 0}));

  NameElt name;
  name->setSizeHint(8);
  name->set("ab");
  EXPECT_EQ(name.calcSize(), 11u);
  EXPECT_EQ(save(name), Bytes({0x42, 0x82, 0x82, 0x61, 0x62}));

  // One byte left over fits no Void: the element ends one byte short of the total.
  VersionElt v;
  v->setSizeHint(2);
  v->set(5);
  EXPECT_EQ(savePadded(v, 5), Bytes({0x42, 0x86, 0x81, 0x05}));
  ASSERT_TRUE(receipt_);
}

TEST_F(Elt, SavePaddedUpToSize) {
  OuterElt e;
  e->version->set(3);
  const Bytes plain = cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03}});
  EXPECT_EQ(savePadded(e, 9), plain);
  EXPECT_EQ(savePadded(e, 11), cat({plain, {0xEC, 0x80}}));
  EXPECT_EQ(savePadded(e, 9 + 128), cat({plain, {0xEC, 0x40, 0x7D}, Bytes(125, 0x00)}));

  // No room for a Void, or no room at all: nothing is written.
  for (uint64_t total : {10, 8}) {
    EXPECT_TRUE(savePadded(e, total).empty());
    EXPECT_FALSE(receipt_);
  }

  const Bytes open = cat({kOuterId, kUnknownSize, {0x42, 0x86, 0x81, 0x03}});
  EXPECT_EQ(savePadded(e, uintMax[8]), open);
  OuterElt back;
  EXPECT_EQ(load(back, open), 16u);
  EXPECT_EQ(back->version->get(), 3u);

  e.setFixedSize(11);
  EXPECT_EQ(save(e, 8), cat({plain, {0xEC, 0x80}}));
}

// Outer from hand-written bytes: what is consumed (also where the file is left), and what was read.
TEST_F(Elt, LoadOuterFromHandWrittenBytes) {
  struct Case {
    Bytes disk;
    uint64_t consumed;
    uint64_t version;
    std::string name;
  };
  std::vector<Case> cases = {
      // The stranger's payload looks like a Version; it must not be read as one.
      {cat({kOuterId, {0x90, 0x42, 0x86, 0x81, 0x03, 0x55, 0x55, 0x84, 0x42, 0x86, 0x81, 0x09},
            {0x42, 0x82, 0x82, 0x68, 0x69}}),
       21, 3, "hi"},
      {cat({kOuterId, {0x88, 0x42, 0x86, 0x81, 0x03, 0x55, 0x55, 0x81, 0x07}}), 13, 3, ""},
      // Sizes are cut to what is there: the end of the file, or of the parent.
      {cat({kOuterId, {0x90, 0x42, 0x86, 0x81, 0x03}}), 9, 3, ""},
      {cat({kOuterId, {0x84, 0x42, 0x82, 0x84, 0x61, 0x62, 0x42, 0x86, 0x81, 0x07}}), 9, 0, "a"},
      {cat({kOuterId, {0x88, 0x42, 0x86, 0x84, 0x01}}), 9, 1, ""},
      // A leaf of unknown size cannot be read; the rest of its parent is passed over.
      {cat({kOuterId, {0x89, 0x42, 0x86, 0x81, 0x03, 0x42, 0x82, 0xFF, 0x61, 0x62}}), 14, 3, ""},
      // Open elements: Group ends at Name, which only Outer knows; Outer ends at the stranger, or the end of the file.
      {cat({kOuterId, kUnknownSize, {0x42, 0x86, 0x81, 0x03, 0xA0, 0xFF, 0x81, 0x81, 0x05, 0x42, 0x82, 0x81, 0x78},
            {0x55, 0x55, 0x81, 0x07}}),
       25, 3, "x"},
      {cat({kOuterId, kUnknownSize, {0x42, 0x86, 0x81, 0x03, 0xA0, 0xFF, 0x81, 0x81, 0x05, 0x42, 0x82, 0x81, 0x78}}),
       25, 3, "x"},
  };
  for (unsigned char bad : {0x00, 0x01, 0x08, 0x0F}) {
    cases.push_back({cat({kOuterId, {0x87, 0x42, 0x86, 0x81, 0x03, bad, 0x81, 0x05}}), 12, 3, ""});
    cases.push_back({cat({kOuterId, kUnknownSize, {0x42, 0x86, 0x81, 0x03, bad, 0x81, 0x05}}), 16, 3, ""});
  }
  // Huge sizes must allocate nothing.
  for (const Bytes& size : {kHugeSize, kVastSize}) {
    cases.push_back({cat({kOuterId, size, {0x42, 0x86, 0x81, 0x03}}), 16, 3, ""});
    cases.push_back({cat({kOuterId, {0x8D, 0x42, 0x82}, size, {0x61, 0x62, 0x63}}), 18, 0, "abc"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.disk));
    OuterElt e;
    EXPECT_EQ(load(e, c.disk), c.consumed);
    EXPECT_EQ(position_, c.consumed);
    EXPECT_EQ(e->version->get(), c.version);
    EXPECT_EQ(e->name->get(), c.name);
  }
}

TEST_F(Elt, LoadLeavesAndBrokenHeaders) {
  NameElt text;
  EXPECT_EQ(load(text, {0x42, 0x82, 0x88, 0x61, 0x62}), 5u);
  EXPECT_EQ(text->get(), "ab");
  VersionElt number;
  EXPECT_EQ(load(number, {0x42, 0x86, 0x84, 0x01, 0x02}), 5u);
  EXPECT_EQ(number->get(), 0x0102u);
  for (const Bytes& size : {kHugeSize, kVastSize}) {
    EXPECT_EQ(load(text, cat({{0x42, 0x82}, size, {0x61, 0x62, 0x63}})), 13u);
    EXPECT_EQ(text->get(), "abc");
    TElt<VBinary, 0x4282, Outer::EltName0x4282> binary;
    EXPECT_EQ(load(binary, cat({{0x42, 0x82}, size, {0x61, 0x62, 0x63}})), 13u);
    Bytes got;
    ASSERT_TRUE(binary->get(got));
    EXPECT_EQ(got, Bytes({0x61, 0x62, 0x63}));
  }

  // Nothing is read and the file stays where it was.
  std::vector<Bytes> broken = {{0x42, 0x82, 0xFF, 0x61, 0x62}, cat({{0x42, 0x82}, kUnknownSize, {0x61}}),
                               {0x1A, 0x45}, {0x42, 0x86}, {0x42, 0x86, 0x40}};
  for (unsigned char bad : {0x00, 0x01, 0x08, 0x0F}) broken.push_back({bad, 0x81, 0x05});
  for (const Bytes& disk : broken) {
    SCOPED_TRACE(::testing::PrintToString(disk));
    NameElt leaf;
    OuterElt master;
    for (IElement* e : {static_cast<IElement*>(&leaf), static_cast<IElement*>(&master)}) {
      EXPECT_EQ(load(*e, disk), 0u);
      EXPECT_EQ(position_, 0u);
    }
    EXPECT_EQ(leaf->get(), "");
  }
  OuterElt e;
  EXPECT_EQ(e.load(source({}), 10), 0u);
}

TEST_F(Elt, LoadVoidsGoBackAfterTheirChild) {
  const Bytes disk = cat({kOuterId, {0x90, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x82, 0x00, 0x00, 0xAE, 0x81, 0x01},
                          {0xEC, 0x80, 0xAE, 0x81, 0x02}});
  OuterElt e;
  EXPECT_EQ(load(e, disk), 21u);
  ASSERT_EQ(e->items.size(), 2u);
  ASSERT_EQ(e->version.getPayload().voids().size(), 1u);
  EXPECT_EQ(e->version.getPayload().voids().front()->get(), 2u);
  EXPECT_EQ(e->items[0].getPayload().voids().size(), 1u);
  EXPECT_TRUE(e->items[1].getPayload().voids().empty());
  EXPECT_EQ(e.calcSize(), disk.size());
  EXPECT_EQ(saveAgain(e), disk);

  // A Void before any child has nothing to follow: it moves behind the element.
  OuterElt first;
  EXPECT_EQ(load(first, cat({kOuterId, {0x86, 0xEC, 0x80, 0x42, 0x86, 0x81, 0x03}})), 11u);
  EXPECT_EQ(saveAgain(first), cat({kOuterId, {0x84, 0x42, 0x86, 0x81, 0x03, 0xEC, 0x80}}));
}

TEST_F(Elt, LoadCrc32ChildIsCheckedAndKept) {
  // 0x4E70D028 is the CRC-32 of 42 86 81 03.
  const Bytes good = cat({kOuterId, {0x8A, 0xBF, 0x84, 0x4E, 0x70, 0xD0, 0x28, 0x42, 0x86, 0x81, 0x03}});
  OuterElt e;
  EXPECT_EQ(load(e, good), 15u);
  EXPECT_EQ(e->version->get(), 3u);
  EXPECT_TRUE(e.crc32Matched());
  EXPECT_EQ(e.crc32Receipt()->position(), 5u);
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
  EXPECT_FALSE(last.storageReceipt() || last.payloadReceipt() || last.crc32Receipt());
}

TEST_F(Elt, LoadOtherIdLeavesThePositionAlone) {
  FileStorage& fs = source({0xEC, 0x80, 0x42, 0x86, 0x81, 0x03});
  fs.file().seek(2);
  OuterElt e;
  EXPECT_EQ(e.load(fs, 4), 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 2u);
  EXPECT_FALSE(e.storageReceipt());
  // The caller tries another type at the same place.
  VersionElt v;
  EXPECT_EQ(v.load(fs, 4), 4u);
  EXPECT_EQ(v->get(), 3u);
}

TEST_F(Elt, LoadOpenChildEndsWithItsParent) {
  // The bytes after Outer would be a Number; an open Group inside Outer must not reach them.
  OuterElt e;
  EXPECT_EQ(load(e, cat({kOuterId, {0x85, 0xA0, 0xFF, 0x81, 0x81, 0x05}, {0x81, 0x81, 0x06}})), 10u);
  EXPECT_EQ(position_, 10u);
  ASSERT_EQ(e->groups.size(), 1u);
  EXPECT_EQ(e->groups[0]->number->get(), 5u);
  EXPECT_EQ(e->groups[0].storageReceipt()->numBytes(), 5u);
}

TEST_F(Elt, MixedRegistryAndDeepCopies) {
  MixedElements m;
  EXPECT_TRUE(m.addType<SimpleElt>());
  EXPECT_FALSE(m.addType<SimpleElt>());
  EXPECT_TRUE(m.addType<TextElt>());
  StrangerElt stranger;
  EXPECT_FALSE(m.push_back(stranger));
  EXPECT_EQ(m.count(), 0u);

  SimpleElt a;
  a->set(1);
  TextElt t;
  t->set("t");
  EXPECT_TRUE(m.push_back(a));
  EXPECT_TRUE(m.push_back(t));
  a->set(2);  // the sequence holds its own copy
  EXPECT_EQ(simpleValue(m.elements().front()), 1u);

  MixedElements copy(m);
  ASSERT_EQ(copy.count(), 2u);
  static_cast<VUInt&>(m.elements().front()->getPayload()).set(9);
  EXPECT_EQ(simpleValue(copy.elements().front()), 1u);
  EXPECT_TRUE(copy.push_back(t));  // the registry came along
  EXPECT_EQ(copy.calcSize(), 9u);

  MixedElements assigned;
  assigned = m;
  const IElement* first = m.elements().front();
  const MixedElements& self = m;
  m = self;
  EXPECT_EQ(m.count(), 2u);
  EXPECT_EQ(m.elements().front(), first);
  EXPECT_EQ(simpleValue(assigned.elements().front()), 9u);
}

TEST_F(Elt, MixedLoadStopsAtUnregisteredId) {
  const Bytes disk = {0xA3, 0x81, 0x01, 0xA1, 0x81, 0x61, 0xA3, 0x81, 0x02, 0xAF, 0x81, 0x09, 0xA3, 0x81, 0x03};
  FileStorage& fs = source(disk);
  MixedElements m;
  m.addType<SimpleElt>();
  m.addType<TextElt>();
  EXPECT_EQ(m.load(fs, disk.size(), nullptr), 9u);
  EXPECT_EQ(m.count(), 3u);
  SimpleElt dummy;
  IElement* out = &dummy;
  EXPECT_EQ(m.loadOneElement(out, fs, 6, nullptr), 0u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(fs.file().absolutePosition(), 9u);
}

TEST_F(Elt, MixedInsideAMasterKeepsOrder) {
  const Bytes disk = {0x1F, 0x43, 0xB6, 0x75, 0x90, 0xE7, 0x81, 0x07, 0xA3, 0x81, 0x01, 0xA1,
                      0x82, 0x68, 0x69, 0xAF, 0x81, 0x09, 0xA3, 0x81, 0x02};
  BlocksElt e;
  EXPECT_EQ(load(e, disk), 21u);
  EXPECT_EQ(e->stamp->get(), 7u);
  std::vector<uint64_t> ids;
  for (const IElement* b : e->blocks.elements()) ids.push_back(b->getId());
  EXPECT_EQ(ids, std::vector<uint64_t>({0xA3, 0xA1, 0xA3}));

  // The stranger is dropped; a copy survives clearing the original.
  const Bytes expected = {0x1F, 0x43, 0xB6, 0x75, 0x8D, 0xE7, 0x81, 0x07, 0xA3, 0x81,
                          0x01, 0xA1, 0x82, 0x68, 0x69, 0xA3, 0x81, 0x02};
  BlocksElt copy(e);
  e->blocks.clear();
  EXPECT_EQ(copy.calcSize(), expected.size());
  EXPECT_EQ(saveAgain(copy), expected);
}

// Records every element it meets; stops at the first one of the given name.
struct Recorder : IElementCrawler {
  explicit Recorder(std::string stop = {}) : stopAt(std::move(stop)) {}
  bool eval(IElement& element) override {
    names.push_back(element.getName());
    return names.back() == stopAt || IElementCrawler::eval(element);
  }
  std::string stopAt;
  std::vector<std::string> names;
};

using Names = std::vector<std::string>;

TEST(EltCrawl, DeclarationOrderAndEarlyStop) {
  OuterElt e;
  e->items.add()->set(1);
  e->items.add()->set(2);
  e->groups.add()->number->set(5);
  e->groups.add();

  Recorder all;
  EXPECT_FALSE(all.eval(e));
  EXPECT_EQ(all.names, Names({"Outer", "Version", "Name", "Item", "Item", "Group", "Number", "Label", "Group",
                              "Number", "Label"}));
  Recorder nested("Number");
  EXPECT_TRUE(nested.eval(e));
  EXPECT_EQ(nested.names, Names({"Outer", "Version", "Name", "Item", "Item", "Group", "Number"}));

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

}  // namespace
