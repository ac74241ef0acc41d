#include "LockSizeLedger.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

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
// Names listed per look: one ledger, plus room to see leftovers.
constexpr uint32_t kListedLedgers = 4;
// A leftover beside a newest name this old is no rename in progress.
constexpr int64_t kSettledLedgerSeconds = 120;

struct LedgerName {
  std::string name;  // without the bucket
  uint64_t total = 0;
  uint64_t unique = 0;
};

bool parseLedgerName(const std::string& name, LedgerName& out) {
  out.name = name;
  return std::sscanf(name.c_str(), kLedgerFormat, &out.total, &out.unique) == 2;
}

bool parseLedgerPath(const std::string& path, LedgerName& out) {
  size_t slash = path.find('/');
  return slash != std::string::npos && parseLedgerName(path.substr(slash + 1), out);
}

std::string makeLedgerPath(uint64_t total, uint64_t unique) {
  char name[128];
  int n = std::snprintf(name, sizeof(name), kLedgerFormat, total, unique);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof(name)) {
    ZLOG(ERROR, "GENERAL", 0, "generateLockSizeFileName faile\n");
    return std::string();
  }
  return std::string(kSystemBucket) + "/" + name;
}

uint64_t freshUnique() {
  return static_cast<uint64_t>(Velto::Kandu::systemClock().wallClockSeconds()) * 1000000ull + 100000ull +
         static_cast<uint64_t>(std::rand() % 900000);
}

// Several ledger names that outlast the looks. A rename made of a link and an
// unlink (CephFS) leaves its source and its target both in place when its
// process dies in between, and the target is the newer name: every update
// names its target with a unique part above its source's. So the newest name
// is the ledger; choosing it is what keeps the total from swinging between
// two chains of updates. An interrupted lock has counted its file (high by
// that file); an interrupted unlock has taken it off (its file was unlocked).
// Older names are removed once the newest is old enough that no rename into
// it can still be running (hosts' clocks assumed within that margin).
std::string chooseLedger(CZarnFileSystem& fs, const CNameList& names) {
  std::vector<LedgerName> ledgers;
  for (const std::string& name : names) {
    LedgerName l;
    if (parseLedgerName(name, l)) ledgers.push_back(l);
  }
  if (ledgers.empty()) return names.front();  // the caller reports it unreadable
  auto newest = std::max_element(ledgers.begin(), ledgers.end(),
                                 [](const LedgerName& a, const LedgerName& b) { return a.unique < b.unique; });
  const int64_t now = Velto::Kandu::systemClock().wallClockSeconds();
  const bool settled = static_cast<int64_t>(newest->unique / 1000000ull) + kSettledLedgerSeconds <= now;
  for (const LedgerName& l : ledgers) {
    if (&l == &*newest) continue;
    if (!settled) {
      // Usually another process's rename seen half done: routine under contention on CephFS.
      ZLOG(INFO, "GENERAL", 0, "two lockSize files [%s] and [%s]: the newer is used\n", newest->name.c_str(),
           l.name.c_str());
    } else if (fs.removeFile(std::string(kSystemBucket) + "/" + l.name)) {
      ZLOG(WARN, "GENERAL", 0, "removed stale lockSize file [%s] beside [%s]\n", l.name.c_str(),
           newest->name.c_str());
    }
  }
  return newest->name;
}

// One ledger update: total' = change(total), by renaming the ledger.
template <typename Change>
int32_t updateLockSize(CZarnFileSystem& fs, Change change) {
  for (;;) {
    LedgerName current;
    std::string currentPath = getLockSizeFileName(fs);
    if (currentPath.empty() || !parseLedgerPath(currentPath, current)) return -1;
    // Above the source's unique part even within one second (see chooseLedger).
    std::string next = makeLedgerPath(change(current.total), std::max(freshUnique(), current.unique + 1));
    if (next.empty()) return -1;
    ZLOG(INFO, "GENERAL", 0, "rename : %s >> %s\n", currentPath.c_str(), next.c_str());
    if (fs.renameFile(currentPath, next)) return 0;
    // Typically another process moved the ledger first: read its new name.
    ZLOG(INFO, "GENERAL", getLastError(), "rename failed : %s\n", getErrorMsg());
    Velto::Kandu::sleepMs(10);
  }
}

}  // namespace

std::string generateLockSizeFileName(uint64_t total) { return makeLedgerPath(total, freshUnique()); }

std::string getLockSizeFileName(CZarnFileSystem& fs) {
  CBucket bucket = fs.getBucket(kSystemBucket);
  if (!bucket.isValid()) {
    ZLOG(ERROR, "GENERAL", getLastError(), "getBucket failed : %s\n", getErrorMsg());
    return std::string();
  }
  CNameList names;
  // A directory read that overlaps another process's rename of the ledger may
  // see neither the old name nor the new one, or (a rename made of a link and
  // an unlink) both: only an answer of exactly one name is believed at once;
  // the others after a few more looks.
  for (int attempt = 0; attempt < kLedgerLookups && names.size() != 1; ++attempt) {
    if (attempt > 0) Velto::Kandu::sleepMs(2);
    names.clear();
    if (!bucket.list(names, "lockSize_", "lockSize_z", kListedLedgers)) {
      ZLOG(ERROR, "GENERAL", getLastError(), "list lockSize file failed [lockSize_*]\n");
      return std::string();
    }
  }
  if (names.empty()) {
    ZLOG(ERROR, "GENERAL", 0, "cannot find lockSize file [lockSize_*]\n");
    return std::string();
  }
  return std::string(kSystemBucket) + "/" + (names.size() == 1 ? names.front() : chooseLedger(fs, names));
}

bool getLockSize(CZarnFileSystem& fs, uint64_t& total) {
  std::string path = getLockSizeFileName(fs);
  LedgerName ledger;
  if (path.empty() || !parseLedgerPath(path, ledger)) return false;
  total = ledger.total;
  return true;
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
