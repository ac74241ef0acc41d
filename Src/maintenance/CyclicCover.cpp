#include "CyclicCover.h"

#include <algorithm>
#include <cinttypes>

#include "DiscardStreams.h"
#include "MediaLog.h"
#include "MediaValues.h"
#include "RecordDeletion.h"

namespace Velto::Zarn {

using Velto::Kandu::CTimer;
using Velto::Kandu::TimerProcedure;

namespace {

constexpr uint64_t kMiB = 1u << 20;
constexpr const char* kTimerName = "Maintain all stream.";

double thresholdFrom(const CMediaConfig& config) {
  bool present = false;
  return config.getCyclicCoverThresholdRate(present);
}

}  // namespace

CZarnCyclicCover::CZarnCyclicCover(Velto::Kandu::IClock& clock, const CMediaConfig& config, CMediaSdkStat& stats)
    : m_clock(clock),
      m_stats(stats),
      m_delayMs(static_cast<uint32_t>(std::max(config.getEyclicCoverDelay(), 0))),
      m_periodMs(static_cast<uint32_t>(std::max(config.getCyclicCoverPeriod(), 1))),
      m_defaultHours(config.getRecycleHours()),
      m_thresholdRatio(thresholdFrom(config)),
      m_ratioAfterDel(config.getCyclicCoverRateAfterDel()),
      m_forgotten(clock, config),
      m_timer(kTimerName, clock) {}

CZarnCyclicCover::~CZarnCyclicCover() { stop(); }

void CZarnCyclicCover::start(CZarnFileSystem* fs, const Config& config, IIndexFixSink* indexFix) {
  if (fs == nullptr) {
    ZLOG(ERROR, "CZarnCyclicCover", 0, "p_zarn == NULL.\n");
    return;
  }
  m_address = config.address ? config.address : "";
  m_user = config.userName ? config.userName : "";
  m_password = config.password ? config.password : "";
  m_port = config.port;
  m_fs.store(fs);
  m_forgotten.init(fs, config, indexFix);
  m_timer.start(TimerProcedure(this, &CZarnCyclicCover::timerProc), m_delayMs, m_periodMs);
  ZLOG(INFO, "CZarnCyclicCover", 0, "Cyclic Cover Start. %s delay: %u period: %u\n", kTimerName, m_delayMs,
       m_periodMs);
}

void CZarnCyclicCover::stop() {
  const bool started = m_fs.exchange(nullptr) != nullptr;
  m_timer.stop(true);
  releaseHold(true);
  if (!started) return;
  m_forgotten.uninit();
  ZLOG(INFO, "CZarnCyclicCover", 0, "Cyclic Cover Stoped.\n");
}

int32_t CZarnCyclicCover::setUrgentRecycleRatio(uint32_t ratio) {
  if (ratio >= 100) {
    ZLOG(ERROR, "CZarnCyclicCover", 0, "Urgent recycle ratio bigger than 100 %u\n", ratio);
    return -1;
  }
  const double threshold = 100.0 - ratio;
  m_thresholdRatio.store(threshold);
  m_ratioAfterDel.store(threshold + 0.5);
  ZLOG(INFO, "CZarnCyclicCover", 0, "Change urgent recycle ratio. space threshold: %f%% after del: %f%%\n", threshold,
       threshold + 0.5);
  return 0;
}

int32_t CZarnCyclicCover::setCoverPolicy(uint32_t streamId, uint64_t durationHours, uint64_t space) {
  m_policies.set(streamId, durationHours, space, m_defaultHours);
  return 0;
}

int32_t CZarnCyclicCover::setCameraCoverPolicy(const std::string& cameraId, const std::list<unsigned>& streamIds,
                                               uint64_t durationHours, uint64_t space) {
  std::list<unsigned> streams = streamIds;
  {
    std::lock_guard<std::mutex> lock(m_setsMutex);
    if (durationHours == 0 && space == 0) {
      // A reset reaches the streams the camera had, even when the caller no
      // longer lists them.
      auto it = m_cameraStreams.find(cameraId);
      if (it != m_cameraStreams.end()) {
        streams.insert(streams.end(), it->second.begin(), it->second.end());
        m_cameraStreams.erase(it);
      }
    } else {
      m_cameraStreams[cameraId] = streamIds;
    }
  }
  for (unsigned id : streams) setCoverPolicy(id, durationHours, space);
  return 0;
}

int32_t CZarnCyclicCover::setForgottenStorage(uint32_t streamId, uint32_t durationHours, uint32_t space) {
  return m_forgotten.setForgottenStorage(streamId, durationHours, space);
}

bool CZarnCyclicCover::discardStream(uint32_t streamId, uint32_t durationHours, uint32_t space) {
  CZarnFileSystem* fs = m_fs.load();
  if (fs == nullptr) {
    ZLOG(ERROR, "CZarnCyclicCover", 0, "zarn is NULL.\n");
    return false;
  }
  return Velto::Zarn::discardStream(*fs, streamId, durationHours, space);
}

void CZarnCyclicCover::addDeleteStreams(const std::list<unsigned>& streamIds) {
  std::lock_guard<std::mutex> lock(m_setsMutex);
  m_deleteSet.insert(streamIds.begin(), streamIds.end());
}

std::set<uint32_t> CZarnCyclicCover::deleteSet() const {
  std::lock_guard<std::mutex> lock(m_setsMutex);
  return m_deleteSet;
}

CoverRun CZarnCyclicCover::makeRun(CZarnFileSystem& fs, const CoverPassOptions& options) {
  CoverRun run{fs};
  run.localNow = CMediaValues::instance().localNow(m_clock);
  run.periodSeconds = m_periodMs / 1000;
  run.stats = &m_stats;
  run.dryRun = options.dryRun;
  run.onRemoved = options.onRemoved;
  return run;
}

uint64_t CZarnCyclicCover::coverByPolicies(CoverRun& run) {
  uint64_t freed = 0;
  // A stream with both limits is kept by hours only.
  for (const auto& [id, policy] : m_policies.snapshot()) freed += coverStream(run, id, policy.durationHours, policy.space);
  return freed;
}

CoverPassReport CZarnCyclicCover::cyclicCover(CZarnFileSystem& fs, const CoverPassOptions& options,
                                              CCoverMutex& mutex) {
  const uint64_t startMs = m_clock.monotonicMs();
  ZLOG(INFO, "CZarnCyclicCover", 0, "Cyclic Cover Executing...\n");
  CoverPassReport report;
  SystemInfo info{};
  if (fs.getSystemInfo(info) && info.totalCapacity != 0) {
    report.measured = true;
    report.totalBytes = info.totalCapacity;
    report.freeBytes = info.freeCapacity;
    const double total = static_cast<double>(info.totalCapacity);
    ZLOG(INFO, "CZarnCyclicCover", 0, "Space: total: %" PRIu64 " left: %" PRIu64 " leftRatio: %f%%\n",
         info.totalCapacity / kMiB, info.freeCapacity / kMiB, info.freeCapacity * 100.0 / total);
    DiscardList discards;
    if (!queryDiscardStream(fs, discards)) {
      ZLOG(WARN, "CZarnCyclicCover", 0, "query discard stream failed.\n");
      discards.clear();
    }
    CoverRun run = makeRun(fs, options);
    report.freedByPolicy = coverByPolicies(run);
    report.freedByDiscard = coverDiscardStreams(run, discards);
    const uint64_t freed = report.freedByPolicy + report.freedByDiscard;
    const double leftRatio = static_cast<double>(freed + info.freeCapacity) * 100.0 / total;
    ZLOG(INFO, "CZarnCyclicCover", 0, "Space: total: %" PRIu64 " left: %" PRIu64 " freed: %" PRIu64 " leftRatio: %f%%\n",
         info.totalCapacity / kMiB, info.freeCapacity / kMiB, freed / kMiB, leftRatio);
    if (m_thresholdRatio.load() > leftRatio) {
      report.lowSpace = true;
      ZLOG(INFO, "CZarnCyclicCover", 0, "lowSpace %f\n", leftRatio);
      // A dry run shows what would go without taking the mutex from anyone.
      if (options.dryRun || mutex.tryEnter(fs)) {
        ZLOG(INFO, "CZarnCyclicCover", 0, "Entry mutex success.\n");
        report.enteredMutex = !options.dryRun;
        const uint64_t need = static_cast<uint64_t>((m_ratioAfterDel.load() - leftRatio) * total / 100.0);
        uint64_t urgent = freeDiscardStream(run, discards, need);
        if (urgent < need) urgent += lowSpace(run, need - urgent);
        report.freedUrgently = urgent;
      } else {
        ZLOG(INFO, "CZarnCyclicCover", 0, "Entry Mutex faild, maybe other instance executing.\n");
      }
    }
  }
  report.spentMs = static_cast<uint32_t>(m_clock.monotonicMs() - startMs);
  ZLOG(DEBUG, "CZarnCyclicCover", 0, "Cyclic Cover Execute over. Spend %u ms.\n", report.spentMs);
  return report;
}

void CZarnCyclicCover::deleteRecord(CZarnFileSystem& fs) {
  const std::set<uint32_t> streams = deleteSet();
  if (streams.empty()) {
    ZLOG(DEBUG, "CZarnCyclicCover", 0, "has no streamid can delete record\n");
    return;
  }
  for (uint32_t id : streams) {
    const bool mediaGone = deleteStreamRecords(fs, id, BUCKET_KIND_MEDIA);
    const bool forgottenGone = deleteStreamRecords(fs, id, BUCKET_KIND_FORGOTTEN);
    if (!mediaGone || !forgottenGone) continue;  // more next run
    std::lock_guard<std::mutex> lock(m_setsMutex);
    m_deleteSet.erase(id);
  }
}

CoverPassReport CZarnCyclicCover::runPass(CZarnFileSystem& fs, const CoverPassOptions& options) {
  CCoverMutex mutex;
  return cyclicCover(fs, options, mutex);  // the mutex file goes with `mutex`
}

void CZarnCyclicCover::releaseHold(bool force) {
  if (!m_holdMutex.held()) {
    m_holdFs.reset();
    return;
  }
  if (!force && m_clock.monotonicMs() < m_holdUntilMs) return;
  m_holdMutex.leave();
  m_holdFs.reset();
}

void CZarnCyclicCover::timerProc(CTimer* timer) {
  const uint64_t startMs = m_clock.monotonicMs();
  releaseHold(false);
  auto fs = std::make_unique<CZarnFileSystem>();
  const Config config{m_address.c_str(), m_port, m_user.c_str(), m_password.c_str()};
  uint64_t waitMs = 0;
  if (!(m_connect ? m_connect(*fs, config) : fs->initialize(config))) {
    ZLOG(WARN, "CZarnCyclicCover", getLastError(), "Zarn init error, %s. exit timer proc\n", getErrorMsg());
  } else {
    const bool heldBefore = m_holdMutex.held();
    cyclicCover(*fs, CoverPassOptions{}, m_holdMutex);
    deleteRecord(*fs);
    if (m_holdMutex.held() && !heldBefore) {
      // Held until 30 minutes after this run began; the connection the file
      // is open on stays with it.
      m_holdUntilMs = startMs + kCoverMutexHoldMs;
      const uint64_t now = m_clock.monotonicMs();
      waitMs = m_holdUntilMs > now ? m_holdUntilMs - now : 0;
      if (waitMs == 0) {
        m_holdMutex.leave();
      } else {
        ZLOG(INFO, "CZarnCyclicCover", 0, "Free space over, waiting %d seconds.\n", static_cast<int>(waitMs / 1000));
        m_holdFs = std::move(fs);
      }
    }
  }
  // The pause between runs is a full period, whatever this one took.
  const uint64_t spent = m_clock.monotonicMs() - startMs;
  timer->setPeriod(static_cast<uint32_t>(std::min<uint64_t>(spent + waitMs + m_periodMs, UINT32_MAX)));
  if (fs) fs->close();
}

}  // namespace Velto::Zarn
