#include "store.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "device_json.hpp"
#include "foundation/status_flow.hpp"

namespace softkey {

namespace {

constexpr const char *kStateFile = "/device.json";
constexpr const char *kLockFile = "/.lock";
constexpr const char *kUnpluggedFile = "/unplugged";

// ---- files ---------------------------------------------------------------

struct Identity {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  timespec mtime{};
  bool operator==(const Identity &o) const {
    return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
           mtime.tv_nsec == o.mtime.tv_nsec;
  }
};

Identity IdentityOf(const struct stat &st) { return {st.st_dev, st.st_ino, st.st_size, st.st_mtim}; }

bool ReadAll(const std::string &path, std::string &out, Identity &id) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (ok) {
    id = IdentityOf(st);
    out.assign(static_cast<size_t>(st.st_size), '\0');
    size_t got = 0;
    while (ok && got < out.size()) {
      const ssize_t n = ::read(fd, out.data() + got, out.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0)
        ok = false;
      else
        got += static_cast<size_t>(n);
    }
  }
  ::close(fd);
  return ok;
}

// Temporary file, flush, rename over the old one: readers see the old state
// or the new one, never a mixture.
bool WriteAtomically(const std::string &path, const std::string &text, Identity &id) {
  const std::string tmp = path + ".tmp." + std::to_string(::getpid()) + "." + RandomId();
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  size_t put = 0;
  bool ok = true;
  while (ok && put < text.size()) {
    const ssize_t n = ::write(fd, text.data() + put, text.size() - put);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      ok = false;
    else
      put += static_cast<size_t>(n);
  }
  struct stat st {};
  ok = ok && ::fsync(fd) == 0 && ::fstat(fd, &st) == 0;
  ::close(fd);
  if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) {
    id = IdentityOf(st);
    return true;
  }
  ::unlink(tmp.c_str());
  return false;
}

// Exclusive lock on the device for the duration of one change; other
// processes wait for it.
class DeviceLock {
 public:
  explicit DeviceLock(const std::string &dir) {
    fd_ = ::open((dir + kLockFile).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ >= 0) {
      int rc;
      do rc = ::flock(fd_, LOCK_EX);
      while (rc != 0 && errno == EINTR);
      if (rc != 0) {
        ::close(fd_);
        fd_ = -1;
      }
    }
  }
  ~DeviceLock() {
    if (fd_ >= 0) ::close(fd_);  // closing releases the lock
  }
  DeviceLock(const DeviceLock &) = delete;
  DeviceLock &operator=(const DeviceLock &) = delete;
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Parsed devices by path, with the bytes they were parsed from.
struct CacheEntry {
  Identity id;
  std::string raw;
  std::shared_ptr<const Device> dev;
};

struct Cache {
  std::mutex mu;
  std::map<std::string, CacheEntry> entries;
};

Cache &TheCache() {
  static Cache *c = new Cache;  // lives as long as the process
  return *c;
}

bool RecentlyModified(const Identity &id) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  // Two writes within one timestamp tick may reuse an inode and keep the
  // size; within this window the content itself decides.
  return now.tv_sec - id.mtime.tv_sec <= 2;
}

// The current state: the cached parse when the file is unchanged.
ULONG Fresh(const std::string &dir, std::shared_ptr<const Device> &out, bool trust_identity) {
  const std::string path = dir + kStateFile;
  Cache &cache = TheCache();
  std::lock_guard<std::mutex> guard(cache.mu);
  auto it = cache.entries.find(path);
  if (trust_identity && it != cache.entries.end()) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return SAR_DEVICE_REMOVED;
    const Identity now = IdentityOf(st);
    if (now == it->second.id && !RecentlyModified(now)) {
      out = it->second.dev;
      return SAR_OK;
    }
  }
  std::string raw;
  Identity id;
  if (!ReadAll(path, raw, id)) return ::access(path.c_str(), F_OK) == 0 ? SAR_READFILEERR : SAR_DEVICE_REMOVED;
  if (it != cache.entries.end() && it->second.raw == raw) {
    it->second.id = id;
    out = it->second.dev;
    return SAR_OK;
  }
  auto dev = std::make_shared<Device>();
  if (!Parse(raw, *dev)) return SAR_FILEERR;
  cache.entries[path] = CacheEntry{id, std::move(raw), dev};
  out = std::move(dev);
  return SAR_OK;
}

ULONG Store(const std::string &dir, const Device &d) {
  const std::string path = dir + kStateFile;
  std::string text = Serialize(d);
  Identity id;
  if (!WriteAtomically(path, text, id)) return SAR_WRITEFILEERR;
  Cache &cache = TheCache();
  std::lock_guard<std::mutex> guard(cache.mu);
  cache.entries[path] = CacheEntry{id, std::move(text), std::make_shared<Device>(d)};
  return SAR_OK;
}

