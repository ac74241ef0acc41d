#include "DamagedStore.h"

#include <gtest/gtest.h>

#include <cstring>

#include "TestSupport.h"
#include "VeltoFrame.h"

namespace ZarnTest {

using namespace Velto::Zarn;

RecordInfo& RecordFileBytes::info() {
  return *reinterpret_cast<RecordInfo*>(bytes.data() + bytes.size() - RecordInfo::kSize);
}

IndexEntry& RecordFileBytes::entry(size_t i) {
  return *reinterpret_cast<IndexEntry*>(bytes.data() + dataLength + i * sizeof(IndexEntry));
}

size_t RecordFileBytes::entryCount() { return (bytes.size() - RecordInfo::kSize - dataLength) / sizeof(IndexEntry); }

void RecordFileBytes::resealInfo() {
  RecordInfo& i = info();
  i = RecordInfo::make(i.beginTime, i.endTime, i.indexOffset, i.indexLength, i.dataLength);
}

void RecordFileBytes::setFrameLength(size_t i, uint32_t length) {
  uint8_t* head = bytes.data() + frameOffsets[i];
  std::memcpy(head + offsetof(VeltoFrameHead, length), &length, sizeof(length));
  sealFrameHead(head);
}

std::string RecordFileBytes::path() const {
  std::string out;
  EXPECT_TRUE(generateRecordFileName(name, out));
  return out;
}

RecordFileBytes buildRecordFile(uint32_t streamId, uint32_t begin, uint32_t frames, uint32_t gop, uint32_t payload) {
  RecordFileBytes f;
  std::vector<IndexEntry> index;
  for (uint32_t i = 0; i < frames; ++i) {
    const bool key = i % gop == 0;
    const uint32_t time = begin + i;
    std::vector<uint8_t> frame = makeFrame(key ? FRAME_TYPE_I : FRAME_TYPE_P, 0, i, time, payload);
    f.frameOffsets.push_back(f.bytes.size());
    f.frameTimes.push_back(time);
    f.keys.push_back(key);
    if (key) index.push_back(IndexEntry::make(FRAME_TYPE_I, 0, time, static_cast<uint32_t>(frame.size()), f.bytes.size()));
    f.bytes.insert(f.bytes.end(), frame.begin(), frame.end());
  }
  f.dataLength = f.bytes.size();
  const uint8_t* entries = reinterpret_cast<const uint8_t*>(index.data());
  f.bytes.insert(f.bytes.end(), entries, entries + index.size() * sizeof(IndexEntry));
  const uint32_t end = begin + frames - 1;
  const RecordInfo info = RecordInfo::make(index.empty() ? 0 : index.front().time, end, f.dataLength,
                                           static_cast<uint32_t>(index.size() * sizeof(IndexEntry)), f.dataLength);
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(&info);
  f.bytes.insert(f.bytes.end(), raw, raw + RecordInfo::kSize);
  f.name.streamId = streamId;
  f.name.beginTime = begin;
  f.name.endTime = end;
  f.name.realEndTime = end;
  f.name.type = 1;
  f.name.indexState = RECORD_INDEX_INTERNAL;
  return f;
}

void putFile(CZarnFileSystem& fs, const std::string& path, const std::vector<uint8_t>& bytes) {
  const std::string bucket = path.substr(0, path.find('/'));
  if (!fs.getBucket(bucket).isValid()) {
    ASSERT_TRUE(fs.createBucket(bucket));
  }
  std::unique_ptr<CFile> file = fs.createFile(path, 1, 0);
  ASSERT_TRUE(file) << path;
  ASSERT_TRUE(bytes.empty() || file->write(bytes.data(), static_cast<uint32_t>(bytes.size())) ==
                                   static_cast<int64_t>(bytes.size()));
  ASSERT_TRUE(file->close());
}

}  // namespace ZarnTest
