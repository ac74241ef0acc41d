// Key-frame indexes in memory, and record files and index files on a local
// store through a fault-injecting backend: the bytes a close leaves behind, the
// states a reader sees, and what store faults do to a file.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "BlockTransfer.h"
#include "FaultInjectingBackend.h"
#include "IndexFile.h"
#include "KanduCrc.h"
#include "KanduTime.h"
#include "RecordFile.h"
#include "RecordFileIndex.h"
#include "RecordFileName.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;
using ZarnTest::faultOn;
using ZarnTest::recordPath;
using Bytes = std::vector<uint8_t>;

namespace {

const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 5, 1, 23, 59, 30));
constexpr uint32_t kPayload = 100;
constexpr uint32_t kFrameLen = kMinFrameSize + kPayload;
const RecordFileName kOpen{.streamId = 7, .beginTime = T, .type = 1};

// kOpen closed at T+3 in index state `state`.
RecordFileName closedAt3(uint32_t state) {
  RecordFileName n = kOpen;
  n.endTime = T + 3;
  n.indexState = state;
  return n;
}

struct TestFrame {
  uint8_t type;
  uint8_t subType;
  uint32_t time;
};
constexpr uint8_t I = FRAME_TYPE_I, P = FRAME_TYPE_P, IMG = FRAME_TYPE_IMAGE;

// Entries (type, sub-type, time, offset); lengths are irrelevant to lookups.
std::unique_ptr<CRecordFileIndex> makeIndex(
    std::initializer_list<std::tuple<uint8_t, uint8_t, uint32_t, uint64_t>> entries) {
  auto index = std::make_unique<CRecordFileIndex>();
  for (auto [type, sub, time, offset] : entries) index->addIndex(IndexEntry::make(type, sub, time, 100, offset));
  return index;
}

TEST(IndexEntry, CarriesAFortyBitOffsetAndATwentyFourBitLength) {
  const IndexEntry e = IndexEntry::make(I, 2, 0x01020304u, 0x12345678u, (1ull << 32) + 10);
  uint8_t raw[16];
  std::memcpy(raw, &e, sizeof(raw));
  // Type, sub-type, 0, time; the length modulo 2^24 with offset bits 32-39; offset bits 0-31.
  EXPECT_EQ(Bytes(raw, raw + 16), (Bytes{0xFD, 2, 0, 0, 0x04, 0x03, 0x02, 0x01, 0x78, 0x56, 0x34, 1, 10, 0, 0, 0}));
  EXPECT_EQ(e.offset(), (1ull << 32) + 10);
  EXPECT_EQ(IndexEntry::make(I, 0, 0, 0, (1ull << 40) - 1).offset(), (1ull << 40) - 1);
}

TEST(RecordFileIndex, TimesNeverGoBackwards) {
  auto index = makeIndex({{I, 0, 100, 0}, {I, 0, 105, 1000}, {I, 0, 103, 2000}});
  std::vector<IndexEntry> e = index->entries();
  ASSERT_EQ(e.size(), 3u);
  EXPECT_EQ(e[0].time, 100u);
  EXPECT_EQ(e[1].time, 105u);
  EXPECT_EQ(e[2].time, 105u);
  EXPECT_EQ(index->beginTime(), 100u);
  EXPECT_EQ(index->endTime(), 105u);

  index->updateEndTime(104);
  index->updateEndTime(103);
  index->updateEndTime(110);
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
  EXPECT_EQ(makeIndex({{I, 0, 100, 0}, {I, 0, 110, 1000}})->getPrevISmartFrameOffset(105, 0), 1000u);
}

TEST(RecordFileIndex, WithoutKeyEntriesNothingIsFound) {
  auto index = makeIndex({{P, 0, 100, 0}, {P, 0, 101, 10}});
  EXPECT_EQ(index->getIFrameOffset(100), CRecordFileIndex::kNoOffset);
  EXPECT_EQ(index->getIFrameUTC(0), 0u);
  EXPECT_EQ(index->getPrevISmartFrameOffset(100, 0), CRecordFileIndex::kNoOffset);
}

const std::vector<TestFrame> kGop = {{I, 0, T}, {P, 0, T}, {P, 0, T + 1}, {I, 0, T + 2}, {P, 0, T + 3}};

// Appends `value` little-endian.
template <typename V>
void put(Bytes& out, V value) {
  const auto* p = reinterpret_cast<const uint8_t*>(&value);
  out.insert(out.end(), p, p + sizeof(value));
}

