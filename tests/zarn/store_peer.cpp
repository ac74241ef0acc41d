// zarn_store_peer: a second store client in a process of its own, for tests
// that need two clients on one store (two mounts of a distributed store, not a
// forked copy of one).
//
//   zarn_store_peer ADDRESS [USER]
//
// Connects its own CZarnFileSystem to ADDRESS (Config{ADDRESS, 0, USER, ""};
// USER defaults to "root"), answers "ok" (or "err CODE TEXT" and exits 1), then
// runs one command per line from stdin and answers each with one line on stdout:
// "ok[ VALUE]" or "err CODE" (CODE a ZarnError, e.g. "err -80001").
//
//   rename SRC DST      renameFile
//   create PATH         createFile; the peer holds the new file
//   open PATH r|w       openFile; the peer holds the file
//   write TEXT          appends TEXT (the rest of the line, spaces included): "ok N"
//   read                "ok N BYTES" (N > 0), "ok 0" at the end of a file being written
//   close               closes the held file
//   stat PATH           "ok SIZE OPEN_FOR_WRITE" (0 or 1)
//   list BUCKET PREFIX  the bucket's names starting with PREFIX: "ok NAME NAME ..."
//   id                  "ok N", the store's id of this client (what an operator names to
//                       evict it); ZARN_E_UNSUPPORTED when the backend has none
//   wait                answers "ok", then blocks until it takes one byte from fd 3:
//                       the gate a test shares among its peers to release them at once
//
// Opening or creating a file while one is held closes the held one first. At
// the end of stdin the peer closes its file and the connection and exits 0.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "ZarnClient.h"
#ifdef ZARN_WITH_CEPH
#include "CephStoreBackend.h"
#endif

using namespace Velto::Zarn;

namespace {

constexpr int kGateFd = 3;

std::string failed() { return "err " + std::to_string(getLastError()); }
std::string failed(int32_t code) { return "err " + std::to_string(code); }

class CPeer {
 public:
  CPeer(std::string address, std::string user) : m_address(std::move(address)), m_user(std::move(user)) {}

  // "ok", or the reason the store could not be reached.
  std::string connect() {
    std::string reason;
    int rc = makeStoreBackend(m_address, m_backend, &reason);
    if (rc != 0) return failed(rc) + " " + reason;
    Config config{m_address.c_str(), 0, m_user.c_str(), ""};
    if (!m_fs.initializeWithBackend(config, m_backend)) return failed() + " " + getErrorMsg();
    return "ok";
  }

  std::string run(const std::string& line) {
    size_t space = line.find(' ');
    const std::string verb = line.substr(0, space);
    const std::string rest = space == std::string::npos ? std::string() : line.substr(space + 1);
    if (verb == "rename") {
      size_t sep = rest.find(' ');
      if (sep == std::string::npos) return failed(ZARN_E_INVALID_ARGUMENT);
      return m_fs.renameFile(rest.substr(0, sep), rest.substr(sep + 1)) ? "ok" : failed();
    }
    if (verb == "create") {
      drop();
      m_file = m_fs.createFile(rest, 4, 1);
      return m_file ? "ok" : failed();
    }
    if (verb == "open") {
      size_t sep = rest.rfind(' ');
      if (sep == std::string::npos) return failed(ZARN_E_INVALID_ARGUMENT);
      const std::string mode = rest.substr(sep + 1);
      if (mode != "r" && mode != "w") return failed(ZARN_E_INVALID_ARGUMENT);
      drop();
      m_file = m_fs.openFile(rest.substr(0, sep), mode == "r" ? StoreOpenMode::Read : StoreOpenMode::Write);
      return m_file ? "ok" : failed();
    }
    if (verb == "write") {
      if (!m_file) return failed(ZARN_E_BAD_MODE);
      int64_t n = m_file->write(rest.data(), static_cast<uint32_t>(rest.size()));
      return n < 0 ? failed() : "ok " + std::to_string(n);
    }
    if (verb == "read") {
      if (!m_file) return failed(ZARN_E_BAD_MODE);
      char buf[4096];
      int64_t n = m_file->read(buf, sizeof buf);
      if (n < 0) return failed();
      if (n == 0) return "ok 0";
      return "ok " + std::to_string(n) + " " + std::string(buf, static_cast<size_t>(n));
    }
    if (verb == "close") {
      if (!m_file) return failed(ZARN_E_BAD_MODE);
      bool closed = m_file->close();
      m_file.reset();
      return closed ? "ok" : failed();
    }
    if (verb == "stat") {
      ZarnFileStat st;
      if (!m_fs.getFileStat(rest, st)) return failed();
      return "ok " + std::to_string(st.size) + " " + (st.openForWrite ? "1" : "0");
    }
    if (verb == "list") {
      size_t sep = rest.find(' ');
      const std::string bucket = rest.substr(0, sep);
      const std::string prefix = sep == std::string::npos ? std::string() : rest.substr(sep + 1);
      CBucket b = m_fs.getBucket(bucket);
      CNameList names;
      if (!b.isValid() || !b.list(names, prefix, prefix + "\xff", 100000)) return failed();
      std::string out = "ok";
      for (const std::string& n : names) {
        if (n.compare(0, prefix.size(), prefix) == 0) out += " " + n;
      }
      return out;
    }
    if (verb == "id") {
#ifdef ZARN_WITH_CEPH
      if (auto* ceph = dynamic_cast<CCephStoreBackend*>(m_backend.get())) return "ok " + std::to_string(ceph->clientId());
#endif
      return failed(ZARN_E_UNSUPPORTED);
    }
    if (verb == "wait") {
      answer("ok");
      char byte;
      // End of the gate (the test went away) releases as well.
      while (::read(kGateFd, &byte, 1) < 0 && errno == EINTR) {
      }
      return "";
    }
    return failed(ZARN_E_INVALID_ARGUMENT);
  }

  void finish() {
    drop();
    m_fs.close();
  }

  static void answer(const std::string& text) {
    std::cout << text << '\n';
    std::cout.flush();
  }

 private:
  void drop() {
    if (m_file) m_file->close();  // result deliberately dropped: the test asked for a new handle
    m_file.reset();
  }

  std::string m_address;
  std::string m_user;
  std::shared_ptr<IStoreBackend> m_backend;
  CZarnFileSystem m_fs;
  std::unique_ptr<CFile> m_file;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: %s ADDRESS [USER]\n", argv[0]);
    return 2;
  }
  CPeer peer(argv[1], argc > 2 ? argv[2] : "root");
  std::string hello = peer.connect();
  CPeer::answer(hello);
  if (hello != "ok") return 1;
  std::string line;
  while (std::getline(std::cin, line)) {
    std::string reply = peer.run(line);
    if (!reply.empty()) CPeer::answer(reply);
  }
  peer.finish();
  return 0;
}
