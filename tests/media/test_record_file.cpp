// Record files and index files on a local store, through a fault-injecting
// backend: the bytes a close leaves behind, the states a reader sees, and what
// store faults do to a file.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "FaultInjectingBackend.h"
#include "IndexFile.h"
#include "KanduCrc.h"
#include "KanduTime.h"
#include "LocalStoreBackend.h"
#include "BlockTransfer.h"
#include "RecordFile.h"
#include "RecordFileName.h"
#include "TestSupport.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

namespace {

const uint32_t T = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2026, 5, 1, 23, 59, 30));
constexpr uint32_t kPayload = 100;
constexpr uint32_t kFrameLen = kMinFrameSize + kPayload;

struct TestFrame {
  uint8_t type;
  uint8_t subType;
  uint32_t time;
};

template <typename T>
T readLE(const std::vector<uint8_t>& bytes, size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

class RecordFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_root = m_dir.sub("store");
    m_backend = std::make_shared<CFaultInjectingBackend>(makeLocalStoreBackend(m_root));
    Config config{m_root.c_str(), 0, "root", ""};
    ASSERT_TRUE(m_fs.initializeWithBackend(config, m_backend));
    ASSERT_TRUE(m_fs.createBucket("media_7"));
  }

  static RecordFileName openName() {
    RecordFileName n;
    n.streamId = 7;
    n.beginTime = T;
    n.type = 1;
    return n;
  }

  // Writes frames the way a writer does: the whole frame, the last time, and an
  // index entry for a key frame. Returns D.
  uint64_t writeFrames(CRecordFile& file, const std::vector<TestFrame>& frames) {
    uint32_t seq = 0;
    for (const TestFrame& f : frames) {
      std::vector<uint8_t> bytes = ZarnTest::makeFrame(f.type, f.subType, seq++, f.time, kPayload);
      EXPECT_EQ(file.write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
      file.setLastTime(f.time);
      if (isKeyFrame(f.type, f.subType)) file.addIndex(f.type, f.subType, f.time, kFrameLen);
    }
    return file.length();
  }

  std::vector<uint8_t> readWhole(const std::string& path) {
    std::vector<uint8_t> out;
    std::unique_ptr<CFile> f = m_fs.openFile(path, StoreOpenMode::Read);
    EXPECT_TRUE(f);
    if (!f) return out;
    uint8_t buf[4096];
    for (;;) {
      int64_t n = f->read(buf, sizeof(buf));
      if (n <= 0) break;
      out.insert(out.end(), buf, buf + n);
    }
    return out;
  }

  static std::string nameOf(RecordFileName n) {
    std::string s;
    EXPECT_TRUE(generateRecordFileName(n, s));
    return s;
  }

  CFileList listBucket() {
    CFileList list;
    EXPECT_TRUE(m_fs.getBucket("media_7").list(list, "", "", 100));
    return list;
  }

  ZarnTest::TempDir m_dir;
  std::string m_root;
  std::shared_ptr<CFaultInjectingBackend> m_backend;
  CZarnFileSystem m_fs;
};

const std::vector<TestFrame> kGop = {{FRAME_TYPE_I, 0, T},
                                     {FRAME_TYPE_P, 0, T},
                                     {FRAME_TYPE_P, 0, T + 1},
                                     {FRAME_TYPE_I, 0, T + 2},
                                     {FRAME_TYPE_P, 0, T + 3}};

