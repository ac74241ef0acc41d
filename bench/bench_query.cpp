// Cost of a one-day clip list as a stream's bucket grows.
//
// Stream 1 holds a year of 30-minute record files (17,520 names), stream 2
// only the day that is queried (48 names). Both answer the same one-day
// queryRecordClipList. Because listings are bounded by markers derived from
// the range, the year should cost about what the day costs; the run prints the
// ratio at the end.
//
// The store lives in a fresh directory under /dev/shm when that is writable
// (creating 17,520 files on a disk that syncs each close takes minutes),
// else under $TMPDIR or /tmp; it is removed afterwards. Logging is at warning
// level, as a host in production would run it; info lines are not measured.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "KanduLog.h"
#include "KanduTime.h"
#include "RecordFileName.h"
#include "RecordQuery.h"
#include "ZarnClient.h"

using namespace Velto::Zarn;

namespace {

constexpr uint32_t kFileSeconds = 1800;
constexpr uint32_t kDaySeconds = 86400;
constexpr uint32_t kYearFiles = 365 * kDaySeconds / kFileSeconds;  // 17,520
constexpr uint32_t kYearStream = 1;
constexpr uint32_t kDayStream = 2;

const uint32_t kYearStart = static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(2025, 1, 1, 0, 0, 0));
// A day in the middle of the year, so the year bucket has files on both sides.
const uint32_t kQueryDay = kYearStart + 182 * kDaySeconds;

std::string makeStoreDir() {
  std::string base = "/dev/shm";
  if (::access(base.c_str(), W_OK) != 0) {
    const char* tmp = std::getenv("TMPDIR");
    base = tmp && *tmp ? tmp : "/tmp";
  }
  std::string pattern = base + "/zarn-bench-query-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) std::abort();
  return buffer.data();
}

// The store and its two buckets, filled once for the whole run.
class QueryStore {
 public:
  QueryStore() : m_dir(makeStoreDir()) {
    Config config{m_dir.c_str(), 0, "root", ""};
    if (!m_fs.initialize(config)) std::abort();
    fill(kYearStream, kYearStart, kYearFiles);
    fill(kDayStream, kQueryDay, kDaySeconds / kFileSeconds);
  }
  ~QueryStore() {
    m_fs.close();
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
  }
  CZarnFileSystem& fs() { return m_fs; }

 private:
  // Closed, unlocked files with an internal index, back to back; empty, since
  // queries read names and listing sizes only.
  void fill(uint32_t streamId, uint32_t first, uint32_t count) {
    if (!m_fs.createBucket(bucketName(streamId, BUCKET_KIND_MEDIA)) ||
        !m_fs.createBucket(bucketName(streamId, BUCKET_KIND_FORGOTTEN))) {
      std::abort();
    }
    for (uint32_t i = 0; i < count; ++i) {
      RecordFileName record;
      record.streamId = streamId;
      record.beginTime = first + i * kFileSeconds;
      record.endTime = record.beginTime + kFileSeconds;
      record.type = 1;
      record.indexState = RECORD_INDEX_INTERNAL;
      std::string name;
      if (!generateRecordFileName(record, name)) std::abort();
      std::unique_ptr<CFile> file = m_fs.createFile(name, 4, 1);
      if (!file || !file->close()) std::abort();
    }
  }

  std::string m_dir;
  CZarnFileSystem m_fs;
};

// Filled by main before any timing starts, removed after the run.
std::unique_ptr<QueryStore> g_store;

void runOneDayClipList(benchmark::State& state, uint32_t streamId) {
  CZarnFileSystem& fs = g_store->fs();
  CWritingFileTable writing;  // nothing is being written
  const QueryEnv env{Velto::Kandu::systemClock(), writing, nullptr};
  size_t clipCount = 0;
  for (auto _ : state) {
    std::vector<RecordClip> clips;
    if (queryRecordClipList(env, fs, streamId, kQueryDay, kQueryDay + kDaySeconds, clips, 3600) != 0) {
      state.SkipWithError("queryRecordClipList failed");
      break;
    }
    clipCount = clips.size();
    benchmark::DoNotOptimize(clips.data());
  }
  state.counters["clips"] = static_cast<double>(clipCount);
}

void BM_ClipListOneDay_YearBucket(benchmark::State& state) { runOneDayClipList(state, kYearStream); }
void BM_ClipListOneDay_DayBucket(benchmark::State& state) { runOneDayClipList(state, kDayStream); }

BENCHMARK(BM_ClipListOneDay_YearBucket)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ClipListOneDay_DayBucket)->Unit(benchmark::kMicrosecond);

// Keeps each benchmark's time per iteration (in its own unit, microseconds
// here) so that the ratio can be printed after the table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(bool color) : ConsoleReporter(color ? OO_Defaults : OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& reports) override {
    for (const Run& run : reports) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        m_times[run.benchmark_name()] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
      }
    }
    ConsoleReporter::ReportRuns(reports);
  }
  struct Times {
    double real = 0;
    double cpu = 0;
  };
  bool times(const std::string& name, Times& out) const {
    auto it = m_times.find(name);
    if (it == m_times.end()) return false;
    out = it->second;
    return true;
  }

 private:
  std::map<std::string, Times> m_times;
};

}  // namespace

int main(int argc, char** argv) {
  Velto::Kandu::setLogLevel(Velto::Kandu::LOG_WARN);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  g_store = std::make_unique<QueryStore>();
  RatioReporter reporter(::isatty(::fileno(stdout)) != 0);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  RatioReporter::Times year, day;
  if (reporter.times("BM_ClipListOneDay_YearBucket", year) && reporter.times("BM_ClipListOneDay_DayBucket", day) &&
      day.real > 0 && day.cpu > 0) {
    std::printf("one-day clip list: year bucket %.1f us, day bucket %.1f us, ratio %.2f (real time); "
                "cpu %.1f us / %.1f us, ratio %.2f. Targets: under 5000 us, ratio at most 1.5\n",
                year.real, day.real, year.real / day.real, year.cpu, day.cpu, year.cpu / day.cpu);
  }
  g_store.reset();
  benchmark::Shutdown();
  return 0;
}
