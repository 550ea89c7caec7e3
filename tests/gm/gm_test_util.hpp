// Byte helpers for the GM tests and their independent references.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "oracle.hpp"
#include "test_support.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

namespace gm_test {

using namespace zeph_test;

// The oracle's SM3 and SM4 (tests/support/oracle.hpp) under the names these tests use.
inline Bytes EvpSm3(const std::vector<Bytes> &parts) { return Sm3(parts); }
// SM4-ECB or SM4-CBC (iv empty for ECB), with or without PKCS#7 padding, the library's padding rule.
inline Bytes EvpSm4(const Bytes &in, const Bytes &key, const Bytes &iv, bool pad = false) {
  return Sm4Encrypt(iv.empty() ? Sm4Mode::kEcb : Sm4Mode::kCbc, pad, key.data(), iv, in);
}

inline Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }
inline uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }
inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
inline Bytes Xor(Bytes a, const Bytes &b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) a[i] ^= b[i];
  return a;
}

}  // namespace gm_test
