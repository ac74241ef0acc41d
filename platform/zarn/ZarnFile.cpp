// CFile: one open store file of a connection. It keeps the connection alive,
// refuses calls that do not fit its mode or come after close() or after the
// connection closed, and tells its listener when a call fails with a retryable
// code (DEGRADED) and when a later one succeeds (NORMAL).
#include "ZarnClient.h"

#include <cstring>
#include <string>

#include "ZarnClientImpl.h"

namespace Velto::Zarn {

using detail::fail;
using detail::isLive;

CFile::CFile(std::shared_ptr<detail::ClientCore> core, std::unique_ptr<IStoreFile> file, std::string path,
             StoreOpenMode mode)
    : m_core(std::move(core)), m_file(std::move(file)), m_path(std::move(path)), m_mode(mode) {}

CFile::~CFile() {
  if (m_file) {
    // Deliberately dropped: a caller that needs the result calls close().
    (void)m_file->close();
    m_file.reset();
  }
}

void CFile::noteResult(int32_t code) {
  int32_t next = m_state;
  if (code == ZARN_OK) {
    next = ZARN_FILE_STATE_NORMAL;
  } else if (isRetryableError(code)) {
    next = ZARN_FILE_STATE_DEGRADED;
  }
  if (next == m_state) return;
  m_state = next;
  if (IFileListener* l = m_listener.load()) l->onFileStateChanged(this, next);
}

int64_t CFile::fail(int32_t code) {
  noteResult(code);
  setLastError(code, m_path);  // after the listener, which may make calls of its own
  return -1;
}

bool CFile::usable(bool forRead, bool forWrite) {
  if (!m_file) {
    setLastError(ZARN_E_BAD_MODE, m_path + " is closed");
    return false;
  }
  if (!isLive(m_core)) {
    setLastError(ZARN_E_NOT_INITIALIZED, m_path);
    return false;
  }
  if ((forRead && m_mode != StoreOpenMode::Read) || (forWrite && m_mode != StoreOpenMode::Write)) {
    setLastError(ZARN_E_BAD_MODE, m_path);
    return false;
  }
  return true;
}

int64_t CFile::read(void* buffer, uint32_t length) {
  if (!usable(true, false)) return -1;
  int64_t n = m_file->read(buffer, length);
  if (n < 0) return fail(static_cast<int32_t>(n));
  noteResult(ZARN_OK);
  return n;
}

int64_t CFile::write(const void* buffer, uint32_t length) {
  if (!usable(false, true)) return -1;
  int64_t n = m_file->write(buffer, length);
  if (n < 0) return fail(static_cast<int32_t>(n));
  noteResult(ZARN_OK);
  return n;
}

int64_t CFile::writeGather(const StoreSlice* slices, uint32_t count) {
  if (!usable(false, true)) return -1;
  int64_t n = m_file->writeGather(slices, count);
  if (n < 0) return fail(static_cast<int32_t>(n));
  noteResult(ZARN_OK);
  return n;
}

int64_t CFile::seek(int64_t offset, int origin) {
  if (!usable(false, false)) return -1;
  if (origin < 0 || origin > 2) {
    setLastError(ZARN_E_INVALID_ARGUMENT, "seek origin " + std::to_string(origin));
    return -1;
  }
  int64_t pos = m_file->seek(offset, origin);
  if (pos < 0) return fail(static_cast<int32_t>(pos));
  noteResult(ZARN_OK);
  return pos;
}

int64_t CFile::tell() {
  if (!usable(false, false)) return -1;
  int64_t pos = m_file->tell();
  if (pos < 0) return fail(static_cast<int32_t>(pos));
  noteResult(ZARN_OK);
  return pos;
}

bool CFile::stat(ZarnFileStat& out) {
  if (!usable(false, false)) return false;
  ZarnFileStat st;
  int rc = m_file->stat(st);
  if (rc != 0) {
    fail(rc);
    return false;
  }
  noteResult(ZARN_OK);
  out = st;
  return true;
}

bool CFile::setOption(int32_t option, const void* value, uint32_t length) {
  if (option != ZARN_OPT_TIMEOUT_MS || value == nullptr || length != sizeof(int32_t)) {
    return ::Velto::Zarn::fail(ZARN_E_INVALID_ARGUMENT, "file option " + std::to_string(option));
  }
  int32_t v;
  std::memcpy(&v, value, sizeof v);
  if (v <= 0) return ::Velto::Zarn::fail(ZARN_E_INVALID_ARGUMENT, "time-out must be positive");
  m_timeoutMs = v;
  if (m_file) m_file->setCallTimeout(static_cast<uint32_t>(v));
  return true;
}

bool CFile::getOption(int32_t option, void* value, uint32_t& length) const {
  if (option != ZARN_OPT_TIMEOUT_MS || value == nullptr || length < sizeof(int32_t)) {
    return ::Velto::Zarn::fail(ZARN_E_INVALID_ARGUMENT, "file option " + std::to_string(option));
  }
  const int32_t timeoutMs = m_timeoutMs != 0 ? m_timeoutMs : (m_core ? m_core->timeoutMs.load() : 0);
  std::memcpy(value, &timeoutMs, sizeof timeoutMs);
  length = sizeof(int32_t);
  return true;
}

bool CFile::close() {
  if (!m_file) return ::Velto::Zarn::fail(ZARN_E_BAD_MODE, m_path + " is closed");
  int rc = m_file->close();
  m_file.reset();
  if (!isLive(m_core)) return ::Velto::Zarn::fail(ZARN_E_NOT_INITIALIZED, m_path);
  if (rc != 0) {
    fail(rc);
    return false;
  }
  return true;
}

}  // namespace Velto::Zarn
