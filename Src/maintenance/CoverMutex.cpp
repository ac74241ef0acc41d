#include "CoverMutex.h"

#include "MediaLog.h"

namespace Velto::Zarn {

bool CCoverMutex::tryEnter(CZarnFileSystem& fs) {
  if (m_file) return true;
  for (int attempt = 0; attempt < 2; ++attempt) {
    m_file = fs.createFile(kCoverMutexPath, 1, 1);
    if (m_file) {
      m_fs = &fs;
      return true;
    }
    const int32_t error = getLastError();
    if (error == ZARN_E_OUT_OF_SYNC) {
      ZLOG_IN(WARN, "GENERAL", "tryEnterMutex", error, "data out of sync, try remove file: %s\n", kCoverMutexPath);
      fs.removeFile(kCoverMutexPath);
      continue;
    }
    if (error != ZARN_E_FILE_EXISTS) return false;
    ZarnFileStat stat;
    if (!fs.getFileStat(kCoverMutexPath, stat)) {
      // Gone meanwhile (its holder finished): try the creation once more.
      if (getLastError() == ZARN_E_NO_SUCH_FILE) continue;
      return false;
    }
    if (stat.openForWrite) return false;  // another instance holds it
    // A leftover of a holder that died. Two processes may both remove it; the
    // exclusive create lets only one of them take the file.
    if (!fs.removeFile(kCoverMutexPath) && getLastError() != ZARN_E_NO_SUCH_FILE) return false;
  }
  return false;
}

void CCoverMutex::leave() {
  if (!m_file) return;
  // Removed while still open: closed first, the file would look like a
  // leftover to another process, which could remove it and take a new one
  // that this removal would then take away from it.
  m_fs->removeFile(kCoverMutexPath);
  m_file->close();
  m_file.reset();
  m_fs = nullptr;
}

}  // namespace Velto::Zarn
