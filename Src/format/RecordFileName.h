// Record file names, bucket names and time strings.
//
// A record file describes itself in its name: stream, begin and end time,
// stream type, lock count and index state. Listings, locks, recycling and index
// repair read those facts from names alone and change them by renaming. The
// grammar, with examples, is in doc/record_names.md:
//
//   [prefix]media_<sid>/yyyy/MM/dd/HHmmss_HHmmss_<type>_<locks>_<state>.qrv   closed
//   [prefix]media_<sid>/yyyy/MM/dd/HHmmss_<type>.qrv                          open
//   ... .index                                                                index file
//
// The bucket prefix is the store user name plus "_" ("" for "root"); the
// overloads without a prefix argument take the current process value
// (CMediaValues::bucketPrefix()). All functions are thread-safe and report
// failure by result (false, or 0 seconds) after an error log line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ZarnClient.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

// Index state, the last number of a closed name.
enum RecordIndexState : uint32_t {
  RECORD_INDEX_MISSING = 0,     // no index ("MissIndex"); the fixer rebuilds it
  RECORD_INDEX_INTERNAL = 1,    // index inside the record file
  RECORD_INDEX_REBUILDING = 2,  // the fixer is rebuilding it
  RECORD_INDEX_SEPARATE = 3,    // index in a separate ".index" file
  RECORD_INDEX_TOO_SMALL = 4,   // file too small to hold a frame; never reported
};

// Which of a stream's buckets a file lies in.
enum RecordBucketKind : uint16_t {
  BUCKET_KIND_MEDIA = 0,      // "media_<sid>"
  BUCKET_KIND_FORGOTTEN = 1,  // "forgotten_<sid>"
};

// Largest lock count a name can carry.
inline constexpr uint32_t kMaxNameLockCount = 255;
// Largest stream type a name can carry.
inline constexpr uint32_t kMaxNameStreamType = 65535;

// The parsed description of a record or index file name. Times are seconds in
// the store's time scale; 0 means "not set".
struct RecordFileName {
  uint32_t streamId = 0;
  uint32_t beginTime = 0;    // first frame; never 0 in a valid name
  uint32_t endTime = 0;      // last frame; 0 while the file is open
  uint16_t type = 0;         // stream type given when the stream was added
  uint16_t lockCount = 0;    // 0..255 in a name
  uint32_t indexState = 0;   // RecordIndexState
  uint32_t isIndex = 0;      // 1 for an index file, 0 for a record file
  uint32_t realEndTime = 0;  // end a clip of this file reports; endTime after parsing
  uint64_t size = 0;         // bytes; 0 after parsing, filled by listings
  uint16_t bucketKind = 0;   // RecordBucketKind
};

// "yyyy/MM/dd/HHmmss" (17 characters) and "HHmmss" of a time.
std::string formatDate(uint32_t seconds);
std::string formatTime(uint32_t seconds);
// Seconds of a "yyyy/MM/dd/HHmmss" string; 0 on failure. Field limits are loose
// on purpose (hour 24, minute 60, second 60, month/day 0 pass and are
// normalised by the calendar).
uint32_t parseDate(const std::string& date);
// Seconds of an "HHmmss" string on the calendar day of `base`, one day later
// when that would be before `base`: the result lies in [base, base + 1 day).
// 0 on failure.
uint32_t parseTime(uint32_t base, const std::string& time);

// "<prefix>media_<sid>" (kind 0), "<prefix>forgotten_<sid>" (kind 1), the
// prefix alone for any other kind.
std::string bucketName(const std::string& prefix, uint32_t streamId, uint16_t kind);
std::string bucketName(uint32_t streamId, uint16_t kind);
// The inverse; false when a non-empty prefix is missing or the rest is neither
// form.
bool parseBucketName(const std::string& prefix, const std::string& name, uint32_t& streamId, uint16_t& kind);
bool parseBucketName(const std::string& name, uint32_t& streamId, uint16_t& kind);

// The validity rule: begin time set, and either an end not before the begin,
// or an open file (end 0) that is neither locked nor indexed. An end before the
// begin logs "time is not sync".
bool isValidRecordFileName(const RecordFileName& record);

// The full name ("bucket/body.qrv" or ".index") of a valid record; an index
// file's name always shows lock count and index state 0. false (and `name`
// untouched) for an invalid record.
bool generateRecordFileName(const std::string& prefix, const RecordFileName& record, std::string& name);
bool generateRecordFileName(const RecordFileName& record, std::string& name);

// Parses a full name. realEndTime becomes endTime and size 0. On a name that
// does not fit the grammar the record is zeroed and the result is false. A
// begin date that parses to 0 is not rejected here: apply
// isValidRecordFileName where validity matters.
bool parseRecordFileName(const std::string& prefix, const std::string& name, RecordFileName& record);
bool parseRecordFileName(const std::string& name, RecordFileName& record);

// parseRecordFileName for a name found in a listing: the name must also be
// the one `record` generates. The parse is loose on purpose (a second of 60, an
// hour of 24, a day level 00, an index state of -1 or past 32 bits all parse
// and normalise), so a name that does not round-trip stands for another name,
// one that does not exist in the store, and nothing that read it could open,
// lock or rename the file. Such names are skipped with a warning.
bool parseListedRecordFileName(const std::string& name, RecordFileName& record);

// Steps `cursor` through a bucket listing (names relative to `bucket`) and
// returns in `record` the next entry that is a valid record file (not an index
// file), with its size from the listing. `cursor` ends past the entry
// returned; false at the end of the list.
bool nextValidRecordFile(const std::string& bucket, const CFileList& list, size_t& cursor, RecordFileName& record);

// A clip made from one record file: begin, clip end, locked, forgotten, type,
// index-missing (state neither 1 nor 3) and size.
RecordClip toRecordClip(const RecordFileName& record);
// The same with the file's full name (at most 255 characters); false, with an
// empty name, when the record cannot be named.
bool toRecordClipEx(const RecordFileName& record, RecordClipEx& clip);

// Renames the file `oldName` to the name of `record` (locking, end-time
// completion and trimming change files this way). false when the record
// cannot be named or the store refuses the rename (it never replaces a file).
bool recordFileRename(CZarnFileSystem& fs, const std::string& oldName, const RecordFileName& record);

}  // namespace Velto::Zarn
