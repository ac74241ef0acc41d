// zarn-media clips, files, status, lock, unlock, policy, delete, info: the
// store's queries and maintenance calls, one library call each. files and info
// show the local-disk store too when MediaConfig.cfg here names one; they then
// list below the media client (LocalView.h).
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "Cli.h"
#include "MediaConfig.h"
#include "Commands.h"
#include "Frames.h"
#include "LocalView.h"
#include "RecordLock.h"

namespace ZarnMedia {

namespace {

const char* const kRangeHelp =
    "  --stream ID            stream id, required\n"
    "  --from TIME, --to TIME \"YYYY-MM-DD HH:MM:SS\" (UTC) or seconds since 1970, both\n"
    "                         included (default: the stream's whole recorded time)\n";

// The lock count a record file's name carries: the fourth of its five "_" fields
// ("HHmmss_HHmmss_type_locks_state.qrv"); 0 for an open file's name.
unsigned lockCountOf(const char* fileName) {
  const char* base = std::strrchr(fileName, '/');
  unsigned begin = 0, end = 0, type = 0, locks = 0, state = 0;
  if (base == nullptr || std::sscanf(base + 1, "%6u_%6u_%u_%u_%u", &begin, &end, &type, &locks, &state) != 5) return 0;
  return locks;
}

const char* codecName(short type) {
  return type == kStreamTypeH264 ? "h264" : type == kStreamTypeH265 ? "h265" : "other";
}

// Parses the options, prints help, opens the store and resolves the stream and
// range shared by the stream commands. `rangeRequired`: --from and --to must
// both be given (destructive commands never default to everything).
struct CStreamCommand {
  COptions options;
  CStore store;
  unsigned streamId = 0;
  int64_t from = 0;
  int64_t to = 0;
  CLocalView* local = nullptr;  // set: the store is reached through it when it holds local disks

  CStreamCommand(std::vector<std::string> values, std::vector<std::string> flags)
      : options([&values] {
          values.insert(values.end(), {"stream", "from", "to"});
          return values;
        }(),
                std::move(flags)) {}

