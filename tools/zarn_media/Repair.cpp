// zarn-media repair: rebuilds the indexes a crashed recorder left missing, now
// and on this thread. Unlike the other commands it works below the media
// client, on the store client and the index fixer (linked into the tool), since
// the client's own repair runs in the background of a recording process.
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "Cli.h"
#include "Commands.h"
#include "StreamRepair.h"

namespace ZarnMedia {

namespace {

bool parseStreamList(const std::string& text, std::vector<uint32_t>& out) {
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    char* end = nullptr;
    const unsigned long long id = std::strtoull(item.c_str(), &end, 10);
    if (item.empty() || *end != '\0' || id > UINT32_MAX) return false;
    out.push_back(static_cast<uint32_t>(id));
  }
  return !out.empty();
}

std::string describe(const Velto::Zarn::StreamRepairEntry& e) {
  using Velto::Zarn::IndexFixReport;
  const IndexFixReport& r = e.report;
  char text[160];
  switch (r.outcome) {
    case IndexFixReport::kRebuilt:
    case IndexFixReport::kWouldRebuild:
      std::snprintf(text, sizeof(text), "%s with %u key frames (%u frames) up to %s",
                    r.outcome == IndexFixReport::kRebuilt ? "rebuilt" : "would rebuild", r.keyFrames, r.frames,
                    formatTime(r.endTime).c_str());
      return text;
    case IndexFixReport::kComplete:
      return "already complete (only its name was unfinished)";
    case IndexFixReport::kTooSmall:
      return "too small to hold a frame";
    case IndexFixReport::kInUse:
      return "left alone: a writer has it open";
    case IndexFixReport::kNoFrames:
      return "not repaired: no frame can be read from it";
    case IndexFixReport::kStoreError:
      return "not repaired: the store failed (run with --verbose for the reason)";
  }
  return "?";
}

}  // namespace

int runRepair(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media repair [--stream ID[,ID...]] [--dry-run]\n"
      "\n"
      "Rebuilds what a recorder that crashed or was killed left unfinished: record files\n"
      "under open names that nobody writes, and closed files whose index is missing or\n"
      "whose rebuild was interrupted. A recording process repairs these in the background\n"
      "too; this does it now. Prints what it found and did per file; a second run finds\n"
      "nothing left. Exit 1 when a file could not be repaired.\n"
      "\noptions:\n"
      "  --stream IDS           stream ids, comma-separated (default: every stream of the store)\n"
      "  --dry-run              only report what would be done\n";
  COptions options({"stream"}, {"dry-run"});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  if (std::getenv("ZARN_LOG_LEVEL") == nullptr) setenv("ZARN_LOG_LEVEL", options.has("verbose") ? "info" : "off", 1);
  std::vector<uint32_t> streams;
  if (options.has("stream") && !parseStreamList(options.value("stream"), streams)) {
    return fail(kExitUsage, "--stream: '%s' is not a comma-separated list of ids", options.value("stream").c_str());
  }
  Velto::Zarn::CZarnFileSystem fs;
  const int rc = connectStore(options, fs);
  if (rc != kExitOk) return rc;
  if (streams.empty() && !Velto::Zarn::listStreamIds(fs, streams)) {
    return fail(kExitFailed, "the store's streams cannot be listed: %s", Velto::Zarn::getErrorMsg());
  }
  Velto::Zarn::IndexFixOptions fix;
  fix.dryRun = options.has("dry-run");
  CJson json;
  json.beginObject().value("dryRun", fix.dryRun).beginArray("files");
  size_t found = 0, unrepaired = 0;
  for (uint32_t id : streams) {
    std::vector<Velto::Zarn::StreamRepairEntry> entries;
    if (!Velto::Zarn::repairStream(fs, id, fix, entries)) {
      return fail(kExitFailed, "stream %u cannot be listed: %s", id, Velto::Zarn::getErrorMsg());
    }
    for (const auto& e : entries) {
      ++found;
      const bool failed = e.report.outcome == Velto::Zarn::IndexFixReport::kNoFrames ||
                          e.report.outcome == Velto::Zarn::IndexFixReport::kStoreError;
      if (failed) ++unrepaired;
      if (options.json()) {
        json.beginObject()
            .value("stream", id)
            .value("file", e.name)
            .value("outcome", Velto::Zarn::indexFixOutcomeName(e.report.outcome))
            .value("keyFrames", e.report.keyFrames)
            .value("frames", e.report.frames)
            .value("endTime", static_cast<uint64_t>(e.report.endTime))
            .value("now", e.report.name)
            .endObject();
      } else {
        std::printf("%s: %s%s%s\n", e.name.c_str(), describe(e).c_str(), e.report.name != e.name ? " -> " : "",
                    e.report.name != e.name ? e.report.name.c_str() : "");
      }
    }
  }
  if (options.json()) {
    json.endArray().value("unrepaired", static_cast<uint64_t>(unrepaired)).endObject().print();
  } else if (found == 0) {
    std::printf("nothing to repair in %zu stream(s)\n", streams.size());
  }
  return unrepaired == 0 ? kExitOk : kExitFailed;
}

}  // namespace ZarnMedia
