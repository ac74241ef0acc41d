// The process-wide values: what the host sets through the client facade and
// every layer reads (frame checks, names, writers, queries).
//
// They belong to the process-wide context but live apart from it, at the
// bottom of the library, so that reading them never creates the context (and
// never loads the configuration file) and so that the lowest layers may read
// them without reaching up. Plain words: hosts set them before initialize;
// readers take what is current.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "KanduClock.h"

namespace Velto::Zarn {

class CMediaValues {
 public:
  static constexpr uint32_t kDefaultMaxFrameSize = 4194304;
  static constexpr uint32_t kEcUnit = 32768;

  // Created on first use, never destroyed: outlives every static user.
  static CMediaValues& instance();

  std::atomic<uint32_t> sdkState{0};       // 0 not initialised; else the last accepted ZarnState
  // A local-disk store is configured: a writer whose store file fails with a
  // store fault continues in a new file (on a local disk) instead of faulting.
  std::atomic<bool> localStoreSupported{false};
  // The store is failed and new record files go to local disks: writers do
  // not ask the store for their buckets.
  std::atomic<bool> localStoreInUse{false};
  std::atomic<int32_t> timeZoneDiff{0};    // hours added to the clock's UTC for record times
  std::atomic<int32_t> maxFrameSize{static_cast<int32_t>(kDefaultMaxFrameSize)};  // bytes
  std::atomic<uint16_t> ecDataNum{4};
  std::atomic<uint16_t> ecParityNum{1};
  std::atomic<uint32_t> ecUnit{kEcUnit};
  std::atomic<uint32_t> ecStripeSize{4 * kEcUnit};  // ecDataNum * ecUnit, bytes

  // The store user of the last initialize; the bucket-name prefix derives from it.
  void setStoreUserName(const std::string& name);
  std::string storeUserName() const;
  // "" for the user "root" (and before any initialize), else user name + "_".
  std::string bucketPrefix() const;

  // Record time of a UTC instant: its seconds plus timeZoneDiff hours.
  int64_t localTime(int64_t utcSeconds) const;
  // Record time "now" on `clock`.
  uint32_t localNow(const Velto::Kandu::IClock& clock) const;

 private:
  mutable std::mutex m_nameMutex;
  std::string m_storeUserName;  // guarded by m_nameMutex
};

}  // namespace Velto::Zarn