// A 64-byte record info as doc/record_file_format.md lays it out.
Bytes recordInfo(uint32_t begin, uint32_t end, uint64_t indexOffset, uint32_t indexLength, uint64_t dataLength) {
  Bytes info = {'V', 'Z', 'M', 'F', 0, 0, 0, 0};
  put(info, begin);
  put(info, end);
  put(info, indexOffset);
  put(info, indexLength);
  put(info, uint32_t{0});
  put(info, dataLength);
  info.resize(60, 0);
  put(info, Velto::Kandu::crc32(info.data(), 60));
  return info;
}

class RecordFileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_fs.createBucket("media_7")); }

  // Writes frames the way a writer does: the whole frame, the last time, and an
  // index entry for a key frame. Returns D.
  uint64_t writeFrames(CRecordFile& file, const std::vector<TestFrame>& frames) {
    uint32_t seq = 0;
    for (const TestFrame& f : frames) {
      Bytes bytes = ZarnTest::makeFrame(f.type, f.subType, seq++, f.time, kPayload);
      EXPECT_EQ(file.write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
      file.setLastTime(f.time);
      if (isKeyFrame(f.type, f.subType)) file.addIndex(f.type, f.subType, f.time, kFrameLen);
    }
    return file.length();
  }

  // A record file of kOpen's stream beginning at `begin`, open for writing with `frames` in it.
  std::unique_ptr<CRecordFile> writing(const std::vector<TestFrame>& frames = kGop, uint32_t begin = T) {
    RecordFileName name = kOpen;
    name.beginTime = begin;
    auto file = std::make_unique<CRecordFile>(m_fs, name);
    EXPECT_TRUE(file->openForWrite(4, 1));
    writeFrames(*file, frames);
    return file;
  }

  Bytes readWhole(const std::string& path) {
    Bytes out;
    std::unique_ptr<CFile> f = m_fs.openFile(path, StoreOpenMode::Read);
    EXPECT_TRUE(f);
    uint8_t buf[4096];
    for (int64_t n; f && (n = f->read(buf, sizeof(buf))) > 0;) out.insert(out.end(), buf, buf + n);
    return out;
  }

  // The names in the bucket, with the bucket.
  std::vector<std::string> listBucket() {
    CFileList list;
    EXPECT_TRUE(m_fs.getBucket("media_7").list(list, "", "", 100));
    std::vector<std::string> out;
    for (const StoreEntry& e : list) out.push_back("media_7/" + e.name);
    return out;
  }

  ZarnTest::FaultyLocalStore m_store;
  CZarnFileSystem& m_fs = *m_store.fs;
  CFaultInjectingBackend& m_backend = *m_store.backend;
};

TEST_F(RecordFileTest, CloseAppendsIndexAndInfoAndRenamesToTheClosedName) {
  std::unique_ptr<CRecordFile> file = writing();
  EXPECT_EQ(file->state(), CRecordFile::STATE_OPEN);
  const uint64_t D = file->length();
  ASSERT_EQ(D, 5u * kFrameLen);
  ASSERT_TRUE(file->close());

  const RecordFileName closed = closedAt3(RECORD_INDEX_INTERNAL);
  EXPECT_EQ(file->fullName(), recordPath(closed));
  EXPECT_EQ(listBucket(), std::vector<std::string>{recordPath(closed)});  // the open name is gone

  // Two index entries right after the data (type, sub-type, 0, time, length
  // with offset bits 32-39, offset bits 0-31), then the record info.
  Bytes tail;
  for (auto [time, offset] : {std::pair{T, 0u}, std::pair{T + 2, 3 * kFrameLen}}) {
    put(tail, uint32_t{I});
    put(tail, time);
    put(tail, kFrameLen);
    put(tail, offset);
  }
  const Bytes info = recordInfo(T, T + 3, D, 32, D);
  tail.insert(tail.end(), info.begin(), info.end());
  const Bytes bytes = readWhole(recordPath(closed));
  ASSERT_EQ(bytes.size(), D + tail.size());
  EXPECT_EQ(Bytes(bytes.begin() + static_cast<long>(D), bytes.end()), tail);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + kFrameLen), ZarnTest::makeFrame(I, 0, 0, T, kPayload));

  CRecordFile reader(m_fs, closed);
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_INDEXED);
  EXPECT_EQ(reader.length(), D);
  EXPECT_EQ(reader.endTime(), T + 3);
  ASSERT_TRUE(reader.recordIndex());
  EXPECT_EQ(reader.recordIndex()->size(), 2u);
  EXPECT_EQ(reader.recordIndex()->getIFrameOffset(T + 2), 3u * kFrameLen);
}

