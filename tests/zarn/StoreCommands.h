// A line protocol over one store client, spoken by zarn_store_peer (a client in
// a process of its own) and by the conformance suite in its own process, so that
// one script plays with its clients in either. One command a line, one answer a
// line: "ok[ VALUE]" or "err CODE" (CODE a ZarnError, e.g. "err -80001"). Every
// command starts from a cleared last error, so "err 0" is a failure that said
// nothing. A command may start with "@N " (N a digit) to act on handle slot N
// (default 0).
//
//   create PATH         createFile; the slot holds the new file
//   open PATH r|w       openFile; the slot holds the file
//   write TEXT          appends TEXT (the rest of the line, spaces included): "ok N"
//   writev A|B|...      appends the pieces with one gathered write: "ok N"
//   read [N]            up to N bytes (default 4096): "ok N BYTES", "ok 0" at the
//                       end of a file being written
//   seek OFFSET ORIGIN  "ok POSITION"; tell: "ok POSITION"
//   close               closes the held file, which stays in the slot (a second
//                       close, and any other call on it, is the client's to refuse)
//   stat PATH, fstat    "ok SIZE OPEN_FOR_WRITE" (0 or 1) of a path, of the held file
//   put PATH TEXT       creates, writes and closes a file; get PATH: "ok CONTENT"
//   rename SRC DST, remove PATH, bucket+ NAME, bucket- NAME
//   list BUCKET [PREFIX]  the bucket's names starting with PREFIX: "ok NAME NAME ..."
//   buckets             "ok NAME NAME ..."
//
// Opening or creating a file in a slot closes what the slot held first. Slots are
// independent: several threads may run commands at once on different slots.
#pragma once

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ZarnClient.h"

namespace ZarnTest {

class CStoreCommands {
 public:
  static constexpr size_t kSlots = 8;

  explicit CStoreCommands(Velto::Zarn::CZarnFileSystem& fs) : m_fs(fs) {}
  ~CStoreCommands() {
    for (auto& file : m_files) drop(file);
  }

  std::string run(std::string line) {
    using namespace Velto::Zarn;
    size_t slot = 0;
    if (line.size() > 3 && line[0] == '@' && line[2] == ' ') {
      slot = static_cast<size_t>(line[1] - '0');
      line.erase(0, 3);
    }
    if (slot >= kSlots) return failed(ZARN_E_INVALID_ARGUMENT);
    setLastError(ZARN_OK);
    std::unique_ptr<CFile>& file = m_files[slot];
    const size_t space = line.find(' ');
    const std::string verb = line.substr(0, space);
    const std::string rest = space == std::string::npos ? std::string() : line.substr(space + 1);
    std::string a, b;
    std::istringstream(rest) >> a >> b;
    if (verb == "create" || verb == "open") {
      drop(file);
      file = verb == "create" ? m_fs.createFile(a, 4, 1)
                              : m_fs.openFile(a, b == "w" ? StoreOpenMode::Write : StoreOpenMode::Read);
      return file ? "ok" : failed();
    }
    ZarnFileStat st;
    CNameList names;
    if (verb == "stat") return m_fs.getFileStat(a, st) ? statText(st) : failed();
    if (verb == "rename") return done(m_fs.renameFile(a, b));
    if (verb == "remove") return done(m_fs.removeFile(a));
    if (verb == "bucket+") return done(m_fs.createBucket(a));
    if (verb == "bucket-") return done(m_fs.removeBucket(a));
    if (verb == "buckets") return m_fs.listBuckets(names) ? join(names, "") : failed();
    if (verb == "list") {
      CBucket bucket = m_fs.getBucket(a);
      return bucket.isValid() && bucket.list(names, b, b + "\xff", 100000) ? join(names, b) : failed();
    }
    if (verb == "put") {
      auto f = m_fs.createFile(a, 4, 1);
      const std::string text = rest.substr(std::min(rest.size(), a.size() + 1));
      for (size_t at = 0; f && at < text.size();) {
        const int64_t n = f->write(text.data() + at, static_cast<uint32_t>(text.size() - at));
        if (n < 0) return failed();
        at += static_cast<size_t>(n);
      }
      return done(f && f->close());
    }
    if (verb == "get") {  // the whole file, up to its end or to where its writer is now
      auto f = m_fs.openFile(a, StoreOpenMode::Read);
      std::string out, buf(4096, '\0');
      int64_t n = 0;
      while (f && (n = f->read(buf.data(), static_cast<uint32_t>(buf.size()))) > 0) {
        out.append(buf, 0, static_cast<size_t>(n));
      }
      return !f || (n < 0 && getLastError() != ZARN_E_EOF) ? failed() : "ok " + out;
    }
    if (!file) return failed(ZARN_E_BAD_MODE);  // the verbs below act on the held file
    if (verb == "write") return number(file->write(rest.data(), static_cast<uint32_t>(rest.size())));
    if (verb == "writev") {  // one gathered write of the '|'-separated pieces
      std::vector<StoreSlice> slices;
      for (size_t at = 0; at <= rest.size();) {
        const size_t end = std::min(rest.find('|', at), rest.size());
        slices.push_back(StoreSlice{rest.data() + at, static_cast<uint32_t>(end - at)});
        at = end + 1;
      }
      return number(file->writeGather(slices.data(), static_cast<uint32_t>(slices.size())));
    }
    if (verb == "read") {
      std::string buf(a.empty() ? 4096 : std::stoul(a), '\0');
      const int64_t n = file->read(buf.data(), static_cast<uint32_t>(buf.size()));
      return n <= 0 ? number(n) : number(n) + " " + buf.substr(0, static_cast<size_t>(n));
    }
    if (verb == "seek") return number(file->seek(std::stoll(a), std::stoi(b)));
    if (verb == "tell") return number(file->tell());
    if (verb == "fstat") return file->stat(st) ? statText(st) : failed();
    if (verb == "close") return done(file->close());
    return failed(ZARN_E_INVALID_ARGUMENT);
  }

 private:
  static std::string failed(int32_t code = Velto::Zarn::getLastError()) { return "err " + std::to_string(code); }
  static std::string done(bool ok) { return ok ? "ok" : failed(); }
  static std::string number(int64_t n) { return n < 0 ? failed() : "ok " + std::to_string(n); }
  // "ok" and the names that start with `prefix`.
  static std::string join(const Velto::Zarn::CNameList& names, const std::string& prefix) {
    std::string out = "ok";
    for (const std::string& n : names) {
      if (n.compare(0, prefix.size(), prefix) == 0) out += " " + n;
    }
    return out;
  }
  static std::string statText(const Velto::Zarn::ZarnFileStat& st) {
    return "ok " + std::to_string(st.size) + (st.openForWrite ? " 1" : " 0");
  }
  static void drop(std::unique_ptr<Velto::Zarn::CFile>& file) {
    if (file && file->isOpen()) (void)file->close();  // deliberately unchecked: the slot is being reused
    file.reset();
  }

  Velto::Zarn::CZarnFileSystem& m_fs;
  std::unique_ptr<Velto::Zarn::CFile> m_files[kSlots];
};

}  // namespace ZarnTest