TEST_F(RecordFileTest, CloseAppendsIndexAndInfoAndRenamesToTheClosedName) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  EXPECT_EQ(file.state(), CRecordFile::STATE_OPEN);
  const uint64_t D = writeFrames(file, kGop);
  ASSERT_EQ(D, 5u * kFrameLen);
  ASSERT_TRUE(file.close());

  RecordFileName closed = openName();
  closed.endTime = T + 3;
  closed.indexState = RECORD_INDEX_INTERNAL;
  EXPECT_EQ(file.fullName(), nameOf(closed));
  CFileList files = listBucket();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ("media_7/" + files[0].name, nameOf(closed));  // the open name is gone

  std::vector<uint8_t> bytes = readWhole(nameOf(closed));
  ASSERT_EQ(bytes.size(), D + 2 * 16 + 64);
  // Index region: two entries right after the data.
  const size_t idx = D;
  EXPECT_EQ(bytes[idx + 0], 0xFD);
  EXPECT_EQ(bytes[idx + 1], 0);
  EXPECT_EQ(readLE<uint16_t>(bytes, idx + 2), 0);
  EXPECT_EQ(readLE<uint32_t>(bytes, idx + 4), T);
  EXPECT_EQ(readLE<uint32_t>(bytes, idx + 8), kFrameLen);  // length, offset bits 32-39 = 0
  EXPECT_EQ(readLE<uint32_t>(bytes, idx + 12), 0u);
  EXPECT_EQ(readLE<uint32_t>(bytes, idx + 16 + 4), T + 2);
  EXPECT_EQ(readLE<uint32_t>(bytes, idx + 16 + 12), 3 * kFrameLen);
  // Record info.
  const size_t info = D + 32;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&bytes[info]), 4), "VZMF");
  EXPECT_EQ(readLE<uint32_t>(bytes, info + 4), 0u);
  EXPECT_EQ(readLE<uint32_t>(bytes, info + 8), T);
  EXPECT_EQ(readLE<uint32_t>(bytes, info + 12), T + 3);
  EXPECT_EQ(readLE<uint64_t>(bytes, info + 16), D);
  EXPECT_EQ(readLE<uint32_t>(bytes, info + 24), 32u);
  EXPECT_EQ(readLE<uint32_t>(bytes, info + 28), 0u);
  EXPECT_EQ(readLE<uint64_t>(bytes, info + 32), D);
  for (size_t i = 40; i < 60; ++i) EXPECT_EQ(bytes[info + i], 0) << i;
  EXPECT_EQ(readLE<uint32_t>(bytes, info + 60), Velto::Kandu::crc32(&bytes[info], 60));

  CRecordFile reader(m_fs, closed);
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_INDEXED);
  EXPECT_FALSE(reader.needIndexFromElsewhere());
  EXPECT_EQ(reader.length(), D);
  EXPECT_EQ(reader.endTime(), T + 3);
  ASSERT_TRUE(reader.recordIndex());
  EXPECT_EQ(reader.recordIndex()->size(), 2u);
  EXPECT_EQ(reader.recordIndex()->getIFrameOffset(T + 2), 3u * kFrameLen);
  std::vector<uint8_t> head(kFrameLen);
  ASSERT_TRUE(blockRead(*m_fs.openFile(nameOf(closed), StoreOpenMode::Read), head.data(), kFrameLen));
  EXPECT_EQ(head, ZarnTest::makeFrame(FRAME_TYPE_I, 0, 0, T, kPayload));
}

TEST_F(RecordFileTest, AFlippedBitInTheInfoMakesTheFileMissIndex) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  writeFrames(file, kGop);
  ASSERT_TRUE(file.close());
  std::string onDisk = m_root + "/" + file.fullName();
  {
    std::fstream f(onDisk, std::ios::in | std::ios::out | std::ios::binary);
    f.seekg(-64 + 20, std::ios::end);
    char c = 0;
    f.read(&c, 1);
    c ^= 0x04;
    f.seekp(-64 + 20, std::ios::end);
    f.write(&c, 1);
  }
  RecordFileName parsed;
  ASSERT_TRUE(parseRecordFileName(file.fullName(), parsed));
  CRecordFile reader(m_fs, parsed);
  ZarnTest::LogCapture log;
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_MISS_INDEX);
  EXPECT_TRUE(reader.needIndexFromElsewhere());
  EXPECT_TRUE(log.contains("load record info failed."));
}

TEST_F(RecordFileTest, AFileClosedWithoutKeyFramesHasNoIndex) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  writeFrames(file, {{FRAME_TYPE_P, 0, T}, {FRAME_TYPE_P, 0, T + 1}});
  ASSERT_TRUE(file.close());
  EXPECT_EQ(file.recordInfo().indexLength, 0u);
  RecordFileName parsed;
  ASSERT_TRUE(parseRecordFileName(file.fullName(), parsed));
  EXPECT_EQ(parsed.indexState, static_cast<uint32_t>(RECORD_INDEX_INTERNAL));
  CRecordFile reader(m_fs, parsed);
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_MISS_INDEX);
}

