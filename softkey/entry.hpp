// The path every SKF entry point takes, and the helpers the entry points
// share: caller texts, output buffers, device changes.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "foundation/status_flow.hpp"
#include "handles.hpp"
#include "hooks.hpp"

namespace softkey {

using Body = ULONG (*)(void *);
ULONG Dispatch(const char *fn, In in, HANDLE *out, Body body, void *ctx);

// The path of every entry point: serialised by one lock (the device lock in
// the store serialises processes), the fault hook first, the body behind the
// one exception barrier, one trace line last.
template <class F>
ULONG Call(const char *fn, In in, HANDLE *out, F &&body) {
  return Dispatch(
      fn, in, out, [](void *c) -> ULONG { return (*static_cast<std::remove_reference_t<F> *>(c))(); }, &body);
}

// Output buffers: a null buffer asks for the size, a short one gets
// SAR_BUFFER_TOO_SMALL; the size is written back either way.
ULONG PutBytes(ByteSpan result, BYTE *out, ULONG *in_out_len);
// A name list: each name terminated, one more terminator at the end.
ULONG PutNameList(const std::vector<std::string> &names, LPSTR out, ULONG *in_out_len);
// The list of the names of applications, containers or files, in their order.
template <class T>
ULONG PutNamesOf(const std::vector<T> &objects, LPSTR out, ULONG *in_out_len) {
  if (in_out_len == nullptr) return SAR_INVALIDPARAMERR;
  std::vector<std::string> names;
  for (const T &o : objects) names.push_back(o.name);
  return PutNameList(names, out, in_out_len);
}
// A caller's text of at most max bytes (longer ones are reported, not read).
enum class Text { kOk, kNull, kEmpty, kTooLong };
Text ReadText(const char *p, size_t max, std::string_view &out_text);

// A device change from an entry point: SAR_DEVICE_REMOVED when the device is
// not plugged in. A change returning kUnchanged leaves the device file as it
// is and counts as success.
constexpr ULONG kUnchanged = 0xFFFFFFFFu;
ULONG Change(const std::string &dir, const std::function<ULONG(Device &)> &change);

}  // namespace softkey
