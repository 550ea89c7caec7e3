// SM2 verification with the key of a certificate, for seals. The key is
// taken from the certificate's SubjectPublicKeyInfo by walking its DER: with
// OpenSSL 3, decoding a whole X509 costs about half an SM2 verification, and
// a seal verification needs two keys. The digest e = SM3(Z || M) is the
// library's own SM3, fed chunk by chunk so that no signed content is copied.
#include <algorithm>
#include <array>
#include <cstring>

#include <openssl/core_names.h>
#include <openssl/ecdsa.h>

#include "foundation/sm2_params.hpp"
#include "gm/gm_internal.hpp"
#include "seal/seal_internal.hpp"
#include "zeph_c_gm.h"
#include "zeph_c_status.h"

namespace zeph::seal {

namespace {

using Point = std::array<uint8_t, 65>;

// id-ecPublicKey, the SM2 curve (also used as a key algorithm on its own).
constexpr uint8_t kEcPublicKey[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
constexpr uint8_t kSm2Curve[] = {0x2A, 0x81, 0x1C, 0xCF, 0x55, 0x01, 0x82, 0x2D};

bool Is(const std::optional<der::Tlv> &oid, std::span<const uint8_t> value) {
  return oid && oid->tag == der::kOid &&
         std::equal(oid->content.begin(), oid->content.end(), value.begin(), value.end());
}

// The uncompressed SM2 point of a well-formed DER certificate.
std::optional<Point> Sm2PointOf(der::Bytes cert) {
  const auto whole = der::ReadWhole(cert);
  if (!whole || whole->tag != der::kSequence || !der::WellFormed(*whole)) return std::nullopt;
  der::Reader top(whole->content);
  const auto tbs = top.Take(der::kSequence);
  if (!tbs) return std::nullopt;
  der::Reader r(tbs->content);
  r.TakeIf(der::kContext0);                            // version
  r.Take(der::kInteger);                               // serial number
  for (int i = 0; i < 4; ++i) r.Take(der::kSequence);  // signature, issuer, validity, subject
  const auto spki = r.Take(der::kSequence);
  if (!spki) return std::nullopt;
  der::Reader k(spki->content);
  const auto alg = k.Take(der::kSequence);
  const auto bits = k.Take(der::kBitString);
  if (!alg || !bits || !k.AtEnd()) return std::nullopt;
  der::Reader a(alg->content);
  const auto id = a.Next();
  const auto param = a.Next();
  if (!(Is(id, kEcPublicKey) && Is(param, kSm2Curve)) && !Is(id, kSm2Curve)) return std::nullopt;
  const auto point = bits->content;
  if (point.size() != 66 || point[0] != 0 || point[1] != 0x04) return std::nullopt;
  Point out;
  std::memcpy(out.data(), point.data() + 1, out.size());
  return out;
}

EvpPkeyPtr Sm2Key(const Point &point) {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr));
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char *>("SM2"), 0),
      OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, const_cast<uint8_t *>(point.data()), point.size()),
      OSSL_PARAM_construct_end()};
  EVP_PKEY *key = nullptr;
  if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params) != 1) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

}  // namespace

uint32_t VerifySm2WithCert(der::Bytes cert, std::initializer_list<der::Bytes> message, der::Bytes signature) {
  const auto point = Sm2PointOf(cert);
  if (!point || signature.empty()) return ERR_SIGNATURE_INVALID;
  uint8_t z[32];
  if (ComputeUserIdSm3Digest(kDefaultSm2Id, point->data(), point->size(), z) != 0) return ERR_SIGNATURE_INVALID;
  BIVO_SM3_CTX sm3;
  gm::Sm3Init(&sm3);
  gm::Sm3Update(&sm3, z, sizeof z);
  for (const auto &chunk : message) gm::Sm3Update(&sm3, chunk.data(), chunk.size());
  uint8_t e[32];
  gm::Sm3Final(e, &sm3);

  const EvpPkeyPtr key = Sm2Key(*point);
  EvpPkeyCtxPtr ctx(key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr);
  const bool ok = ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
                  EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), e, sizeof e) == 1;
  return ok ? 0u : ERR_SIGNATURE_INVALID;
}

}  // namespace zeph::seal
