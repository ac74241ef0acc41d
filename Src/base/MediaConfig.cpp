#include "MediaConfig.h"

#include <exception>
#include <sstream>

#include "KanduFile.h"
#include "MediaLog.h"

namespace Velto::Zarn {

namespace {

// Longest piece of a line taken per read; longer lines arrive in several pieces
// that are simply concatenated again.
constexpr size_t kLinePieceCapacity = 2048;  // 2047 characters + NUL

}  // namespace

CMediaConfig::CMediaConfig() = default;

void CMediaConfig::initWithFile(const std::string& path) {
  m_loaded = false;
  m_root = Json::Value();

  Velto::Kandu::CFile file;
  if (!file.open(path, "r")) {
    ZLOG(WARN, "CMediaConfig", 0, "load config file failed, maybe it doesn't exist (%s).\n", path.c_str());
  } else {
    std::string text;
    char piece[kLinePieceCapacity];
    while (file.readLine(piece, sizeof(piece))) text += piece;
    file.close();

    Json::Value root;
    std::string errors;
    bool parsed = false;
    try {
      // Reader's own features allow comments; the reader only throws for
      // pathological nesting, which is a parse failure like any other.
      Json::Reader reader(Json::Features::all());
      parsed = reader.parse(text, root, false);
      if (!parsed) errors = reader.getFormattedErrorMessages();
    } catch (const std::exception& e) {
      parsed = false;
      errors = e.what();
    }
    // Every lookup addresses members of one object; anything else (a bare
    // number, an array) cannot configure anything and counts as unparsable.
    if (parsed && !root.isObject()) {
      parsed = false;
      errors = "the document is not a JSON object";
    }

    if (parsed) {
      ZLOG(TRACE, "CMediaConfig", 0, "load & parse config file successfully (%s):\n%s\n", path.c_str(), text.c_str());
      m_root = std::move(root);
      m_loaded = true;
    } else {
      ZLOG(ERROR, "CMediaConfig", 0, "parse config file failed (%s):\n%s\n", path.c_str(), text.c_str());
      ZLOG(ERROR, "CMediaConfig", 0, "err msg: %s.\n\n", errors.c_str());
    }
  }

  m_enabled = getInt("enable_cfg", 0) != 0;

  // Order matters only for the order of missing-key warnings at load.
  if (m_enabled) {
    m_maxFileLength = getInt("max_file_length", kDefaultMaxFileLength);
    m_maxFileDuration = getInt("max_file_duration", kDefaultMaxFileDuration);
    m_minCutFileTime = getInt("min_cut_file_time", kDefaultMinCutFileTime);
    m_zarnTimeout = getInt("zarn_timeout", kDefaultZarnTimeout);
    m_cyclicCoverDelay = getInt("cyclic_cover_delay", kDefaultCyclicCoverDelay);
    m_cyclicCoverPeriod = getInt("cyclic_cover_period", kDefaultCyclicCoverPeriod);
    m_cyclicCoverRateAfterDel = getDouble("cyclic_cover_rate_after_del", kDefaultCyclicCoverRateAfterDel);
    m_svcEnabled = getInt("enable_svc", kDefaultEnableSvc) != 0;
    m_forgottenManagerPort = getInt("forgotten_manager_port", kDefaultForgottenManagerPort);
    m_mediaSdkStatPath = getString("media_sdk_stat_file", kDefaultMediaSdkStatPath);
    m_mediaSdkFlushTimer = getInt("status_flush_timer", kDefaultMediaSdkFlushTimer);
    m_recycleHours = static_cast<uint32_t>(getInt("recycle_hours", static_cast<int32_t>(kDefaultRecycleHours)));
    // Optional and off by default: looked up only when present, so that files
    // without it do not warn on every load.
    m_metricsPromFile = hasMember("metrics_prom_file") ? getString("metrics_prom_file", kDefaultMetricsPromFile)
                                                       : kDefaultMetricsPromFile;
    m_statFileConfigured = hasMember("media_sdk_stat_file");
  } else {
    m_maxFileLength = kDefaultMaxFileLength;
    m_maxFileDuration = kDefaultMaxFileDuration;
    m_minCutFileTime = kDefaultMinCutFileTime;
    m_zarnTimeout = kDefaultZarnTimeout;
    m_cyclicCoverDelay = kDefaultCyclicCoverDelay;
    m_cyclicCoverPeriod = kDefaultCyclicCoverPeriod;
    m_cyclicCoverRateAfterDel = kDefaultCyclicCoverRateAfterDel;
    m_svcEnabled = kDefaultEnableSvc != 0;
    m_forgottenManagerPort = kDefaultForgottenManagerPort;
    m_mediaSdkStatPath = kDefaultMediaSdkStatPath;
    m_mediaSdkFlushTimer = kDefaultMediaSdkFlushTimer;
    m_recycleHours = kDefaultRecycleHours;
    m_metricsPromFile = kDefaultMetricsPromFile;
    m_statFileConfigured = false;
  }
}

bool CMediaConfig::hasMember(const std::string& key) const {
  // m_root is an object whenever m_loaded; isMember on any other kind would
  // trip jsoncpp's assertion.
  return m_loaded && m_root.isMember(key);
}

const Json::Value* CMediaConfig::findMember(const std::string& key) const {
  if (!m_loaded) return nullptr;
  return m_root.find(key.data(), key.data() + key.size());
}

int32_t CMediaConfig::getInt(const std::string& key, int32_t defaultValue) const {
  if (!m_loaded) return defaultValue;
  const Json::Value* member = findMember(key);
  if (member == nullptr) {
    ZLOG(WARN, "CMediaConfig", 0, "key (%s) does not exist\n", key.c_str());
    return defaultValue;
  }
  if (member->type() != Json::intValue) {
    ZLOG(ERROR, "CMediaConfig", 0, "the value of (%s) is not %s, the real type is %d\n\n", key.c_str(), "Int", static_cast<int>(member->type()));
    return defaultValue;
  }
  // jsoncpp types positive literals above 2^31-1 as unsigned (refused above),
  // but keeps negative ones down to -2^63 signed; the narrowing accessor would
  // throw for those below the 32-bit range.
  if (!member->isInt()) {
    ZLOG(ERROR, "CMediaConfig", 0, "the value of (%s) is out of the Int range\n\n", key.c_str());
    return defaultValue;
  }
  return member->asInt();
}

double CMediaConfig::getDouble(const std::string& key, double defaultValue) const {
  if (!m_loaded) return defaultValue;
  const Json::Value* member = findMember(key);
  if (member == nullptr) {
    ZLOG(WARN, "CMediaConfig", 0, "key (%s) does not exist\n", key.c_str());
    return defaultValue;
  }
  if (member->type() != Json::realValue) {
    ZLOG(ERROR, "CMediaConfig", 0, "the value of (%s) is not %s, the real type is %d\n\n", key.c_str(), "Double", static_cast<int>(member->type()));
    return defaultValue;
  }
  return member->asDouble();
}

std::string CMediaConfig::getString(const std::string& key, const std::string& defaultValue) const {
  if (!m_loaded) return defaultValue;
  const Json::Value* member = findMember(key);
  if (member == nullptr) {
    ZLOG(WARN, "CMediaConfig", 0, "key (%s) does not exist\n", key.c_str());
    return defaultValue;
  }
  if (member->type() != Json::stringValue) {
    ZLOG(ERROR, "CMediaConfig", 0, "the value of (%s) is not %s, the real type is %d\n\n", key.c_str(), "String", static_cast<int>(member->type()));
    return defaultValue;
  }
  return member->asString();
}

bool CMediaConfig::getArray(const std::string& key, Json::Value& out) const {
  if (!hasMember(key) || !m_root[key].isArray()) {
    ZLOG(WARN, "CMediaConfig", 0, "key (%s) does not exist\n", key.c_str());
    return false;
  }
  out = m_root[key];
  return true;
}

bool CMediaConfig::getArray(const std::string& key, std::vector<std::string>& out) const {
  out.clear();
  Json::Value array;
  if (!getArray(key, array)) return false;
  for (const Json::Value& element : array) {
    if (element.type() != Json::stringValue) {
      ZLOG(ERROR, "CMediaConfig", 0, "the value of (%s) is not %s, the real type is %d\n\n", key.c_str(), "String", static_cast<int>(element.type()));
      continue;
    }
    out.push_back(element.asString());
  }
  return true;
}

int CMediaConfig::getZarnLogLevel(bool& present) const {
  if (!m_enabled) {
    present = false;
    return kDefaultZarnLogLevel;
  }
  present = hasMember("zarn_log_level");
  return getInt("zarn_log_level", kDefaultZarnLogLevel);
}

std::string CMediaConfig::getZarnLogPath(bool& present) const {
  if (!m_enabled) {
    present = false;
    return kDefaultZarnLogPath;
  }
  present = hasMember("zarn_log_path");
  return getString("zarn_log_path", kDefaultZarnLogPath);
}

int CMediaConfig::getMaxLockRate(bool& present) const {
  if (!m_enabled) {
    present = false;
    return kDefaultMaxLockRate;
  }
  present = hasMember("max_lock_rate");
  return getInt("max_lock_rate", kDefaultMaxLockRate);
}

double CMediaConfig::getCyclicCoverThresholdRate(bool& present) const {
  if (!m_enabled) {
    present = false;
    return kDefaultCyclicCoverThresholdRate;
  }
  present = hasMember("cyclic_cover_threshold_rate");
  return getDouble("cyclic_cover_threshold_rate", kDefaultCyclicCoverThresholdRate);
}

bool CMediaConfig::getStdFileConfigFileName(std::string& out) const {
  out.clear();
  if (!m_enabled) return false;
  out = getString("stdfile_config_file_name", "");
  return !out.empty();
}

void CMediaConfig::display(std::string& out) const {
  bool present = false;
  std::ostringstream text;
  text << (m_loaded ? "load from config file" : "no config file or parse failed, load defualts") << "\n";
  text << "getCfgEnabled : " << (m_enabled ? 1 : 0) << "\n";
  text << "getMaxFileLength : " << getMaxFileLength() << "\n";
  text << "getMaxFileDuration : " << getMaxFileDuration() << "\n";
  text << "getZarnLogLevel : " << getZarnLogLevel(present) << "\n";
  text << "getZarnLogPath : " << getZarnLogPath(present) << "\n";
  text << "getZarnTimeout : " << getZarnTimeout() << "\n";
  text << "getMaxLockRate : " << getMaxLockRate(present) << "\n";
  text << "getEyclicCoverDelay : " << getEyclicCoverDelay() << "\n";
  text << "getCyclicCoverPeriod : " << getCyclicCoverPeriod() << "\n";
  text << "getCyclicCoverThresholdRate : " << getCyclicCoverThresholdRate(present) << "\n";
  text << "getCyclicCoverRateAfterDel : " << getCyclicCoverRateAfterDel() << "\n";
  text << "getSVCEnabled : " << (getSVCEnabled() ? 1 : 0) << "\n";
  text << "getForgottenManagerPort : " << getForgottenManagerPort() << "\n";
  text << "getMediaSdkStatPath : " << getMediaSdkStatPath() << "\n";
  text << "getMediaSdkFlushTimer : " << getMediaSdkFlushTimer() << "\n";
  text << "getRecycleHours : " << getRecycleHours() << "\n";
  out = text.str();
  ZLOG(INFO, "CMediaConfig", 0, "MediaConfig: %s\n", out.c_str());
}

}  // namespace Velto::Zarn
