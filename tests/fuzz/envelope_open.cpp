// Arbitrary bytes as an envelope of either layout, opened with an unwrapper
// that turns any encrypted key into a 16-byte key: a status, never a crash;
// an opened envelope's content is never longer than the envelope.

#include "api/p7_internal.hpp"
#include "check.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto unwrap = [](const zeph::p7::Recipient &r, zeph::SecureBytes *key) -> uint32_t {
    fuzz::Check(r.kind == zeph::p7::KeyKind::kRsa || r.kind == zeph::p7::KeyKind::kSm2);
    zeph::SecureBytes k(16);
    std::memcpy(k.data(), r.enc_key.data(), std::min<size_t>(16, r.enc_key.size()));
    *key = std::move(k);
    return 0;
  };
  zeph::SecureBytes plain;
  for (auto want : {zeph::p7::KeyKind::kNone, zeph::p7::FirstRecipientKind({data, size})}) {
    const uint32_t rv = zeph::p7::Open({data, size}, want, nullptr, unwrap, &plain);
    fuzz::Check(fuzz::OneOf(rv, {0, ERR_ENVELOPE_FAILED}) && (rv != 0 || plain.size() <= size));
  }
  zeph::p7::Bytes blob;
  fuzz::Check(fuzz::OneOf(zeph::p7::Sm2CipherBlob({data, size}, &blob), {0, ERR_SM2_CIPHER_FORMAT}));
  return 0;
}