// A record info that fails its check, and a file closed without key frames
// (an info with an empty index), leave a closed file without an index.
TEST_F(RecordFileTest, AFlippedBitInTheInfoOrNoKeyFrameMakesTheFileMissIndex) {
  for (bool flip : {true, false}) {
    SCOPED_TRACE(flip ? "flipped bit" : "no key frame");
    std::unique_ptr<CRecordFile> file =
        writing(flip ? kGop : std::vector<TestFrame>{{P, 0, T + 10}, {P, 0, T + 11}},
                flip ? T : T + 10);
    ASSERT_TRUE(file->close());
    EXPECT_EQ(file->recordInfo().indexLength, flip ? 32u : 0u);
    if (flip) {
      std::fstream f(m_store.root + "/" + file->fullName(), std::ios::in | std::ios::out | std::ios::binary);
      f.seekg(-64 + 20, std::ios::end);
      char c = static_cast<char>(f.get() ^ 0x04);
      f.seekp(-64 + 20, std::ios::end);
      f.write(&c, 1);
    }
    RecordFileName parsed;
    ASSERT_TRUE(parseRecordFileName(file->fullName(), parsed));
    EXPECT_EQ(parsed.indexState, static_cast<uint32_t>(RECORD_INDEX_INTERNAL));
    CRecordFile reader(m_fs, parsed);
    ASSERT_TRUE(reader.openForRead());
    EXPECT_EQ(reader.state(), CRecordFile::STATE_MISS_INDEX);
  }
}

TEST_F(RecordFileTest, AFileStillBeingWrittenReadsAsNotClosed) {
  std::unique_ptr<CRecordFile> file = writing();
  CRecordFile reader(m_fs, kOpen);
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_NOT_CLOSED);
  EXPECT_EQ(reader.endTime(), 0u);
  EXPECT_EQ(reader.length(), 5u * kFrameLen);  // what the store holds so far
  ZarnFileStat st;
  ASSERT_TRUE(reader.stat(st));
  EXPECT_TRUE(st.openForWrite);

  // The writer's live index makes the file seekable for the reader.
  reader.setRecordIndex(file->recordIndex());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_OPEN);
  EXPECT_EQ(reader.recordIndex()->getIFrameOffset(T + 3), 3u * kFrameLen);
  ASSERT_TRUE(file->close());
}

TEST_F(RecordFileTest, FailedIndexWriteStillRenamesAndAnIndexFileRepairsIt) {
  std::unique_ptr<CRecordFile> file = writing();
  const uint64_t D = file->length();
  m_backend.addRule(faultOn(StoreOp::FileWrite));
  EXPECT_FALSE(file->close());  // the info was not written
  m_backend.clearRules();
  const RecordFileName renamed = closedAt3(RECORD_INDEX_MISSING);
  EXPECT_EQ(file->fullName(), recordPath(renamed));
  EXPECT_EQ(readWhole(recordPath(renamed)).size(), D);  // data only

  // Index file beside it, as the index fixer writes one: the entries, then an
  // info with index offset 0.
  CIndexFile index(&m_fs, renamed, CRecordFile::MODE_WRITE);
  ASSERT_TRUE(index.open());
  ASSERT_TRUE(index.addIndex(I, 0, T, kFrameLen, 0));
  ASSERT_TRUE(index.addIndex(I, 0, T + 2, kFrameLen, 3 * kFrameLen));
  index.setEndTime(T + 3);
  index.setDataLength(D);
  ASSERT_TRUE(index.close());
  RecordFileName indexName = renamed;
  indexName.isIndex = 1;
  const Bytes indexBytes = readWhole(recordPath(indexName));
  ASSERT_EQ(indexBytes.size(), 32u + 64u);
  EXPECT_EQ(Bytes(indexBytes.begin() + 32, indexBytes.end()), recordInfo(T, T + 3, 0, 32, D));

  RecordFileName separate = renamed;
  separate.indexState = RECORD_INDEX_SEPARATE;
  ASSERT_TRUE(recordFileRename(m_fs, recordPath(renamed), separate));
  CRecordFile reader(m_fs, separate);
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_INDEXED);
  EXPECT_EQ(reader.length(), D);
  EXPECT_EQ(reader.recordIndex()->size(), 2u);
  EXPECT_EQ(reader.recordIndex()->getIFrameOffset(T + 3), 3u * kFrameLen);
}

