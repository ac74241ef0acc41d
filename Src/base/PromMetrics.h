// The library's metrics in the Prometheus text exposition format (0.0.4), as
// the node exporter's textfile collector reads them from a "*.prom" file.
//
// Every family has a HELP and a TYPE line and the "zarn_media_" prefix.
// Counters count since the process started (they never go back, so rate()
// works across the minute ticks); gauges are the values at the tick. A gauge
// whose value is unknown (the store not connected, the ledger unreadable) is
// left out rather than reported as 0.
#pragma once

#include <cstdint>
#include <string>

namespace Velto::Zarn {

// What only the layers above know: the store the client is connected to and
// the engines of the process. Filled on the ticking thread by the provider
// the client layer registers (CMediaSdkStat::setGaugeProvider).
struct StoreGauges {
  bool capacityKnown = false;  // false: the two capacities are not reported
  uint64_t totalBytes = 0;
  uint64_t freeBytes = 0;
  int32_t lockRatio = -1;      // locked share of the capacity, 1/10000 units; -1 unknown
  int32_t sessions = -1;       // open playback sessions; -1 unknown
};

struct MediaMetrics {
  // Counters, since the process started.
  uint64_t fileSplits = 0;            // record files cut while recording
  uint64_t fileCloses = 0;            // record files closed (failed closes included)
  uint64_t fileCloseFailures = 0;     // closes the store refused
  uint64_t streamBytes = 0;           // bytes of frames written
  uint64_t indexRebuilds = 0;         // indexes rebuilt
  uint64_t indexRebuildFailures = 0;
  uint64_t recycledFiles = 0;         // record files removed by recycling (loop overwrite)
  uint64_t recycleFailures = 0;       // record files recycling failed to remove
  uint64_t recycledBytes = 0;         // bytes freed by recycling
  // Gauges at the tick.
  uint32_t storeState = 0;            // 0 not initialised, else a ZarnState (1 normal, 2 failed, 3 degraded)
  int32_t streamWriters = 0;          // registered stream writers
  StoreGauges store;
};

// The whole file's text: families in a fixed order, one sample per line,
// ending with a newline.
std::string renderPromMetrics(const MediaMetrics& metrics);

}  // namespace Velto::Zarn
