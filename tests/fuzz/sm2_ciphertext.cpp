// Arbitrary bytes as an SM2 ciphertext in each form. Whatever DER the
// library decodes and would itself encode the same way survives DER -> flat
// record -> DER and DER -> raw -> DER unchanged, in both raw orders; every
// raw ciphertext survives raw -> DER -> raw; a record survives record ->
// DER -> record.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "zeph_c_api.h"
#include "zeph_c_sm2.h"

namespace {

using Bytes = std::vector<uint8_t>;

void Check(bool ok) {
  if (!ok) std::abort();
}

// DER -> raw -> DER or raw -> DER -> raw; false when the first step refuses.
bool Through(bool from_der, const uint8_t *in, uint32_t len, int order, Bytes *back) {
  auto step = from_der ? BIVO_Sm2CiphertextDerToRaw : BIVO_Sm2CiphertextRawToDer;
  auto undo = from_der ? BIVO_Sm2CiphertextRawToDer : BIVO_Sm2CiphertextDerToRaw;
  uint32_t n = 0;
  const uint32_t rv = step(in, len, order, nullptr, &n);
  Check(rv == 0 || rv == ERR_SM2_CIPHER_FORMAT);
  if (rv != 0) return false;
  Bytes mid(n);
  Check(step(in, len, order, mid.data(), &n) == 0 && n == mid.size());
  uint32_t m = 0;
  Check(undo(mid.data(), n, order, nullptr, &m) == 0);
  back->resize(m);
  Check(undo(mid.data(), n, order, back->data(), &m) == 0);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > (1u << 20)) return 0;
  const auto len = static_cast<uint32_t>(size);
  const Bytes input(data, data + size);

  const unsigned char *p = data;
  SM2_Ciphertext_Structure *ct = d2i_SM2_Ciphertext_Structure(nullptr, &p, static_cast<long>(size));
  if (ct != nullptr) {
    unsigned char *der = nullptr;
    const int n = i2d_SM2_Ciphertext_Structure(ct, &der);
    const bool canonical = p == data + size && n == static_cast<int>(size) && std::memcmp(der, data, size) == 0;
    OPENSSL_free(der);
    unsigned char *record = nullptr;
    uint32_t record_len = 0;
    const uint32_t rv = i2a_SM2Cipher2ECCEncryptData(ct, &record, &record_len);
    Check(rv == 0 || rv == ERR_SM2_CIPHER_FORMAT);
    if (canonical && rv == 0) {
      unsigned char *back = nullptr;
      uint32_t back_len = 0;
      Check(a2d_SM2Cipher(record, record_len, &back, &back_len) == 0);
      Check(Bytes(back, back + back_len) == input);
      ZEPH_C_MALLOC_FREE(back);
      for (int order : {0, 1}) {
        Bytes again;
        Check(Through(true, data, len, order, &again) && again == input);
      }
    }
    ZEPH_C_MALLOC_FREE(record);
    SM2_Ciphertext_Structure_free(ct);
  }

  for (int order : {0, 1}) {
    Bytes again;
    if (Through(false, data, len, order, &again)) Check(again == input);
  }

  unsigned char *der = nullptr;
  uint32_t der_len = 0;
  if (a2d_SM2Cipher(data, len, &der, &der_len) == 0) {
    const unsigned char *q = der;
    SM2_Ciphertext_Structure *s = d2i_SM2_Ciphertext_Structure(nullptr, &q, der_len);
    unsigned char *record = nullptr;
    uint32_t record_len = 0;
    Check(s != nullptr && i2a_SM2Cipher2ECCEncryptData(s, &record, &record_len) == 0);
    Check(record_len == len && std::memcmp(record, data, len) == 0);
    ZEPH_C_MALLOC_FREE(record);
    SM2_Ciphertext_Structure_free(s);
    ZEPH_C_MALLOC_FREE(der);
  }
  return 0;
}
