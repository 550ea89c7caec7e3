// The exported certificate services: verification, fields, bundles, key
// pairs in software and the public test key.
#include <cstdlib>
#include <cstring>

#include "foundation/helpers.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/output.hpp"
#include "foundation/sm2_params.hpp"
#include "foundation/status_flow.hpp"
#include "pki/cert_fields.hpp"
#include "pki/cert_input.hpp"
#include "pki/cert_verify.hpp"
#include "pki/csr.hpp"
#include "zeph_c_cert.h"

using zeph::pki::Bytes;

namespace {

std::span<const uint8_t> Span(const unsigned char *p, uint32_t n) {
  return p != nullptr ? std::span<const uint8_t>(p, n) : std::span<const uint8_t>();
}

// The leaf and the trusted CAs, then the chain between them.
uint32_t VerifyInputs(const unsigned char *cert, uint32_t cert_len, const unsigned char *cas, uint32_t cas_len,
                      zeph::X509Ptr *leaf, std::vector<zeph::X509Ptr> *authorities, zeph::X509Ptr *issuer) {
  if (zeph::pki::ReadCert(Span(cert, cert_len), leaf) != 0) return ERR_CERT_VERIFY_FAILED;
  if (cas != nullptr && cas_len != 0) ZEPH_TRY(zeph::pki::ReadCertList({cas, cas_len}, authorities));
  return zeph::pki::VerifyChain(leaf->get(), *authorities, issuer);
}

uint32_t ReadCertForFields(const unsigned char *cert, uint32_t cert_len, zeph::X509Ptr *out) {
  if (cert == nullptr || cert_len == 0) return ERR_INVALID_PARAMETER;
  return zeph::pki::ReadCert({cert, cert_len}, out);
}

uint32_t PutString(const std::string &text, char *out, uint32_t *in_out_len) {
  return zeph::PutText(text.c_str(), text.size(), out, in_out_len);
}

// One text read off a certificate by describe(x509, &text), handed out as text.
template <class Describe>
uint32_t PutCertText(const unsigned char *cert, uint32_t cert_len, char *out, uint32_t *in_out_len, Describe describe) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    zeph::X509Ptr x509;
    ZEPH_TRY(ReadCertForFields(cert, cert_len, &x509));
    std::string text;
    ZEPH_TRY(describe(x509.get(), &text));
    return PutString(text, out, in_out_len);
  });
}

// A copy the caller releases with ZEPH_C_MALLOC_FREE.
uint32_t HandOut(std::span<const uint8_t> bytes, unsigned char **out, uint32_t *out_len) {
  auto *copy = static_cast<unsigned char *>(std::malloc(bytes.size()));
  if (copy == nullptr) return ERR_OUT_OF_MEMORY;
  std::memcpy(copy, bytes.data(), bytes.size());
  *out = copy;
  *out_len = static_cast<uint32_t>(bytes.size());
  return 0;
}

// SM2 signatures vary in length: a query answers the longest.
uint32_t PutSignedResult(const Bytes &result, bool sm2, size_t sig_len, unsigned char *out, uint32_t *in_out_len) {
  if (out == nullptr && sm2) {
    *in_out_len = static_cast<uint32_t>(result.size() + zeph::kSm2DerSignatureMax - sig_len + 1);
    return 0;
  }
  return zeph::PutOutput(result, out, in_out_len);
}

}  // namespace

