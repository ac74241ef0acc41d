// zarn-media stats: the library's statistics file (one JSON object, rewritten
// every minute by a process using the library) in a form a person reads.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <json/json.h>

#include "Cli.h"
#include "Commands.h"

namespace ZarnMedia {

namespace {

// Where the library writes the file unless MediaConfig.cfg says otherwise.
const char* const kDefaultStatFile = "/dev/shm/mediasdk.stat";

bool readJson(const std::string& path, Json::Value& out, std::string& why) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    why = std::strerror(errno);
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  Json::CharReaderBuilder builder;
  std::istringstream stream(text.str());
  if (!Json::parseFromStream(builder, stream, &out, &why)) return false;
  if (!out.isObject()) {
    why = "not a JSON object";
    return false;
  }
  return true;
}

// The status file a host in this directory writes: "media_sdk_stat_file" of an
// enabled ./MediaConfig.cfg, else the library's default.
std::string configuredStatFile() {
  Json::Value config;
  std::string why;
  if (readJson("MediaConfig.cfg", config, why) && config["enable_cfg"].isInt() && config["enable_cfg"].asInt() != 0 &&
      config["media_sdk_stat_file"].isString()) {
    return config["media_sdk_stat_file"].asString();
  }
  return kDefaultStatFile;
}

// A member as a number; -1 when absent or not a number (files of other versions).
int64_t number(const Json::Value& doc, const char* key) {
  const Json::Value& v = doc[key];
  if (v.isIntegral()) return v.asInt64();
  if (v.isString()) {
    char* end = nullptr;
    const long long n = std::strtoll(v.asCString(), &end, 10);
    if (end != v.asCString() && *end == '\0') return n;
  }
  return -1;
}

std::string shown(int64_t n) { return n < 0 ? "-" : std::to_string(n); }

}  // namespace

int runStats(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media stats [--file PATH]\n"
      "\n"
      "Prints the library's statistics file: what a process using the library counted\n"
      "in the minute before the file was last written (files cut and closed, write rate,\n"
      "index rebuilds, recycling) and how many streams it was recording. A process\n"
      "writes the file once a minute when its MediaConfig.cfg names it\n"
      "(\"media_sdk_stat_file\"; \"metrics_prom_file\" adds the same counters for\n"
      "Prometheus). --json prints the file's object unchanged.\n"
      "\noptions:\n"
      "  --file PATH            the statistics file (default: media_sdk_stat_file of an\n"
      "                         enabled ./MediaConfig.cfg, else /dev/shm/mediasdk.stat)\n";
  COptions options({"file"}, {});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  if (!options.positional().empty()) {
    return fail(kExitUsage, "unexpected argument '%s' (see --help)", options.positional()[0].c_str());
  }
  const std::string path = options.has("file") ? options.value("file") : configuredStatFile();
  Json::Value doc;
  std::string why;
  if (!readJson(path, doc, why)) {
    return fail(kExitInput, "cannot read the statistics file %s: %s", path.c_str(), why.c_str());
  }
  if (options.json()) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::printf("%s\n", Json::writeString(writer, doc).c_str());
    return kExitOk;
  }

  const int64_t written = number(doc, "ctime");
  std::printf("statistics file  %s\n", path.c_str());
  if (written >= 0) {
    std::printf("written          %s UTC (%" PRId64 " s ago)\n", formatTime(written).c_str(), nowSeconds() - written);
  }
  std::printf("by               %s%s%s\n", doc["name"].asString().c_str(),
              doc["ip"].asString().empty() ? "" : " at ", doc["ip"].asString().c_str());
  std::printf("stream writers   %s recording now\n", shown(number(doc, "stream.count")).c_str());
  std::printf("in the minute before:\n");
  std::printf("  files cut      %s\n", shown(number(doc, "file.split.count")).c_str());
  std::printf("  files closed   %s (%s failed)\n", shown(number(doc, "write.success.count")).c_str(),
              shown(number(doc, "write.failed.count")).c_str());
  std::printf("  write rate     %s MiB/s\n", shown(number(doc, "stream.avg")).c_str());
  std::printf("  index rebuilds %s (%s failed)\n", shown(number(doc, "index.rebuild.success.count")).c_str(),
              shown(number(doc, "index.rebuild.failed.count")).c_str());
  std::printf("  recycled files %s (%s failed), %s MiB freed\n", shown(number(doc, "loop.overwrite.success.count")).c_str(),
              shown(number(doc, "loop.overwrite.failed.count")).c_str(),
              shown(number(doc, "loop.overwrite.delete.capacity")).c_str());
  return kExitOk;
}

}  // namespace ZarnMedia
