// The service's accepted connections as the kernel sees them: found by their
// ports, so that one can be cut (the drop fault) and none outlives its time
// (a slow sender cannot hold a serving thread), whatever the HTTP library
// does with them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>

namespace zeph::cosign {

// Shuts down (both directions) the connection from remote_port to
// local_port; the library then finds it closed. False when none is found.
bool CutConnection(int local_port, int remote_port);

// Cuts connections to local_port that have been open longer than `limit`.
class ConnectionReaper {
 public:
  ConnectionReaper(int local_port, std::chrono::milliseconds limit) : port_(local_port), limit_(limit) {}
  // One look at the open connections; call it now and then.
  void Sweep();

 private:
  int port_;
  std::chrono::milliseconds limit_;
  std::map<uint64_t, std::chrono::steady_clock::time_point> first_seen_;  // by socket inode
};

}  // namespace zeph::cosign
