// zarn-media timeline: the recorded time of one or more streams as an SVG
// picture (TimelineSvg.h), from the clip list (recorded and locked spans) and
// the file list (files without index, cut points).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Cli.h"
#include "Commands.h"
#include "TimelineSvg.h"

namespace ZarnMedia {

namespace {

constexpr size_t kMaxStreams = 64;

TimeSpan clipped(int64_t begin, int64_t end, int64_t from, int64_t to) {
  return {std::max(begin, from), std::min(end, to)};
}

// Clips and files name their last recorded second; a span ends one second after.
// A file still being written has no end yet: it runs to now.
int64_t fileEnd(const Velto::Zarn::RecordClipEx& f) {
  return f.endTime != 0 ? f.endTime : std::max<int64_t>(f.beginTime, nowSeconds());
}

// The row of one stream over [from, to). Returns kExitOk or an exit code after printing why.
int collectRow(CStore& store, unsigned streamId, int64_t from, int64_t to, TimelineRow& row) {
  row.stream = streamId;
  std::vector<Velto::Zarn::RecordClip> clips;
  // One clip per run of files: the clip length is the whole range.
  const auto length = static_cast<unsigned>(std::min<int64_t>(to - from, UINT32_MAX));
  int rc = store.client().queryRecordClipList(streamId, static_cast<unsigned>(from), static_cast<unsigned>(to), clips,
                                              length);
  if (rc != 0) return fail(kExitFailed, "the clip query of stream %u failed (code %d)", streamId, rc);
  for (const auto& c : clips) {
    const TimeSpan s = clipped(c.beginTime, static_cast<int64_t>(c.endTime) + 1, from, to);
    if (s.end <= s.begin) continue;
    row.recorded.push_back(s);
    if (c.locked) row.locked.push_back(s);
  }
  std::sort(row.recorded.begin(), row.recorded.end(), [](const TimeSpan& a, const TimeSpan& b) { return a.begin < b.begin; });

  std::vector<Velto::Zarn::RecordClipEx> files;
  if ((rc = store.files(streamId, files, from, to)) != 0) {
    return fail(kExitFailed, "the file query of stream %u failed (code %d)", streamId, rc);
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.beginTime < b.beginTime; });
  int64_t previousEnd = -1;
  for (const auto& f : files) {
    const TimeSpan s = clipped(f.beginTime, fileEnd(f) + 1, from, to);
    if (f.missing && s.end > s.begin) row.noIndex.push_back(s);
    // A cut: the file begins within a second of where the one before ended.
    if (previousEnd >= 0 && f.beginTime <= previousEnd + 1 && f.beginTime >= from && f.beginTime < to) {
      row.cuts.push_back(f.beginTime);
    }
    previousEnd = std::max(previousEnd, fileEnd(f));
  }
  return kExitOk;
}

}  // namespace

