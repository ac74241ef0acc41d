// CReaderFrameBuffer: the frames a stream reader has read ahead of its host,
// and the pool of frame items they travel in.
//
// The worker takes an item for each frame (a spare one when one fits), reads
// the frame into it and appends it; readFrame pops items off the front on a
// host thread. A host call that restarts the reading (seek, order change)
// clears the buffer, which bumps the generation: an append made under an older
// generation is refused, so a frame read before the restart is never handed
// out after it.
//
// Wake-ups: a blocking readFrame asleep on an empty buffer is woken once a
// batch of frames or bytes is buffered, when the worker's run ends, or when the
// session ends or fails; a wake-up is a context switch on each side and costs
// more than copying many frames, so a caller that drains faster than the worker
// reads gets one per batch, not one per frame.
//
// Thread-safe: one mutex guards everything here. Lock order: the reader's
// status mutex, then this buffer's mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "KanduSync.h"

namespace Velto::Zarn {

class CReaderFrameBuffer {
 public:
  struct FrameItem {
    std::unique_ptr<uint8_t[]> bytes;  // the whole frame, `length` bytes of `capacity`
    uint64_t capacity = 0;
    uint32_t length = 0;
    uint64_t offset = 0;               // of its head in the record file
    uint32_t time = 0;                 // UTC seconds (index time for key frames of an indexed file)
  };

  // Items kept for reuse: a steady stream allocates nothing per frame.
  explicit CReaderFrameBuffer(size_t spareItems);

  // An item for a frame of `length` bytes with room for `extra` bytes after it
  // (the next frame's head, read with it); a spare one when one fits.
  std::unique_ptr<FrameItem> takeItem(uint32_t length, uint32_t extra);
  void recycle(std::unique_ptr<FrameItem> item);

  // The generation appends must carry.
  uint64_t generation() const;
  // Appends an item read under `generation`; wakes a waiting caller once
  // `wakeFrames` frames or `wakeBytes` bytes are buffered. false (and the item
  // recycled) when a clear came meanwhile.
  bool append(std::unique_ptr<FrameItem> item, uint64_t generation, size_t wakeFrames, uint64_t wakeBytes);
  // Drops every buffered frame and starts a new generation.
  void clear();
  // Takes the front frame (null when empty); `left` is what stays buffered.
  std::unique_ptr<FrameItem> pop(size_t& left);
  size_t size() const;

  // Sleeps at most `ms` while the buffer is empty and `stillWaiting()` (called
  // under the buffer mutex) holds; a batch, wakeWaiters() or wakeAll() ends it.
  template <typename Predicate>
  void wait(uint32_t ms, Predicate stillWaiting);
  // The worker's run ended: hand over whatever is buffered to a waiting caller.
  void wakeWaiters();
  // The session ended or failed: every waiting caller looks again.
  void wakeAll();

 private:
  const size_t m_spareLimit;
  mutable Velto::Kandu::CMutex m_mutex;
  std::deque<std::unique_ptr<FrameItem>> m_frames;  // guarded by m_mutex
  uint64_t m_bytes = 0;                             // guarded by m_mutex: bytes in m_frames
  uint32_t m_waiters = 0;                           // guarded by m_mutex: callers asleep
  std::vector<std::unique_ptr<FrameItem>> m_spares; // guarded by m_mutex
  uint64_t m_generation = 0;                        // guarded by m_mutex
  std::condition_variable_any m_cond;
};

template <typename Predicate>
void CReaderFrameBuffer::wait(uint32_t ms, Predicate stillWaiting) {
  Velto::Kandu::CAutoLock lock(m_mutex);
  if (!m_frames.empty() || !stillWaiting()) return;
  ++m_waiters;
  m_cond.wait_for(m_mutex, std::chrono::milliseconds(ms));
  --m_waiters;
}

}  // namespace Velto::Zarn
