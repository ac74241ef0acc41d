// The distributed store: buckets and files in a CephFS file system, reached
// through libcephfs (no kernel mount needed).
//
// Address: "ceph://mon[,mon...][/path]". A monitor is "host", "host:port" or
// "[v6addr]:port"; a monitor without a port takes Config.port (0: Ceph's own
// defaults, 3300 and 6789). /path is the store root inside the file system
// (made at connect; default "/"). Config.userName is the cephx client name
// (empty: "admin"), Config.password its secret key (never logged; empty: no key,
// as for a cluster without cephx or a keyring named in ceph.conf). An operator
// who already has a ceph.conf names it in the environment variable
// ZARN_CEPH_CONF; the address's monitors and the key override what it says.
//
// Layout under the store root: exactly as the local-directory store lays it out
// (doc/local_store.md): <root>/<bucket>/<name>, a name's '/' levels being
// directories, ".zarn-tmp.*" files being creates in progress. So one store can be
// read by either backend through a kernel or FUSE mount of the same directory.
//
// How the store's guarantees are kept on CephFS (doc/ceph_store.md):
//   * exclusive create: the file is born under a hidden name with O_EXCL, locked
//     (flock LOCK_EX, which the MDS enforces across clients), then hard-linked to
//     its name (EEXIST when taken) and the hidden name unlinked;
//   * rename without replace: ceph_rename replaces, so link(src, dst) (EEXIST
//     when taken) then unlink(src); a loser of a race finds src gone at unlink
//     and takes its link back. A client dying between the two steps leaves two
//     names of one file (nothing lost; see the doc for how it is recognised);
//   * listings: readdir order is neither byte order nor creation order; each
//     level is read whole and sorted, and only levels the markers admit are read;
//   * a file created with k data and m parity shards goes to the data pool
//     named "zarn_ec_<k>_<m>" when the operator has added one to the file system,
//     else to the file system's default data pool (logged once per k+m).
//   * the health probe: statfs (answered by the monitors) and the making and
//     removal of a hidden directory (answered by the MDS).
// Threading: thread-safe; one mount per backend object, shared with its file
// handles, which stay usable after disconnect().
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "DeadlineBackend.h"
#include "StoreBackend.h"

namespace Velto::Zarn {

class CCephDirectBackend;

// Every call but connect and disconnect runs through the deadline wrapper
// (DeadlineBackend.h): libcephfs waits without limit for an MDS or OSDs that
// stopped answering (no client option bounds a metadata request; the monitors'
// requests end after rados_mon_op_timeout, the mount after
// client_mount_timeout), so a call the cluster does not answer within the
// call time-out (ZARN_OPT_TIMEOUT_MS) returns ZARN_E_TIMEOUT and goes on on
// its worker. The same mount serves again once the daemons are back.
class CCephStoreBackend : public CDeadlineBackend {
 public:
  // `location` is the address after "ceph://"; check it with parseLocation first.
  explicit CCephStoreBackend(const std::string& location);
  ~CCephStoreBackend() override;

  // Checks "mon[,mon...][/path]"; on failure `reason` says what is wrong.
  static bool parseLocation(const std::string& location, std::string* reason);

  // The cluster's id of this client (the N of "client.N"), 0 before connect:
  // what an operator or a test names to evict it.
  uint64_t clientId() const;
  // The data pool of a stored file ("" when it cannot be told). Not bounded.
  std::string filePool(const std::string& bucket, const std::string& name);
  // Test hooks: listing levels read from the file system, and served from the
  // cache of directory-only levels, since construction.
  uint64_t levelsRead() const;
  uint64_t levelCacheHits() const;

 private:
  CCephDirectBackend& direct() const;
};

// The "ceph" address scheme: checks the location and makes a backend.
int makeCephStoreBackend(const std::string& location, std::shared_ptr<IStoreBackend>& out, std::string* reason);

}  // namespace Velto::Zarn
