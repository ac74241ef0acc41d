// zarn-media maintain, policy and discard: recycling by hand. A recording
// process recycles on its cover timer with the policies its host set; these
// commands run one such pass now, on this thread, with the policies given on
// the command line, and say what went and why. Like repair, they work below
// the media client, on the store client and the cover passes linked into the
// tool.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "Cli.h"
#include "Commands.h"
#include "CyclicCover.h"
#include "KanduClock.h"
#include "MediaConfig.h"
#include "MediaSdkStat.h"

namespace ZarnMedia {

namespace {

using Velto::Zarn::CoverPassReport;
using Velto::Zarn::RecordFileName;

constexpr double kMiB = 1048576.0;

// "SID:Nh" (keep N hours) or "SID:Nm" (keep N MiB), comma-separated.
bool parsePolicies(const std::string& text, Velto::Zarn::CZarnCyclicCover& cover, size_t& count) {
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    unsigned long long id = 0, amount = 0;
    char unit = 0;
    int consumed = 0;
    if (std::sscanf(item.c_str(), "%llu:%llu%c%n", &id, &amount, &unit, &consumed) != 3 ||
        static_cast<size_t>(consumed) != item.size() || id > UINT32_MAX || amount == 0 || amount > UINT32_MAX ||
        (unit != 'h' && unit != 'm')) {
      return false;
    }
    cover.setCoverPolicy(static_cast<uint32_t>(id), unit == 'h' ? amount : 0, unit == 'm' ? amount : 0);
    ++count;
  }
  return count != 0;
}

// One pass with the policies and ratio of `options`; prints what went.
int runPass(const COptions& options, const std::string& policies) {
  if (std::getenv("ZARN_LOG_LEVEL") == nullptr) setenv("ZARN_LOG_LEVEL", options.has("verbose") ? "info" : "off", 1);
  Velto::Zarn::CMediaConfig config;
  config.initWithFile("MediaConfig.cfg");  // the recorder's ratios and defaults, when there is one here
  Velto::Zarn::CMediaSdkStat stats;
  Velto::Zarn::CZarnCyclicCover cover(Velto::Kandu::systemClock(), config, stats);
  size_t count = 0;
  if (!policies.empty() && !parsePolicies(policies, cover, count)) {
    return fail(kExitUsage, "policies: '%s' is not a list of SID:Nh or SID:Nm", policies.c_str());
  }
  uint64_t ratio = 0;
  if (!options.getUnsigned("urgent-ratio", ratio, 99)) return kExitUsage;
  if (options.has("urgent-ratio")) cover.setUrgentRecycleRatio(static_cast<uint32_t>(ratio));
  Velto::Zarn::CZarnFileSystem fs;
  int rc = connectStore(options, fs);
  if (rc != kExitOk) return rc;

  const bool dryRun = options.has("dry-run");
  CJson json;
  json.beginObject().value("dryRun", dryRun).beginArray("files");
  size_t files = 0;
  Velto::Zarn::CoverPassOptions pass;
  pass.dryRun = dryRun;
  pass.onRemoved = [&](const RecordFileName& f, const char* why) {
    ++files;
    std::string name;
    Velto::Zarn::generateRecordFileName(f, name);
    if (options.json()) {
      json.beginObject().value("file", name).value("bytes", f.size).value("why", why).endObject();
    } else {
      std::printf("%s %s (%.1f MiB): %s\n", dryRun ? "would remove" : "removed", name.c_str(), f.size / kMiB, why);
    }
  };
  const CoverPassReport report = cover.runPass(fs, pass);
  if (!report.measured) return fail(kExitFailed, "the store's capacity cannot be read: nothing was recycled");
  const double freePercent = report.freeBytes * 100.0 / report.totalBytes;
  const uint64_t freed = report.freedByPolicy + report.freedByDiscard + report.freedUrgently;
  if (options.json()) {
    json.endArray()
        .value("totalBytes", report.totalBytes)
        .value("freeBytes", report.freeBytes)
        .value("thresholdPercent", cover.spaceThresholdRatio())
        .value("lowSpace", report.lowSpace)
        .value("freedBytes", freed)
        .endObject()
        .print();
  } else {
    std::printf("%s %zu file(s), %.1f MiB; free before: %.1f %% of %.1f MiB (urgent recycling below %.1f %%%s)\n",
                dryRun ? "would remove" : "removed", files, freed / kMiB, freePercent, report.totalBytes / kMiB,
                cover.spaceThresholdRatio(), report.lowSpace ? ", reached" : "");
  }
  return kExitOk;
}

}  // namespace

