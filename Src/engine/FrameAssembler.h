// CFrameAssembler: whole, valid frames out of the bytes of one record file.
//
// Reads the file from a position and cuts its bytes into frames: a frame is
// taken when its head passes the head check and its tail carries the tail
// magic. Padding frames are skipped over by their length. Bytes that are no
// frame (a damaged stretch, a false head) are skipped up to the next candidate
// head; a run of more than kMaxSkipBytes skipped bytes ends the file's data.
//
// Read state: the file's bytes up to readPos() that are not yet taken as
// frames are, in file order, the bytes already in the frame being assembled
// (once its head is known its body is read straight into its item) and then
// the bytes of the assembly buffer; the assembly buffer is empty while the
// pending frame is incomplete. A closed file's index and record info follow
// its data: with a data end given, nothing past it is read as frames.
//
// One worker thread at a time; the file and the item pool belong to the caller.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#include "ReaderFrameBuffer.h"
#include "ReaderShared.h"
#include "RecordFile.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

// Whether no more bytes will come to `file`: it has an end in its name, a
// complete index, or nobody holds it open for writing.
bool recordFileClosed(CRecordFile& file);

class CFrameAssembler {
 public:
  using FrameItem = CReaderFrameBuffer::FrameItem;
  static constexpr uint64_t kUnknownEnd = std::numeric_limits<uint64_t>::max();
  // Damaged bytes skipped in one run of resynchronisation before the file's
  // data is taken as ended.
  static constexpr uint64_t kMaxSkipBytes = 4194304;

  // Results of next().
  static constexpr int32_t kFrame = 1;      // a frame is in `item`
  static constexpr int32_t kNotYet = 0;     // no more bytes yet: the file is still being written
  static constexpr int32_t kEndOfData = -2; // the end of the file's data (or of what can be read as frames)
  // Other negative values: a store failure.

  CFrameAssembler(CReaderFrameBuffer& items, ReaderLogContext log);

  // Reads `file` from now on (null: none); `dataEnd` is the data length of a
  // file with record info, kUnknownEnd otherwise. Position with positionAt.
  void attach(CRecordFile* file, uint64_t dataEnd);
  uint64_t dataEnd() const { return m_dataEnd; }
  // Moves to `offset` and forgets any partial frame and skip run.
  bool positionAt(uint64_t offset);
  // Forgets the bytes buffered ahead (the position they were read to stays).
  void discardAhead() { m_assemblyCount = 0; }
  // File offset of the first byte not yet taken as a frame.
  uint64_t parsePos() const { return m_readPos - m_assemblyCount - (m_pendingItem ? m_pendingFilled : 0); }

  // The next whole, valid frame (never a padding frame): kFrame with the frame
  // in `item` (from the pool), its head in `head` and its offset in
  // `frameStart`; or kNotYet, kEndOfData, or a store failure.
  int32_t next(std::unique_ptr<FrameItem>& item, VeltoFrameHead& head, uint64_t& frameStart);

 private:
  // Reads into `buffer` until `have` reaches `want` bytes (`have` counts what
  // is there and is kept across retries); each store call also asks for up to
  // `extra` bytes more, which `buffer` must have room for (never past the
  // data end). 1 done, or a result of next().
  int32_t readInto(uint8_t* buffer, uint32_t& have, uint32_t want, uint32_t extra = 0);
  int32_t fillAssembly(uint32_t want);
  void ensureAssembly(uint32_t want);
  // Drops damaged bytes from the front of the assembly buffer up to the next
  // candidate head. false when the skip limit is reached.
  bool resync();
  bool skipFakeFrame(uint64_t frameStart, uint32_t length);
  // Whether a frame of `length` bytes at `frameStart` lies within the file's
  // bytes: kFrame, kNotYet (a file still being written may bring the rest) or
  // kEndOfData (it never will: the head is damaged).
  int32_t frameFitsFile(uint64_t frameStart, uint32_t length);
  // The pending frame was no frame: puts its bytes back in front of the
  // assembly buffer and resynchronises over them. false at the skip limit.
  bool rejectPending(uint32_t length);

  CReaderFrameBuffer& m_items;
  const ReaderLogContext m_log;
  CRecordFile* m_file = nullptr;
  uint64_t m_dataEnd = kUnknownEnd;
  uint64_t m_knownSize = 0;  // the file's size when it was last looked at (data end unknown)
  uint64_t m_readPos = 0;  // file position after the assembly bytes
  std::unique_ptr<uint8_t[]> m_assembly;
  uint32_t m_assemblyCapacity = 0;
  uint32_t m_assemblyCount = 0;
  // The frame being assembled once its head is known; m_pendingFilled bytes of
  // it are there (more than its length when the next head came with it, until
  // those move to the assembly buffer).
  std::unique_ptr<FrameItem> m_pendingItem;
  uint32_t m_pendingFilled = 0;
  uint64_t m_skipTotal = 0;
  bool m_skipping = false;
};

}  // namespace Velto::Zarn
