// The SM2 ciphertext structure and its conversions: DER, raw in both orders,
// the flat record; the sizing rules.
#include "gm/sm2_ciphertext.hpp"

#include <cstdlib>
#include <cstring>

#include <openssl/asn1t.h>

#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"

// clang-format off
ASN1_SEQUENCE(SM2_Ciphertext_Structure) = {
    ASN1_SIMPLE(SM2_Ciphertext_Structure, C1x, ASN1_INTEGER),
    ASN1_SIMPLE(SM2_Ciphertext_Structure, C1y, ASN1_INTEGER),
    ASN1_SIMPLE(SM2_Ciphertext_Structure, C3, ASN1_OCTET_STRING),
    ASN1_SIMPLE(SM2_Ciphertext_Structure, C2, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(SM2_Ciphertext_Structure)
IMPLEMENT_ASN1_FUNCTIONS(SM2_Ciphertext_Structure)
    // clang-format on

    namespace zeph::gm::sm2 {
  namespace {

  constexpr uint32_t kFormat = ERR_SM2_CIPHER_FORMAT;

  // A non-negative INTEGER whose value fits 32 bytes, right-aligned.
  bool CoordinateFrom(const ASN1_INTEGER *v, uint8_t out[32]) {
    if (v == nullptr || ASN1_STRING_type(v) != V_ASN1_INTEGER) return false;
    const uint8_t *p = ASN1_STRING_get0_data(v);
    size_t n = static_cast<size_t>(ASN1_STRING_length(v));
    while (n != 0 && *p == 0) ++p, --n;
    if (n > 32) return false;
    std::memset(out, 0, 32 - n);
    if (n != 0) std::memcpy(out + 32 - n, p, n);
    return true;
  }

  // The minimal INTEGER of a 32-byte unsigned value.
  bool CoordinateTo(const uint8_t in[32], ASN1_INTEGER *v) {
    size_t skip = 0;
    while (skip < 32 && in[skip] == 0) ++skip;
    return ASN1_STRING_set(v, in + skip, static_cast<int>(32 - skip)) == 1;
  }

  bool OctetsTo(std::span<const uint8_t> in, ASN1_OCTET_STRING *v) {
    return ASN1_OCTET_STRING_set(v, in.data(), static_cast<int>(in.size())) == 1;
  }

  uint32_t PutBytes(const std::vector<uint8_t> &bytes, uint8_t *out, uint32_t *out_len) {
    if (bytes.empty()) return ERR_OUT_OF_MEMORY;
    return PutOutput(bytes, out, out_len);
  }

  bool KnownOrder(int order) { return order == BIVO_SM2_ORDER_C1C3C2 || order == BIVO_SM2_ORDER_C1C2C3; }

  }  // namespace

  bool FromStructure(const SM2_Ciphertext_Structure &s, Ciphertext *out) {
    if (!CoordinateFrom(s.C1x, out->x) || !CoordinateFrom(s.C1y, out->y)) return false;
    if (s.C3 == nullptr || s.C2 == nullptr || ASN1_STRING_length(s.C3) != static_cast<int>(kHashLen)) return false;
    std::memcpy(out->c3, ASN1_STRING_get0_data(s.C3), kHashLen);
    const uint8_t *c2 = ASN1_STRING_get0_data(s.C2);
    out->c2.assign(c2, c2 + ASN1_STRING_length(s.C2));
    return true;
  }

  bool FromDer(std::span<const uint8_t> der, Ciphertext * out) {
    if (der.empty() || der.size() > static_cast<size_t>(INT32_MAX)) return false;
    const unsigned char *p = der.data();
    Sm2CiphertextPtr s(d2i_SM2_Ciphertext_Structure(nullptr, &p, static_cast<long>(der.size())));
    return s && p == der.data() + der.size() && FromStructure(*s, out);
  }

  bool FromRaw(std::span<const uint8_t> raw, RawOrder order, Ciphertext * out) {
    if (raw.size() < kRawOverhead || raw[0] != 0x04) return false;
    std::memcpy(out->x, raw.data() + 1, 32);
    std::memcpy(out->y, raw.data() + 33, 32);
    const auto rest = raw.subspan(65);
    const size_t c2_len = rest.size() - kHashLen;
    const auto c3 = order == RawOrder::kC1C3C2 ? rest.first(kHashLen) : rest.last(kHashLen);
    const auto c2 = order == RawOrder::kC1C3C2 ? rest.last(c2_len) : rest.first(c2_len);
    std::memcpy(out->c3, c3.data(), kHashLen);
    out->c2.assign(c2.begin(), c2.end());
    return true;
  }

  Sm2CiphertextPtr ToStructure(const Ciphertext &c) {
    Sm2CiphertextPtr s(SM2_Ciphertext_Structure_new());
    if (!s || !CoordinateTo(c.x, s->C1x) || !CoordinateTo(c.y, s->C1y) || !OctetsTo({c.c3, kHashLen}, s->C3) ||
        !OctetsTo(c.c2, s->C2)) {
      return nullptr;
    }
    return s;
  }

  std::vector<uint8_t> ToDer(const Ciphertext &c) {
    const Sm2CiphertextPtr s = ToStructure(c);
    const int n = s ? i2d_SM2_Ciphertext_Structure(s.get(), nullptr) : -1;
    if (n <= 0) return {};
    std::vector<uint8_t> der(static_cast<size_t>(n));
    unsigned char *p = der.data();
    if (i2d_SM2_Ciphertext_Structure(s.get(), &p) != n) return {};
    return der;
  }

  std::vector<uint8_t> ToRaw(const Ciphertext &c, RawOrder order) {
    std::vector<uint8_t> raw;
    raw.reserve(kRawOverhead + c.c2.size());
    raw.push_back(0x04);
    raw.insert(raw.end(), c.x, c.x + 32);
    raw.insert(raw.end(), c.y, c.y + 32);
    if (order == RawOrder::kC1C2C3) raw.insert(raw.end(), c.c2.begin(), c.c2.end());
    raw.insert(raw.end(), c.c3, c.c3 + kHashLen);
    if (order == RawOrder::kC1C3C2) raw.insert(raw.end(), c.c2.begin(), c.c2.end());
    return raw;
  }

}  // namespace zeph::gm::sm2

namespace sm2 = zeph::gm::sm2;

extern "C" {

ZEPH_API uint32_t BIVO_ComputeSm2CiphertextEncodeLength(uint32_t plain_len) { return plain_len + 112; }

ZEPH_API uint32_t BIVO_ComputeSm2PlaintextLength(uint32_t cipher_len) {
  return cipher_len < 107 ? 0 : cipher_len - 106;
}

ZEPH_API uint32_t i2a_SM2Cipher2ECCEncryptData(const SM2_Ciphertext_Structure *ct, unsigned char **out_record,
                                               uint32_t *out_len) {
  if (ct == nullptr || out_record == nullptr || out_len == nullptr) return sm2::kFormat;
  return zeph::Guarded(
      [&]() -> uint32_t {
        sm2::Ciphertext c;
        if (!sm2::FromStructure(*ct, &c) || c.c2.size() > UINT32_MAX - 104) return sm2::kFormat;
        const auto cipher_len = static_cast<uint32_t>(c.c2.size());
        // Compat: the block is 4 bytes longer than the record it holds.
        zeph::MallocPtr<unsigned char> record(static_cast<unsigned char *>(std::calloc(cipher_len + 104, 1)));
        if (!record) return sm2::kFormat;
        unsigned char *r = record.get();
        std::memcpy(r, c.x, 32);
        std::memcpy(r + 32, c.y, 32);
        std::memcpy(r + 64, c.c3, 32);
        std::memcpy(r + 96, &cipher_len, 4);
        if (cipher_len != 0) std::memcpy(r + 100, c.c2.data(), cipher_len);
        *out_record = record.release();
        *out_len = sm2::kRecordHeader + cipher_len;
        return 0;
      },
      sm2::kFormat);
}

ZEPH_API uint32_t a2d_SM2Cipher(const unsigned char *record, uint32_t record_len, unsigned char **out_der,
                                uint32_t *out_der_len) {
  if (record == nullptr || out_der == nullptr || out_der_len == nullptr) return sm2::kFormat;
  if (record_len < sm2::kRecordHeader) return sm2::kFormat;
  uint32_t cipher_len = 0;
  std::memcpy(&cipher_len, record + 96, 4);
  if (cipher_len != record_len - sm2::kRecordHeader) return sm2::kFormat;
  return zeph::Guarded(
      [&]() -> uint32_t {
        sm2::Ciphertext c;
        std::memcpy(c.x, record, 32);
        std::memcpy(c.y, record + 32, 32);
        std::memcpy(c.c3, record + 64, 32);
        c.c2.assign(record + 100, record + record_len);
        const std::vector<uint8_t> der = sm2::ToDer(c);
        if (der.empty() || der.size() > UINT32_MAX) return sm2::kFormat;
        zeph::MallocPtr<unsigned char> block(static_cast<unsigned char *>(std::malloc(der.size())));
        if (!block) return sm2::kFormat;
        std::memcpy(block.get(), der.data(), der.size());
        *out_der = block.release();
        *out_der_len = static_cast<uint32_t>(der.size());
        return 0;
      },
      sm2::kFormat);
}

ZEPH_API uint32_t BIVO_Sm2CiphertextDerToRaw(const unsigned char *der, uint32_t der_len, int order, unsigned char *out,
                                             uint32_t *out_len) {
  if (der == nullptr || out_len == nullptr) return ERR_INVALID_PARAMETER;
  if (!sm2::KnownOrder(order)) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    sm2::Ciphertext c;
    if (!sm2::FromDer({der, der_len}, &c)) return sm2::kFormat;
    return sm2::PutBytes(sm2::ToRaw(c, static_cast<sm2::RawOrder>(order)), out, out_len);
  });
}

ZEPH_API uint32_t BIVO_Sm2CiphertextRawToDer(const unsigned char *raw, uint32_t raw_len, int order, unsigned char *out,
                                             uint32_t *out_len) {
  if (raw == nullptr || out_len == nullptr) return ERR_INVALID_PARAMETER;
  if (!sm2::KnownOrder(order)) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    sm2::Ciphertext c;
    if (!sm2::FromRaw({raw, raw_len}, static_cast<sm2::RawOrder>(order), &c)) return sm2::kFormat;
    return sm2::PutBytes(sm2::ToDer(c), out, out_len);
  });
}

}  // extern "C"
