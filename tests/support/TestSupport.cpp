#include "TestSupport.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <cstring>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "KanduTime.h"
#include "MediaContext.h"
#include "VeltoFrame.h"

namespace ZarnTest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/zarn-test-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) std::abort();
  m_path = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(m_path, ec);
}

LogCapture::LogCapture(Velto::Kandu::LogLevel level) : m_previousLevel(Velto::Kandu::getLogLevel()) {
  Velto::Kandu::setLogLevel(level);
  Velto::Kandu::setLogSink([this](Velto::Kandu::LogLevel, const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(line);
  });
}

LogCapture::~LogCapture() {
  Velto::Kandu::setLogSink(nullptr);
  Velto::Kandu::setLogLevel(m_previousLevel);
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

size_t LogCapture::count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  size_t n = 0;
  for (const auto& l : m_lines)
    if (l.find(text) != std::string::npos) ++n;
  return n;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

std::vector<uint8_t> makeFrame(uint8_t type, uint8_t subType, uint32_t sequence, uint32_t utcTime,
                               uint32_t payload, uint16_t msStamp) {
  const uint32_t length = Velto::Zarn::kMinFrameSize + payload;
  std::vector<uint8_t> f(length);
  Velto::Zarn::VeltoFrameHead head{};
  head.magic = Velto::Zarn::kFrameHeadMagic;
  head.type = type;
  head.subType = subType;
  head.sequence = sequence;
  head.length = length;
  Velto::Kandu::CTime t(utcTime);
  head.packedTime = Velto::Zarn::packFrameTime(t.getYear(), t.getMonth(), t.getDay(), t.getHour(), t.getMinute(),
                                               t.getSecond());
  head.msStamp = msStamp;
  std::memcpy(f.data(), &head, sizeof(head));
  Velto::Zarn::sealFrameHead(f.data());
  for (uint32_t i = 0; i < payload; ++i) f[24 + i] = static_cast<uint8_t>(sequence * 31 + i);
  const uint32_t tailMagic = Velto::Zarn::kFrameTailMagic;
  std::memcpy(f.data() + length - 8, &tailMagic, 4);
  std::memcpy(f.data() + length - 4, &length, 4);
  return f;
}

namespace {

class ConfigDirEnvironment : public ::testing::Environment {
 public:
  explicit ConfigDirEnvironment(std::string json) : m_json(std::move(json)) {}
  void SetUp() override {
    m_dir = std::make_unique<TempDir>();
    std::ofstream(m_dir->sub("MediaConfig.cfg")) << m_json;
    ASSERT_EQ(chdir(m_dir->path().c_str()), 0);
  }
  void TearDown() override {
    if (chdir("/") != 0) std::abort();
    m_dir.reset();
  }

 private:
  std::string m_json;
  std::unique_ptr<TempDir> m_dir;
};

}  // namespace

bool useConfigFileForProcess(const std::string& json) {
  ::testing::AddGlobalTestEnvironment(new ConfigDirEnvironment(json));
  return true;
}

bool waitFor(const std::function<bool()>& condition, unsigned timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

Velto::Zarn::EngineEnv writerEnv(const Velto::Kandu::IClock& clock) {
  return Velto::Zarn::CMediaContext::instance().writerEnv(clock);
}

Velto::Zarn::EngineEnv readerEnv(const Velto::Kandu::IClock& clock) {
  return Velto::Zarn::CMediaContext::instance().readerEnv(clock);
}

}  // namespace ZarnTest
