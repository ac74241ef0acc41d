#include "RecordLock.h"

#include "LockSizeLedger.h"
#include "MediaLog.h"
#include "RecordQuery.h"

namespace Velto::Zarn {

int32_t lockRecordFile(CZarnFileSystem& fs, RecordFileName& info) {
  if (info.indexState == RECORD_INDEX_MISSING || info.indexState == RECORD_INDEX_REBUILDING) {
    ZLOG(ERROR, "GENERAL", 0, "lockRecordFile failed ,the file's index may be miss or rebuilding\n");
    return -3;
  }
  if (info.lockCount >= kMaxNameLockCount) {
    ZLOG(WARN, "GENERAL", 0, "the file's lockNum has reached the RECORD_FILE_MAXLOCKNUM\n");
    return -1;
  }
  std::string name;
  if (!generateRecordFileName(info, name)) {
    ZLOG(ERROR, "GENERAL", 0, "stFileName generateRecordFileName failed\n");
    return -3;
  }
  RecordFileName locked = info;
  ++locked.lockCount;
  // The first lock counts the file before it shows as locked (see the header).
  const uint64_t megabytes = info.size >> 20;
  const bool counted = locked.lockCount == 1 && plusLockSize(fs, megabytes) == 0;
  if (!recordFileRename(fs, name, locked)) {
    ZLOG(ERROR, "GENERAL", 0, "rename RecordFile failed\n");
    if (counted) minusLockSize(fs, megabytes);
    return -3;
  }
  info.lockCount = locked.lockCount;
  return 0;
}

int32_t unlockRecordFile(CZarnFileSystem& fs, RecordFileName& info, bool all) {
  if (info.lockCount == 0) {
    ZLOG(WARN, "GENERAL", 0, "the file's lockNum has reached 0\n");
    return 0;
  }
  std::string name;
  if (!generateRecordFileName(info, name)) {
    ZLOG(ERROR, "GENERAL", 0, "stFileName generateRecordFileName failed\n");
    return -1;
  }
  RecordFileName unlocked = info;
  unlocked.lockCount = all ? 0 : static_cast<uint16_t>(info.lockCount - 1);
  if (!recordFileRename(fs, name, unlocked)) {
    ZLOG(ERROR, "GENERAL", 0, "rename RecordFile failed\n");
    return -1;
  }
  info.lockCount = unlocked.lockCount;
  if (info.lockCount == 0) minusLockSize(fs, info.size >> 20);
  return 0;
}

void unlockFiles(CZarnFileSystem& fs, std::vector<RecordFileName>& files) {
  for (RecordFileName& file : files) unlockRecordFile(fs, file, false);
}

int32_t lockRatio(CZarnFileSystem& fs) {
  SystemInfo info{};
  if (!fs.getSystemInfo(info)) {
    ZLOG(ERROR, "GENERAL", getLastError(), "getSystemInfo failed. %s\n", getErrorMsg());
    return -1;
  }
  uint64_t locked = 0;
  if (!getLockSize(fs, locked)) {
    ZLOG(ERROR, "GENERAL", 0, "getLockSize failed\n");
    return -1;
  }
  const uint64_t totalMiB = info.totalCapacity >> 20;
  if (totalMiB == 0) {
    ZLOG(ERROR, "GENERAL", 0, "getSystemInfo failed. %s\n", "the store reports no capacity");
    return -1;
  }
  return static_cast<int32_t>(locked * 10000 / totalMiB);
}

int32_t lockRange(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                  int32_t maxRatioPercent) {
  if (endTS < beginTS) {
    ZLOG(ERROR, "GENERAL", 0, "lock range of stream %u ends before it begins: [%u, %u)\n", streamId, beginTS, endTS);
    return -3;
  }
  std::vector<RecordFileName> files;
  if (gatherRecordFiles(env, fs, streamId, beginTS, endTS, files) < 0) {
    ZLOG(ERROR, "GENERAL", 0, "listRecordFileInfo failed\n");
    return -3;
  }
  std::vector<RecordFileName> lockedHere;
  int32_t result = 0;
  for (RecordFileName& file : files) {
    const int32_t ratio = lockRatio(fs);
    if (ratio < 0) {
      ZLOG(ERROR, "GENERAL", 0, "getLockRatio failed\n");
      unlockFiles(fs, lockedHere);
      return -3;
    }
    if (ratio / 100 >= maxRatioPercent) {
      ZLOG(ERROR, "GENERAL", 0, "[%d]reaches lock ratio limit[%d], unlock firstly\n", ratio / 100, maxRatioPercent);
      unlockFiles(fs, lockedHere);
      return -2;
    }
    if (file.endTime < beginTS) continue;  // also a file without an end in its name
    const int32_t locked = lockRecordFile(fs, file);
    if (locked == 0) {
      lockedHere.push_back(file);
    } else if (locked == -1) {
      result = -1;
    } else {
      unlockFiles(fs, lockedHere);
      return locked;
    }
  }
  return result;
}

int32_t unlockRange(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                    uint8_t& lockNum, bool all) {
  lockNum = 0;
  if (endTS < beginTS) {
    ZLOG(ERROR, "GENERAL", 0, "unlock range of stream %u ends before it begins: [%u, %u)\n", streamId, beginTS,
         endTS);
    return -1;
  }
  std::vector<RecordFileName> files;
  if (gatherRecordFiles(env, fs, streamId, beginTS, endTS, files) < 0) {
    ZLOG(ERROR, "GENERAL", 0, "listRecordFileInfo failed\n");
    return -1;
  }
  for (RecordFileName& file : files) {
    if (file.endTime < beginTS) continue;
    if (unlockRecordFile(fs, file, all) < 0) return -1;
    if (file.lockCount > lockNum) lockNum = static_cast<uint8_t>(file.lockCount);
  }
  return 0;
}

}  // namespace Velto::Zarn
