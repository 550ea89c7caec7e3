#include "entry.hpp"

#include <cstring>
#include <mutex>
#include <new>

namespace softkey {

ULONG Dispatch(const char *fn, In in, HANDLE *out, Body body, void *ctx) {
  static std::mutex *lock = new std::mutex;  // never destroyed, as the registry
  std::lock_guard<std::mutex> guard(*lock);
  if (const auto fault = InjectedFault(fn)) {
    TraceCall(fn, in, nullptr, *fault);
    return *fault;
  }
  ULONG rv;
  try {
    rv = body(ctx);
  } catch (const std::bad_alloc &) {
    rv = SAR_MEMORYERR;
  } catch (...) {
    rv = SAR_UNKNOWNERR;
  }
  TraceCall(fn, in, rv == SAR_OK && out != nullptr ? *out : nullptr, rv);
  return rv;
}

ULONG PutBytes(ByteSpan result, BYTE *out, ULONG *in_out_len) {
  if (in_out_len == nullptr) return SAR_INVALIDPARAMERR;
  if (result.size() > UINT32_MAX) return SAR_INDATALENERR;
  const auto need = static_cast<ULONG>(result.size());
  if (out == nullptr) {
    *in_out_len = need;
    return SAR_OK;
  }
  if (*in_out_len < need) {
    *in_out_len = need;
    return SAR_BUFFER_TOO_SMALL;
  }
  if (need != 0) std::memcpy(out, result.data(), need);
  *in_out_len = need;
  return SAR_OK;
}

ULONG PutNameList(const std::vector<std::string> &names, LPSTR out, ULONG *in_out_len) {
  Bytes list;
  for (const auto &n : names) {
    list.insert(list.end(), n.begin(), n.end());
    list.push_back(0);
  }
  list.push_back(0);
  if (names.empty()) list.push_back(0);  // an empty list is still "\0\0"
  return PutBytes(list, reinterpret_cast<BYTE *>(out), in_out_len);
}

Text ReadText(const char *p, size_t max, std::string_view &out_text) {
  if (p == nullptr) return Text::kNull;
  const size_t n = strnlen(p, max + 1);
  if (n == 0) return Text::kEmpty;
  if (n > max) return Text::kTooLong;
  out_text = std::string_view(p, n);
  return Text::kOk;
}

ULONG Change(const std::string &dir, const std::function<ULONG(Device &)> &change) {
  if (DevicePresence(dir) != Presence::kPresent) return SAR_DEVICE_REMOVED;
  const ULONG rv = UpdateDevice(dir, change);
  return rv == kUnchanged ? SAR_OK : rv;
}

}  // namespace softkey
