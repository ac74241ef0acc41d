#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "RecordFileIndex.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

namespace {

constexpr uint8_t I = FRAME_TYPE_I, P = FRAME_TYPE_P, IMG = FRAME_TYPE_IMAGE;

// Entries (type, sub-type, time, offset); lengths are irrelevant to lookups.
std::unique_ptr<CRecordFileIndex> makeIndex(
    std::initializer_list<std::tuple<uint8_t, uint8_t, uint32_t, uint64_t>> entries) {
  auto index = std::make_unique<CRecordFileIndex>();
  for (auto [type, sub, time, offset] : entries) index->addIndex(IndexEntry::make(type, sub, time, 100, offset));
  return index;
}

TEST(IndexEntry, CarriesAFortyBitOffsetAndATwentyFourBitLength) {
  IndexEntry e = IndexEntry::make(I, 2, 0x01020304u, 0x12345678u, (1ull << 32) + 10);
  uint8_t raw[16];
  std::memcpy(raw, &e, sizeof(raw));
  EXPECT_EQ(raw[0], 0xFD);
  EXPECT_EQ(raw[1], 2);
  EXPECT_EQ(raw[2], 0);
  EXPECT_EQ(raw[3], 0);
  EXPECT_EQ(raw[4], 0x04);  // time, little-endian
  EXPECT_EQ(raw[7], 0x01);
  EXPECT_EQ(raw[8], 0x78);  // length modulo 2^24
  EXPECT_EQ(raw[9], 0x56);
  EXPECT_EQ(raw[10], 0x34);
  EXPECT_EQ(raw[11], 1);  // offset bits 32-39
  EXPECT_EQ(raw[12], 10);
  EXPECT_EQ(raw[13], 0);
  EXPECT_EQ(e.offset(), (1ull << 32) + 10);
  EXPECT_EQ(e.length24(), 0x345678u);
  EXPECT_EQ(IndexEntry::make(I, 0, 0, 0, (1ull << 40) - 1).offset(), (1ull << 40) - 1);
}

TEST(RecordFileIndex, TimesNeverGoBackwards) {
  ZarnTest::LogCapture log;
  auto index = makeIndex({{I, 0, 100, 0}, {I, 0, 105, 1000}, {I, 0, 103, 2000}});
  std::vector<IndexEntry> e = index->entries();
  ASSERT_EQ(e.size(), 3u);
  EXPECT_EQ(e[0].time, 100u);
  EXPECT_EQ(e[1].time, 105u);
  EXPECT_EQ(e[2].time, 105u);
  EXPECT_EQ(log.count("Maybe system time was changed."), 1u);
  EXPECT_EQ(index->beginTime(), 100u);
  EXPECT_EQ(index->endTime(), 105u);

  index->updateEndTime(104);
  index->updateEndTime(103);
  EXPECT_EQ(log.count("the timestamp less than m_endTime."), 2u);     // the addIndex line and one for the run
  EXPECT_TRUE(index->timeWentBack());
  index->updateEndTime(110);
  EXPECT_FALSE(index->timeWentBack());
  EXPECT_EQ(index->endTime(), 110u);
}

TEST(RecordFileIndex, PlaybackStartLookups) {
  // key 100@0, P 101@500, key 110@1000, smart-P 115@1500, key 120@2000
  auto index =
      makeIndex({{I, 0, 100, 0}, {P, 0, 101, 500}, {I, 0, 110, 1000}, {P, 1, 115, 1500}, {IMG, 0, 120, 2000}});
  EXPECT_EQ(index->getIFrameOffset(50), 0u);     // before the first key
  EXPECT_EQ(index->getIFrameOffset(110), 1000u); // exactly a key in the middle
  EXPECT_EQ(index->getIFrameOffset(111), 1000u); // one second later
  EXPECT_EQ(index->getIFrameOffset(101), 0u);    // a non-key entry's time: the key before it
  EXPECT_EQ(index->getIFrameOffset(115), 1500u); // a smart P frame is a key
  EXPECT_EQ(index->getIFrameOffset(500), 2000u); // at or after the last key

  EXPECT_EQ(index->getPrevIFrameOffset(110, 0), 0u);     // strictly before
  EXPECT_EQ(index->getPrevIFrameOffset(999, 0), 2000u);  // after the last key's time
  EXPECT_EQ(index->getPrevIFrameOffset(100, 0), CRecordFileIndex::kNoOffset);
  EXPECT_EQ(index->getPrevIFrameOffset(0, 1000), 0u);
  EXPECT_EQ(index->getPrevIFrameOffset(0, 1200), 1000u);
  EXPECT_EQ(index->getPrevIFrameOffset(0, 5000), 2000u);

  EXPECT_EQ(index->getIFrameUTC(1000), 110u);
  EXPECT_EQ(index->getIFrameUTC(1200), 110u);
  EXPECT_EQ(index->getIFrameUTC(500), 100u);
  EXPECT_EQ(index->getIFrameUTC(9000), 120u);
}

TEST(RecordFileIndex, SmartLookupsFallBackToTheNewestKeyFrame) {
  auto smart = makeIndex({{I, 2, 100, 0}, {I, 0, 110, 1000}, {I, 2, 120, 2000}, {I, 0, 130, 3000}});
  EXPECT_EQ(smart->getPrevISmartFrameOffset(125, 0), 2000u);
  EXPECT_EQ(smart->getPrevISmartFrameOffset(120, 0), 2000u);  // the entry itself counts
  EXPECT_EQ(smart->getPrevISmartFrameOffset(0, 500), 0u);     // by offset: back from the 1000 entry
  EXPECT_EQ(smart->getPrevISmartFrameOffset(0, 1500), 2000u);
  size_t cursor = 3;
  EXPECT_TRUE(smart->getSmartKeyPrev(cursor));
  EXPECT_EQ(cursor, 2u);

  ZarnTest::LogCapture log;
  auto plain = makeIndex({{I, 0, 100, 0}, {I, 0, 110, 1000}});
  EXPECT_EQ(plain->getPrevISmartFrameOffset(105, 0), 1000u);
  EXPECT_TRUE(log.contains("it is begin."));
}

TEST(RecordFileIndex, CursorWalksStopAtTheEnds) {
  auto index = makeIndex({{P, 0, 100, 0}, {I, 0, 101, 10}, {P, 0, 102, 20}, {I, 0, 103, 30}});
  ZarnTest::LogCapture log;
  size_t c = 0;
  ASSERT_TRUE(index->getKeyBegin(c));
  EXPECT_EQ(c, 1u);
  EXPECT_FALSE(index->getKeyPrev(c));
  EXPECT_TRUE(log.contains("it is begin."));
  ASSERT_TRUE(index->getKeyNext(c));
  EXPECT_EQ(c, 3u);
  EXPECT_FALSE(index->getKeyNext(c));
  EXPECT_TRUE(log.contains("it is end."));
  ASSERT_TRUE(index->getKeyEnd(c));
  EXPECT_EQ(c, 3u);
  ASSERT_TRUE(index->getKeyPrev(c));
  EXPECT_EQ(c, 1u);
}

TEST(RecordFileIndex, WithoutKeyEntriesNothingIsFound) {
  ZarnTest::LogCapture log;
  auto index = makeIndex({{P, 0, 100, 0}, {P, 0, 101, 10}});
  EXPECT_EQ(index->getIFrameOffset(100), CRecordFileIndex::kNoOffset);
  EXPECT_TRUE(log.contains("not find begin key index."));
  EXPECT_EQ(index->getPrevIFrameOffset(100, 0), CRecordFileIndex::kNoOffset);
  EXPECT_EQ(index->getIFrameUTC(0), 0u);
  EXPECT_EQ(index->getPrevISmartFrameOffset(100, 0), CRecordFileIndex::kNoOffset);
  size_t c = 0;
  EXPECT_FALSE(index->getKeyBegin(c));
  EXPECT_FALSE(index->getKeyEnd(c));
}

TEST(RecordFileIndexDeathTest, AddingToACompleteIndexAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CRecordFileIndex index;
  index.setComplete();
  EXPECT_DEATH(index.addIndex(IndexEntry::make(I, 0, 1, 1, 0)), "");
}

}  // namespace