TEST_F(RecordFileTest, AFileStillBeingWrittenReadsAsNotClosed) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  writeFrames(file, kGop);

  CRecordFile reader(m_fs, openName());
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_NOT_CLOSED);
  EXPECT_TRUE(reader.needIndexFromElsewhere());
  EXPECT_EQ(reader.endTime(), 0u);
  EXPECT_EQ(reader.length(), 5u * kFrameLen);  // what the store holds so far
  ZarnFileStat st;
  ASSERT_TRUE(reader.stat(st));
  EXPECT_TRUE(st.openForWrite);

  // The writer's live index makes the file seekable for the reader.
  reader.setRecordIndex(file.recordIndex());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_OPEN);
  EXPECT_EQ(reader.recordIndex()->getIFrameOffset(T + 3), 3u * kFrameLen);
  ASSERT_TRUE(file.close());
}

TEST_F(RecordFileTest, FailedIndexWriteStillRenamesAndAnIndexFileRepairsIt) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  const uint64_t D = writeFrames(file, kGop);
  FaultRule rule;
  rule.op = StoreOp::FileWrite;
  rule.code = ZARN_E_IO;
  m_backend->addRule(rule);
  ZarnTest::LogCapture log;
  EXPECT_FALSE(file.close());  // the info was not written
  m_backend->clearRules();
  EXPECT_TRUE(log.contains("write record index failed."));

  RecordFileName renamed = openName();
  renamed.endTime = T + 3;
  renamed.indexState = RECORD_INDEX_MISSING;
  EXPECT_EQ(file.fullName(), nameOf(renamed));
  EXPECT_EQ(readWhole(nameOf(renamed)).size(), D);  // data only

  // Index file beside it, as the index fixer writes one.
  CIndexFile index(&m_fs, renamed, CRecordFile::MODE_WRITE);
  ASSERT_TRUE(index.open());
  ASSERT_TRUE(index.addIndex(FRAME_TYPE_I, 0, T, kFrameLen, 0));
  ASSERT_TRUE(index.addIndex(FRAME_TYPE_I, 0, T + 2, kFrameLen, 3 * kFrameLen));
  index.setEndTime(T + 3);
  index.setDataLength(D);
  ASSERT_TRUE(index.close());
  RecordFileName indexName = renamed;
  indexName.isIndex = 1;
  std::vector<uint8_t> indexBytes = readWhole(nameOf(indexName));
  ASSERT_EQ(indexBytes.size(), 32u + 64u);
  EXPECT_EQ(readLE<uint64_t>(indexBytes, 32 + 16), 0u);  // index offset
  EXPECT_EQ(readLE<uint32_t>(indexBytes, 32 + 24), 32u);
  EXPECT_EQ(readLE<uint64_t>(indexBytes, 32 + 32), D);

  RecordFileName separate = renamed;
  separate.indexState = RECORD_INDEX_SEPARATE;
  ASSERT_TRUE(recordFileRename(m_fs, nameOf(renamed), separate));
  CRecordFile reader(m_fs, separate);
  ASSERT_TRUE(reader.openForRead());
  EXPECT_EQ(reader.state(), CRecordFile::STATE_INDEXED);
  EXPECT_EQ(reader.length(), D);
  EXPECT_EQ(reader.recordIndex()->size(), 2u);
  EXPECT_EQ(reader.recordIndex()->getIFrameOffset(T + 3), 3u * kFrameLen);
}

TEST_F(RecordFileTest, AFailedFirstWriteMakesCloseRemoveTheFile) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  FaultRule rule;
  rule.op = StoreOp::FileWrite;
  rule.times = 1;
  m_backend->addRule(rule);
  std::vector<uint8_t> frame = ZarnTest::makeFrame(FRAME_TYPE_I, 0, 0, T, kPayload);
  EXPECT_LT(file.write(frame.data(), kFrameLen), 0);
  EXPECT_TRUE(file.isEmptyFileFault());
  EXPECT_EQ(listBucket().size(), 1u);
  EXPECT_TRUE(file.close());
  EXPECT_TRUE(listBucket().empty());
}