// A failed first write makes the close remove the file; a failed close keeps the open name.
TEST_F(RecordFileTest, FailedFirstWriteRemovesAndFailedCloseKeepsTheOpenName) {
  std::unique_ptr<CRecordFile> file = writing({});
  m_backend.addRule(faultOn(StoreOp::FileWrite, 1));
  const Bytes frame = ZarnTest::makeFrame(I, 0, 0, T, kPayload);
  EXPECT_LT(file->write(frame.data(), kFrameLen), 0);
  EXPECT_EQ(listBucket().size(), 1u);
  EXPECT_TRUE(file->close());
  EXPECT_TRUE(listBucket().empty());

  file = writing();
  m_backend.addRule(faultOn(StoreOp::FileClose));
  EXPECT_FALSE(file->close());
  EXPECT_EQ(listBucket(), std::vector<std::string>{recordPath(kOpen)});
}

TEST_F(RecordFileTest, BlockTransfersRetryZeroByteCallsAndHonourTheirLimit) {
  std::unique_ptr<CFile> out = m_fs.createFile("media_7/blocks", 4, 1);
  ASSERT_TRUE(out);
  m_backend.addRule(faultOn(StoreOp::FileWrite, 3, true));
  const Bytes frame = ZarnTest::makeFrame(I, 0, 0, T, kPayload);
  EXPECT_TRUE(blockWrite(*out, frame.data(), kFrameLen));
  EXPECT_GE(m_backend.callCount(StoreOp::FileWrite), 4u);

  m_backend.clearRules();
  m_backend.addRule(faultOn(StoreOp::FileWrite, 0xFFFFFFFFu, true));
  EXPECT_FALSE(blockWrite(*out, frame.data(), kFrameLen, 20));
  m_backend.clearRules();
  ASSERT_TRUE(out->close());

  Bytes back(kFrameLen);
  std::unique_ptr<CFile> in = m_fs.openFile("media_7/blocks", StoreOpenMode::Read);
  ASSERT_TRUE(in);
  EXPECT_TRUE(blockRead(*in, back.data(), kFrameLen));
  EXPECT_EQ(back, frame);
  EXPECT_FALSE(blockRead(*in, back.data(), 1));  // the end of a file nobody writes
  EXPECT_TRUE(blockRead(*in, back.data(), 0));
}

// Reading a file open for writing, or adding to a complete index, is a programming error.
TEST_F(RecordFileTest, TheWrongSideOfAFileOrIndexIsAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        CRecordFile file(m_fs, kOpen);
        file.openForWrite(4, 1);
        char c;
        file.read(&c, 1);
      },
      "");
  CRecordFileIndex index;
  index.setComplete();
  EXPECT_DEATH(index.addIndex(IndexEntry::make(I, 0, 1, 1, 0)), "");
}

