// The status flow: every operation starts from its own failure status and the
// first non-zero step ends it. Guarded is the one exception barrier of an
// exported function.
#pragma once

#include <cstdint>
#include <new>

namespace zeph {

// The library's ERR_OUT_OF_MEMORY; the software key passes its own status.
// Written as a number so that this header stays free of the library's status
// list (output.hpp checks that the two agree).
inline constexpr uint32_t kGuardedOutOfMemory = 0x82080001u;

// Runs the body of an exported function: no C++ exception crosses the C
// boundary; an allocation failure becomes `on_oom`.
template <class F>
uint32_t Guarded(F &&body, uint32_t on_oom = kGuardedOutOfMemory) noexcept {
  try {
    return body();
  } catch (...) {
    return on_oom;
  }
}

}  // namespace zeph

#define ZEPH_TRY(expr)                          \
  do {                                          \
    const uint32_t zeph_try_rv_ = (expr);       \
    if (zeph_try_rv_ != 0) return zeph_try_rv_; \
  } while (0)

#define ZEPH_ENSURE(cond, status) \
  do {                            \
    if (!(cond)) return (status); \
  } while (0)