int runTimeline(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media timeline --stream ID [--stream ID ...] [--from TIME] [--to TIME]\n"
      "                           [--width PIXELS] -o FILE.svg\n"
      "\n"
      "Draws the streams' recordings over the range as an SVG picture, one row per\n"
      "stream: recorded spans (blue), gaps (grey), locked spans (red band), record\n"
      "files without index (yellow band) and the points where one record file was cut\n"
      "and the next begun (dark lines), over a UTC time axis in hours or days as the\n"
      "range asks. The elements carry their times as data-begin/data-end attributes.\n"
      "\noptions:\n"
      "  --stream ID            a stream to draw, one row each (up to 64)\n"
      "  --from TIME, --to TIME \"YYYY-MM-DD HH:MM:SS\" (UTC) or seconds since 1970, both\n"
      "                         included (default: from the first to the last recorded\n"
      "                         second of the streams)\n"
      "  --width PIXELS         picture width, 400 to 8000 (default 1200)\n"
      "  -o, --output FILE      the SVG file to write, or - for stdout\n";
  // --stream repeats, which the option parser does not keep: taken out first.
  std::vector<std::string> streamArgs;
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--stream") == 0 && i + 1 < argc) {
      streamArgs.push_back(argv[++i]);
    } else if (std::strncmp(argv[i], "--stream=", 9) == 0) {
      streamArgs.push_back(argv[i] + 9);
    } else {
      rest.push_back(std::strcmp(argv[i], "-o") == 0 ? const_cast<char*>("--output") : argv[i]);
    }
  }
  COptions options({"from", "to", "output", "width"}, {});
  if (!options.parse(static_cast<int>(rest.size()), rest.data())) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  if (!options.positional().empty()) {
    return fail(kExitUsage, "unexpected argument '%s' (see --help)", options.positional()[0].c_str());
  }
  if (streamArgs.empty()) return fail(kExitUsage, "--stream ID is required (once per stream to draw)");
  if (streamArgs.size() > kMaxStreams) return fail(kExitUsage, "at most %zu streams in one picture", kMaxStreams);
  std::vector<unsigned> streams;
  for (const std::string& text : streamArgs) {
    unsigned long long id = 0;
    int consumed = 0;
    if (std::sscanf(text.c_str(), "%llu%n", &id, &consumed) != 1 || static_cast<size_t>(consumed) != text.size() ||
        id > UINT32_MAX) {
      return fail(kExitUsage, "--stream: '%s' is not a stream id", text.c_str());
    }
    streams.push_back(static_cast<unsigned>(id));
  }
  const std::string output = options.value("output");
  if (output.empty()) return fail(kExitUsage, "-o FILE.svg is required");
  uint64_t width = 1200;
  if (!options.getUnsigned("width", width, 8000)) return kExitUsage;
  if (width < 400) return fail(kExitUsage, "--width must be at least 400");

  CStore store;
  int rc = store.open(options, true);
  if (rc != kExitOk) return rc;

  // The default range: every recorded second of the streams.
  int64_t first = CStore::kLastTime, last = CStore::kFirstTime;
  if (!options.has("from") || !options.has("to")) {
    for (unsigned id : streams) {
      std::vector<Velto::Zarn::RecordClipEx> files;
      if (store.files(id, files) != 0) return fail(kExitFailed, "cannot list the files of stream %u", id);
      for (const auto& f : files) {
        first = std::min<int64_t>(first, f.beginTime);
        last = std::max<int64_t>(last, fileEnd(f));
      }
    }
    if (first > last) return fail(kExitNotFound, "nothing is recorded for these streams: give --from and --to");
  }
  int64_t from = 0, to = 0;
  if ((rc = getRange(options, first, last, from, to)) != kExitOk) return rc;

  std::vector<TimelineRow> rows(streams.size());
  for (size_t i = 0; i < streams.size(); ++i) {
    if ((rc = collectRow(store, streams[i], from, to + 1, rows[i])) != kExitOk) return rc;
  }
  const std::string svg = renderTimelineSvg(rows, from, to + 1, static_cast<int>(width));
  FILE* out = output == "-" ? stdout : std::fopen(output.c_str(), "wb");
  if (out == nullptr) return fail(kExitInput, "cannot write %s", output.c_str());
  const bool written = std::fwrite(svg.data(), 1, svg.size(), out) == svg.size();
  if (out != stdout && std::fclose(out) != 0) return fail(kExitInput, "cannot write %s", output.c_str());
  if (!written) return fail(kExitInput, "cannot write %s", output.c_str());
  if (output == "-") return kExitOk;

  size_t recorded = 0;
  for (const auto& row : rows) recorded += row.recorded.size();
  if (options.json()) {
    CJson().beginObject().value("output", output).time("from", from).time("to", to)
        .value("streams", static_cast<uint64_t>(rows.size())).value("recordedSpans", static_cast<uint64_t>(recorded))
        .endObject().print();
  } else {
    std::printf("%s: %zu stream(s), %zu recorded span(s), %s .. %s UTC\n", output.c_str(), rows.size(), recorded,
                formatTime(from).c_str(), formatTime(to).c_str());
  }
  return kExitOk;
}

}  // namespace ZarnMedia
