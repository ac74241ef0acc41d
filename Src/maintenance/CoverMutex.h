// The urgent-recycling mutex: "media_system/CyclicCover.lock".
//
// Of all processes sharing a store, only the one holding this file recycles
// urgently, so that two of them short of space at once do not both remove a
// target's worth of the oldest video. Holding means having created the file
// and keeping it open for writing: the store reports such a file as open for
// writing to every other process. A process killed while holding it leaves a
// file nobody has open; the next taker removes that leftover first.
#pragma once

#include <memory>

#include "ZarnClient.h"

namespace Velto::Zarn {

inline constexpr const char* kCoverMutexPath = "media_system/CyclicCover.lock";

class CCoverMutex {
 public:
  CCoverMutex() = default;
  ~CCoverMutex() { leave(); }
  CCoverMutex(const CCoverMutex&) = delete;
  CCoverMutex& operator=(const CCoverMutex&) = delete;

  // true when this object holds the file afterwards. `fs` must outlive the hold.
  bool tryEnter(CZarnFileSystem& fs);
  // Closes and removes the file; nothing when not held.
  void leave();
  bool held() const { return m_file != nullptr; }

 private:
  CZarnFileSystem* m_fs = nullptr;
  std::unique_ptr<CFile> m_file;
};

}  // namespace Velto::Zarn
