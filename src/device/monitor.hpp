// The device monitor's process-wide state, for the monitor itself and for
// tests that must know when its threads have ended.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace zeph::device {

// 1 while a monitor thread should run.
extern std::atomic<uint32_t> is_vorli_ukey_listener_launched;

// Digest of the last list reported; all zero before the first report (and
// after a round that found the listing refused). Survives stop and restart.
extern std::array<std::atomic<uint64_t>, 4> gPrevHash;

// Monitor threads that have not yet ended (a stop followed at once by a
// start leaves two until the older one wakes up).
uint32_t MonitorThreadsAlive();

}  // namespace zeph::device