TEST_F(RecordFileTest, AFailedCloseKeepsTheOpenName) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  writeFrames(file, kGop);
  FaultRule rule;
  rule.op = StoreOp::FileClose;
  m_backend->addRule(rule);
  ZarnTest::LogCapture log;
  EXPECT_FALSE(file.close());
  EXPECT_TRUE(log.contains("close record file failed."));
  CFileList files = listBucket();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ("media_7/" + files[0].name, nameOf(openName()));
}

TEST_F(RecordFileTest, BlockTransfersRetryZeroByteCallsAndHonourTheirLimit) {
  std::unique_ptr<CFile> out = m_fs.createFile("media_7/blocks", 4, 1);
  ASSERT_TRUE(out);
  FaultRule zero;
  zero.op = StoreOp::FileWrite;
  zero.zeroBytes = true;
  zero.times = 3;
  m_backend->addRule(zero);
  std::vector<uint8_t> frame = ZarnTest::makeFrame(FRAME_TYPE_I, 0, 0, T, kPayload);
  EXPECT_TRUE(blockWrite(*out, frame.data(), kFrameLen));
  EXPECT_GE(m_backend->callCount(StoreOp::FileWrite), 4u);

  zero.times = 0xFFFFFFFFu;
  m_backend->clearRules();
  m_backend->addRule(zero);
  ZarnTest::LogCapture log;
  EXPECT_FALSE(blockWrite(*out, frame.data(), kFrameLen, 20));
  EXPECT_TRUE(log.contains("block write timeout, return false. writed: 0. timeout: 20."));
  m_backend->clearRules();
  ASSERT_TRUE(out->close());

  std::vector<uint8_t> back(kFrameLen);
  std::unique_ptr<CFile> in = m_fs.openFile("media_7/blocks", StoreOpenMode::Read);
  ASSERT_TRUE(in);
  EXPECT_TRUE(blockRead(*in, back.data(), kFrameLen));
  EXPECT_EQ(back, frame);
  EXPECT_FALSE(blockRead(*in, back.data(), 1));  // the end of a file nobody writes
  EXPECT_TRUE(blockRead(*in, back.data(), 0));
}

TEST_F(RecordFileTest, LockCountsNeverGoBelowZero) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  EXPECT_EQ(file.incLockCount(), 1);
  EXPECT_EQ(file.incLockCount(), 2);
  EXPECT_EQ(file.decLockCount(false), 1);
  EXPECT_EQ(file.decLockCount(true), 0);
  EXPECT_EQ(file.decLockCount(false), 0);
  file.close();
}

TEST_F(RecordFileTest, TheWrongSideOfAFileIsAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        CRecordFile file(m_fs, openName());
        file.openForWrite(4, 1);
        char c;
        file.read(&c, 1);
      },
      "");
}

