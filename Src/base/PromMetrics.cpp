#include "PromMetrics.h"

#include <cinttypes>
#include <cstdio>

namespace Velto::Zarn {

namespace {

class CPromText {
 public:
  void family(const char* name, const char* type, const char* help) {
    m_text += "# HELP ";
    m_text += name;
    m_text += ' ';
    m_text += help;
    m_text += "\n# TYPE ";
    m_text += name;
    m_text += ' ';
    m_text += type;
    m_text += '\n';
  }
  void sample(const char* name, const char* labels, uint64_t value) {
    char number[32];
    std::snprintf(number, sizeof(number), "%" PRIu64, value);
    line(name, labels, number);
  }
  void sample(const char* name, double value) {
    char number[32];
    std::snprintf(number, sizeof(number), "%.6g", value);
    line(name, nullptr, number);
  }
  void counter(const char* name, const char* help, uint64_t value) {
    family(name, "counter", help);
    sample(name, nullptr, value);
  }
  void gauge(const char* name, const char* help, uint64_t value) {
    family(name, "gauge", help);
    sample(name, nullptr, value);
  }
  std::string take() { return std::move(m_text); }

 private:
  void line(const char* name, const char* labels, const char* value) {
    m_text += name;
    if (labels != nullptr) m_text += labels;
    m_text += ' ';
    m_text += value;
    m_text += '\n';
  }
  std::string m_text;
};

}  // namespace

std::string renderPromMetrics(const MediaMetrics& m) {
  CPromText out;
  out.counter("zarn_media_file_splits_total", "Record files cut while recording (size or duration limit).",
              m.fileSplits);
  out.counter("zarn_media_file_closes_total", "Record files closed, failed closes included.", m.fileCloses);
  out.counter("zarn_media_file_close_failures_total", "Record file closes the store refused.",
              m.fileCloseFailures);
  out.counter("zarn_media_stream_bytes_total", "Bytes of frames written to record files.", m.streamBytes);
  out.counter("zarn_media_index_rebuilds_total", "Record file indexes rebuilt.", m.indexRebuilds);
  out.counter("zarn_media_index_rebuild_failures_total", "Record file index rebuilds that failed.",
              m.indexRebuildFailures);
  out.counter("zarn_media_recycled_files_total", "Record files removed by recycling (loop overwrite).",
              m.recycledFiles);
  out.counter("zarn_media_recycle_failures_total", "Record files recycling failed to remove.", m.recycleFailures);
  out.counter("zarn_media_recycled_bytes_total", "Bytes freed by recycling.", m.recycledBytes);

  // One series per state, the current one 1: an enum as Prometheus expects it.
  static const char* const kStates[] = {"uninitialized", "normal", "failed", "degraded"};
  out.family("zarn_media_store_state", "gauge", "The store's state as the library sees it (1 for the current state).");
  for (uint32_t i = 0; i < 4; ++i) {
    const std::string labels = std::string("{state=\"") + kStates[i] + "\"}";
    out.sample("zarn_media_store_state", labels.c_str(), m.storeState == i ? 1 : 0);
  }
  if (m.store.capacityKnown) {
    out.gauge("zarn_media_store_capacity_bytes", "Total capacity of the store.", m.store.totalBytes);
    out.gauge("zarn_media_store_free_bytes", "Free space of the store.", m.store.freeBytes);
  }
  if (m.store.lockRatio >= 0) {
    out.family("zarn_media_store_locked_ratio", "gauge", "Share of the store's capacity locked against recycling (0 to 1).");
    out.sample("zarn_media_store_locked_ratio", m.store.lockRatio / 10000.0);
  }
  out.gauge("zarn_media_stream_writers", "Stream writers registered (streams being recorded).",
            static_cast<uint64_t>(m.streamWriters < 0 ? 0 : m.streamWriters));
  if (m.store.sessions >= 0) {
    out.gauge("zarn_media_playback_sessions", "Playback sessions open.", static_cast<uint64_t>(m.store.sessions));
  }
  return out.take();
}

}  // namespace Velto::Zarn