bool IsFile(const std::string &p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

// ---- paths and presence ----------------------------------------------------

std::string RootDir() {
  if (const char *r = std::getenv("ZEPH_SOFTKEY_ROOT"); r != nullptr && *r != '\0') return r;
  if (const char *x = std::getenv("XDG_DATA_HOME"); x != nullptr && *x == '/') return std::string(x) + "/zeph-softkey";
  if (const char *h = std::getenv("HOME"); h != nullptr && *h == '/')
    return std::string(h) + "/.local/share/zeph-softkey";
  return "/tmp/zeph-softkey-" + std::to_string(::getuid());
}

bool IsDeviceName(std::string_view name) {
  if (name.empty() || name.size() > kMaxDeviceName || name[0] == '.') return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' ||
           c == '.';
  });
}

std::string DeviceDir(const std::string &root, const std::string &name) { return root + "/" + name; }

Presence DevicePresence(const std::string &dir) {
  if (!IsFile(dir + kStateFile)) return Presence::kMissing;
  return ::access((dir + kUnpluggedFile).c_str(), F_OK) == 0 ? Presence::kUnplugged : Presence::kPresent;
}

std::vector<std::string> ListDevices(const std::string &root, bool present_only) {
  std::vector<std::string> names;
  DIR *d = ::opendir(root.c_str());
  if (d == nullptr) return names;
  while (const dirent *e = ::readdir(d)) {
    const std::string name = e->d_name;
    if (!IsDeviceName(name)) continue;
    const Presence p = DevicePresence(DeviceDir(root, name));
    if (p == Presence::kPresent || (p == Presence::kUnplugged && !present_only)) names.push_back(name);
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

// ---- state ---------------------------------------------------------------

ULONG LoadDevice(const std::string &dir, std::shared_ptr<const Device> &out_device, bool even_unplugged) {
  const Presence p = DevicePresence(dir);
  if (p == Presence::kMissing || (p == Presence::kUnplugged && !even_unplugged)) return SAR_DEVICE_REMOVED;
  return Fresh(dir, out_device, true);
}

ULONG UpdateDevice(const std::string &dir, const std::function<ULONG(Device &)> &change) {
  if (DevicePresence(dir) == Presence::kMissing) return SAR_DEVICE_REMOVED;
  DeviceLock lock(dir);
  if (!lock.held()) return SAR_WRITEFILEERR;
  std::shared_ptr<const Device> current;
  ZEPH_TRY(Fresh(dir, current, false));
  Device next = *current;
  ZEPH_TRY(change(next));
  return Store(dir, next);
}

ULONG CreateDevice(const std::string &dir, const Device &d) {
  const auto slash = dir.rfind('/');
  if (slash != std::string::npos && slash != 0) {
    // Create the root (and its parents) on first use.
    std::string parent = dir.substr(0, slash);
    for (size_t i = 1; i <= parent.size(); ++i) {
      if (i == parent.size() || parent[i] == '/') {
        const std::string part = parent.substr(0, i);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return SAR_WRITEFILEERR;
      }
    }
  }
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return SAR_WRITEFILEERR;
  DeviceLock lock(dir);
  if (!lock.held()) return SAR_WRITEFILEERR;
  if (IsFile(dir + kStateFile)) return SAR_FILE_ALREADY_EXIST;
  return Store(dir, d);
}

ULONG DeleteDevice(const std::string &dir) {
  if (DevicePresence(dir) == Presence::kMissing) return SAR_DEVICE_REMOVED;
  {
    DeviceLock lock(dir);
    if (!lock.held()) return SAR_WRITEFILEERR;
    if (::unlink((dir + kStateFile).c_str()) != 0) return SAR_WRITEFILEERR;
  }
  // What remains: the marker, the lock and stray temporary files.
  if (DIR *d = ::opendir(dir.c_str())) {
    while (const dirent *e = ::readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") ::unlink((dir + "/" + name).c_str());
    }
    ::closedir(d);
  }
  ::rmdir(dir.c_str());
  Cache &cache = TheCache();
  std::lock_guard<std::mutex> guard(cache.mu);
  cache.entries.erase(dir + kStateFile);
  return SAR_OK;
}

ULONG SetPlugged(const std::string &dir, bool plugged) {
  if (DevicePresence(dir) == Presence::kMissing) return SAR_DEVICE_REMOVED;
  const std::string marker = dir + kUnpluggedFile;
  if (plugged) {
    if (::unlink(marker.c_str()) != 0 && errno != ENOENT) return SAR_WRITEFILEERR;
    return SAR_OK;
  }
  const int fd = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return SAR_WRITEFILEERR;
  ::close(fd);
  return SAR_OK;
}

}  // namespace softkey
