#include "RecordRemoval.h"

#include "LockSizeLedger.h"
#include "MediaLog.h"

namespace Velto::Zarn {

bool removeRecordFile(CZarnFileSystem& fs, const RecordFileName& record) {
  std::string name;
  if (!generateRecordFileName(record, name)) {
    ZLOG(ERROR, "GENERAL", 0, "generateRecordFileName failed\n");
    return false;
  }
  ZLOG(INFO, "GENERAL", 0, "remove : %s\n", name.c_str());
  if (!fs.removeFile(name)) {
    ZLOG(ERROR, "GENERAL", 0, "remove file failed [%s]\n", name.c_str());
    return false;
  }
  // Only record files count in the ledger, and only while they hold a lock.
  if (record.isIndex == 0 && record.lockCount != 0) minusLockSize(fs, record.size >> 20);
  return true;
}

}  // namespace Velto::Zarn