extern "C" {

ZEPH_API uint32_t ZEPH_C_VerifyCert(const unsigned char *cert, uint32_t cert_len, const unsigned char *cas,
                                    uint32_t cas_len, uint32_t revocation, const char *ocsp_url) {
  return zeph::Guarded([&]() -> uint32_t {
    zeph::X509Ptr leaf, issuer;
    std::vector<zeph::X509Ptr> authorities;
    ZEPH_TRY(VerifyInputs(cert, cert_len, cas, cas_len, &leaf, &authorities, &issuer));
    switch (revocation) {
      case ZEPH_REVOCATION_NONE:
        return 0;
      case ZEPH_REVOCATION_CRL:
        return zeph::pki::CheckCrlFromDistributionPoints(leaf.get(), issuer.get());
      case ZEPH_REVOCATION_OCSP:
        return zeph::pki::CheckOcsp(leaf.get(), issuer.get(), authorities, ocsp_url);
      default:
        return ERR_UNSUPPORTED_VALUE;
    }
  });
}

ZEPH_API uint32_t ZEPH_C_VerifyCertWithCRL(const unsigned char *cert, uint32_t cert_len, const unsigned char *cas,
                                           uint32_t cas_len, const unsigned char *crl, uint32_t crl_len) {
  return zeph::Guarded([&]() -> uint32_t {
    zeph::X509Ptr leaf, issuer;
    std::vector<zeph::X509Ptr> authorities;
    ZEPH_TRY(VerifyInputs(cert, cert_len, cas, cas_len, &leaf, &authorities, &issuer));
    return zeph::pki::CheckCrlBytes(Span(crl, crl_len), leaf.get(), issuer.get());
  });
}

ZEPH_API uint32_t ZEPH_C_GetCertInfo(const unsigned char *cert, uint32_t cert_len, uint32_t item, char *out,
                                     uint32_t *in_out_len) {
  return PutCertText(cert, cert_len, out, in_out_len,
                     [item](X509 *x509, std::string *text) { return zeph::pki::CertItemText(x509, item, text); });
}

ZEPH_API uint32_t ZEPH_C_GetCertExtension(const unsigned char *cert, uint32_t cert_len, const char *oid, char *out,
                                          uint32_t *in_out_len) {
  return PutCertText(cert, cert_len, out, in_out_len,
                     [oid](X509 *x509, std::string *text) { return zeph::pki::CertOidText(x509, oid, text); });
}

ZEPH_API uint32_t ZEPH_C_SplitCertChain(const unsigned char *chain, uint32_t chain_len, char *out_json,
                                        uint32_t *in_out_len) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<zeph::X509Ptr> certs;
    ZEPH_TRY(zeph::pki::ReadCertList(Span(chain, chain_len), &certs));
    zeph::JsonPtr array(cJSON_CreateArray());
    if (!array) return ERR_OUT_OF_MEMORY;
    for (const zeph::X509Ptr &x : certs) {
      unsigned char *der = nullptr;
      const int len = i2d_X509(x.get(), &der);
      const zeph::OpenSslPtr<unsigned char> der_owner(der);
      if (len <= 0) return ERR_ENCODE_FAILED;
      const std::string b64 = zeph::Base64Text({der, static_cast<size_t>(len)});
      cJSON *item = cJSON_CreateString(b64.c_str());
      if (item == nullptr || !cJSON_AddItemToArray(array.get(), item)) return ERR_OUT_OF_MEMORY;
    }
    const zeph::JsonTextPtr text(cJSON_PrintUnformatted(array.get()));
    if (!text) return ERR_OUT_OF_MEMORY;
    return zeph::PutText(text.get(), std::strlen(text.get()), out_json, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_MakeCertBundle(const unsigned char *chain, uint32_t chain_len, unsigned char *out,
                                        uint32_t *in_out_len) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<zeph::X509Ptr> certs;
    ZEPH_TRY(zeph::pki::ReadCertList(Span(chain, chain_len), &certs));
    std::vector<X509 *> list;
    for (const auto &x : certs) list.push_back(x.get());
    Bytes bundle;
    ZEPH_TRY(zeph::pki::BuildCertBundle(list, &bundle));
    return zeph::PutOutput(bundle, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_FKeyGenKeyPair(uint32_t alg, const char *pin, unsigned char **out_p8, uint32_t *out_p8_len,
                                        unsigned char **out_spki, uint32_t *out_spki_len) {
  if (out_p8 == nullptr || out_p8_len == nullptr || out_spki == nullptr || out_spki_len == nullptr) {
    return ERR_INVALID_PARAMETER;
  }
  *out_p8 = *out_spki = nullptr;
  *out_p8_len = *out_spki_len = 0;
  return zeph::Guarded([&]() -> uint32_t {
    zeph::EvpPkeyPtr key;
    ZEPH_TRY(zeph::pki::GenerateKey(alg, &key));
    zeph::SecureBytes p8;
    Bytes spki;
    ZEPH_TRY(zeph::pki::WritePrivateKey(key.get(), pin, &p8));
    ZEPH_TRY(zeph::pki::WritePublicKey(key.get(), &spki));
    zeph::MallocPtr<unsigned char> p8_copy(static_cast<unsigned char *>(std::malloc(p8.size())));
    if (!p8_copy) return ERR_OUT_OF_MEMORY;
    std::memcpy(p8_copy.get(), p8.data(), p8.size());
    ZEPH_TRY(HandOut(spki, out_spki, out_spki_len));
    *out_p8 = p8_copy.release();
    *out_p8_len = static_cast<uint32_t>(p8.size());
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_FKeySign(const unsigned char *key, uint32_t key_len, const char *pin,
                                  const unsigned char *data, uint32_t data_len, uint32_t digest_id,
                                  unsigned char *out_sig, uint32_t *in_out_len) {
  if (in_out_len == nullptr || (data == nullptr && data_len != 0)) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    zeph::EvpPkeyPtr pkey;
    ZEPH_TRY(zeph::pki::ReadPrivateKey(Span(key, key_len), pin, &pkey));
    Bytes sig;
    ZEPH_TRY(zeph::pki::SignWithKey(pkey.get(), Span(data, data_len), digest_id, &sig));
    return PutSignedResult(sig, zeph::pki::IsSm2Key(pkey.get()), sig.size(), out_sig, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_FKeyGenCSR(const unsigned char *key, uint32_t key_len, const char *pin, const char *dn,
                                    unsigned char *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr || dn == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    zeph::EvpPkeyPtr pkey;
    ZEPH_TRY(zeph::pki::ReadPrivateKey(Span(key, key_len), pin, &pkey));
    zeph::X509NamePtr subject;
    ZEPH_TRY(zeph::pki::ParseDn(dn, &subject));
    Bytes csr;
    size_t sig_len = 0;
    ZEPH_TRY(zeph::pki::BuildCsr(
        subject.get(), pkey.get(),
        [&](std::span<const uint8_t> tbs, Bytes *sig) {
          const uint32_t rv = zeph::pki::SignWithKey(pkey.get(), tbs, 0, sig);
          sig_len = sig->size();
          return rv;
        },
        &csr));
    return PutSignedResult(csr, zeph::pki::IsSm2Key(pkey.get()), sig_len, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_TestGetP8Data(unsigned char *out, uint32_t *in_out_len) {
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    zeph::EvpPkeyPtr key;
    ZEPH_TRY(zeph::pki::TestSm2Key(&key));
    zeph::SecureBytes p8;
    ZEPH_TRY(zeph::pki::WritePrivateKey(key.get(), nullptr, &p8));
    return zeph::PutOutput(p8.span(), out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_TestGetECCKeyPair(unsigned char out_prikey[32], unsigned char out_pubkey[65]) {
  if (out_prikey == nullptr || out_pubkey == nullptr) return ERR_INVALID_PARAMETER;
  std::memcpy(out_prikey, zeph::pki::kTestSm2PrivateKey, sizeof zeph::pki::kTestSm2PrivateKey);
  std::memcpy(out_pubkey, zeph::pki::kTestSm2PublicKey, sizeof zeph::pki::kTestSm2PublicKey);
  return 0;
}

}  // extern "C"
