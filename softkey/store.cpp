#include "store.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include <cjson/cJSON.h>
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "foundation/json_owned.hpp"
#include "foundation/status_flow.hpp"

namespace softkey {

namespace {

constexpr int kFormat = 1;
constexpr const char *kStateFile = "/device.json";
constexpr const char *kLockFile = "/.lock";
constexpr const char *kUnpluggedFile = "/unplugged";

// ---- small codecs --------------------------------------------------------

std::string Base64(const Bytes &b) {
  if (b.empty()) return {};
  std::string out(4 * ((b.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), b.data(), static_cast<int>(b.size()));
  out.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return out;
}

bool Unbase64(std::string_view text, Bytes &out) {
  out.clear();
  if (text.empty()) return true;
  if (text.size() % 4 != 0 || text.size() > INT32_MAX) return false;
  Bytes buf(text.size() / 4 * 3);
  const int n =
      EVP_DecodeBlock(buf.data(), reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return false;
  size_t pad = 0;
  if (text.back() == '=') ++pad;
  if (text.size() >= 2 && text[text.size() - 2] == '=') ++pad;
  buf.resize(static_cast<size_t>(n) - pad);
  out = std::move(buf);
  return true;
}

// ---- JSON ----------------------------------------------------------------

void AddU32(cJSON *o, const char *k, uint32_t v) { cJSON_AddItemToObject(o, k, cJSON_CreateNumber(v)); }

cJSON *PinJson(const Pin &p) {
  cJSON *o = cJSON_CreateObject();
  AddU32(o, "max", p.max_retry);
  AddU32(o, "remain", p.remain);
  cJSON_AddItemToObject(o, "default", cJSON_CreateBool(p.is_default));
  AddU32(o, "iterations", p.iterations);
  cJSON_AddItemToObject(o, "salt", cJSON_CreateString(Hex(p.salt).c_str()));
  cJSON_AddItemToObject(o, "wrapped", cJSON_CreateString(Hex(p.wrapped).c_str()));
  return o;
}

cJSON *KeyJson(const KeyPair &k) {
  cJSON *o = cJSON_CreateObject();
  AddU32(o, "alg", k.alg);
  AddU32(o, "bits", k.bits);
  cJSON_AddItemToObject(o, "pub", cJSON_CreateString(Hex(k.pub).c_str()));
  cJSON_AddItemToObject(o, "sealed", cJSON_CreateString(Hex(k.sealed).c_str()));
  return o;
}

bool GetString(const cJSON *o, const char *k, std::string &out) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, k);
  if (!cJSON_IsString(v) || v->valuestring == nullptr) return false;
  out = v->valuestring;
  return true;
}

bool GetU32(const cJSON *o, const char *k, uint32_t &out) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, k);
  if (!cJSON_IsNumber(v)) return false;
  const double d = v->valuedouble;
  if (!(d >= 0 && d <= 4294967295.0) || d != static_cast<double>(static_cast<uint32_t>(d))) return false;
  out = static_cast<uint32_t>(d);
  return true;
}

bool GetBool(const cJSON *o, const char *k, bool &out) {
  const cJSON *v = cJSON_GetObjectItemCaseSensitive(o, k);
  if (!cJSON_IsBool(v)) return false;
  out = cJSON_IsTrue(v);
  return true;
}

bool GetHex(const cJSON *o, const char *k, Bytes &out) {
  std::string s;
  return GetString(o, k, s) && Unhex(s, out);
}

bool GetB64(const cJSON *o, const char *k, Bytes &out) {
  std::string s;
  return GetString(o, k, s) && Unbase64(s, out);
}

bool ParsePin(const cJSON *o, Pin &p) {
  return cJSON_IsObject(o) && GetU32(o, "max", p.max_retry) && GetU32(o, "remain", p.remain) &&
         p.remain <= p.max_retry && GetBool(o, "default", p.is_default) && GetU32(o, "iterations", p.iterations) &&
         p.iterations != 0 && GetHex(o, "salt", p.salt) && GetHex(o, "wrapped", p.wrapped);
}