TEST_F(RecordFileTest, BufferedReadsSeeksAndTellAgreeWithTheBytes) {
  CRecordFile file(m_fs, kOpen);
  ASSERT_TRUE(file.openForWrite(4, 1));
  // 300 KB of frames: more than two read buffers.
  Bytes all;
  for (uint32_t i = 0; i < 250; ++i) {
    Bytes bytes = ZarnTest::makeFrame(i % 25 == 0 ? I : P, 0, i, T + i / 25, 1200);
    ASSERT_EQ(file.write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
    all.insert(all.end(), bytes.begin(), bytes.end());
  }
  CRecordFile reader(m_fs, kOpen);  // still being written: no info, reads go to the store's end
  ASSERT_TRUE(reader.openForRead());
  // Reads `length` bytes into `out` in pieces of `piece` and then `next` bytes
  // alternately (a head, a body, ...), checking the position after each.
  auto readAll = [&](Bytes& out, uint32_t piece, uint32_t next) {
    const int64_t start = reader.tell();
    for (size_t have = 0; have < out.size(); std::swap(piece, next)) {
      const int64_t n = reader.read(out.data() + have, std::min<uint32_t>(piece, static_cast<uint32_t>(out.size() - have)));
      ASSERT_GT(n, 0);
      have += static_cast<size_t>(n);
      EXPECT_EQ(reader.tell(), start + static_cast<int64_t>(have));
    }
  };
  Bytes got(all.size());
  readAll(got, 24, 1208);
  EXPECT_EQ(got, all);
  EXPECT_EQ(reader.read(got.data(), 10), 0);  // the writer still has it open: more may come

  // Seeks inside what is buffered, back across the buffer, relative, and to the end.
  const int64_t size = static_cast<int64_t>(all.size());
  for (auto [offset, origin, at] : {std::tuple{size - 100, 0, size - 100}, {10, 0, 10}, {1000, 1, 1018}}) {
    ASSERT_EQ(reader.seek(offset, origin), at);
    uint8_t b[8];
    ASSERT_EQ(reader.read(b, 8), 8);
    EXPECT_EQ(0, std::memcmp(b, &all[static_cast<size_t>(at)], 8)) << at;
  }
  ASSERT_EQ(reader.seek(0, 2), size);

  // Bytes appended after the buffer was filled are read once it is used up.
  const Bytes more = ZarnTest::makeFrame(P, 0, 250, T + 10, 50);
  ASSERT_EQ(file.write(more.data(), static_cast<uint32_t>(more.size())), static_cast<int64_t>(more.size()));
  Bytes tail(more.size());
  readAll(tail, static_cast<uint32_t>(tail.size()), static_cast<uint32_t>(tail.size()));
  EXPECT_EQ(tail, more);
  ASSERT_TRUE(file.close());

  // Nobody writes it now: the end (past its index and info) is told by the
  // result; a read that fails afterwards is a failure, whatever the thread's
  // last error said before.
  Bytes rest(CRecordFile::kReadBufferSize);
  int64_t n = 0;
  while ((n = reader.read(rest.data(), static_cast<uint32_t>(rest.size()))) > 0) {
  }
  EXPECT_EQ(n, CRecordFile::kEndOfFile);
  reader.close();
  EXPECT_EQ(reader.read(rest.data(), 10), -1);
  EXPECT_NE(getLastError(), ZARN_E_EOF);
}

// Small reads take a whole buffer from the store; once it is used up, a read
// of a frame-sized piece goes from the store straight to the caller in one
// call. Bytes and positions agree either way, also after a seek.
TEST_F(RecordFileTest, LargeReadsGoStraightToTheCallerOnceTheBufferIsUsedUp) {
  CRecordFile file(m_fs, kOpen);
  ASSERT_TRUE(file.openForWrite(4, 1));
  Bytes all(3 * CRecordFile::kReadBufferSize);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i * 7 + i / 251);
  ASSERT_EQ(file.write(all.data(), static_cast<uint32_t>(all.size())), static_cast<int64_t>(all.size()));
  CRecordFile reader(m_fs, kOpen);
  ASSERT_TRUE(reader.openForRead());

  Bytes got(all.size());
  size_t have = 0;
  // Reads `length` bytes (in as many calls as it takes); the store calls made.
  auto readPiece = [&](uint32_t length) {
    const uint64_t before = m_backend.callCount(StoreOp::FileRead);
    for (const size_t want = have + length; have < want;) {
      const int64_t n = reader.read(got.data() + have, static_cast<uint32_t>(want - have));
      EXPECT_GT(n, 0);
      if (n <= 0) break;
      have += static_cast<size_t>(n);
    }
    EXPECT_EQ(reader.tell(), static_cast<int64_t>(have));
    return m_backend.callCount(StoreOp::FileRead) - before;
  };
  EXPECT_EQ(readPiece(24), 1u);                                 // fills the buffer
  EXPECT_EQ(readPiece(CRecordFile::kReadBufferSize - 24), 0u);  // uses it up
  EXPECT_EQ(readPiece(CRecordFile::kDirectReadSize), 1u);       // straight in
  EXPECT_EQ(readPiece(100), 1u);                                // a new buffer
  EXPECT_EQ(readPiece(CRecordFile::kDirectReadSize - 1), 0u);   // from it
  EXPECT_EQ(0, std::memcmp(got.data(), all.data(), have));

  // Back to a position before the buffer: the next large read goes straight in.
  have = 10;
  ASSERT_EQ(reader.seek(10, 0), 10);
  EXPECT_EQ(readPiece(70000), 1u);
  EXPECT_EQ(0, std::memcmp(got.data() + 10, all.data() + 10, 70000));
}

}  // namespace
