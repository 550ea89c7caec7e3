// Arbitrary bytes as an SM2 ciphertext in each form. Whatever DER the
// library decodes and would itself encode the same way survives DER -> flat
// record -> DER and DER -> raw -> DER unchanged, in both raw orders; every
// raw ciphertext survives raw -> DER -> raw; a record survives record ->
// DER -> record.
#include "gm/sm2_ciphertext.hpp"

#include <optional>

#include "der_stable.hpp"
#include "zeph_c_api.h"

namespace {

using Bytes = std::vector<uint8_t>;

// DER -> raw -> DER or raw -> DER -> raw; nullopt when the first step refuses.
std::optional<Bytes> Through(bool from_der, const uint8_t *in, uint32_t len, int order) {
  auto step = from_der ? BIVO_Sm2CiphertextDerToRaw : BIVO_Sm2CiphertextRawToDer;
  auto undo = from_der ? BIVO_Sm2CiphertextRawToDer : BIVO_Sm2CiphertextDerToRaw;
  uint32_t n = 0;
  const uint32_t rv = step(in, len, order, nullptr, &n);
  fuzz::Check(fuzz::OneOf(rv, {0, ERR_SM2_CIPHER_FORMAT}));
  if (rv != 0) return std::nullopt;
  Bytes mid(n);
  fuzz::Check(step(in, len, order, mid.data(), &n) == 0 && n == mid.size());
  uint32_t m = 0;
  fuzz::Check(undo(mid.data(), n, order, nullptr, &m) == 0);
  Bytes back(m);
  fuzz::Check(undo(mid.data(), n, order, back.data(), &m) == 0);
  return back;
}

// The flat record of a decoded ciphertext; nullopt when the library refuses.
std::optional<Bytes> Record(const SM2_Ciphertext_Structure *ct) {
  unsigned char *record = nullptr;
  uint32_t n = 0;
  const uint32_t rv = i2a_SM2Cipher2ECCEncryptData(ct, &record, &n);
  fuzz::Check(fuzz::OneOf(rv, {0, ERR_SM2_CIPHER_FORMAT}));
  std::optional<Bytes> out;
  if (rv == 0) out.emplace(record, record + n);
  ZEPH_C_MALLOC_FREE(record);
  return out;
}

// The DER of a flat record; nullopt when the library refuses.
std::optional<Bytes> RecordToDer(const uint8_t *record, uint32_t len) {
  unsigned char *der = nullptr;
  uint32_t n = 0;
  std::optional<Bytes> out;
  if (a2d_SM2Cipher(record, len, &der, &n) == 0) out.emplace(der, der + n);
  ZEPH_C_MALLOC_FREE(der);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > (1u << 20)) return 0;
  const auto len = static_cast<uint32_t>(size);
  const Bytes input(data, data + size);

  const unsigned char *p = data;
  const zeph::Sm2CiphertextPtr ct(d2i_SM2_Ciphertext_Structure(nullptr, &p, static_cast<long>(size)));
  if (ct != nullptr) {
    const bool canonical = p == data + size && fuzz::Der(ct.get(), i2d_SM2_Ciphertext_Structure) == input;
    const std::optional<Bytes> record = Record(ct.get());
    if (canonical && record) {
      fuzz::Check(RecordToDer(record->data(), static_cast<uint32_t>(record->size())) == input);
      for (int order : {0, 1}) fuzz::Check(Through(true, data, len, order) == input);
    }
  }
  for (int order : {0, 1}) {
    const std::optional<Bytes> again = Through(false, data, len, order);
    fuzz::Check(!again || *again == input);
  }
  if (const std::optional<Bytes> der = RecordToDer(data, len)) {
    const unsigned char *q = der->data();
    const zeph::Sm2CiphertextPtr back(d2i_SM2_Ciphertext_Structure(nullptr, &q, static_cast<long>(der->size())));
    fuzz::Check(back != nullptr && Record(back.get()) == input);
  }
  return 0;
}