  // kExitOk, or the exit code after printing; `helped` is set when --help was answered.
  int prepare(int argc, char** argv, const char* help, bool rangeRequired, bool& helped) {
    helped = false;
    if (!options.parse(argc, argv)) return kExitUsage;
    if (options.help()) {
      std::printf("%s%s", help, kCommonHelp);
      helped = true;
      return kExitOk;
    }
    if (!options.positional().empty()) {
      return fail(kExitUsage, "unexpected argument '%s' (see --help)", options.positional()[0].c_str());
    }
    if (!getStream(options, streamId)) return kExitUsage;
    if (rangeRequired && (!options.has("from") || !options.has("to"))) {
      return fail(kExitUsage, "--from and --to are both required");
    }
    int rc = local != nullptr ? local->open(options) : kExitOk;
    if (rc != kExitOk) return rc;
    if (local != nullptr && local->active()) {
      store.listThrough([this](unsigned id, unsigned begin, unsigned end, std::vector<Velto::Zarn::RecordClipEx>& out) {
        return local->files(id, begin, end, out);
      });
    }
    if ((rc = store.open(options, true)) != kExitOk) return rc;
    int64_t first = 0, last = 0;
    short type = 0;
    if ((rc = store.streamSpan(streamId, first, last, type)) != kExitOk) return rc;
    return getRange(options, first, last, from, to);
  }
  // Queries take [begin, end): one past the last second asked for.
  unsigned begin() const { return static_cast<unsigned>(from); }
  unsigned endExclusive() const { return static_cast<unsigned>(to + 1); }
};

void printClip(CJson& json, const Velto::Zarn::RecordClip& c) {
  json.beginObject()
      .time("begin", c.beginTime)
      .time("end", c.endTime)
      .value("size", c.size)
      .value("locked", c.locked != 0)
      .value("forgotten", c.forgotten != 0)
      .value("missingIndex", c.missing != 0)
      .value("type", static_cast<int>(c.type))
      .endObject();
}

std::string flagsOf(uint8_t locked, uint8_t forgotten, uint8_t missing) {
  std::string flags;
  if (locked) flags += "locked ";
  if (forgotten) flags += "forgotten ";
  if (missing) flags += "no-index ";
  if (!flags.empty()) flags.pop_back();
  return flags.empty() ? "-" : flags;
}

}  // namespace

int runClips(int argc, char** argv) {
  static const std::string help = std::string(
      "usage: zarn-media clips --stream ID [--from TIME] [--to TIME] [--clip-seconds S] [--aligned]\n"
      "\n"
      "Lists the stream's recorded clips: runs of record files that follow each other\n"
      "with the same lock state, cut into pieces of at most --clip-seconds (default 3600;\n"
      "with --aligned, cut on multiples of it).\n"
      "\noptions:\n") + kRangeHelp +
      "  --clip-seconds S       longest clip in seconds\n"
      "  --aligned              cut clips on multiples of --clip-seconds\n";
  CStreamCommand cmd({"clip-seconds"}, {"aligned"});
  bool helped = false;
  int rc = cmd.prepare(argc, argv, help.c_str(), false, helped);
  if (rc != kExitOk || helped) return rc;
  uint64_t clipSeconds = 3600;
  if (!cmd.options.getUnsigned("clip-seconds", clipSeconds, 30u * 86400)) return kExitUsage;
  if (clipSeconds == 0) return fail(kExitUsage, "--clip-seconds must be at least 1");
  std::vector<Velto::Zarn::RecordClip> clips;
  auto& client = cmd.store.client();
  rc = cmd.options.has("aligned")
           ? client.queryAlignedClipList(cmd.streamId, cmd.begin(), cmd.endExclusive(), clips,
                                         static_cast<unsigned>(clipSeconds))
           : client.queryRecordClipList(cmd.streamId, cmd.begin(), cmd.endExclusive(), clips,
                                        static_cast<unsigned>(clipSeconds));
  if (rc != 0) return fail(kExitFailed, "the clip query of stream %u failed (code %d)", cmd.streamId, rc);
  if (cmd.options.json()) {
    CJson json;
    json.beginObject().value("stream", cmd.streamId).beginArray("clips");
    for (const auto& c : clips) printClip(json, c);
    json.endArray().endObject().print();
    return kExitOk;
  }
  std::printf("%-19s  %-19s  %8s  %12s  %s\n", "begin (UTC)", "end (UTC)", "seconds", "bytes", "flags");
  for (const auto& c : clips) {
    std::printf("%-19s  %-19s  %8u  %12" PRIu64 "  %s\n", formatTime(c.beginTime).c_str(),
                formatTime(c.endTime).c_str(), c.endTime - c.beginTime, c.size,
                flagsOf(c.locked, c.forgotten, c.missing).c_str());
  }
  std::printf("%zu clip(s) of stream %u\n", clips.size(), cmd.streamId);
  return kExitOk;
}

int runFiles(int argc, char** argv) {
  static const std::string help = std::string(
      "usage: zarn-media files --stream ID [--from TIME] [--to TIME]\n"
      "\n"
      "Lists the stream's record files overlapping the range, with their store names and\n"
      "where each lies now: \"store\", or \"local:N\" on local disk N (the Nth of\n"
      "\"stdfile_disk\" in MediaConfig.cfg here, counted from 0) until it is migrated.\n"
      "\noptions:\n") + kRangeHelp;
  CStreamCommand cmd({}, {});
  CLocalView local;
  cmd.local = &local;
  bool helped = false;
  int rc = cmd.prepare(argc, argv, help.c_str(), false, helped);
  if (rc != kExitOk || helped) return rc;
  std::vector<Velto::Zarn::RecordClipEx> files;
  if ((rc = cmd.store.files(cmd.streamId, files, cmd.from, cmd.to + 1)) != 0) {
    return fail(kExitFailed, "the file query of stream %u failed (code %d)", cmd.streamId, rc);
  }
  if (cmd.options.json()) {
    CJson json;
    json.beginObject().value("stream", cmd.streamId).beginArray("files");
    for (const auto& f : files) {
      json.beginObject()
          .value("name", f.fileName)
          .time("begin", f.beginTime)
          .time("end", f.endTime)
          .value("size", f.size)
          .value("locked", f.locked != 0)
          .value("locks", lockCountOf(f.fileName))
          .value("forgotten", f.forgotten != 0)
          .value("missingIndex", f.missing != 0)
          .value("type", static_cast<int>(f.type))
          .value("where", local.whereIs(f.fileName))
          .endObject();
    }
    json.endArray().endObject().print();
    return kExitOk;
  }
  for (const auto& f : files) {
    std::printf("%s  %s .. %s  %12" PRIu64 " bytes  %s  locks %u  %s  %s\n", f.fileName,
                formatTime(f.beginTime).c_str(), f.endTime != 0 ? formatTime(f.endTime).c_str() : "(open)", f.size,
                codecName(f.type), lockCountOf(f.fileName), flagsOf(f.locked, f.forgotten, f.missing).c_str(),
                local.whereIs(f.fileName).c_str());
  }
  std::printf("%zu file(s) of stream %u\n", files.size(), cmd.streamId);
  return kExitOk;
}

int runStatus(int argc, char** argv) {
  static const std::string help = std::string(
      "usage: zarn-media status --stream ID [--from TIME] [--to TIME] [--step S]\n"
      "\n"
      "Draws which parts of the range are recorded: one line per hour (lines start on\n"
      "the hour, the last runs to the end of its hour), one character per --step seconds\n"
      "(default 60): '#' recorded, '.' not.\n"
      "\noptions:\n") + kRangeHelp +
      "  --step S               seconds per character, 1 to 3600\n";
  CStreamCommand cmd({"step"}, {});
  bool helped = false;
  int rc = cmd.prepare(argc, argv, help.c_str(), false, helped);
  if (rc != kExitOk || helped) return rc;
  uint64_t step = 60;
  if (!cmd.options.getUnsigned("step", step, 3600)) return kExitUsage;
  if (step == 0) return fail(kExitUsage, "--step must be at least 1");
  const int64_t begin = cmd.from - cmd.from % 3600;
  const int64_t end = (cmd.to / 3600 + 1) * 3600;  // whole lines: to the end of the last hour
  std::vector<bool> bits;
  rc = cmd.store.client().queryRecordStatus(cmd.streamId, static_cast<unsigned>(begin), static_cast<unsigned>(end),
                                            bits, static_cast<unsigned>(step));
  if (rc != 0) return fail(kExitFailed, "the status query of stream %u failed (code %d)", cmd.streamId, rc);
  const size_t perLine = std::max<size_t>(1, 3600 / step);
  if (cmd.options.json()) {
    std::string line;
    for (bool b : bits) line += b ? '#' : '.';
    CJson json;
    json.beginObject()
        .value("stream", cmd.streamId)
        .time("begin", begin)
        .value("step", step)
        .value("recorded", static_cast<uint64_t>(std::count(bits.begin(), bits.end(), true)))
        .value("bitmap", line)
        .endObject()
        .print();
    return kExitOk;
  }
  for (size_t i = 0; i < bits.size(); i += perLine) {
    std::string line;
    for (size_t j = i; j < std::min(bits.size(), i + perLine); ++j) line += bits[j] ? '#' : '.';
    std::printf("%s  %s\n", formatTime(begin + static_cast<int64_t>(i * step)).substr(0, 16).c_str(), line.c_str());
  }
  return kExitOk;
}

int runLock(int argc, char** argv) {
  static const std::string help = std::string(
      "usage: zarn-media lock --stream ID --from TIME --to TIME\n"
      "\n"
      "Locks the record files overlapping the range against recycling.\n"
      "\noptions:\n") + kRangeHelp;
  CStreamCommand cmd({}, {});
  bool helped = false;
  int rc = cmd.prepare(argc, argv, help.c_str(), true, helped);
  if (rc != kExitOk || helped) return rc;
  rc = cmd.store.client().lockStream(cmd.streamId, cmd.begin(), cmd.endExclusive());
  if (rc != 0) {
    const char* why = rc == -1   ? "a record file is already at its lock limit of 255; the others are locked"
                      : rc == -2 ? "the store's lock ratio limit is reached; nothing was locked"
                                 : "locking failed; nothing was locked (run with --verbose for the library's reason)";
    return fail(rc == -2 ? kExitLimit : kExitFailed, "cannot lock stream %u from %s to %s: %s (code %d)",
                cmd.streamId, formatTime(cmd.from).c_str(), formatTime(cmd.to).c_str(), why, rc);
  }
  if (cmd.options.json()) {
    CJson().beginObject().value("stream", cmd.streamId).value("locked", true).endObject().print();
  } else {
    std::printf("stream %u: locked %s .. %s UTC\n", cmd.streamId, formatTime(cmd.from).c_str(),
                formatTime(cmd.to).c_str());
  }
  return kExitOk;
}

int runUnlock(int argc, char** argv) {
  static const std::string help = std::string(
      "usage: zarn-media unlock --stream ID --from TIME --to TIME [--all]\n"
      "\n"
      "Takes one lock off the record files overlapping the range (--all: every lock).\n"
      "\noptions:\n") + kRangeHelp +
      "  --all                  remove all locks, not just one\n";
  CStreamCommand cmd({}, {"all"});
  bool helped = false;
  int rc = cmd.prepare(argc, argv, help.c_str(), true, helped);
  if (rc != kExitOk || helped) return rc;
  unsigned char lockNum = 0;
  rc = cmd.store.client().unlockStream(cmd.streamId, cmd.begin(), cmd.endExclusive(), lockNum,
                                       cmd.options.has("all"));
  if (rc != 0) {
    return fail(kExitFailed, "cannot unlock stream %u from %s to %s (code %d; run with --verbose for the library's "
                "reason)", cmd.streamId, formatTime(cmd.from).c_str(), formatTime(cmd.to).c_str(), rc);
  }
  if (cmd.options.json()) {
    CJson().beginObject().value("stream", cmd.streamId).value("locksLeft", static_cast<unsigned>(lockNum)).endObject().print();
  } else {
    std::printf("stream %u: unlocked %s .. %s UTC, %u lock(s) left\n", cmd.streamId, formatTime(cmd.from).c_str(),
                formatTime(cmd.to).c_str(), static_cast<unsigned>(lockNum));
  }
  return kExitOk;
}

int runDelete(int argc, char** argv) {
  static const std::string help = std::string(
      "usage: zarn-media delete --stream ID (--from TIME --to TIME | --all)\n"
      "\n"
      "Deletes the stream's recordings in the range, locked ones too: files wholly inside\n"
      "go, files across an edge are cut there (by name; their bytes stay until they are\n"
      "recycled), a file spanning the whole range stays. --all deletes every recording of\n"
      "the stream and its bucket.\n"
      "\noptions:\n"
      "  --all                  the whole stream\n") + kRangeHelp;
  CStreamCommand cmd({}, {"all"});
  bool helped = false;
  const bool all = [&] {
    for (int i = 0; i < argc; ++i) {
      if (std::string(argv[i]) == "--all") return true;
    }
    return false;
  }();
  int rc = cmd.prepare(argc, argv, help.c_str(), !all, helped);
  if (rc != kExitOk || helped) return rc;
  if (all && (cmd.options.has("from") || cmd.options.has("to"))) {
    return fail(kExitUsage, "give --all or a range, not both");
  }
  const unsigned begin = all ? 0u : cmd.begin(), end = all ? 0xFFFFFFFFu : cmd.endExclusive();
  rc = cmd.store.client().deleteRecordClip(cmd.streamId, begin, end);
  if (rc != 0) {
    return fail(kExitFailed, "cannot delete stream %u (code %d; run with --verbose for the library's reason)",
                cmd.streamId, rc);
  }
  if (cmd.options.json()) {
    CJson().beginObject().value("stream", cmd.streamId).value("deleted", true).value("all", all).endObject().print();
  } else if (all) {
    std::printf("stream %u: deleted\n", cmd.streamId);
  } else {
    std::printf("stream %u: deleted %s .. %s UTC\n", cmd.streamId, formatTime(cmd.from).c_str(),
                formatTime(cmd.to).c_str());
  }
  return kExitOk;
}

int runInfo(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media info [--streams FIRST-LAST]\n"
      "\n"
      "Shows the store's capacity, free space and lock ratio, and the streams that have\n"
      "recordings with their first and last recorded time. The library offers no list of\n"
      "streams, so the ids FIRST to LAST (default 0-99) are asked one by one.\n"
      "\n"
      "When MediaConfig.cfg here names local disks (\"stdfile_disk\", \"enable_cfg\": 1),\n"
      "also each disk (usable, free and total space, the files waiting on it to be\n"
      "migrated into the store) and each stream's files waiting. A disk that a running\n"
      "recorder holds cannot be looked into and shows as not usable.\n"
      "\noptions:\n"
      "  --streams A-B          stream ids to look for (at most 100000 of them)\n";
  COptions options({"streams"}, {});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  const std::string range = options.value("streams", "0-99");
  unsigned long long firstId = 0, lastId = 0;
  int consumed = 0;
  if (std::sscanf(range.c_str(), "%llu-%llu%n", &firstId, &lastId, &consumed) != 2 ||
      static_cast<size_t>(consumed) != range.size() || lastId < firstId || lastId > UINT32_MAX ||
      lastId - firstId >= 100000) {
    return fail(kExitUsage, "--streams: '%s' is not a range A-B of at most 100000 ids", range.c_str());
  }
  CLocalView local;
  int rc = local.open(options);
  if (rc != kExitOk) return rc;
  CStore store;
  if (local.active()) {
    store.listThrough([&local](unsigned id, unsigned begin, unsigned end, std::vector<Velto::Zarn::RecordClipEx>& out) {
      return local.files(id, begin, end, out);
    });
  }
  if ((rc = store.open(options, true)) != kExitOk) return rc;
  Velto::Zarn::SystemInfo info{};
  if (!(local.active() ? local.store().getSystemInfo(info) : store.client().getSystemInfo(info))) {
    return fail(kExitFailed, "the store's capacity cannot be read");
  }
  const int lockRatio = local.active() ? Velto::Zarn::lockRatio(local.store()) : store.client().getLockRatio();
  // What a recorder started here would take as its urgent-recycling threshold.
  Velto::Zarn::CMediaConfig config;
  config.initWithFile("MediaConfig.cfg");
  bool present = false;
  const double threshold = config.getCyclicCoverThresholdRate(present);

  struct Stream {
    unsigned id;
    int64_t first, last;
    size_t files;
    uint64_t bytes;
    short type;
    uint64_t lockedMiB;  // as the ledger counts: each locked file's bytes >> 20
    CLocalView::StreamAwaiting awaiting;
  };
  std::vector<Stream> streams;
  for (unsigned long long id = firstId; id <= lastId; ++id) {
    std::vector<Velto::Zarn::RecordClipEx> files;
    if (store.files(static_cast<unsigned>(id), files) != 0 || files.empty()) continue;
    Stream s{static_cast<unsigned>(id), CStore::kLastTime, 0, files.size(), 0, files.back().type, 0,
             local.awaitingOf(static_cast<unsigned>(id))};
    for (const auto& f : files) {
      s.first = std::min<int64_t>(s.first, f.beginTime);
      s.last = std::max<int64_t>(s.last, std::max(f.beginTime, f.endTime));
      s.bytes += f.size;
      if (lockCountOf(f.fileName) > 0) s.lockedMiB += f.size >> 20;
    }
    streams.push_back(s);
  }
  // The ledger is read through the lock ratio (basis points of the capacity);
  // the locked files of the streams listed are counted beside it, so that an
  // operator sees the two agree (or how far they drifted).
  const uint64_t totalMiB = info.totalCapacity >> 20;
  const uint64_t ledgerMiB = lockRatio >= 0 ? static_cast<uint64_t>(lockRatio) * totalMiB / 10000 : 0;
  uint64_t lockedMiB = 0;
  for (const auto& s : streams) lockedMiB += s.lockedMiB;
  const std::vector<CLocalView::Disk> disks = local.disks();
  if (options.json()) {
    CJson json;
    json.beginObject()
        .value("store", options.store())
        .value("totalBytes", info.totalCapacity)
        .value("freeBytes", info.freeCapacity)
        .value("urgentThresholdPercent", threshold)
        .value("lockRatio", lockRatio >= 0 ? lockRatio / 10000.0 : -1.0)
        .value("ledgerMiB", ledgerMiB)
        .value("lockedFilesMiB", lockedMiB)
        .beginArray("streams");
    for (const auto& s : streams) {
      json.beginObject()
          .value("stream", s.id)
          .value("codec", codecName(s.type))
          .value("files", static_cast<uint64_t>(s.files))
          .value("bytes", s.bytes)
          .value("lockedMiB", s.lockedMiB)
          .time("first", s.first)
          .time("last", s.last);
      if (local.active()) json.value("awaitingFiles", s.awaiting.files).value("awaitingBytes", s.awaiting.bytes);
      json.endObject();
    }
    json.endArray();
    if (local.configuredDisks() != 0) {
      json.beginObject("localStore").value("configuredDisks", static_cast<uint64_t>(local.configuredDisks()));
      json.beginArray("disks");
      for (size_t i = 0; i < disks.size(); ++i) {
        const CLocalView::Disk& d = disks[i];
        json.beginObject()
            .value("disk", static_cast<uint64_t>(i))
            .value("path", d.path)
            .value("usable", d.usable)
            .value("totalBytes", d.totalBytes)
            .value("freeBytes", d.freeBytes)
            .value("awaitingFiles", d.awaitingFiles)
            .value("awaitingBytes", d.awaitingBytes)
            .endObject();
      }
      json.endArray().endObject();
    }
    json.endObject().print();
    return kExitOk;
  }
  std::printf("store      %s\n", options.store().c_str());
  std::printf("capacity   %.1f GiB, free %.1f GiB: %.1f %% (recorders recycle urgently below %.1f %%)\n",
              static_cast<double>(info.totalCapacity) / (1u << 30), static_cast<double>(info.freeCapacity) / (1u << 30),
              info.totalCapacity ? info.freeCapacity * 100.0 / info.totalCapacity : 0.0, threshold);
  if (lockRatio >= 0) {
    std::printf("locked     %.2f %% of the store: ledger about %" PRIu64 " MiB, locked files of these streams %" PRIu64
                " MiB\n", lockRatio / 100.0, ledgerMiB, lockedMiB);
  } else {
    std::printf("locked     unknown (the ledger cannot be read)\n");
  }
  std::printf("streams    %zu with recordings among ids %llu-%llu\n", streams.size(), firstId, lastId);
  for (const auto& s : streams) {
    std::printf("  %-8u %-5s %s .. %s UTC  %zu file(s), %.2f MB", s.id, codecName(s.type),
                formatTime(s.first).c_str(), formatTime(s.last).c_str(), s.files, static_cast<double>(s.bytes) / 1e6);
    if (local.active()) {
      std::printf("; awaiting migration %" PRIu64 " file(s), %.2f MB", s.awaiting.files,
                  static_cast<double>(s.awaiting.bytes) / 1e6);
    }
    std::printf("\n");
  }
  if (local.configuredDisks() != 0 && !local.active()) {
    std::printf("local disks none of the %zu configured can be opened (a running recorder holds them, or they are"
                " missing)\n", local.configuredDisks());
  } else if (local.active()) {
    std::printf("local disks %zu configured\n", disks.size());
    for (size_t i = 0; i < disks.size(); ++i) {
      const CLocalView::Disk& d = disks[i];
      if (!d.usable) {
        std::printf("  %-3zu %s  not usable (another process holds it, or it is missing)\n", i, d.path.c_str());
        continue;
      }
      std::printf("  %-3zu %s  usable, free %.1f GiB of %.1f GiB; awaiting migration %" PRIu64 " file(s), %.2f MB\n", i,
                  d.path.c_str(), static_cast<double>(d.freeBytes) / (1u << 30),
                  static_cast<double>(d.totalBytes) / (1u << 30), d.awaitingFiles,
                  static_cast<double>(d.awaitingBytes) / 1e6);
    }
  }
  return kExitOk;
}

}  // namespace ZarnMedia