TEST_F(RecordFileTest, BufferedReadsSeeksAndTellAgreeWithTheBytes) {
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  // 300 KB of frames: more than two read buffers.
  std::vector<TestFrame> frames;
  for (uint32_t i = 0; i < 250; ++i) frames.push_back({i % 25 == 0 ? FRAME_TYPE_I : FRAME_TYPE_P, 0, T + i / 25});
  std::vector<uint8_t> all;
  uint32_t seq = 0;
  for (const TestFrame& f : frames) {
    std::vector<uint8_t> bytes = ZarnTest::makeFrame(f.type, 0, seq++, f.time, 1200);
    ASSERT_EQ(file.write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int64_t>(bytes.size()));
    all.insert(all.end(), bytes.begin(), bytes.end());
  }
  CRecordFile reader(m_fs, openName());  // still being written: no info, reads go to the store's end
  ASSERT_TRUE(reader.openForRead());
  std::vector<uint8_t> got(all.size());
  size_t have = 0;
  uint32_t piece = 24;
  while (have < all.size()) {
    int64_t n = reader.read(got.data() + have, std::min<uint32_t>(piece, static_cast<uint32_t>(all.size() - have)));
    ASSERT_GT(n, 0);
    have += static_cast<size_t>(n);
    EXPECT_EQ(reader.tell(), static_cast<int64_t>(have));
    piece = piece == 24 ? 1208 : 24;  // head, body, head, ...
  }
  EXPECT_EQ(got, all);
  EXPECT_EQ(reader.read(got.data(), 10), 0);  // the writer still has it open: more may come

  // Seeks inside what is buffered, back across the buffer, relative, and to the end.
  ASSERT_EQ(reader.seek(all.size() - 100, 0), static_cast<int64_t>(all.size() - 100));
  uint8_t b[8];
  ASSERT_EQ(reader.read(b, 8), 8);
  EXPECT_EQ(0, std::memcmp(b, &all[all.size() - 100], 8));
  ASSERT_EQ(reader.seek(10, 0), 10);
  ASSERT_EQ(reader.read(b, 8), 8);
  EXPECT_EQ(0, std::memcmp(b, &all[10], 8));
  ASSERT_EQ(reader.seek(1000, 1), 1018);
  ASSERT_EQ(reader.read(b, 8), 8);
  EXPECT_EQ(0, std::memcmp(b, &all[1018], 8));
  ASSERT_EQ(reader.seek(0, 2), static_cast<int64_t>(all.size()));

  // Bytes appended after the buffer was filled are read once it is used up.
  std::vector<uint8_t> more = ZarnTest::makeFrame(FRAME_TYPE_P, 0, seq, T + 10, 50);
  ASSERT_EQ(file.write(more.data(), static_cast<uint32_t>(more.size())), static_cast<int64_t>(more.size()));
  std::vector<uint8_t> tail(more.size());
  size_t t = 0;
  while (t < tail.size()) {
    int64_t n = reader.read(tail.data() + t, static_cast<uint32_t>(tail.size() - t));
    ASSERT_GT(n, 0);
    t += static_cast<size_t>(n);
  }
  EXPECT_EQ(tail, more);
  ASSERT_TRUE(file.close());

  // Nobody writes it now: the end (past its index and info) is told by the
  // result; a read that fails afterwards is a failure, whatever the thread's
  // last error said before.
  std::vector<uint8_t> rest(CRecordFile::kReadBufferSize);
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
  CRecordFile file(m_fs, openName());
  ASSERT_TRUE(file.openForWrite(4, 1));
  std::vector<uint8_t> all(3 * CRecordFile::kReadBufferSize);
  for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i * 7 + i / 251);
  ASSERT_EQ(file.write(all.data(), static_cast<uint32_t>(all.size())), static_cast<int64_t>(all.size()));
  CRecordFile reader(m_fs, openName());
  ASSERT_TRUE(reader.openForRead());

  std::vector<uint8_t> got(all.size());
  size_t have = 0;
  // Reads `length` bytes (in as many calls as it takes); the store calls made.
  auto readPiece = [&](uint32_t length) {
    const uint64_t before = m_backend->callCount(StoreOp::FileRead);
    const size_t want = have + length;
    while (have < want) {
      const int64_t n = reader.read(got.data() + have, static_cast<uint32_t>(want - have));
      EXPECT_GT(n, 0);
      if (n <= 0) break;
      have += static_cast<size_t>(n);
    }
    EXPECT_EQ(reader.tell(), static_cast<int64_t>(have));
    return m_backend->callCount(StoreOp::FileRead) - before;
  };
  EXPECT_EQ(readPiece(24), 1u);                                       // fills the buffer
  EXPECT_EQ(readPiece(CRecordFile::kReadBufferSize - 24), 0u);        // uses it up
  EXPECT_EQ(readPiece(CRecordFile::kDirectReadSize), 1u);             // straight in
  EXPECT_EQ(readPiece(100), 1u);                                      // a new buffer
  EXPECT_EQ(readPiece(CRecordFile::kDirectReadSize - 1), 0u);         // from it
  EXPECT_EQ(0, std::memcmp(got.data(), all.data(), have));

  // Back to a position before the buffer: the next large read goes straight in.
  have = 10;
  ASSERT_EQ(reader.seek(10, 0), 10);
  EXPECT_EQ(readPiece(70000), 1u);
  EXPECT_EQ(0, std::memcmp(got.data() + 10, all.data() + 10, 70000));
}

}  // namespace
