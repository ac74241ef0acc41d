// CIndexFixer: repairs one record file whose writer ended without closing it.
//
// A writer that dies (a crash, a kill, a lost store) leaves its last file
// under its open name, or under a closed name with index state 0, with frames
// but without index and record info. The fixer
//   1. claims the file by renaming it to index state 2 (a name in state 2
//      whose file is still open for appending belongs to another fixer);
//   2. keeps a file too small for one frame as state 4, and a file whose
//      record info was written after all (the writer died before its rename)
//      gets its closed name with state 1 and the info's end time;
//   3. otherwise scans the frames from the start, writes the index entries of
//      key frames (and SVC base-layer frames) to a separate index file, and
//      renames both files to their final names: state 3, end time of the last
//      frame (at least one second past the begin). A file in which no whole
//      frame can be read gets its submitted name back and no index.
//
// Scan. Frames are read head by head and skipped; the scan stops at the
// first head that fails its check or does not fit its own length (an image
// stream searches forward for the next head instead), at a time that cannot
// be right (see frameTimeStep), and at the last frame, which reaches the end of
// the file: a partly written frame is left out of the data, a whole one is
// kept in the data but, like the last frame of a live file, gets no index
// entry. Times come from the name's begin time advanced by the frames'
// millisecond stamps, as a writer records a time hop. The scan never reads
// outside the file and never holds more than one frame's extension area.
//
// Every log line begins "[Fixer:<fixer>:<function>:<line>]".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RecordFileName.h"
#include "ZarnClient.h"

namespace Velto::Zarn {

class CIndexFile;
class CRecordFile;

struct IndexFixOptions {
  bool svcEnabled = true;  // configuration "enable_svc"
  // Report what a repair would find without renaming or writing anything.
  bool dryRun = false;
};

struct IndexFixReport {
  enum Outcome {
    kRebuilt,     // index file written, both files under their final names
    kComplete,    // the record info was there: renamed to state 1
    kTooSmall,    // below one frame: renamed to state 4
    kInUse,       // a writer or another fixer has the file open for appending
    kNoFrames,    // no frame could be read: submitted name kept, no index
    kStoreError,  // a store call failed; the file keeps a name that asks for repair
    kWouldRebuild,  // dry run: a rebuild would index what the counts say
  };
  Outcome outcome = kStoreError;
  std::string name;       // the record file's name when the repair ended
  uint32_t keyFrames = 0;  // index entries written (or that would be)
  uint32_t frames = 0;     // whole frames in the data
  uint32_t endTime = 0;    // end time in the final name
  uint64_t dataLength = 0;  // bytes of whole frames the index file vouches for
  bool repaired() const { return outcome == kRebuilt || outcome == kComplete || outcome == kTooSmall; }
};
const char* indexFixOutcomeName(IndexFixReport::Outcome outcome);

class CIndexFixer {
 public:
  // `work` is the parsed name of the file to repair (open or closed).
  CIndexFixer(CZarnFileSystem& fs, const RecordFileName& work, const IndexFixOptions& options = {});
  ~CIndexFixer();
  CIndexFixer(const CIndexFixer&) = delete;
  CIndexFixer& operator=(const CIndexFixer&) = delete;

  IndexFixReport doFixIndex();

  // Whether some handle has the file open for appending (a writer, or a
  // fixer that writes its index).
  bool isAppend(const std::string& name);
  // 1: the file ends in a valid record info; 0: it does not; 2: the file
  // could not be examined. The read position is left where it was.
  int checkFileComplete(CRecordFile& file);

 private:
  struct Scan {
    uint32_t frames = 0;
    uint32_t keyFrames = 0;
    uint32_t endTime = 0;
    uint64_t dataLength = 0;
    bool wholeLast = false;  // the file ends with a whole frame (not counted, not indexed)
    bool failed = false;     // an index entry could not be written
    bool anyFrame() const { return frames > 0 || wholeLast; }
  };
  uint32_t finalEndTime(const Scan& scan) const;

  IndexFixReport inspect();
  // Scans `file` (positioned at 0) of `fileLength` bytes; entries go to
  // `index` unless it is null.
  Scan scanFrames(CRecordFile& file, uint64_t fileLength, CIndexFile* index);
  // The time of a frame with millisecond stamp `stamp`; false to stop.
  bool frameTimeStep(uint16_t stamp, uint32_t& time);
  // Moves forward to the next frame head of an image stream; false when none.
  bool seekNextHead(CRecordFile& file, uint64_t fileLength);
  bool readBlk(CRecordFile& file, void* buffer, uint32_t length);
  bool getFileSize(const std::string& name, uint64_t& size);
  bool rename(const std::string& from, const std::string& to);
  bool remove(const std::string& indexName);
  // The work's name with another state and end time (0: keep the work's end,
  // or the begin time for an open file).
  RecordFileName named(uint32_t indexState, uint32_t endTime) const;
  std::string fullName(const RecordFileName& record) const;
  IndexFixReport finish(IndexFixReport::Outcome outcome, const std::string& name);

  CZarnFileSystem& m_fs;
  RecordFileName m_work;
  std::string m_workName;
  IndexFixOptions m_options;
  uint32_t m_timeLimit;       // frame times above this stop the scan
  std::vector<uint8_t> m_ext;  // one frame's extension area; only grows
  bool m_timeStarted = false;
  uint32_t m_curTime = 0;
  uint32_t m_infoEndTime = 0;  // end time of the record info found by checkFileComplete
  uint16_t m_lastStamp = 0;
  bool m_imageStream = false;
};

}  // namespace Velto::Zarn
