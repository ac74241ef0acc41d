// Record files built byte by byte, laid out as the writer lays them out
// (frames, key-frame index, record info), so that a test can damage any byte
// and put the file into a store under any name: each kind of damage is one line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "RecordFile.h"
#include "RecordFileName.h"
#include "ZarnClient.h"

namespace ZarnTest {

struct RecordFileBytes {
  Velto::Zarn::RecordFileName name;  // its closed name (index state 1: the index inside)
  std::vector<uint8_t> bytes;        // data, index, record info
  uint64_t dataLength = 0;
  std::vector<uint64_t> frameOffsets;
  std::vector<uint32_t> frameTimes;
  std::vector<bool> keys;

  Velto::Zarn::RecordInfo& info();
  Velto::Zarn::IndexEntry& entry(size_t i);
  size_t entryCount();
  // Recomputes the record info's CRC after a field was changed.
  void resealInfo();
  // Sets frame `i`'s head length field and reseals the head checksum.
  void setFrameLength(size_t i, uint32_t length);
  std::string path() const;  // the full name of `name`
};

// `frames` frames one second apart from `begin`, a key frame every `gop`, each
// `payload` bytes of payload; frame i has sequence number i.
RecordFileBytes buildRecordFile(uint32_t streamId, uint32_t begin, uint32_t frames, uint32_t gop = 5,
                                uint32_t payload = 200);

// Writes `bytes` into the store as the file `path` ("bucket/name"), making the
// bucket when it is missing.
void putFile(Velto::Zarn::CZarnFileSystem& fs, const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace ZarnTest
