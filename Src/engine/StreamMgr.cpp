#include "StreamMgr.h"

#include "MediaLog.h"

namespace Velto::Zarn {

using Velto::Kandu::CReadLock;
using Velto::Kandu::CWriteLock;

void CStreamMgr::addStreamWriter(uint32_t id, std::shared_ptr<CStreamWriter> writer) {
  size_t count;
  {
    CWriteLock lock(m_writersLock);
    m_writers.emplace(id, writer);
    count = m_writers.size();
  }
  ZLOG(TRACE, "StreamMgr", 0, "addStreamWriter: id:%u writer:%p. allCount: %ld\n", id, static_cast<void*>(writer.get()), static_cast<long>(count));
}

int32_t CStreamMgr::addStreamReader(std::shared_ptr<CStreamReader> reader) {
  int32_t candidate;
  size_t count;
  {
    CWriteLock lock(m_readersLock);
    do {
      // The counter wraps past the largest signed value; every negative counter
      // value then yields candidate 0, which is handed out once and skipped while
      // in use until the counter is non-negative again.
      m_lastSessionId = static_cast<int32_t>(static_cast<uint32_t>(m_lastSessionId) + 1u);
      candidate = m_lastSessionId < 0 ? 0 : m_lastSessionId;
    } while (m_readers.count(candidate) != 0);
    m_readers.emplace(candidate, reader);
    count = m_readers.size();
  }
  ZLOG(TRACE, "StreamMgr", 0, "addStreamReader: id:%d reader:%p. allCount: %ld\n", candidate, static_cast<void*>(reader.get()), static_cast<long>(count));
  return candidate;
}

std::shared_ptr<CStreamWriter> CStreamMgr::delStreamWriter(uint32_t id) {
  size_t count;
  std::shared_ptr<CStreamWriter> released;  // handed back, outside the lock
  {
    CWriteLock lock(m_writersLock);
    auto it = m_writers.find(id);
    if (it != m_writers.end()) {
      released = std::move(it->second);
      m_writers.erase(it);
    }
    count = m_writers.size();
  }
  ZLOG(TRACE, "StreamMgr", 0, "delStreamWriter: id:%u. allCount: %d\n", id, static_cast<int>(count));
  return released;
}

std::shared_ptr<CStreamReader> CStreamMgr::delStreamReader(int32_t id) {
  size_t count;
  std::shared_ptr<CStreamReader> released;
  {
    CWriteLock lock(m_readersLock);
    auto it = m_readers.find(id);
    if (it != m_readers.end()) {
      released = std::move(it->second);
      m_readers.erase(it);
    }
    count = m_readers.size();
  }
  ZLOG(TRACE, "StreamMgr", 0, "delStreamReader: id:%d. allCount: %ld\n", id, static_cast<long>(count));
  return released;
}

std::shared_ptr<CStreamWriter> CStreamMgr::getStreamWriter(uint32_t id) {
  CReadLock lock(m_writersLock);
  auto it = m_writers.find(id);
  return it == m_writers.end() ? nullptr : it->second;
}

std::shared_ptr<CStreamReader> CStreamMgr::getStreamReader(int32_t id) {
  CReadLock lock(m_readersLock);
  auto it = m_readers.find(id);
  return it == m_readers.end() ? nullptr : it->second;
}

bool CStreamMgr::hasStreamWriter(uint32_t id) {
  CReadLock lock(m_writersLock);
  return m_writers.count(id) != 0;
}

int32_t CStreamMgr::getStreamWriterCount() {
  CWriteLock lock(m_writersLock);  // exclusive on purpose: a consistent count against concurrent adds
  return static_cast<int32_t>(m_writers.size());
}

int32_t CStreamMgr::getStreamReaderCount() {
  CReadLock lock(m_readersLock);
  return static_cast<int32_t>(m_readers.size());
}

size_t CStreamMgr::getStreamIds(std::set<uint32_t>& out) {
  CWriteLock lock(m_writersLock);
  for (const auto& entry : m_writers) out.insert(entry.first);
  return out.size();
}

void CStreamMgr::setLastSessionIdForTest(int32_t value) {
  CWriteLock lock(m_readersLock);
  m_lastSessionId = value;
}

}  // namespace Velto::Zarn
