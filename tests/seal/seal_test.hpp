// Shared pieces of the seal tests: the sample files, DER built by hand, an
// SES seal the declared templates accept, and an SM2 signer made with
// OpenSSL.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include "foundation/owned.hpp"
#include "test_support.hpp"
#include "zeph_c_seal.h"

namespace seal_test {

using Bytes = std::vector<uint8_t>;

inline Bytes Sample(const std::string &name) {
  return zeph_test::ReadBytes(std::string(ZEPH_SOURCE_DIR) + "/tests/data/seals/" + name);
}

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// One DER TLV around the concatenated parts.
inline Bytes Tlv(uint8_t tag, std::initializer_list<Bytes> parts) {
  const Bytes content = Cat(parts);
  Bytes out{tag};
  const size_t n = content.size();
  if (n < 0x80) {
    out.push_back(static_cast<uint8_t>(n));
  } else {
    Bytes len;
    for (size_t v = n; v != 0; v >>= 8) len.insert(len.begin(), static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(0x80 | len.size()));
    out.insert(out.end(), len.begin(), len.end());
  }
  out.insert(out.end(), content.begin(), content.end());
  return out;
}
// The TLV that starts at `offset`, and the members of a constructed TLV.
Bytes TlvAt(const Bytes &b, size_t offset);
std::vector<Bytes> Children(const Bytes &tlv);

inline Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }
inline Bytes Bits(const Bytes &octets) { return Tlv(0x03, {{0x00}, octets}); }

inline constexpr char kSm2Sm3[] = "1.2.156.10197.1.501";

// fn(out, &len) on a 40,000-byte buffer: the bytes written, after a zero status.
template <typename F>
Bytes Out(F fn) {
  Bytes out(40000);
  auto len = static_cast<uint32_t>(out.size());
  const uint32_t status = fn(out.data(), &len);
  EXPECT_EQ(status, 0u);
  out.resize(status == 0 ? len : 0);
  return out;
}

// An SES seal that decodes as SESeal: the SES sample with its certificates
// inline rather than wrapped (so its maker signature no longer holds).
Bytes SesSeal();

// gb-v4-user.esl with the given certificate list and distinct creation,
// start and end dates (2020-01-01, 02-02, 03-03).
Bytes GbSeal(const Bytes &cert_list);

// An SM2 key with a self-signed SM3 certificate.
struct Signer {
  Signer();
  Bytes Sign(const Bytes &data) const;  // DER SEQUENCE { r, s }
  Bytes Raw(const Bytes &data) const;   // 64-byte r || s
  zeph::EvpPkeyPtr key;
  Bytes cert;
};

// The library's builders, SM2-with-SM3: data to sign (SES with property "p")
// and the signature around a value.
Bytes GbTbs(uint32_t version, const Bytes &seal, const char *time, const Bytes &hash, const std::string &property);
Bytes GbSig(const Bytes &tbs, const Bytes &value, const Bytes &cert);
Bytes SesTbs(const Bytes &seal, const Bytes &time, const Bytes &hash, const Bytes &cert);
Bytes SesSig(const Bytes &tbs, const Bytes &value);

// The GB signature of `seal` (GB DER) by `signer` over `hash`.
Bytes GbSignature(const Signer &signer, const Bytes &seal, const Bytes &hash, const char *time = "20210101000000Z");

}  // namespace seal_test