int connectStore(const COptions& options, Velto::Zarn::CZarnFileSystem& fs) {
  int rc = checkStoreExists(options);
  if (rc != kExitOk) return rc;
  const std::string address = options.store();
  if (!fs.initialize(Velto::Zarn::Config{address.c_str(), 0, "root", ""})) {
    return fail(kExitStore, "cannot open the store at '%s': %s", address.c_str(), Velto::Zarn::getErrorMsg());
  }
  return kExitOk;
}

int runMaintain(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media maintain [--policies SID:Nh|SID:Nm,...] [--urgent-ratio R] [--dry-run]\n"
      "\n"
      "Runs one recycling pass now: each stream given keeps N hours (h) or N MiB (m) of\n"
      "recordings, the oldest going first; discarded streams age out under the limits\n"
      "they were discarded with; when less than the threshold of the store is free, the\n"
      "oldest files of all streams go until a little more is (never a file of the last 12\n"
      "hours of a stream). Locked files never go. Prints every file and why.\n"
      "\noptions:\n"
      "  --policies LIST        e.g. 1:24h,2:500m (default: none, only discards and urgency)\n"
      "  --urgent-ratio R       urgent below 100-R % free (0-99; default: the configuration's 5 %)\n"
      "  --dry-run              only list what would be removed (one listing per bucket)\n";
  COptions options({"policies", "urgent-ratio"}, {"dry-run"});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  return runPass(options, options.value("policies"));
}

int runPolicy(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media policy --stream ID (--hours H | --space MIB) [--dry-run]\n"
      "\n"
      "Applies a recycling policy to one stream now: keeps at most H hours or MIB MiB of\n"
      "its recordings and removes the oldest of the rest (at most two cover periods'\n"
      "worth per pass for a time policy; run it again to go further). A recording host\n"
      "sets its policies itself (record: --retain-hours); its cover timer applies them.\n"
      "\noptions:\n"
      "  --stream ID            stream id, required\n"
      "  --hours H              keep this many hours\n"
      "  --space MIB            keep this many MiB\n"
      "  --dry-run              only list what would be removed\n";
  COptions options({"stream", "hours", "space"}, {"dry-run"});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  unsigned streamId = 0;
  if (!getStream(options, streamId)) return kExitUsage;
  uint64_t hours = 0, space = 0;
  if (!options.getUnsigned("hours", hours, UINT32_MAX) || !options.getUnsigned("space", space, UINT32_MAX)) {
    return kExitUsage;
  }
  if (options.has("hours") == options.has("space") || (hours == 0 && space == 0)) {
    return fail(kExitUsage, "give exactly one of --hours H or --space MIB, above 0");
  }
  const std::string policy =
      std::to_string(streamId) + ":" + std::to_string(hours != 0 ? hours : space) + (hours != 0 ? "h" : "m");
  return runPass(options, policy);
}

int runDiscard(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media discard --stream ID (--hours H | --space MIB)\n"
      "\n"
      "Discards a stream that is no longer recorded: its recordings age out under the\n"
      "limit given (H hours, or MIB MiB) in the recycling passes of every process on the\n"
      "store, go first when the store runs short of space, and the stream's buckets go\n"
      "with its last file. Writes a marker file to the store's system bucket.\n"
      "\noptions:\n"
      "  --stream ID            stream id, required\n"
      "  --hours H              keep this many hours\n"
      "  --space MIB            keep this many MiB\n";
  COptions options({"stream", "hours", "space"}, {});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  unsigned streamId = 0;
  uint64_t hours = 0, space = 0;
  if (!getStream(options, streamId) || !options.getUnsigned("hours", hours, INT32_MAX) ||
      !options.getUnsigned("space", space, INT32_MAX)) {
    return kExitUsage;
  }
  if (options.has("hours") == options.has("space") || (hours == 0 && space == 0)) {
    return fail(kExitUsage, "give exactly one of --hours H or --space MIB, above 0");
  }
  CStore store;
  int rc = store.open(options, true);
  if (rc != kExitOk) return rc;
  if (!store.client().discardStream(streamId, static_cast<unsigned>(hours), static_cast<unsigned>(space))) {
    return fail(kExitFailed, "the store refused the discard marker of stream %u (run with --verbose)", streamId);
  }
  if (options.json()) {
    CJson().beginObject().value("stream", streamId).value("hours", hours).value("spaceMiB", space).endObject().print();
  } else {
    std::printf("stream %u: discarded, keeping %" PRIu64 " %s\n", streamId, hours != 0 ? hours : space,
                hours != 0 ? "hour(s)" : "MiB");
  }
  return kExitOk;
}

}  // namespace ZarnMedia