bool ParseKey(const cJSON *o, std::optional<KeyPair> &out) {
  if (o == nullptr || cJSON_IsNull(o)) return true;
  KeyPair k;
  if (!cJSON_IsObject(o) || !GetU32(o, "alg", k.alg) || !GetU32(o, "bits", k.bits) || !GetHex(o, "pub", k.pub) ||
      !GetHex(o, "sealed", k.sealed))
    return false;
  // Callers rely on the shapes: a 65-byte uncompressed point, an RSA size the
  // blobs can hold.
  const bool sm2 = k.alg == SGD_SM2_1 && k.bits == 256 && k.pub.size() == 65 && k.pub[0] == 0x04;
  const bool rsa = k.alg == SGD_RSA && (k.bits == 1024 || k.bits == 2048) && !k.pub.empty();
  if (!sm2 && !rsa) return false;
  out = std::move(k);
  return true;
}

template <class T, class F>
bool ParseArray(const cJSON *parent, const char *k, std::vector<T> &out, F &&one) {
  const cJSON *a = cJSON_GetObjectItemCaseSensitive(parent, k);
  if (!cJSON_IsArray(a)) return false;
  const cJSON *it = nullptr;
  cJSON_ArrayForEach(it, a) {
    T t;
    if (!cJSON_IsObject(it) || !one(it, t)) return false;
    out.push_back(std::move(t));
  }
  return true;
}

bool ParseContainer(const cJSON *o, Container &c) {
  return GetString(o, "name", c.name) && GetString(o, "id", c.id) &&
         ParseKey(cJSON_GetObjectItemCaseSensitive(o, "sign"), c.sign) &&
         ParseKey(cJSON_GetObjectItemCaseSensitive(o, "enc"), c.enc) && GetB64(o, "signCert", c.sign_cert) &&
         GetB64(o, "encCert", c.enc_cert);
}

bool ParseFile(const cJSON *o, File &f) {
  return GetString(o, "name", f.name) && GetU32(o, "read", f.read_rights) && GetU32(o, "write", f.write_rights) &&
         GetB64(o, "data", f.data);
}

bool ParseApp(const cJSON *o, Application &a) {
  return GetString(o, "name", a.name) && GetString(o, "id", a.id) &&
         GetU32(o, "createFileRights", a.create_file_rights) &&
         ParsePin(cJSON_GetObjectItemCaseSensitive(o, "admin"), a.admin) &&
         ParsePin(cJSON_GetObjectItemCaseSensitive(o, "user"), a.user) && ParseArray(o, "files", a.files, ParseFile) &&
         ParseArray(o, "containers", a.containers, ParseContainer);
}

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
  Bytes rnd(6);
  RAND_bytes(rnd.data(), static_cast<int>(rnd.size()));
  const std::string tmp = path + ".tmp." + std::to_string(::getpid()) + "." + Hex(rnd);
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

// ---- objects -------------------------------------------------------------

template <class V, class N>
static auto FindIn(V &v, const N &n, std::string_view key) -> decltype(&v[0]) {
  for (auto &x : v)
    if (x.*n == key) return &x;
  return nullptr;
}

File *Application::FindFile(std::string_view n) { return FindIn(files, &File::name, n); }
const File *Application::FindFile(std::string_view n) const { return FindIn(files, &File::name, n); }
Container *Application::FindContainer(std::string_view n) { return FindIn(containers, &Container::name, n); }
const Container *Application::FindContainer(std::string_view n) const {
  return FindIn(containers, &Container::name, n);
}
Container *Application::ContainerById(std::string_view i) { return FindIn(containers, &Container::id, i); }
const Container *Application::ContainerById(std::string_view i) const { return FindIn(containers, &Container::id, i); }
Application *Device::FindApp(std::string_view n) { return FindIn(apps, &Application::name, n); }
const Application *Device::FindApp(std::string_view n) const { return FindIn(apps, &Application::name, n); }
Application *Device::AppById(std::string_view i) { return FindIn(apps, &Application::id, i); }
const Application *Device::AppById(std::string_view i) const { return FindIn(apps, &Application::id, i); }

uint64_t Device::UsedSpace() const {
  uint64_t used = 0;
  for (const auto &a : apps)
    for (const auto &f : a.files) used += f.data.size();
  return used;
}

// ---- codecs --------------------------------------------------------------

std::string Hex(const uint8_t *p, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s(2 * n, '0');
  for (size_t i = 0; i < n; ++i) {
    s[2 * i] = kDigits[p[i] >> 4];
    s[2 * i + 1] = kDigits[p[i] & 15];
  }
  return s;
}

