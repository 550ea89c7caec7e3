// Test hooks of the software key, read from the environment at every call so
// a test can change them between cases.
//
// ZEPH_SOFTKEY_FAULT: rules separated by ',' ';' or blanks, each
//     FUNCTION:N:STATUS
//   The N-th call (1-based) of FUNCTION returns STATUS (0x hex or decimal)
//   and does nothing else; N = * fails every call. Calls are counted since a
//   call last saw a different value of the variable, so a new value starts
//   over and a repeated one counts on. Malformed rules (no two colons, N not
//   a positive number or *, STATUS above 32 bits) are ignored, which lets a
//   tag make a value new:
//     ZEPH_SOFTKEY_FAULT="case2,SKF_OpenContainer:1:0x0A000005,SKF_VerifyPIN:*:0x0A000025"
//
// ZEPH_SOFTKEY_TRACE: a file that gets one line per call, appended,
//     FUNCTION [in=HANDLE] [out=HANDLE] rv=0xXXXXXXXX
//   in= for every call that names a handle (0x0 for a null one), out= when a
//   call succeeded and produced one; faulted calls show the injected status.
//   Unset or empty: no trace.
#pragma once

#include <optional>

#include "zeph_skf.h"

namespace softkey {

// How a call names its handle argument in the trace.
struct In {
  bool present = false;
  const void *h = nullptr;
};
inline constexpr In kNoHandle{};
inline In H(const void *h) { return In{true, h}; }

// The injected status for this call of `fn`, if any. Not thread-safe: the
// entry path calls it under its lock.
std::optional<ULONG> InjectedFault(const char *fn);
// One trace line, when a trace file is set.
void TraceCall(const char *fn, In in, const void *out, ULONG rv);

}  // namespace softkey
