// The async writer's pass on its work queue: frames from the cache to the
// record file, a key frame's run of frames in one gathered store call.
#include "StreamWriter.h"
#include "StreamWriterLog.h"

namespace Velto::Zarn {

using Velto::Kandu::CAutoLock;

bool CStreamWriter::doWriteFrame(bool flushAll) {
  {
    CAutoLock lock(m_cacheMutex);
    if (flushAll) {
      while (!m_framesBuf4Cache.empty()) {
        m_framesBuf4Write.push_back(std::move(m_framesBuf4Cache.front()));
        m_framesBuf4Cache.pop_front();
      }
    } else if (m_framesBuf4Write.empty()) {
      for (size_t i = 0; i < kFramesPerPass && !m_framesBuf4Cache.empty(); ++i) {
        m_framesBuf4Write.push_back(std::move(m_framesBuf4Cache.front()));
        m_framesBuf4Cache.pop_front();
      }
    }
  }
  int32_t result = 0;
  for (;;) {
    std::unique_ptr<FrameItem> item = std::move(m_curFrameItem);
    if (!item) {
      if (m_framesBuf4Write.empty()) break;
      item = std::move(m_framesBuf4Write.front());
      m_framesBuf4Write.pop_front();
      item->writtenBytes = 0;
    }
    if (isFileFault()) {
      result = -3;
      recycle(std::move(item));  // discarded
      continue;
    }
    if (!item->screened) {
      const Screen screen = screenFrame(item->head(), item->bytes.data(), item->frameTime);
      if (screen != Screen::Write) {
        if (screen == Screen::Fault) result = -3;
        recycle(std::move(item));
        continue;
      }
      item->screened = true;
      item->indexed = needsIndexEntry(item->head());
    }
    if (item->writtenBytes == 0 && !item->timed && !m_framesBuf4Write.empty()) {
      result = writeGathered(std::move(item));
      continue;
    }
    result = writeFrameBlk(item->bytes.data(), item->head().length, item->writtenBytes, flushAll, item->frameTime);
    if (result == -2) {
      m_curFrameItem = std::move(item);
      break;
    }
    if (result == 0) finishItem(*item, m_curFile->length() - item->head().length);
    recycle(std::move(item));
  }
  return !flushAll && m_curFrameItem != nullptr && result == -2;
}

int32_t CStreamWriter::writeGathered(std::unique_ptr<FrameItem> first) {
  // Frames up to the next key frame go together: only a key frame may cut the
  // file, and its cut decision needs the file's length with everything before
  // it written. The others are screened here, each after the one before it has
  // moved the file's last time, as if each had been written on its own.
  first->recordTime = advanceLastTime(first->head(), first->frameTime);
  first->timed = true;
  m_gather.push_back(std::move(first));
  while (m_gather.size() < kMaxGather && !m_framesBuf4Write.empty() &&
         !isCutKey(m_framesBuf4Write.front()->head().type)) {
    std::unique_ptr<FrameItem> item = std::move(m_framesBuf4Write.front());
    m_framesBuf4Write.pop_front();
    item->writtenBytes = 0;
    const Screen screen = screenFrame(item->head(), item->bytes.data(), item->frameTime);
    if (screen != Screen::Write) {
      recycle(std::move(item));
      if (screen == Screen::Fault) break;
      continue;
    }
    item->screened = true;
    item->indexed = needsIndexEntry(item->head());
    item->recordTime = advanceLastTime(item->head(), item->frameTime);
    item->timed = true;
    m_gather.push_back(std::move(item));
  }
  m_slices.clear();
  for (const auto& item : m_gather) m_slices.push_back(StoreSlice{item->bytes.data(), item->head().length});
  uint64_t position = m_curFile ? m_curFile->length() : 0;
  int64_t taken = m_curFile ? m_curFile->writeGather(m_slices.data(), static_cast<uint32_t>(m_slices.size())) : -1;
  if (taken < 0 && failOver(m_gather.front()->frameTime)) {
    position = m_curFile->length();
    taken = m_curFile->writeGather(m_slices.data(), static_cast<uint32_t>(m_slices.size()));
  }
  int32_t result = 0;
  if (taken < 0) {
    WLOG(ERROR, "Fault: write error: ret = %d; %d: %s.\n", static_cast<int>(taken), getLastError(), getErrorMsg());
    setBackgroundError(-3);
    result = -3;
    taken = 0;
  } else if (taken > 0) {
    m_zeroWriteCount = 0;
  }
  // Frames taken whole are done. The first one taken in part, or not at all,
  // resumes as the current item and the rest go back in order; after a fault
  // none is kept.
  size_t i = 0;
  for (; i < m_gather.size(); ++i) {
    FrameItem& item = *m_gather[i];
    const uint32_t length = item.head().length;
    if (static_cast<uint64_t>(taken) < length) break;
    taken -= length;
    finishItem(item, position);
    position += length;
    recycle(std::move(m_gather[i]));
  }
  if (i < m_gather.size() && result == 0) {
    m_gather[i]->writtenBytes = static_cast<uint32_t>(taken);
    for (size_t j = m_gather.size(); j-- > i + 1;) m_framesBuf4Write.push_front(std::move(m_gather[j]));
    m_curFrameItem = std::move(m_gather[i]);
  } else {
    for (; i < m_gather.size(); ++i) recycle(std::move(m_gather[i]));
  }
  m_gather.clear();
  return result;
}

}  // namespace Velto::Zarn
