#include "RecordQuery.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "MediaLog.h"
#include "MediaValues.h"
#include "QueryFile.h"

namespace Velto::Zarn {

namespace {

constexpr uint32_t kMaxTime = std::numeric_limits<uint32_t>::max();

uint32_t clampToTime(int64_t seconds) {
  if (seconds < 0) return 0;
  if (seconds > static_cast<int64_t>(kMaxTime)) return kMaxTime;
  return static_cast<uint32_t>(seconds);
}

// Whether a listed entry may be reported: a record file whose name carries a
// consistent end, or one still without an end (then neither locked nor
// indexed). An end before the begin is a clock fault worth a line.
bool isQueryableRecord(const RecordFileName& info) {
  if (info.isIndex != 0 || info.beginTime == 0) return false;
  if (info.endTime != 0) {
    if (info.endTime < info.beginTime) {
      ZLOG(ERROR, "GENERAL", 0, "time is not sync, endTS[%u], beginTS[%u]\n", info.endTime, info.beginTime);
      return false;
    }
    // An end string before the begin's time of day reads as the next day: a
    // span of nearly a day that would hide every file after it.
    if (info.endTime - info.beginTime > kQueryLookBackSeconds) {
      ZLOG(WARN, "GENERAL", 0, "record file of stream %u spans %u s, longer than any record file: skipped\n",
           info.streamId, info.endTime - info.beginTime);
      return false;
    }
    return true;
  }
  return info.lockCount == 0 && info.indexState == 0;
}

const char* lockText(uint8_t locked) { return locked ? "lock" : "unlock"; }
const char* missText(uint8_t missing) { return missing ? "miss" : "unmiss"; }

// The size line and the first and last entries of a result, at trace level.
template <typename Clip>
void logClipSummary(const char* function, const std::vector<Clip>& clips) {
  ZLOG_IN(TRACE, "GENERAL", function, 0, "clips size = %zu\n", clips.size());
  if (clips.empty()) return;
  const Clip& first = clips.front();
  ZLOG_IN(TRACE, "GENERAL", function, 0, "The first: [%s - %s] type:%d %s %s >> %" PRIu64 "Byte\n", formatDate(first.beginTime).c_str(), formatDate(first.endTime).c_str(), static_cast<int>(first.type), lockText(first.locked), missText(first.missing), static_cast<uint64_t>(first.size));
  if (clips.size() < 2) return;
  const Clip& last = clips.back();
  ZLOG_IN(TRACE, "GENERAL", function, 0, "The last: [%s - %s] type:%d %s %s >> %" PRIu64 "Byte\n", formatDate(last.beginTime).c_str(), formatDate(last.endTime).c_str(), static_cast<int>(last.type), lockText(last.locked), missText(last.missing), static_cast<uint64_t>(last.size));
}

// Both clip queries: gather, submit index repairs, then stream the files
// through one accumulating clip, emitting pieces as soon as they are complete.
int32_t buildClipList(const char* function, const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                      std::vector<RecordClip>& clips, uint32_t durationPerClip, bool aligned) {
  if (durationPerClip == 0) {
    ZLOG_IN(ERROR, "GENERAL", function, 0, "para error, durationPerClip cannot be 0\n");
    return -1;
  }
  std::vector<RecordFileName> files;
  const int32_t count = gatherRecordFiles(env, fs, streamId, beginTS, endTS, files);
  if (count < 0) {
    ZLOG_IN(ERROR, "GENERAL", function, 0, "listRecordFileInfo failed\n");
    return -1;
  }
  if (count == 0) return 0;

  submitFilesNeedingIndex(env.indexFix, fs, files);

  // Checked after every file: one file adds at most its span / durationPerClip pieces.
  const size_t before = clips.size();
  auto tooMany = [&] {
    if (clips.size() - before <= kMaxClipListEntries) return false;
    clips.resize(before);
    ZLOG_IN(ERROR, "GENERAL", function, 0,
            "more than %zu clips of %u s: refused, ask for longer clips or a shorter range\n", kMaxClipListEntries,
            durationPerClip);
    return true;
  };
  RecordClip clip{};
  bool haveClip = false;
  for (const RecordFileName& file : files) {
    if (tooMany()) return -1;
    if (haveClip && mergeIntoClip(file, clip)) {
      splitClip(clip, beginTS, endTS, clips, durationPerClip, aligned, false);
      continue;
    }
    if (haveClip && clip.beginTime != clip.endTime) {
      splitClip(clip, beginTS, endTS, clips, durationPerClip, aligned, true);
    }
    clip = toRecordClip(file);
    haveClip = true;
    splitClip(clip, beginTS, endTS, clips, durationPerClip, aligned, false);
  }
  if (haveClip && clip.beginTime != clip.endTime) {
    splitClip(clip, beginTS, endTS, clips, durationPerClip, aligned, true);
  }
  if (tooMany()) return -1;
  logClipSummary(function, clips);
  return 0;
}

}  // namespace

int32_t listRecordFileInfo(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                           std::vector<RecordFileName>& out, uint16_t bucketKind) {
  ZLOG(DEBUG, "GENERAL", 0, "listRecordFileInfo. stream_id:%u, beginTS:%u, endTS:%u\n", streamId, beginTS, endTS);
  const std::string bucket = bucketName(streamId, bucketKind);
  if (!fs.getBucket(bucket).isValid()) {
    ZLOG(WARN, "GENERAL", static_cast<int>(getLastError()), "bucket[%s] open failed : %s\n", bucket.c_str(), getErrorMsg());
    return 0;
  }

  // Files are listed by begin time: look back far enough to find one that
  // began before the range and still runs into it, and a little past the end
  // so the last file in range sees its successor.
  const std::string beginMarker = formatDate(beginTS > kQueryLookBackSeconds ? beginTS - kQueryLookBackSeconds : 0);
  const std::string endMarker =
      formatDate(endTS > kMaxTime - kQueryLookAheadSeconds ? kMaxTime : endTS + kQueryLookAheadSeconds);
  ZLOG(TRACE, "GENERAL", 0, "query file during: [%s, %s]\n", beginMarker.c_str(), endMarker.c_str());

  CQueryFile query(fs, bucket);
  if (!query.open(beginMarker, endMarker)) {
    ZLOG(TRACE, "GENERAL", 0, "queryfile open failed, maybe no file.\n");
    return static_cast<int32_t>(out.size());
  }

  RecordFileName info;
  while (query.next(info)) {
    if (!isQueryableRecord(info)) continue;
    if (info.endTime == 0) {
      // Without an end in its name, the file's end is bounded by the begin of
      // the next valid file; peek at it and put it back.
      uint32_t nextBegin = 0;
      RecordFileName ahead;
      while (query.next(ahead)) {
        if (!isQueryableRecord(ahead)) continue;
        nextBegin = ahead.beginTime;
        query.pushFront(ahead);
        break;
      }
      if (!fileUpdEndTS(env, fs, streamId, info, nextBegin)) continue;
    }
    if (beginTS >= info.realEndTime || endTS <= info.beginTime || info.indexState == RECORD_INDEX_TOO_SMALL) continue;
    out.push_back(info);
  }
  ZLOG(TRACE, "GENERAL", 0, "available file num = %d\n", static_cast<int>(out.size()));
  return static_cast<int32_t>(out.size());
}

int32_t gatherRecordFiles(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                          std::vector<RecordFileName>& out) {
  // The forgotten bucket holds the older part of the stream, so its files go
  // first. Its count is deliberately not used: the media bucket's call
  // returns the total.
  (void)listRecordFileInfo(env, fs, streamId, beginTS, endTS, out, BUCKET_KIND_FORGOTTEN);
  return listRecordFileInfo(env, fs, streamId, beginTS, endTS, out, BUCKET_KIND_MEDIA);
}

bool fileUpdEndTS(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, RecordFileName& info, uint32_t nextBegin) {
  const bool isLast = nextBegin == 0;
  std::string fileName;
  if (!generateRecordFileName(info, fileName)) {
    ZLOG(ERROR, "GENERAL", 0, "generateRecordFileName failed.\n");
    return false;
  }
  ZLOG(DEBUG, "GENERAL", 0, "fileUpdEndTS. stream_id:%u, file:%s, isLast:%d\n", streamId, fileName.c_str(), isLast ? 1 : 0);

  ZarnFileStat stat;
  if (!fs.getFileStat(fileName, stat)) {
    ZLOG(ERROR, "GENERAL", static_cast<int>(getLastError()), "getFileStat failed.\n");
    return false;
  }

  const CMediaValues& values = CMediaValues::instance();
  const int64_t now = values.localNow(env.clock);
  const uint32_t longestEnd = clampToTime(static_cast<int64_t>(info.beginTime) + kMaxRecordFileSeconds);

  if (stat.openForWrite && isLast) {
    // The stream's live file: its writer knows the last frame time. Without
    // a writer in this process (another process writes, or it has not written
    // a frame yet) estimate: a file never runs past an hour, nor past now.
    const char* source = "writer";
    uint32_t end = env.writingFiles.currentEndTime(streamId);
    if (end == 0) {
      source = "sys";
      end = std::min(longestEnd, clampToTime(now));
    }
    info.realEndTime = end;
    info.size = stat.size;
    ZLOG(INFO, "GENERAL", 0, "file is writing. file real modify time[%s] = %s,%u\n", source, formatDate(end).c_str(), end);
    return info.realEndTime >= info.beginTime;
  }

  // The last write, the longest a file runs and the next file's begin all
  // bound the end. For the last file nextBegin is 0, which refuses it below:
  // only the index fixer, reading the frames, may name such a file's end.
  const int64_t modified = values.localTime(static_cast<int64_t>(stat.modifyTime));
  info.realEndTime = std::min({clampToTime(modified), longestEnd, nextBegin});
  ZLOG(INFO, "GENERAL", 0, "files real modify time[mds] = %s,%u, fileBeginTs:%s\n", formatDate(info.realEndTime).c_str(), info.realEndTime, formatDate(info.beginTime).c_str());
  if (info.realEndTime < info.beginTime) {
    ZLOG(ERROR, "GENERAL", 0, "time is not sync, endTS[%u], beginTS[%u]\n", info.realEndTime, info.beginTime);
    return false;
  }

  if (stat.openForWrite) {
    ZLOG(WARN, "GENERAL", 0, "Not last file & writing ...\n");
    return true;
  }

  // Nobody writes the file any more. Give a writer that is just closing it
  // time to rename it itself before claiming the name; the store refuses the
  // second of two renames from one name, so a race costs one query a file.
  if (now - static_cast<int64_t>(info.realEndTime) >= kEndRenameGraceSeconds) {
    info.endTime = info.realEndTime;
    if (!recordFileRename(fs, fileName, info)) {
      info.endTime = 0;
      return false;
    }
  } else {
    ZLOG(WARN, "GENERAL", 0, "not enough time for write(sdk) to update fileName\n");
  }
  return true;
}

bool listRecordFiles(CZarnFileSystem& fs, uint32_t streamId, uint32_t maxCount, std::vector<RecordFileName>& out) {
  const std::string bucketNameText = bucketName(streamId, BUCKET_KIND_MEDIA);
  CBucket bucket = fs.getBucket(bucketNameText);
  if (!bucket.isValid()) {
    ZLOG(ERROR, "GENERAL", static_cast<int>(getLastError()), "get bucket(%s) failed: %s\n", bucketNameText.c_str(), getErrorMsg());
    return false;
  }
  std::string marker;
  for (;;) {
    CFileList page;
    if (!bucket.list(page, marker, std::string(), kRecordListPageSize)) {
      ZLOG(ERROR, "GENERAL", static_cast<int>(getLastError()), "bucket(%s) list failed: %s\n", bucketNameText.c_str(), getErrorMsg());
      return false;
    }
    size_t cursor = 0;
    RecordFileName record;
    while (nextValidRecordFile(bucketNameText, page, cursor, record)) out.push_back(record);
    if (page.size() != kRecordListPageSize || out.size() >= maxCount) return true;
    marker = page.back().name;
  }
}

bool mergeIntoClip(const RecordFileName& info, RecordClip& clip) {
  // Unsigned on purpose: a file beginning before the clip's end wraps to a
  // huge gap and is refused.
  const uint32_t gap = info.beginTime - clip.endTime;
  if (gap > 1) return false;
  if ((info.lockCount > 0) != (clip.locked != 0)) return false;
  if (static_cast<int16_t>(info.type) != clip.type) return false;
  clip.endTime = info.realEndTime;
  clip.size += info.size;
  return true;
}

void splitClip(RecordClip& clip, uint32_t beginTS, uint32_t endTS, std::vector<RecordClip>& out,
               uint32_t durationPerClip, bool aligned, bool flushTail) {
  if (durationPerClip == 0) std::abort();  // the queries refuse 0 before cutting
  uint64_t duration = durationPerClip;
  if (durationPerClip == kMaxTime) {
    ZLOG(ERROR, "GENERAL", 0, "durationPerClip is -1, convert to 30 days avoid overflow.\n");
    duration = kMaxDurationPerClip;
  }
  while (clip.beginTime < clip.endTime) {
    const uint32_t start = clip.beginTime;
    // 64-bit so that a boundary past the 32-bit range compares correctly.
    uint64_t pieceEnd = aligned ? (start / duration + 1) * duration : start + duration;
    if (pieceEnd > clip.endTime) {
      if (!flushTail) return;  // the rest waits for a file that may merge into it
      pieceEnd = clip.endTime;
    }
    const uint32_t end = static_cast<uint32_t>(pieceEnd);

    RecordClip piece = clip;
    piece.beginTime = start;
    piece.endTime = end;
    piece.size = static_cast<uint64_t>(static_cast<double>(clip.size) * static_cast<double>(end - start) /
                                       static_cast<double>(clip.endTime - start));
    clip.beginTime = end;
    clip.size -= piece.size;

    // Cut to the query range on one side only: a piece holding both ends is
    // cut at the begin and keeps its end, deliberately.
    if (start < beginTS && beginTS < end) {
      piece.size = static_cast<uint64_t>(static_cast<double>(piece.size) * static_cast<double>(end - beginTS) /
                                         static_cast<double>(end - start));
      piece.beginTime = beginTS;
    } else if (start < endTS && endTS < end) {
      piece.size = static_cast<uint64_t>(static_cast<double>(piece.size) * static_cast<double>(endTS - start) /
                                         static_cast<double>(end - start));
      piece.endTime = endTS;
    } else if (end <= beginTS || start >= endTS) {
      continue;
    }
    out.push_back(piece);
  }
}

bool findFirstFileEndingAfter(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS, uint32_t t,
                              RecordFileName& outInfo) {
  std::vector<RecordFileName> files;
  if (gatherRecordFiles(env, fs, streamId, beginTS, endTS, files) < 0) {
    ZLOG(ERROR, "GENERAL", 0, "listRecordFileInfo failed\n");
    return false;
  }
  for (const RecordFileName& file : files) {
    if (file.realEndTime > t) {
      outInfo = file;
      break;
    }
  }
  return true;
}

bool findLastFileBeginningBefore(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                                 uint32_t t, RecordFileName& outInfo) {
  std::vector<RecordFileName> files;
  if (gatherRecordFiles(env, fs, streamId, beginTS, endTS, files) < 0) {
    ZLOG(ERROR, "GENERAL", 0, "listRecordFileInfo failed\n");
    return false;
  }
  for (auto it = files.rbegin(); it != files.rend(); ++it) {
    if (it->endTime <= t && it->endTime >= beginTS) {
      outInfo = *it;
      break;
    }
  }
  return true;
}

int32_t queryRecordClipList(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                            std::vector<RecordClip>& clips, uint32_t durationPerClip) {
  ZLOG(DEBUG, "GENERAL", 0, "queryRecordClipList. stream_id:%u, beginTS:%u, endTS:%u, durationPerClip:%u\n", streamId, beginTS, endTS, durationPerClip);
  return buildClipList(__FUNCTION__, env, fs, streamId, beginTS, endTS, clips, durationPerClip, false);
}

int32_t queryAlignedClipList(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                             std::vector<RecordClip>& clips, uint32_t durationPerClip) {
  ZLOG(DEBUG, "GENERAL", 0, "queryAlignedClipList. stream_id:%u, beginTS:%u, endTS:%u, durationPerClip:%u\n", streamId, beginTS, endTS, durationPerClip);
  return buildClipList(__FUNCTION__, env, fs, streamId, beginTS, endTS, clips, durationPerClip, true);
}

int32_t queryRecordFileList(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                            std::vector<RecordClipEx>& files) {
  ZLOG(DEBUG, "GENERAL", 0, "queryRecordFileList. stream_id:%u, beginTS:%u, endTS:%u\n", streamId, beginTS, endTS);
  std::vector<RecordFileName> records;
  const int32_t count = gatherRecordFiles(env, fs, streamId, beginTS, endTS, records);
  if (count < 0) {
    ZLOG(ERROR, "GENERAL", 0, "listRecordFileInfo failed\n");
    return -1;
  }
  if (count == 0) return 0;
  if (records.size() > kMaxFileListEntries) {
    ZLOG(ERROR, "GENERAL", 0, "%zu files: more than %zu, refused, ask for a shorter range\n", records.size(),
         kMaxFileListEntries);
    return -1;
  }
  for (const RecordFileName& record : records) {
    RecordClipEx entry{};
    // Gathered records are valid, so naming cannot fail; the entry would
    // carry an empty name if it did.
    (void)toRecordClipEx(record, entry);
    files.push_back(entry);
  }
  logClipSummary(__FUNCTION__, files);
  return 0;
}

int32_t queryRecordStatus(const QueryEnv& env, CZarnFileSystem& fs, uint32_t streamId, uint32_t beginTS, uint32_t endTS,
                          std::vector<bool>& status, uint32_t interval) {
  ZLOG(DEBUG, "GENERAL", 0, "queryRecordStatus. stream_id:%u, beginTS:%u, endTS:%u, Interval:%u\n", streamId, beginTS, endTS, interval);
  if (interval == 0) {
    ZLOG(ERROR, "GENERAL", 0, "parameter error, statisticInterval cannot be 0\n");
    return -1;
  }
  if (endTS < beginTS) {
    ZLOG(ERROR, "GENERAL", -1, "parameter error, endTS[%u] is before beginTS[%u]\n", endTS, beginTS);
    return -1;
  }
  // 64-bit: with an interval near 2^32 the 32-bit rounding up wraps to no bits.
  const uint64_t bits = (static_cast<uint64_t>(endTS - beginTS) + interval - 1) / interval;
  if (bits > kMaxStatusBits) {
    ZLOG(ERROR, "GENERAL", 0, "%" PRIu64 " status bits: more than %" PRIu64 ", refused, ask for a larger step\n",
         bits, kMaxStatusBits);
    return -1;
  }
  std::vector<RecordClip> clips;
  if (queryAlignedClipList(env, fs, streamId, beginTS, endTS, clips, interval) != 0) {
    // Deliberately not a failure: the bitmap shows what could be found.
    ZLOG(ERROR, "GENERAL", 0, "queryAlignedClipList failed\n");
  }
  status.assign(bits, false);
  for (const RecordClip& clip : clips) {
    const uint64_t bit = (static_cast<uint64_t>(clip.beginTime - beginTS) + 1) / interval;
    if (bit < bits) status[bit] = true;
  }
  ZLOG(TRACE, "GENERAL", 0, "recordStatus size = %zu\n", status.size());
  if (Kandu::logEnabled(Kandu::LOG_TRACE)) {
    std::string detail = "detail: [ " + formatDate(beginTS) + " - " + formatDate(endTS) + " ] [ ";
    detail.reserve(detail.size() + status.size() * 2 + 1);
    for (bool bit : status) detail += bit ? "1 " : "0 ";
    detail += "]";
    ZLOG(TRACE, "GENERAL", 0, "recordStatus %s\n", detail.c_str());
  }
  return 0;
}

}  // namespace Velto::Zarn
