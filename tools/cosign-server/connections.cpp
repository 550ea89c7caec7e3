#include "connections.hpp"

#include <cstdlib>
#include <functional>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace zeph::cosign {

namespace {

int PortOf(const sockaddr_storage &addr) {
  if (addr.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in &>(addr).sin_port);
  if (addr.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6 &>(addr).sin6_port);
  return -1;
}

// Calls visit(fd, inode, remote_port) for every connected TCP socket of
// this process whose local port is local_port.
void ForEachConnection(int local_port, const std::function<void(int, uint64_t, int)> &visit) {
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return;
  const int own = dirfd(dir);
  while (const dirent *entry = readdir(dir)) {
    char *end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || fd == own) continue;
    struct stat st;
    if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
    sockaddr_storage local{}, peer{};
    socklen_t local_len = sizeof local, peer_len = sizeof peer;
    if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr *>(&local), &local_len) != 0 ||
        PortOf(local) != local_port ||
        getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr *>(&peer), &peer_len) != 0) {
      continue;  // not ours, or the listening socket
    }
    visit(static_cast<int>(fd), static_cast<uint64_t>(st.st_ino), PortOf(peer));
  }
  closedir(dir);
}

}  // namespace

bool CutConnection(int local_port, int remote_port) {
  bool cut = false;
  ForEachConnection(local_port, [&](int fd, uint64_t, int peer_port) {
    if (peer_port == remote_port) cut = shutdown(fd, SHUT_RDWR) == 0 || cut;
  });
  return cut;
}

void ConnectionReaper::Sweep() {
  const auto now = std::chrono::steady_clock::now();
  std::map<uint64_t, std::chrono::steady_clock::time_point> seen;
  ForEachConnection(port_, [&](int fd, uint64_t inode, int) {
    const auto it = first_seen_.find(inode);
    const auto since = it != first_seen_.end() ? it->second : now;
    seen.emplace(inode, since);
    if (now - since > limit_) shutdown(fd, SHUT_RDWR);
  });
  first_seen_ = std::move(seen);
}

}  // namespace zeph::cosign
