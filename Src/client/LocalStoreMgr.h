// CLocalStoreMgr: the seam where a local-disk store takes over recording while
// the distributed store is unusable.
//
// No local-disk store is configured in this library ("stdfile_disk" and
// "stdfile_config_file_name" are read by nobody yet), so isSupport() is false:
// store outages go to the host's state callback, and record files always go to
// the store. What the client needs of the layer is kept here so that a
// local-disk store can be added without touching the client.
#pragma once

#include <atomic>
#include <cstdint>

namespace Velto::Zarn {

class CZarnFileSystem;

class CLocalStoreMgr {
 public:
  // Whether a local-disk store is configured and usable.
  bool isSupport() const { return false; }
  // Called once the store is initialised and its system files checked.
  void onLoginSDK(CZarnFileSystem* fs) { m_loggedIn.store(fs != nullptr); }
  // Told every accepted store state other than 3; true when the layer's own
  // state changed.
  bool onSDKState(uint32_t state) { return m_state.exchange(state) != state; }

 private:
  std::atomic<bool> m_loggedIn{false};
  std::atomic<uint32_t> m_state{0};
};

}  // namespace Velto::Zarn
