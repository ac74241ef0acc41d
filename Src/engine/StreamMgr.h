// CStreamMgr: the process-wide registry of live recording engines (one
// CStreamWriter per stream id) and playback engines (one CStreamReader per
// session id).
//
// Engines are held by shared ownership: the registry keeps one reference, every
// lookup hands its caller another for the duration of one call, so deleting an
// id never frees an engine under a running call. The two maps have independent
// locks and no operation takes both.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>

#include "KanduSync.h"

namespace Velto::Zarn {

class CStreamWriter;
class CStreamReader;

class CStreamMgr {
 public:
  // Inserts (id -> writer) unless the id is present; an existing entry is kept
  // and the new writer dropped.
  void addStreamWriter(uint32_t id, std::shared_ptr<CStreamWriter> writer);
  // Registers a reader under a fresh session id and returns it: 1, 2, 3, ...
  // skipping ids still in use.
  int32_t addStreamReader(std::shared_ptr<CStreamReader> reader);
  // Takes the id out of the registry and hands back its engine (empty when the
  // id is not registered): of two concurrent deletions one gets the engine.
  std::shared_ptr<CStreamWriter> delStreamWriter(uint32_t id);
  std::shared_ptr<CStreamReader> delStreamReader(int32_t id);
  // Empty when the id is not registered.
  std::shared_ptr<CStreamWriter> getStreamWriter(uint32_t id);
  std::shared_ptr<CStreamReader> getStreamReader(int32_t id);
  bool hasStreamWriter(uint32_t id);
  int32_t getStreamWriterCount();
  int32_t getStreamReaderCount();
  // Inserts every registered stream id into `out`; returns out's size.
  size_t getStreamIds(std::set<uint32_t>& out);

  // Test seam: sets the session-id counter (to exercise its wrap-around).
  void setLastSessionIdForTest(int32_t value);

 private:
  std::map<int32_t, std::shared_ptr<CStreamReader>> m_readers;  // guarded by m_readersLock
  std::map<uint32_t, std::shared_ptr<CStreamWriter>> m_writers;  // guarded by m_writersLock
  Velto::Kandu::CReadWriteMutex m_readersLock;
  Velto::Kandu::CReadWriteMutex m_writersLock;
  int32_t m_lastSessionId = 0;  // guarded by m_readersLock (write)
};

}  // namespace Velto::Zarn
