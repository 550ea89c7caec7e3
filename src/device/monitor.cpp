// The device monitor: a thread that lists the plugged-in keys every three
// seconds and calls the host back with the list whenever its digest changes.
// No device events: a change is a different SHA-256 of the list text.
#include "device/monitor.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include <pthread.h>

#include "foundation/log.hpp"
#include "foundation/owned.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"

namespace zeph::device {

std::atomic<uint32_t> is_vorli_ukey_listener_launched{0};
std::array<std::atomic<uint64_t>, 4> gPrevHash{};

namespace {

constexpr size_t kListBufferSize = 33280;
constexpr uint32_t kDigestSha256 = 4;
constexpr uint32_t kPollSeconds = 3;
// Tests shorten the poll; read when a monitor thread starts.
constexpr const char *kIntervalVariable = "ZEPH_MONITOR_INTERVAL_MS";

std::atomic<uint32_t> g_alive{0};

using Digest = std::array<uint64_t, 4>;

Digest LoadPrev() {
  Digest d;
  for (size_t i = 0; i < d.size(); ++i) d[i] = gPrevHash[i].load();
  return d;
}

void StorePrev(const Digest &d) {
  for (size_t i = 0; i < d.size(); ++i) gPrevHash[i].store(d[i]);
}

bool IsZero(const Digest &d) { return (d[0] | d[1] | d[2] | d[3]) == 0; }

// 0 means the real interval.
uint32_t TestIntervalMs() {
  const char *text = std::getenv(kIntervalVariable);
  if (text == nullptr || *text == '\0') return 0;
  char *end = nullptr;
  const unsigned long ms = std::strtoul(text, &end, 10);
  return (*end == '\0' && ms > 0 && ms <= 60000) ? static_cast<uint32_t>(ms) : 0;
}

void SleepMs(uint32_t ms) {
  timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

// One round: list, compare, report.
void Poll(ZEPH_MONITOR_CALLBACK callback, char *list) {
  std::memset(list, 0, kListBufferSize);
  Digest digest{};
  uint32_t list_len = kListBufferSize;
  const uint32_t rv = ZEPH_C_ListPluginDevice(list, &list_len);
  if (rv == ERR_DEVICE_AUTH_FAILED) {
    // The listing refused: taken as no key at all.
    if (!IsZero(LoadPrev())) {
      StorePrev(Digest{});
      callback(list);
    }
    return;
  }
  if (rv != 0) return;  // skip this round
  uint32_t digest_len = sizeof digest;
  if (ZEPH_C_HashDataWithAlgID(kDigestSha256, reinterpret_cast<const unsigned char *>(list),
                               static_cast<uint32_t>(std::strlen(list)),
                               reinterpret_cast<unsigned char *>(digest.data()), &digest_len) != 0) {
    return;
  }
  if (digest != LoadPrev()) callback(list);
  StorePrev(digest);
}

}  // namespace

uint32_t MonitorThreadsAlive() { return g_alive.load(); }

// The monitor thread's body.
void onVorliUkeyChanged2(ZEPH_MONITOR_CALLBACK callback) {
  const uint32_t interval_ms = TestIntervalMs();
  MallocPtr<char> list(static_cast<char *>(std::malloc(kListBufferSize)));
  if (callback == nullptr) {
    ZEPH_LOG("cb is null.", 0);
  } else if (list) {
    while (is_vorli_ukey_listener_launched.load() == 1) {
      Poll(callback, list.get());
      ZEPH_LOG("myCallbak is running.", static_cast<int64_t>(reinterpret_cast<uintptr_t>(callback)));
      if (interval_ms != 0) {
        SleepMs(interval_ms);
      } else {
        zeph_c_sleep(kPollSeconds);
      }
    }
  }
  is_vorli_ukey_listener_launched.store(0);
}

namespace {

void MonitorEntry(void *arg) {
  // POSIX lets a function pointer travel as void *.
  onVorliUkeyChanged2(reinterpret_cast<ZEPH_MONITOR_CALLBACK>(arg));
  g_alive.fetch_sub(1);
}

struct ThreadStart {
  void (*function)(void *);
  void *argument;
};

void *RunThreadStart(void *arg) {
  const ThreadStart start = *static_cast<ThreadStart *>(arg);
  delete static_cast<ThreadStart *>(arg);
  start.function(start.argument);
  return nullptr;
}

}  // namespace

}  // namespace zeph::device

using zeph::device::is_vorli_ukey_listener_launched;

extern "C" {

ZEPH_API uint32_t _beginthread(void (*function)(void *), uint32_t stack_size, void *argument) {
  if (function == nullptr) return 0xFFFFFFFFu;
  auto *start = new (std::nothrow) zeph::device::ThreadStart{function, argument};
  if (start == nullptr) return 0xFFFFFFFFu;
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) {
    delete start;
    return 0xFFFFFFFFu;
  }
  // A size the platform refuses (0, below the minimum) leaves the default.
  pthread_attr_setstacksize(&attr, stack_size);
  pthread_t thread;
  const int rc = pthread_create(&thread, &attr, zeph::device::RunThreadStart, start);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete start;
    return 0xFFFFFFFFu;
  }
  // Compat: the thread is neither joined nor detached.
  return 0;
}

ZEPH_API void zeph_c_sleep(uint32_t seconds) {
  timespec left{static_cast<time_t>(seconds), 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

ZEPH_API uint32_t startCryptoDeviceMonitor(ZEPH_MONITOR_CALLBACK callback) {
  uint32_t expected = 0;
  if (!is_vorli_ukey_listener_launched.compare_exchange_strong(expected, 1)) return expected;
  zeph::device::g_alive.fetch_add(1);
  // Stack size 0: the platform's default.
  if (_beginthread(zeph::device::MonitorEntry, 0, reinterpret_cast<void *>(callback)) != 0) {
    zeph::device::g_alive.fetch_sub(1);
    // Compat: the flag stays set, so later starts answer 1 until a stop.
    return 0xFFFFFFFFu;
  }
  return 0;
}

ZEPH_API uint32_t stopCryptoDeviceMonitor(void) {
  is_vorli_ukey_listener_launched.store(0);
  return 0;
}

}  // extern "C"