bool Unhex(std::string_view text, Bytes &out) {
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (text.size() % 2 != 0) return false;
  Bytes b(text.size() / 2);
  for (size_t i = 0; i < b.size(); ++i) {
    const int hi = nibble(text[2 * i]), lo = nibble(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    b[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  out = std::move(b);
  return true;
}

std::string RandomId() {
  uint8_t r[8];
  if (RAND_bytes(r, sizeof r) != 1) throw std::bad_alloc();
  return Hex(r, sizeof r);
}

std::string Serialize(const Device &d) {
  zeph::JsonPtr root(cJSON_CreateObject());
  cJSON *o = root.get();
  AddU32(o, "format", kFormat);
  cJSON_AddItemToObject(o, "serial", cJSON_CreateString(d.serial.c_str()));
  cJSON_AddItemToObject(o, "label", cJSON_CreateString(d.label.c_str()));
  cJSON_AddItemToObject(o, "manufacturer", cJSON_CreateString(d.manufacturer.c_str()));
  cJSON_AddItemToObject(o, "issuer", cJSON_CreateString(d.issuer.c_str()));
  cJSON_AddItemToObject(o, "authKey", cJSON_CreateString(Hex(d.auth_key).c_str()));
  AddU32(o, "totalSpace", d.total_space);
  cJSON *apps = cJSON_CreateArray();
  cJSON_AddItemToObject(o, "apps", apps);
  for (const auto &a : d.apps) {
    cJSON *ao = cJSON_CreateObject();
    cJSON_AddItemToArray(apps, ao);
    cJSON_AddItemToObject(ao, "name", cJSON_CreateString(a.name.c_str()));
    cJSON_AddItemToObject(ao, "id", cJSON_CreateString(a.id.c_str()));
    AddU32(ao, "createFileRights", a.create_file_rights);
    cJSON_AddItemToObject(ao, "admin", PinJson(a.admin));
    cJSON_AddItemToObject(ao, "user", PinJson(a.user));
    cJSON *files = cJSON_CreateArray();
    cJSON_AddItemToObject(ao, "files", files);
    for (const auto &f : a.files) {
      cJSON *fo = cJSON_CreateObject();
      cJSON_AddItemToArray(files, fo);
      cJSON_AddItemToObject(fo, "name", cJSON_CreateString(f.name.c_str()));
      AddU32(fo, "read", f.read_rights);
      AddU32(fo, "write", f.write_rights);
      cJSON_AddItemToObject(fo, "data", cJSON_CreateString(Base64(f.data).c_str()));
    }
    cJSON *cons = cJSON_CreateArray();
    cJSON_AddItemToObject(ao, "containers", cons);
    for (const auto &c : a.containers) {
      cJSON *co = cJSON_CreateObject();
      cJSON_AddItemToArray(cons, co);
      cJSON_AddItemToObject(co, "name", cJSON_CreateString(c.name.c_str()));
      cJSON_AddItemToObject(co, "id", cJSON_CreateString(c.id.c_str()));
      cJSON_AddItemToObject(co, "sign", c.sign ? KeyJson(*c.sign) : cJSON_CreateNull());
      cJSON_AddItemToObject(co, "enc", c.enc ? KeyJson(*c.enc) : cJSON_CreateNull());
      cJSON_AddItemToObject(co, "signCert", cJSON_CreateString(Base64(c.sign_cert).c_str()));
      cJSON_AddItemToObject(co, "encCert", cJSON_CreateString(Base64(c.enc_cert).c_str()));
    }
  }
  zeph::JsonTextPtr text(cJSON_Print(o));
  if (!text) throw std::bad_alloc();
  return std::string(text.get()) + "\n";
}

bool Parse(std::string_view text, Device &out) {
  zeph::JsonPtr root(cJSON_ParseWithLength(text.data(), text.size()));
  const cJSON *o = root.get();
  uint32_t format = 0;
  Device d;
  if (!cJSON_IsObject(o) || !GetU32(o, "format", format) || format != kFormat || !GetString(o, "serial", d.serial) ||
      !GetString(o, "label", d.label) || !GetString(o, "manufacturer", d.manufacturer) ||
      !GetString(o, "issuer", d.issuer) || !GetHex(o, "authKey", d.auth_key) || d.auth_key.size() != 16 ||
      !GetU32(o, "totalSpace", d.total_space) || !ParseArray(o, "apps", d.apps, ParseApp))
    return false;
  out = std::move(d);
  return true;
}

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

ULONG LoadDevice(const std::string &dir, std::shared_ptr<const Device> &out, bool even_unplugged) {
  const Presence p = DevicePresence(dir);
  if (p == Presence::kMissing || (p == Presence::kUnplugged && !even_unplugged)) return SAR_DEVICE_REMOVED;
  return Fresh(dir, out, true);
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
