#include "FrameAssembler.h"

#include <algorithm>
#include <cstring>

#include "VeltoFrame.h"

namespace Velto::Zarn {

#define ALOG(level, fmt, ...) READER_LOG(m_log, level, fmt __VA_OPT__(, ) __VA_ARGS__)

namespace {

// The assembly buffer starts this big and doubles as frames need: sized by the
// bytes really read, never by what a head announces.
constexpr uint32_t kInitialAssemblyBytes = 64 * 1024;

bool closedByName(CRecordFile& file) {
  if (file.name().endTime != 0) return true;
  std::shared_ptr<CRecordFileIndex> index = file.recordIndex();
  return index && index->isComplete();
}

}  // namespace

bool recordFileClosed(CRecordFile& file) {
  if (closedByName(file)) return true;
  ZarnFileStat st;
  return file.stat(st) && !st.openForWrite;
}

CFrameAssembler::CFrameAssembler(CReaderFrameBuffer& items, ReaderLogContext log) : m_items(items), m_log(log) {}

void CFrameAssembler::attach(CRecordFile* file, uint64_t dataEnd) {
  m_file = file;
  m_dataEnd = dataEnd;
  m_knownSize = 0;
  m_assemblyCount = 0;
  m_items.recycle(std::move(m_pendingItem));
  m_pendingFilled = 0;
}

bool CFrameAssembler::positionAt(uint64_t offset) {
  if (m_file == nullptr || m_file->seek(static_cast<int64_t>(offset), 0) < 0) return false;
  m_readPos = offset;
  m_assemblyCount = 0;
  m_items.recycle(std::move(m_pendingItem));
  m_pendingFilled = 0;
  m_skipTotal = 0;
  m_skipping = false;
  return true;
}

int32_t CFrameAssembler::readInto(uint8_t* buffer, uint32_t& have, uint32_t want, uint32_t extra) {
  while (have < want) {
    uint64_t ask = static_cast<uint64_t>(want - have) + extra;
    if (m_dataEnd != kUnknownEnd) {
      // A closed file's index and record info follow its data: never read them as frames.
      if (m_readPos >= m_dataEnd) return kEndOfData;
      ask = std::min<uint64_t>(ask, m_dataEnd - m_readPos);
    }
    ask = std::min<uint64_t>(ask, UINT32_MAX);
    const int64_t got = m_file->read(buffer + have, static_cast<uint32_t>(ask));
    if (got > 0) {
      have += static_cast<uint32_t>(got);
      m_readPos += static_cast<uint64_t>(got);
      continue;
    }
    if (got == 0) return kNotYet;  // a file still being written: more may come
    if (got == CRecordFile::kEndOfFile) return kEndOfData;
    ALOG(WARN, "file->read() ret:%d\n", static_cast<int>(got));
    return static_cast<int32_t>(got);
  }
  return 1;
}

void CFrameAssembler::ensureAssembly(uint32_t want) {
  if (want > m_assemblyCapacity) {
    // Allocated without zeroing: only the bytes read are touched.
    const uint32_t doubled = m_assemblyCapacity > UINT32_MAX / 2 ? UINT32_MAX : 2 * m_assemblyCapacity;
    const uint32_t capacity = std::max({want, kInitialAssemblyBytes, doubled});
    std::unique_ptr<uint8_t[]> bigger(new uint8_t[capacity]);
    if (m_assemblyCount > 0) std::memcpy(bigger.get(), m_assembly.get(), m_assemblyCount);
    m_assembly = std::move(bigger);
    m_assemblyCapacity = capacity;
  }
}

int32_t CFrameAssembler::fillAssembly(uint32_t want) {
  ensureAssembly(want);
  return readInto(m_assembly.get(), m_assemblyCount, want);
}

bool CFrameAssembler::resync() {
  if (!m_skipping) {
    ALOG(TRACE, "InValidFrameHead. skip to frame head.\n");
    m_skipping = true;
  }
  uint8_t* buffer = m_assembly.get();
  uint32_t skipped = skipToFrameHead(buffer, m_assemblyCount);
  if (skipped == 0 && m_assemblyCount > 0) {
    // The bytes begin with the magic but are no valid frame: the candidate
    // starts no earlier than the next byte.
    std::memmove(buffer, buffer + 1, m_assemblyCount - 1);
    skipped = 1 + skipToFrameHead(buffer, m_assemblyCount - 1);
  }
  m_assemblyCount -= skipped;
  m_skipTotal += skipped;
  if (skipped == 0) {
    ALOG(WARN, "Skip to frame head failed. skipCount: %i. return EOF.\n", static_cast<int>(m_skipTotal));
    return false;
  }
  if (m_skipTotal >= kMaxSkipBytes) {
    ALOG(WARN, "Skip count more than max frame len!!! return EOF\n");
    return false;
  }
  return true;
}

bool CFrameAssembler::skipFakeFrame(uint64_t frameStart, uint32_t length) {
  if (length <= kFrameHeadSize) return false;
  const uint64_t target = frameStart + length;
  uint64_t available = m_dataEnd;
  if (available == kUnknownEnd) {
    ZarnFileStat st;
    if (!m_file->stat(st)) return false;
    available = st.size;
  }
  if (target > available || m_file->seek(static_cast<int64_t>(target), 0) < 0) return false;
  m_readPos = target;
  m_assemblyCount = 0;
  return true;
}

int32_t CFrameAssembler::frameFitsFile(uint64_t frameStart, uint32_t length) {
  const uint64_t frameEnd = frameStart + length;
  if (m_dataEnd != kUnknownEnd) return frameEnd <= m_dataEnd ? kFrame : kEndOfData;
  if (frameEnd <= m_knownSize) return kFrame;
  ZarnFileStat st;
  if (!m_file->stat(st)) return kNotYet;  // the store will tell next time
  m_knownSize = st.size;
  if (frameEnd <= m_knownSize) return kFrame;
  // Not all there: a file still being written may bring the rest; a closed
  // one never will, so the head is damaged.
  return closedByName(*m_file) || !st.openForWrite ? kEndOfData : kNotYet;
}

bool CFrameAssembler::rejectPending(uint32_t length) {
  std::unique_ptr<FrameItem> item = std::move(m_pendingItem);
  ensureAssembly(length + m_assemblyCount);
  std::memmove(m_assembly.get() + length, m_assembly.get(), m_assemblyCount);
  std::memcpy(m_assembly.get(), item->bytes.get(), length);
  m_assemblyCount += length;
  m_items.recycle(std::move(item));
  return resync();
}

int32_t CFrameAssembler::next(std::unique_ptr<FrameItem>& item, VeltoFrameHead& head, uint64_t& frameStart) {
  for (;;) {
    int32_t result = m_pendingItem ? 1 : fillAssembly(kFrameHeadSize);
    if (result != 1) return result;
    uint8_t* bytes = m_pendingItem ? m_pendingItem->bytes.get() : m_assembly.get();
    frameStart = parsePos();
    if (!checkFrameHead(bytes)) {
      if (!resync()) return kEndOfData;
      continue;
    }
    std::memcpy(&head, bytes, sizeof(head));
    if (head.type == FRAME_TYPE_FAKE) {
      ALOG(TRACE, "Fake Velto Frame\n");
      ALOG(TRACE, "Skip Fake Frame: len:%u\n", head.length);
      if (!skipFakeFrame(frameStart, head.length)) {
        if (!recordFileClosed(*m_file)) {
          ALOG(TRACE, "Writing File skip fake Velto Frame failed. return Not Ready\n");
          return kNotYet;
        }
        ALOG(WARN, "Closed File skip fake Velto Frame failed. return EOF\n");
        return kEndOfData;
      }
      ALOG(TRACE, "Skip fake Velto Frame success.\n");
      continue;
    }
    if (head.length < kMinFrameSize) {
      if (!resync()) return kEndOfData;
      continue;
    }
    if (!m_pendingItem) {
      // A damaged head may announce gigabytes: the frame must lie within the
      // bytes the file holds before anything is allocated for it.
      const int32_t fits = frameFitsFile(frameStart, head.length);
      if (fits == kNotYet) return kNotYet;
      if (fits != kFrame) {
        if (!resync()) return kEndOfData;
        continue;
      }
      // The assembled bytes move into the frame's item; bytes past the frame
      // (left by resynchronisation) stay in front for the next pass.
      m_pendingItem = m_items.takeItem(head.length, kFrameHeadSize);
      const uint32_t n = std::min(m_assemblyCount, head.length);
      std::memcpy(m_pendingItem->bytes.get(), bytes, n);
      if (n < m_assemblyCount) std::memmove(m_assembly.get(), m_assembly.get() + n, m_assemblyCount - n);
      m_assemblyCount -= n;
      m_pendingFilled = n;
    }
    bytes = m_pendingItem->bytes.get();
    // The rest of the frame goes straight into its item (the assembly buffer is
    // empty while it is incomplete), together with the head of the frame after
    // it when the store has it: a steady stream then costs one store call per
    // frame and no copy through the read buffer.
    result = m_pendingFilled >= head.length ? 1 : readInto(bytes, m_pendingFilled, head.length, kFrameHeadSize);
    if (result != 1) return result;
    if (m_pendingFilled > head.length) {
      const uint32_t ahead = m_pendingFilled - head.length;
      ensureAssembly(ahead);
      std::memcpy(m_assembly.get(), bytes + head.length, ahead);
      m_assemblyCount = ahead;
    }
    m_pendingFilled = 0;
    if (!checkFrameTail(bytes + head.length - kFrameTailSize)) {
      // Not a frame after all: resynchronise over its bytes (and any after them).
      if (!rejectPending(head.length)) return kEndOfData;
      continue;
    }
    m_skipTotal = 0;
    m_skipping = false;
    item = std::move(m_pendingItem);
    return kFrame;
  }
}

}  // namespace Velto::Zarn
