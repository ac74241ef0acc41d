#include "LocalView.h"

#include <cstdlib>
#include <cstring>

#include "Cli.h"
#include "KanduClock.h"
#include "MediaConfig.h"
#include "QueryEnv.h"
#include "RecordFileName.h"
#include "RecordQuery.h"

namespace ZarnMedia {

int CLocalView::open(const COptions& options) {
  if (std::getenv("ZARN_LOG_LEVEL") == nullptr) setenv("ZARN_LOG_LEVEL", options.has("verbose") ? "info" : "off", 1);
  Velto::Zarn::CMediaConfig config;
  config.initWithFile("MediaConfig.cfg");
  std::vector<std::string> roots;
  if (!config.getCfgEnabled() || !config.getArray("stdfile_disk", roots)) return kExitOk;
  m_configured = roots.size();
  if (m_configured == 0 || !m_mgr.configure(config)) return kExitOk;
  const int rc = checkStoreExists(options);
  if (rc != kExitOk) return rc;
  const std::string address = options.store();
  if (!m_mgr.connect(m_fs, Velto::Zarn::Config{address.c_str(), 0, "root", ""})) {
    return fail(kExitStore, "cannot open the store at '%s': %s", address.c_str(), Velto::Zarn::getErrorMsg());
  }
  if (m_mgr.prepareMigration() == nullptr) std::abort();  // connected through the disks: the worker must exist
  m_active = true;
  return kExitOk;
}

int CLocalView::files(unsigned streamId, unsigned begin, unsigned end, std::vector<Velto::Zarn::RecordClipEx>& out) {
  // Nothing is being written by this process, and indexes are not repaired
  // here (zarn-media repair does that).
  static const Velto::Zarn::CWritingFileTable kNoWriters;
  const Velto::Zarn::QueryEnv env{Velto::Kandu::systemClock(), kNoWriters, nullptr};
  return Velto::Zarn::queryRecordFileList(env, m_fs, streamId, begin, end, out);
}

std::string CLocalView::whereIs(const char* fileName) {
  const char* slash = std::strchr(fileName, '/');
  if (!m_active || slash == nullptr) return "store";
  const int disk = m_mgr.disks()->find(std::string(fileName, slash), slash + 1);
  return disk < 0 ? "store" : "local:" + std::to_string(disk);
}

void CLocalView::collectAwaiting() {
  if (m_collected || !m_active) return;
  m_awaiting = m_mgr.migration()->awaiting();
  m_collected = true;
}

std::vector<CLocalView::Disk> CLocalView::disks() {
  std::vector<Disk> out;
  if (!m_active) return out;
  for (const auto& d : m_mgr.disks()->diskStates()) out.push_back(Disk{d.address, d.usable, d.totalBytes, d.freeBytes, 0, 0});
  collectAwaiting();
  for (const auto& f : m_awaiting) {
    out[f.disk].awaitingFiles += 1;
    out[f.disk].awaitingBytes += f.size;
  }
  return out;
}

CLocalView::StreamAwaiting CLocalView::awaitingOf(unsigned streamId) {
  StreamAwaiting out;
  collectAwaiting();
  for (const auto& f : m_awaiting) {
    Velto::Zarn::RecordFileName record;
    if (!Velto::Zarn::parseListedRecordFileName(f.path, record) || record.streamId != streamId) continue;
    ++out.files;
    out.bytes += f.size;
  }
  return out;
}

Velto::Zarn::CMigration::PassResult CLocalView::migrate() {
  m_collected = false;  // what waits changes with the pass
  return m_mgr.migration()->runPass();
}

}  // namespace ZarnMedia
