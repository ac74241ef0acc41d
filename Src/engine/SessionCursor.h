// CSessionCursor: which record file of a session holds a time, and the file
// being played.
//
// A session is a time range [begin, end] (seconds, both ends inclusive) of one
// stream. Files are found through the bucket listings of the record queries:
// the first file ending after a time going forward, the last one ending at or
// before it going backward. Both look in a window next to the time first (a
// record file lasts at most kMaxRecordFileSeconds, so two of them find a
// neighbour unless the recording has a gap) and over the whole session only
// when that finds nothing: a session over a month of files lists a few files
// per step, not all.
//
// A listed file that cannot be opened is normally one renamed meanwhile (its
// writer closed it), found under its new name by the next lookup. One that
// fails kMaxOpenFailures times in a row under the same name is damaged (a
// directory or something else that merely looks like a record file): from
// then on the lookups step over it, so that it costs the session that file
// and not the whole session.
//
// The cursor owns the open file. A file still being written borrows its live
// index from the stream's writer (the table of files being written), so that
// every read order works on it.
//
// One worker thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "EngineEnv.h"
#include "RecordFile.h"
#include "ReaderShared.h"
#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

class CSessionCursor {
 public:
  // Listing window tried first around a time, seconds (two record files).
  static constexpr uint32_t kNearWindowSeconds = 7200;
  static constexpr int kMaxOpenFailures = 50;

  CSessionCursor(std::shared_ptr<CZarnFileSystem> fs, const EngineEnv& env, uint32_t streamId, uint32_t beginTime,
                 uint32_t endTime, ReaderLogContext log);

  // The first file ending after `t` / the last file ending at or before `t`,
  // within the session; `out` stays empty (begin 0) when there is none. false
  // when the listing fails.
  bool findAfter(uint32_t t, RecordFileName& out);
  bool findBefore(uint32_t t, RecordFileName& out);
  // The file holding `time` going forward: 1 found, 0 none, -1 failure.
  int32_t searchFile(uint32_t time, RecordFileName& out);
  // The file after the current one (before it when `reverse`): 1 found, 0 none
  // (the end of the session), -1 failure.
  int32_t findNext(bool reverse, RecordFileName& out);

  // Opens `info` as the current file for play from `time` in read `order`
  // (the previous file stays open until closePrevious()). A file named
  // without an index, or opened without one, is refused for the reverse orders
  // (-1, the previous file stays current). 1 opened, 0 retry later (renamed
  // meanwhile), -1 fault.
  int32_t open(const RecordFileName& info, uint32_t time, int32_t order);
  // Closes the file that was current before the last open().
  void closePrevious();
  void close();

  CRecordFile* file() const { return m_file.get(); }
  const RecordFileName& info() const { return m_info; }
  std::shared_ptr<CRecordFileIndex> index() const { return m_file ? m_file->recordIndex() : nullptr; }
  // The current file has a usable index (states 2 and 4).
  bool hasIndex() const;
  // No more bytes will come to the current file.
  bool fileClosed() const;
  // The current file's end: its name's, its complete index's, or the listing's.
  uint32_t fileEndTime() const;
  bool fileHolds(uint32_t time) const;
  // The data length of a file with record info, CFrameAssembler::kUnknownEnd otherwise.
  uint64_t dataEnd() const;

  // Byte offset for `time` in a file without index, assuming bytes spread
  // evenly over [beginTime, endTime]; 0 when the time lies outside or the
  // range is empty.
  uint64_t calcOffsetByTime(uint32_t beginTime, uint32_t endTime, uint32_t time, uint64_t fileSize) const;

 private:
  bool findAfterOnce(uint32_t t, RecordFileName& out);
  bool findBeforeOnce(uint32_t t, RecordFileName& out);
  bool isSkipped(const RecordFileName& info) const;
  // Counts a failed open of `info`; past the limit the file is stepped over.
  void noteOpenFailure(const RecordFileName& info);
  // The session's listing range: inclusive at both ends, as listings take [b, e).
  uint32_t gatherBegin() const;
  uint32_t gatherEnd() const;
  void borrowWriterIndex();

  std::shared_ptr<CZarnFileSystem> m_fs;
  const EngineEnv m_env;
  const uint32_t m_streamId;
  const uint32_t m_beginTime;
  const uint32_t m_endTime;
  std::unique_ptr<CRecordFile> m_file;
  std::unique_ptr<CRecordFile> m_previous;
  RecordFileName m_info;  // the listing entry the current file was opened from
  RecordFileName m_failing;  // the file whose opens fail, and how often in a row
  int m_openFailures = 0;
  std::vector<RecordFileName> m_skipped;  // files stepped over (never opened)
  const ReaderLogContext m_log;
};

}  // namespace Velto::Zarn
