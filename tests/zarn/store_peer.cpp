// zarn_store_peer: a second store client in a process of its own, for tests
// that need two clients on one store (two mounts of a distributed store, not a
// forked copy of one).
//
//   zarn_store_peer ADDRESS
//
// Connects to ADDRESS, answers "ok" (or "err CODE TEXT" and exits 1), then runs
// the commands of StoreCommands.h, one per line from stdin, each answered with
// one line on stdout, and two of its own:
//   id    "ok N", the store's id of this client (what an operator names to evict
//         it); ZARN_E_UNSUPPORTED when the backend has none
//   wait  answers "ok", then blocks until it takes one byte from fd 3: the gate
//         a test shares among its peers to release them at once
// At the end of stdin the peer closes its files and the connection and exits 0.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>

#include "StoreCommands.h"
#ifdef ZARN_WITH_CEPH
#include "CephStoreBackend.h"
#endif

using namespace Velto::Zarn;

namespace {

void answer(const std::string& text) { std::cout << text << std::endl; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s ADDRESS\n", argv[0]);
    return 2;
  }
  std::shared_ptr<IStoreBackend> backend;
  std::string reason;
  CZarnFileSystem fs;
  int rc = makeStoreBackend(argv[1], backend, &reason);
  if (rc == 0 && !fs.initializeWithBackend(Config{argv[1], 0, "", ""}, backend)) {
    rc = getLastError();
    reason = getErrorMsg();
  }
  answer(rc == 0 ? "ok" : "err " + std::to_string(rc) + " " + reason);
  if (rc != 0) return 1;
  ZarnTest::CStoreCommands commands(fs);
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "wait") {
      answer("ok");
      char byte;
      // End of the gate (the test went away) releases as well.
      while (::read(3, &byte, 1) < 0 && errno == EINTR) {
      }
    } else if (line == "id") {
#ifdef ZARN_WITH_CEPH
      if (auto* ceph = dynamic_cast<CCephStoreBackend*>(backend.get())) {
        answer("ok " + std::to_string(ceph->clientId()));
        continue;
      }
#endif
      answer("err " + std::to_string(ZARN_E_UNSUPPORTED));
    } else {
      answer(commands.run(line));
    }
  }
  return 0;  // the commands close their files, then the client its connection
}
