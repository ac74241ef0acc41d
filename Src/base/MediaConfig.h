// The library's optional tuning file ("MediaConfig.cfg").
//
// The file is one JSON object whose keys can only override built-in defaults.
// Nothing is overridden unless the file was read, parsed, and holds a non-zero
// JSON integer under "enable_cfg" (the master switch). Two kinds of value:
//   * cached: read once by initWithFile and returned by the plain getters;
//   * per call: looked up in the parsed document on every call, with a flag
//     telling whether the file holds the key, so that a configured value can
//     take precedence over the host's setters.
//
// JSON types are strict: an integer key must hold a signed JSON integer (an
// integer literal is accepted, a boolean or 5.0 is not), a real key a JSON real
// (the literal 5 is refused, deliberately, and the default used), a string key a
// string. A refused value costs one error line naming jsoncpp's type code and
// yields the default. An absent key costs one warning each time it is looked up
// while the file is loaded.
//
// Threading: initWithFile runs once, while the process-wide context is created
// and before anything else can see the object. Afterwards every method only
// reads and may be called from any thread without a lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

namespace Velto::Zarn {

class CMediaConfig {
 public:
  // Built-in defaults, used whenever the file does not override a value.
  static constexpr int32_t kDefaultMaxFileLength = 1073741824;    // bytes (1 GiB)
  static constexpr int32_t kDefaultMaxFileDuration = 1800;        // seconds
  static constexpr int32_t kDefaultMinCutFileTime = 30;           // seconds
  static constexpr int32_t kDefaultZarnTimeout = 5000;            // store option 2, store's units
  static constexpr int32_t kDefaultCyclicCoverDelay = 300000;     // ms to the first cover pass
  static constexpr int32_t kDefaultCyclicCoverPeriod = 1800000;   // ms between cover passes
  static constexpr double kDefaultCyclicCoverRateAfterDel = 5.5;  // free-space percent to reach
  static constexpr int32_t kDefaultEnableSvc = 1;
  static constexpr int32_t kDefaultForgottenManagerPort = 38010;
  static constexpr const char* kDefaultMediaSdkStatPath = "/dev/shm/mediasdk.stat";
  static constexpr int32_t kDefaultMediaSdkFlushTimer = 60;       // seconds
  static constexpr uint32_t kDefaultRecycleHours = 0;             // 0: no default recycling policy
  static constexpr int32_t kDefaultZarnLogLevel = 4;              // store option 4
  static constexpr const char* kDefaultZarnLogPath = "./log/zarn";  // store option 3
  static constexpr int32_t kDefaultMaxLockRate = 57;              // percent of capacity
  static constexpr double kDefaultCyclicCoverThresholdRate = 5.0;  // urgent-recycle threshold, percent
  static constexpr const char* kDefaultMetricsPromFile = "";      // "": no metrics file

  // All defaults; nothing loaded, so every lookup answers its default silently.
  CMediaConfig();

  // Reads and parses `path` (relative paths are taken from the working
  // directory) and fills the cached values. Never fails the caller: a missing
  // file is a warning, an unparsable one two error lines, and either leaves
  // every value at its default.
  void initWithFile(const std::string& path);

  // Typed lookups in the parsed document. With nothing loaded they return
  // `defaultValue` without a log line; otherwise an absent key logs a warning
  // and a value of the wrong JSON type an error line, and both return
  // `defaultValue`. They do not look at "enable_cfg".
  int32_t getInt(const std::string& key, int32_t defaultValue) const;
  double getDouble(const std::string& key, double defaultValue) const;
  std::string getString(const std::string& key, const std::string& defaultValue) const;
  // Copies the array under `key` into `out` and returns true; when the document
  // has no array there, logs the missing-key warning and returns false.
  bool getArray(const std::string& key, Json::Value& out) const;
  // As above, keeping the string elements (others are refused with the type
  // error line). `out` is replaced.
  bool getArray(const std::string& key, std::vector<std::string>& out) const;

  // Cached values (defaults unless the file is enabled).
  bool getCfgEnabled() const { return m_enabled; }
  int32_t getMaxFileLength() const { return m_maxFileLength; }
  int32_t getMaxFileDuration() const { return m_maxFileDuration; }
  int32_t getMinCutFileTime() const { return m_minCutFileTime; }
  int32_t getZarnTimeout() const { return m_zarnTimeout; }
  int32_t getEyclicCoverDelay() const { return m_cyclicCoverDelay; }
  int32_t getCyclicCoverPeriod() const { return m_cyclicCoverPeriod; }
  double getCyclicCoverRateAfterDel() const { return m_cyclicCoverRateAfterDel; }
  bool getSVCEnabled() const { return m_svcEnabled; }
  int32_t getForgottenManagerPort() const { return m_forgottenManagerPort; }
  const std::string& getMediaSdkStatPath() const { return m_mediaSdkStatPath; }
  int32_t getMediaSdkFlushTimer() const { return m_mediaSdkFlushTimer; }
  uint32_t getRecycleHours() const { return m_recycleHours; }
  // "metrics_prom_file": where the Prometheus metrics go (a "*.prom" path in the
  // node exporter's textfile directory); empty, the default, for none.
  const std::string& getMetricsPromFile() const { return m_metricsPromFile; }
  // Whether the enabled file names "media_sdk_stat_file" itself: the library
  // writes the status file only then (the default path is for readers).
  bool getStatFileConfigured() const { return m_statFileConfigured; }

  // Per-call values. With the file disabled: `present` = false and the default,
  // without a log line. Enabled: `present` tells whether the file holds the key
  // (whatever its type) and the value is the typed lookup's answer.
  int getZarnLogLevel(bool& present) const;
  std::string getZarnLogPath(bool& present) const;
  int getMaxLockRate(bool& present) const;
  double getCyclicCoverThresholdRate(bool& present) const;

  // The local-disk store's configuration file name ("stdfile_config_file_name").
  // False when the file is disabled or the name is empty; `out` is replaced.
  bool getStdFileConfigFileName(std::string& out) const;

  // Renders every value shown to operators, one "label : value" line each,
  // logs the text at info level and returns it in `out` (replaced).
  void display(std::string& out) const;

 private:
  // The parsed document; an object when m_loaded, null otherwise.
  Json::Value m_root;
  bool m_loaded = false;
  bool m_enabled = false;

  int32_t m_maxFileLength = kDefaultMaxFileLength;
  int32_t m_maxFileDuration = kDefaultMaxFileDuration;
  int32_t m_minCutFileTime = kDefaultMinCutFileTime;
  int32_t m_zarnTimeout = kDefaultZarnTimeout;
  int32_t m_cyclicCoverDelay = kDefaultCyclicCoverDelay;
  int32_t m_cyclicCoverPeriod = kDefaultCyclicCoverPeriod;
  double m_cyclicCoverRateAfterDel = kDefaultCyclicCoverRateAfterDel;
  bool m_svcEnabled = kDefaultEnableSvc != 0;
  int32_t m_forgottenManagerPort = kDefaultForgottenManagerPort;
  std::string m_mediaSdkStatPath = kDefaultMediaSdkStatPath;
  int32_t m_mediaSdkFlushTimer = kDefaultMediaSdkFlushTimer;
  uint32_t m_recycleHours = kDefaultRecycleHours;
  std::string m_metricsPromFile = kDefaultMetricsPromFile;
  bool m_statFileConfigured = false;

  // The member under `key` when loaded and present; null otherwise. Does not log.
  const Json::Value* findMember(const std::string& key) const;
  bool hasMember(const std::string& key) const;
};

}  // namespace Velto::Zarn
