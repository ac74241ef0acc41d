// The frames of the crash recovery test: the recorder writes them and the
// driver checks what comes back, each rebuilding a frame from (seed, sequence,
// base time) alone.
#pragma once

#include <cstdint>
#include <vector>

#include "TestSupport.h"
#include "VeltoFrame.h"

namespace CrashTest {

constexpr uint32_t kGop = 25;  // a key frame every kGop sequence numbers: one a second
constexpr uint32_t kFps = 25;

// Key frames 16..64 KiB, others a few hundred bytes to 6 KiB; frame time and
// millisecond stamp follow the sequence at kFps.
inline std::vector<uint8_t> crashFrame(uint32_t seed, uint32_t seq, uint32_t baseTime) {
  uint32_t h = (seq + 1) * 0x9E3779B1u ^ seed * 0x85EBCA6Bu;
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  const bool key = seq % kGop == 0;
  const uint32_t payload = key ? 16384 + h % 49152 : 300 + h % 5900;
  return ZarnTest::makeFrame(key ? Velto::Zarn::FRAME_TYPE_I : Velto::Zarn::FRAME_TYPE_P, 0, seq,
                             baseTime + seq / kFps, payload, static_cast<uint16_t>(seq * (1000 / kFps)));
}

}  // namespace CrashTest
