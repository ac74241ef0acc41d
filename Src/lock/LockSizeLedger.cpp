#include "LockSizeLedger.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "MediaLog.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "MediaValues.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

namespace {

constexpr const char* kLedgerFormat = "lockSize_%" PRIu64 "_%" PRIu64 ".temp";
constexpr const char* kGuardPath = "media_system/sys.lock";
constexpr int kLedgerLookups = 5;

bool parseLedgerPath(const std::string& path, uint64_t& total) {
  size_t slash = path.find('/');
  if (slash == std::string::npos) return false;
  uint64_t unique = 0;
  return std::sscanf(path.c_str() + slash + 1, kLedgerFormat, &total, &unique) == 2;
}

// One ledger update: total' = change(total), by renaming the ledger.
template <typename Change>
int32_t updateLockSize(CZarnFileSystem& fs, Change change) {
  for (;;) {
    std::string current = getLockSizeFileName(fs);
    uint64_t total = 0;
    if (current.empty() || !parseLedgerPath(current, total)) return -1;
    std::string next = generateLockSizeFileName(change(total));
    if (next.empty()) return -1;
    ZLOG(INFO, "GENERAL", 0, "rename : %s >> %s\n", current.c_str(), next.c_str());
    if (fs.renameFile(current, next)) return 0;
    // Typically another process moved the ledger first: read its new name.
    ZLOG(INFO, "GENERAL", getLastError(), "rename failed : %s\n", getErrorMsg());
    Velto::Kandu::sleepMs(10);
  }
}

}  // namespace

std::string generateLockSizeFileName(uint64_t total) {
  uint64_t unique = static_cast<uint64_t>(Velto::Kandu::systemClock().wallClockSeconds()) * 1000000ull + 100000ull +
                    static_cast<uint64_t>(std::rand() % 900000);
  char name[128];
  int n = std::snprintf(name, sizeof(name), kLedgerFormat, total, unique);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof(name)) {
    ZLOG(ERROR, "GENERAL", 0, "generateLockSizeFileName faile\n");
    return std::string();
  }
  return std::string(kSystemBucket) + "/" + name;
}

std::string getLockSizeFileName(CZarnFileSystem& fs) {
  CBucket bucket = fs.getBucket(kSystemBucket);
  if (!bucket.isValid()) {
    ZLOG(ERROR, "GENERAL", getLastError(), "getBucket failed : %s\n", getErrorMsg());
    return std::string();
  }
  CNameList names;
  // A directory read that overlaps another process's rename of the ledger may
  // see neither the old name nor the new one: an empty answer is only believed
  // after a few more looks.
  for (int attempt = 0; attempt < kLedgerLookups && names.empty(); ++attempt) {
    if (attempt > 0) Velto::Kandu::sleepMs(2);
    if (!bucket.list(names, "lockSize_", "lockSize_z", 1)) {
      ZLOG(ERROR, "GENERAL", getLastError(), "list lockSize file failed [lockSize_*]\n");
      return std::string();
    }
  }
  if (names.empty()) {
    ZLOG(ERROR, "GENERAL", 0, "cannot find lockSize file [lockSize_*]\n");
    return std::string();
  }
  return std::string(kSystemBucket) + "/" + names.front();
}

bool getLockSize(CZarnFileSystem& fs, uint64_t& total) {
  std::string path = getLockSizeFileName(fs);
  return !path.empty() && parseLedgerPath(path, total);
}

int32_t plusLockSize(CZarnFileSystem& fs, uint64_t megabytes) {
  if (megabytes == 0) return 0;
  return updateLockSize(fs, [megabytes](uint64_t total) { return total + megabytes; });
}

int32_t minusLockSize(CZarnFileSystem& fs, uint64_t megabytes) {
  if (megabytes == 0) return 0;
  return updateLockSize(fs, [megabytes](uint64_t total) { return megabytes > total ? 0 : total - megabytes; });
}

bool checkSysFile(CZarnFileSystem& fs) {
  if (!fs.getBucket(kSystemBucket).isValid() && !fs.createBucket(kSystemBucket) &&
      getLastError() != ZARN_E_BUCKET_EXISTS) {
    ZLOG(ERROR, "GENERAL", getLastError(), "create bucket %s failed : %s\n", kSystemBucket, getErrorMsg());
    return false;
  }
  uint64_t total = 0;
  if (getLockSize(fs, total)) return true;

  ZLOG(ERROR, "GENERAL", 0, "checkSysFile failed, lockSizeFile is lost\n");
  // A guard that exists but is not open for writing is the leftover of a
  // creator that died; one still open for writing belongs to a live creator.
  if (std::unique_ptr<CFile> guard = fs.openFile(kGuardPath, StoreOpenMode::Read)) {
    ZarnFileStat st;
    bool statOk = guard->stat(st);
    guard->close();
    if (statOk && !st.openForWrite) {
      fs.removeFile(kGuardPath);
    } else {
      ZLOG(WARN, "GENERAL", 0, "media_system Locked by other SS.\n");
      return false;
    }
  } else if (getLastError() == ZARN_E_OUT_OF_SYNC) {
    ZLOG(ERROR, "GENERAL", getLastError(), "data out of sync, try remove file: %s\n", kGuardPath);
    fs.removeFile(kGuardPath);
  }

  CMediaValues& values = CMediaValues::instance();
  std::unique_ptr<CFile> guard = fs.createFile(kGuardPath, values.ecDataNum.load(), values.ecParityNum.load());
  if (!guard) return false;
  // Another creator may have finished between our first look and taking the
  // guard: creating a second ledger would split the total.
  if (getLockSize(fs, total)) {
    guard->close();
    fs.removeFile(kGuardPath);
    return true;
  }
  std::string ledgerPath = generateLockSizeFileName(0);
  std::unique_ptr<CFile> ledger =
      ledgerPath.empty() ? nullptr : fs.createFile(ledgerPath, values.ecDataNum.load(), values.ecParityNum.load());
  if (!ledger) {
    ZLOG(ERROR, "GENERAL", getLastError(), "checkSysFile failed,create lockSizeFile failed : %s\n", getErrorMsg());
    guard->close();
    fs.removeFile(kGuardPath);
    return false;
  }
  ledger->close();
  guard->close();
  fs.removeFile(kGuardPath);
  return true;
}

}  // namespace Velto::Zarn
