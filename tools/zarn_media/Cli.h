// Command-line plumbing shared by the zarn-media subcommands: option parsing,
// UTC time parsing and printing, a small JSON writer, exit codes and the
// store connection.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ZarnMediaClient.h"

namespace ZarnMedia {

// Exit codes, the same for every subcommand.
enum Exit : int {
  kExitOk = 0,
  kExitFailed = 1,      // the library refused or failed the operation
  kExitUsage = 2,       // bad options, bad time, empty range
  kExitStore = 3,       // the store cannot be opened
  kExitInput = 4,       // unreadable input, not H.264/H.265 video, output not writable
  kExitNotFound = 5,    // unknown stream, nothing recorded in the range
  kExitLimit = 6,       // refused by a limit of the store: the lock ratio
  kExitInterrupted = 130,
};

// Prints "zarn-media: MESSAGE" to stderr and returns `code`.
int fail(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Options of one subcommand. Options are "--name VALUE" or "--name=VALUE"
// (value options) or "--name" (flags); the common ones (--store, --json,
// --verbose, --help) are accepted everywhere.
class COptions {
 public:
  COptions(std::vector<std::string> valueOptions, std::vector<std::string> flagOptions);
  // false (after printing why) on an unknown option or a missing value.
  bool parse(int argc, char** argv);

  bool has(const std::string& name) const { return m_values.count(name) != 0 || m_flags.count(name) != 0; }
  std::string value(const std::string& name, const std::string& fallback = "") const;
  const std::vector<std::string>& positional() const { return m_positional; }

  bool json() const { return has("json"); }
  bool help() const { return has("help"); }
  std::string store() const { return value("store", "./zarn-store"); }

  // Typed getters: false (after printing why) when present but malformed.
  bool getUnsigned(const std::string& name, uint64_t& out, uint64_t max) const;
  bool getDouble(const std::string& name, double& out) const;
  // Time: "YYYY-MM-DD HH:MM:SS" (UTC, also with a "T") or seconds since the epoch.
  bool getTime(const std::string& name, int64_t& out) const;

 private:
  std::vector<std::string> m_valueOptions;
  std::vector<std::string> m_flagOptions;
  std::map<std::string, std::string> m_values;
  std::map<std::string, bool> m_flags;
  std::vector<std::string> m_positional;
};

bool parseTime(const std::string& text, int64_t& out);
std::string formatTime(int64_t epochSeconds);  // "YYYY-MM-DD HH:MM:SS" UTC
int64_t nowSeconds();

// A JSON document written to a string: objects, arrays, and scalars; keys and
// commas are placed by the writer.
class CJson {
 public:
  CJson& beginObject(const char* key = nullptr);
  CJson& endObject();
  CJson& beginArray(const char* key = nullptr);
  CJson& endArray();
  CJson& value(const char* key, const std::string& text);
  CJson& value(const char* key, const char* text) { return value(key, std::string(text)); }
  CJson& value(const char* key, int64_t number);
  CJson& value(const char* key, uint64_t number);
  CJson& value(const char* key, int number) { return value(key, static_cast<int64_t>(number)); }
  CJson& value(const char* key, unsigned number) { return value(key, static_cast<uint64_t>(number)); }
  CJson& value(const char* key, double number);
  CJson& value(const char* key, bool flag);
  // A time as {"utc": "...", "epoch": N}.
  CJson& time(const char* key, int64_t epochSeconds);
  // Prints the document and a newline.
  void print(FILE* to = stdout) const;

 private:
  void prefix(const char* key);
  std::string m_text;
  std::vector<bool> m_first;  // per open container: no member written yet
};

// The store as the tool uses it: one media client, initialised on open and
// destroyed with this object. Sets ZARN_LOG_LEVEL=off (or info with
// --verbose) unless the user set it, before the first library call.
class CStore {
 public:
  // `mustExist`: refuse a local store path that does not exist yet instead of
  // creating an empty store there (commands that only read). `maxFrameSize`
  // 0 keeps the library's default. Returns kExitOk or an exit code after
  // printing why.
  int open(const COptions& options, bool mustExist, int maxFrameSize = 0);
  // Where files() lists instead of the media client's query (same arguments
  // and result): set before open(), which then opens no client, so client()
  // must not be called. For a store reached below the client (LocalView.h).
  using Lister = std::function<int(unsigned streamId, unsigned begin, unsigned end,
                                   std::vector<Velto::Zarn::RecordClipEx>& out)>;
  void listThrough(Lister lister) { m_lister = std::move(lister); }
  Velto::Zarn::CMediaClient& client();

  // Every record file of the stream in [from, to) (whole recorded time by default).
  int files(unsigned streamId, std::vector<Velto::Zarn::RecordClipEx>& out, int64_t from = kFirstTime,
            int64_t to = kLastTime);
  // The stream's recorded span and codec; kExitNotFound (after printing) when
  // nothing at all is recorded for it.
  int streamSpan(unsigned streamId, int64_t& first, int64_t& last, short& type);

  static constexpr int64_t kFirstTime = 946684800;  // 2000-01-01, the first time a frame carries
  static constexpr int64_t kLastTime = 2966371199;  // 2063-12-31 23:59:59

 private:
  std::unique_ptr<Velto::Zarn::CMediaClient> m_client;
  Lister m_lister;
};

// Refuses (exit code after printing why) a local store path that does not
// exist or holds no store: commands that only read or repair must not turn
// any directory they are given into a store.
int checkStoreExists(const COptions& options);

// The stream id of --stream, required. false after printing why.
bool getStream(const COptions& options, unsigned& streamId);
// --from/--to of a command on a stream: defaults are the stream's recorded
// span; an empty or inverted range is refused. Returns an exit code.
int getRange(const COptions& options, int64_t spanFirst, int64_t spanLast, int64_t& from, int64_t& to);

// Whether stderr is a terminal: progress lines are drawn only then.
bool progressWanted();

}  // namespace ZarnMedia
