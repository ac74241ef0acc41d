#include "ReaderFrameBuffer.h"


namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;

CReaderFrameBuffer::CReaderFrameBuffer(size_t spareItems) : m_spareLimit(spareItems) {
  m_spares.reserve(spareItems);
}

std::unique_ptr<CReaderFrameBuffer::FrameItem> CReaderFrameBuffer::takeItem(uint32_t length, uint32_t extra) {
  const uint64_t room = static_cast<uint64_t>(length) + extra;  // never wraps
  std::unique_ptr<FrameItem> item;
  {
    CAutoLock lock(m_mutex);
    for (size_t i = m_spares.size(); i > 0; --i) {
      // A spare at most twice the size: the item of a large key frame must not
      // stay pinned under every small frame after it.
      const uint64_t capacity = m_spares[i - 1]->capacity;
      if (capacity >= room && capacity / 2 <= room) {
        item = std::move(m_spares[i - 1]);
        m_spares[i - 1] = std::move(m_spares.back());
        m_spares.pop_back();
        break;
      }
    }
  }
  if (!item) {
    // A quarter more than asked, so that the item serves the frames of similar
    // size after this one.
    item = std::make_unique<FrameItem>();
    item->capacity = (room + room / 4 + 63) & ~uint64_t{63};
    item->bytes.reset(new uint8_t[item->capacity]);
  }
  item->length = length;
  item->offset = 0;
  item->time = 0;
  return item;
}

void CReaderFrameBuffer::recycle(std::unique_ptr<FrameItem> item) {
  if (!item) return;
  CAutoLock lock(m_mutex);
  if (m_spares.size() < m_spareLimit) m_spares.push_back(std::move(item));
  // Otherwise freed here: the pool is bounded.
}

uint64_t CReaderFrameBuffer::generation() const {
  CAutoLock lock(m_mutex);
  return m_generation;
}

bool CReaderFrameBuffer::append(std::unique_ptr<FrameItem> item, uint64_t generation, size_t wakeFrames,
                                uint64_t wakeBytes) {
  bool wake = false;
  {
    CAutoLock lock(m_mutex);
    if (m_generation == generation) {
      m_bytes += item->length;
      m_frames.push_back(std::move(item));
      wake = m_waiters > 0 && (m_frames.size() >= wakeFrames || m_bytes >= wakeBytes);
    }
  }
  if (item) {  // cleared meanwhile
    recycle(std::move(item));
    return false;
  }
  // Notified outside the mutex, so that the woken caller does not block on it at once.
  if (wake) m_cond.notify_all();
  return true;
}

void CReaderFrameBuffer::clear() {
  CAutoLock lock(m_mutex);
  m_frames.clear();
  m_bytes = 0;
  ++m_generation;
}

std::unique_ptr<CReaderFrameBuffer::FrameItem> CReaderFrameBuffer::pop(size_t& left) {
  CAutoLock lock(m_mutex);
  std::unique_ptr<FrameItem> item;
  if (!m_frames.empty()) {
    item = std::move(m_frames.front());
    m_frames.pop_front();
    m_bytes -= item->length;
  }
  left = m_frames.size();
  return item;
}

size_t CReaderFrameBuffer::size() const {
  CAutoLock lock(m_mutex);
  return m_frames.size();
}

void CReaderFrameBuffer::wakeWaiters() {
  bool wake = false;
  {
    CAutoLock lock(m_mutex);
    wake = m_waiters > 0 && !m_frames.empty();
  }
  if (wake) m_cond.notify_all();
}

void CReaderFrameBuffer::wakeAll() {
  CAutoLock lock(m_mutex);
  m_cond.notify_all();
}

}  // namespace Velto::Zarn
