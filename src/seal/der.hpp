// A DER walker that reads in place: one TLV at a time, definite lengths
// only, never past the bytes it was given. The tolerant seal reader and the
// certificate key lookup stand on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>

namespace zeph::seal::der {

using Bytes = std::span<const uint8_t>;

// Single-octet identifiers of the universal and context tags seals use.
inline constexpr uint8_t kBoolean = 0x01;
inline constexpr uint8_t kInteger = 0x02;
inline constexpr uint8_t kBitString = 0x03;
inline constexpr uint8_t kOctetString = 0x04;
inline constexpr uint8_t kOid = 0x06;
inline constexpr uint8_t kUtf8String = 0x0C;
inline constexpr uint8_t kPrintableString = 0x13;
inline constexpr uint8_t kIa5String = 0x16;
inline constexpr uint8_t kUtcTime = 0x17;
inline constexpr uint8_t kGeneralizedTime = 0x18;
inline constexpr uint8_t kSequence = 0x30;
inline constexpr uint8_t kContext0 = 0xA0;  // [0], constructed

struct Tlv {
  uint8_t tag = 0;
  Bytes whole;    // identifier, length and content
  Bytes content;  // content only
};

// The TLV at the front of `in`. Refused: an empty input, a multi-octet
// identifier, the indefinite form, more than four length octets, and a
// length running past the input.
inline std::optional<Tlv> ReadTlv(Bytes in) {
  if (in.size() < 2 || (in[0] & 0x1F) == 0x1F) return std::nullopt;
  size_t header = 2;
  size_t len = in[1];
  if (len & 0x80) {
    const size_t n = len & 0x7F;
    if (n == 0 || n > 4 || in.size() < 2 + n) return std::nullopt;
    len = 0;
    for (size_t i = 0; i < n; ++i) len = (len << 8) | in[2 + i];
    header += n;
  }
  if (len > in.size() - header) return std::nullopt;
  return Tlv{in[0], in.first(header + len), in.subspan(header, len)};
}

// Exactly one TLV covering all of `in`.
inline std::optional<Tlv> ReadWhole(Bytes in) {
  auto tlv = ReadTlv(in);
  if (!tlv || tlv->whole.size() != in.size()) return std::nullopt;
  return tlv;
}

// The members of a constructed value, in order. A malformed member stops the
// walk and marks it failed.
class Reader {
 public:
  explicit Reader(Bytes content) : rest_(content) {}

  bool AtEnd() const { return rest_.empty(); }
  bool failed() const { return failed_; }
  std::optional<uint8_t> PeekTag() const {
    if (rest_.empty()) return std::nullopt;
    return rest_[0];
  }

  // The next member, whatever its tag.
  std::optional<Tlv> Next() {
    if (failed_ || rest_.empty()) return std::nullopt;
    auto tlv = ReadTlv(rest_);
    if (!tlv) {
      failed_ = true;
      return std::nullopt;
    }
    rest_ = rest_.subspan(tlv->whole.size());
    return tlv;
  }

  // The next member if it carries `tag`; otherwise nothing is consumed and
  // the walk is failed.
  std::optional<Tlv> Take(uint8_t tag) {
    if (PeekTag() != tag) {
      failed_ = true;
      return std::nullopt;
    }
    return Next();
  }

  // The next member if its tag is one of `tags`; otherwise the walk fails.
  std::optional<Tlv> TakeAny(std::initializer_list<uint8_t> tags) {
    const auto tag = PeekTag();
    for (const uint8_t t : tags) {
      if (tag == t) return Next();
    }
    failed_ = true;
    return std::nullopt;
  }

  // The next member if it carries `tag`; otherwise nothing happens.
  std::optional<Tlv> TakeIf(uint8_t tag) {
    if (PeekTag() != tag) return std::nullopt;
    return Next();
  }

 private:
  Bytes rest_;
  bool failed_ = false;
};

// True when every constructed value below `tlv` parses to its end (depth is
// bounded, so hostile nesting cannot exhaust the stack).
inline bool WellFormed(const Tlv &tlv, int depth = 0) {
  if ((tlv.tag & 0x20) == 0) return true;
  if (depth > 32) return false;
  Reader r(tlv.content);
  while (auto child = r.Next()) {
    if (!WellFormed(*child, depth + 1)) return false;
  }
  return !r.failed();
}

}  // namespace zeph::seal::der
