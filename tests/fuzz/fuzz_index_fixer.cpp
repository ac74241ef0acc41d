// The input's bytes as a record file whose writer died, repaired by the index
// fixer. Whatever the bytes, the fixer reads nothing outside the file (the
// address sanitizer watches), a dry run reports what the repair then does,
// and an index file it writes holds entries a reader can trust: offsets
// strictly increasing, every frame (head and tail at least) inside the data it
// vouches for, that data inside the record file, times from begin to end.
//
// Byte 0 of the input picks the mode: bit 0 names the file with a state-0
// closed name (an end time) instead of an open name, bit 1 turns SVC off.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "FuzzStore.h"
#include "IndexFixer.h"
#include "RecordFile.h"
#include "RecordFileIndex.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

namespace {

std::string pathOf(const RecordFileName& name) {
  std::string s;
  generateRecordFileName(name, s);
  return s;
}

bool readAll(CZarnFileSystem& fs, const std::string& path, std::vector<uint8_t>& out) {
  std::unique_ptr<CFile> file = fs.openFile(path, StoreOpenMode::Read);
  if (!file) return false;
  uint8_t buffer[4096];
  for (;;) {
    const int64_t n = file->read(buffer, sizeof(buffer));
    if (n <= 0) break;
    out.insert(out.end(), buffer, buffer + n);
  }
  return true;
}

// Entries and info of the index file beside `record`, checked against the
// record file of `recordSize` bytes.
void checkIndexFile(CZarnFileSystem& fs, RecordFileName record, uint64_t recordSize, const IndexFixReport& report) {
  record.isIndex = 1;
  std::vector<uint8_t> bytes;
  if (!readAll(fs, pathOf(record), bytes)) __builtin_trap();  // rebuilt without an index file
  if (bytes.size() < RecordInfo::kSize || (bytes.size() - RecordInfo::kSize) % sizeof(IndexEntry) != 0)
    __builtin_trap();
  RecordInfo info;
  std::memcpy(&info, bytes.data() + bytes.size() - RecordInfo::kSize, sizeof(info));
  if (!info.isValid() || info.indexOffset != 0 || info.dataLength > recordSize ||
      info.dataLength != report.dataLength || info.indexLength != bytes.size() - RecordInfo::kSize ||
      info.indexLength / sizeof(IndexEntry) != report.keyFrames)
    __builtin_trap();
  uint64_t next = 0;
  for (size_t at = 0; at < info.indexLength; at += sizeof(IndexEntry)) {
    IndexEntry e;
    std::memcpy(&e, bytes.data() + at, sizeof(e));
    if (e.offset() < next || e.offset() + kMinFrameSize > info.dataLength) __builtin_trap();
    if (e.time < record.beginTime || e.time > report.endTime) __builtin_trap();
    next = e.offset() + 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > (1u << 20)) return 0;
  const uint8_t mode = data[0];
  RecordFileName work = ZarnFuzz::nextRecordName(RECORD_INDEX_MISSING);
  if ((mode & 1) == 0) {
    work.endTime = 0;
    work.realEndTime = 0;
  }
  const std::string workPath = pathOf(work);
  if (!ZarnFuzz::putFile(workPath, data + 1, size - 1)) return 0;
  const uint64_t recordSize = size - 1;

  CZarnFileSystem& fs = ZarnFuzz::store();
  IndexFixOptions options;
  options.svcEnabled = (mode & 2) == 0;
  options.dryRun = true;
  const IndexFixReport dry = CIndexFixer(fs, work, options).doFixIndex();
  options.dryRun = false;
  const IndexFixReport r = CIndexFixer(fs, work, options).doFixIndex();

  if (r.dataLength > recordSize) __builtin_trap();
  switch (r.outcome) {
    case IndexFixReport::kRebuilt: {
      if (dry.outcome != IndexFixReport::kWouldRebuild || dry.keyFrames != r.keyFrames || dry.frames != r.frames ||
          dry.endTime != r.endTime || dry.dataLength != r.dataLength)
        __builtin_trap();
      RecordFileName final;
      if (!parseRecordFileName(r.name, final) || final.indexState != RECORD_INDEX_SEPARATE) __builtin_trap();
      checkIndexFile(fs, final, recordSize, r);
      break;
    }
    case IndexFixReport::kNoFrames:
    case IndexFixReport::kTooSmall:
    case IndexFixReport::kComplete:
      if (dry.outcome != r.outcome) __builtin_trap();
      break;
    default:
      break;
  }

  // Every name the file or an index file may have ended under.
  std::vector<RecordFileName> names = {work};
  RecordFileName n;
  if (parseRecordFileName(r.name, n)) names.push_back(n);
  RecordFileName rebuilding = work;
  rebuilding.endTime = work.endTime != 0 ? work.endTime : work.beginTime;
  rebuilding.indexState = RECORD_INDEX_REBUILDING;
  names.push_back(rebuilding);
  for (RecordFileName name : names) {
    fs.removeFile(pathOf(name));
    name.isIndex = 1;
    fs.removeFile(pathOf(name));
  }
  return 0;
}
