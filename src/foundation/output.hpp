// The output-buffer protocol, in one place: a null buffer asks for the
// length; a capacity of at least the length receives the result; a smaller one
// gives ERR_BUFFER_TOO_SMALL. The length is written back in every case.
// Deliberate variations (a length not stored, a margin, an asymmetric
// capacity test) are written at their call sites under a "Compat:" note.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"

static_assert(zeph::kGuardedOutOfMemory == ERR_OUT_OF_MEMORY);

namespace zeph {

// "Check the size first, compute later", for results whose size is known in
// advance. Empty: `out` can take `need` bytes, go on and write them. A value:
// return it at once (0 after a length query, ERR_BUFFER_TOO_SMALL for a short
// buffer, ERR_INVALID_PARAMETER without a length); the length is written back.
//   if (auto done = ReserveOutput(need, out, in_out_len)) return *done;
inline std::optional<uint32_t> ReserveOutput(size_t need, const void *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr || need > UINT32_MAX) return ERR_INVALID_PARAMETER;
  if (out != nullptr && *in_out_len >= need) return std::nullopt;
  const bool query = out == nullptr;
  *in_out_len = static_cast<uint32_t>(need);
  return query ? 0u : ERR_BUFFER_TOO_SMALL;
}

// Bytes: the result is known before anything is written.
inline uint32_t PutOutput(std::span<const uint8_t> result, uint8_t *out, uint32_t *in_out_len) {
  if (auto done = ReserveOutput(result.size(), out, in_out_len)) return *done;
  if (!result.empty()) std::memcpy(out, result.data(), result.size());
  *in_out_len = static_cast<uint32_t>(result.size());
  return 0;
}

// Texts: the terminator counts toward the capacity and the query's answer;
// after a write the length is the text length.
inline uint32_t PutText(const char *text, size_t text_len, char *out, uint32_t *in_out_len) {
  if (text_len >= UINT32_MAX) return ERR_INVALID_PARAMETER;
  if (auto done = ReserveOutput(text_len + 1, out, in_out_len)) return *done;
  if (text_len != 0) std::memcpy(out, text, text_len);
  out[text_len] = '\0';
  *in_out_len = static_cast<uint32_t>(text_len);
  return 0;
}

}  // namespace zeph
