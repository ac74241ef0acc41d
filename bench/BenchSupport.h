// What the benchmark programs share: synthetic frames, process figures from
// the kernel, and a small argument reader.
#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "KanduTime.h"
#include "VeltoFrame.h"

namespace ZarnBench {

inline uint32_t packedTime(uint32_t utc) {
  Velto::Kandu::CTime t(utc);
  return Velto::Zarn::packFrameTime(t.getYear(), t.getMonth(), t.getDay(), t.getHour(), t.getMinute(),
                                    t.getSecond());
}

// A valid frame of `length` bytes (at least 32): head, a payload pattern, tail.
inline std::vector<uint8_t> makeFrame(uint8_t type, uint32_t sequence, uint32_t utc, uint32_t length) {
  std::vector<uint8_t> f(length, static_cast<uint8_t>(sequence));
  Velto::Zarn::VeltoFrameHead head{};
  head.magic = Velto::Zarn::kFrameHeadMagic;
  head.type = type;
  head.sequence = sequence;
  head.length = length;
  head.packedTime = packedTime(utc);
  std::memcpy(f.data(), &head, sizeof(head));
  Velto::Zarn::sealFrameHead(f.data());
  const uint32_t tail = Velto::Zarn::kFrameTailMagic;
  std::memcpy(f.data() + length - 8, &tail, 4);
  std::memcpy(f.data() + length - 4, &length, 4);
  return f;
}

// Gives a frame a new sequence number and time (and a fresh checksum).
inline void restamp(std::vector<uint8_t>& f, uint32_t sequence, uint32_t utc) {
  auto* head = reinterpret_cast<Velto::Zarn::VeltoFrameHead*>(f.data());
  head->sequence = sequence;
  head->packedTime = packedTime(utc);
  Velto::Zarn::sealFrameHead(f.data());
}

inline double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

inline long contextSwitches() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_nvcsw + u.ru_nivcsw;
}

inline long peakRssKb() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// A field of /proc/self/status ("VmRSS:", "Threads:"), 0 when absent.
inline long procStatus(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(field);
  while (std::getline(status, line))
    if (line.compare(0, n, field) == 0) return std::atol(line.c_str() + n);
  return 0;
}

// Walks "--name value" and "--flag" arguments; exits with 2 on a missing value.
class ArgReader {
 public:
  ArgReader(int argc, char** argv) : m_argc(argc), m_argv(argv) {}
  bool next(std::string& name) {
    if (++m_i >= m_argc) return false;
    name = m_argv[m_i];
    return true;
  }
  const char* value() {
    if (m_i + 1 >= m_argc) {
      std::fprintf(stderr, "%s needs a value\n", m_argv[m_i]);
      std::exit(2);
    }
    return m_argv[++m_i];
  }
  unsigned number() { return static_cast<unsigned>(std::atoi(value())); }

 private:
  int m_argc;
  char** m_argv;
  int m_i = 0;
};

}  // namespace ZarnBench
