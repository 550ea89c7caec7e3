// Certificate requests for co-signed keys: the subject, the request body and
// its signature made by the two parties; the SM2 request.
#include <cstring>
#include <string>

#include <openssl/core_names.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "bivo/bivo_client.hpp"
#include "foundation/output.hpp"
#include "zeph_c_status.h"

namespace zeph::bivo {
namespace {

using X509ReqPtr = std::unique_ptr<X509_REQ, Free<X509_REQ_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, Free<X509_NAME_free>>;

// "CN=a,O=b" or "/CN=a/O=b": attribute=value pairs, no escapes.
X509NamePtr ParseDn(const char *dn) {
  X509NamePtr name(X509_NAME_new());
  if (!name || dn == nullptr) return nullptr;
  std::string text(dn);
  const char sep = !text.empty() && text.front() == '/' ? '/' : ',';
  if (sep == '/') text.erase(0, 1);
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(sep, start);
    if (end == std::string::npos) end = text.size();
    std::string part = text.substr(start, end - start);
    const size_t first = part.find_first_not_of(' ');
    part = first == std::string::npos ? "" : part.substr(first);
    const size_t eq = part.find('=');
    if (eq == 0 || eq == std::string::npos || eq + 1 == part.size()) return nullptr;
    if (X509_NAME_add_entry_by_txt(name.get(), part.substr(0, eq).c_str(), MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char *>(part.c_str() + eq + 1), -1, -1, 0) != 1) {
      return nullptr;
    }
    start = end + 1;
  }
  return X509_NAME_entry_count(name.get()) > 0 ? std::move(name) : nullptr;
}

// The request without its signature, and its to-be-signed DER.
uint32_t Unsigned(EVP_PKEY *key, const char *dn, int sig_nid, X509ReqPtr *req, std::vector<uint8_t> *tbs) {
  X509NamePtr name = ParseDn(dn);
  ZEPH_ENSURE(name != nullptr, ERR_INVALID_PARAMETER);
  X509ReqPtr r(X509_REQ_new());
  ZEPH_ENSURE(r != nullptr, ERR_OUT_OF_MEMORY);
  ZEPH_ENSURE(X509_REQ_set_version(r.get(), 0) == 1 && X509_REQ_set_subject_name(r.get(), name.get()) == 1 &&
                  X509_REQ_set_pubkey(r.get(), key) == 1,
              ERR_CSR_FAILED);
  const ASN1_BIT_STRING *sig = nullptr;
  const X509_ALGOR *alg = nullptr;
  X509_REQ_get0_signature(r.get(), &sig, &alg);
  // The RSA algorithms carry NULL parameters, SM2 with SM3 none.
  ZEPH_ENSURE(X509_ALGOR_set0(const_cast<X509_ALGOR *>(alg), OBJ_nid2obj(sig_nid),
                              sig_nid == NID_SM2_with_SM3 ? V_ASN1_UNDEF : V_ASN1_NULL, nullptr) == 1,
              ERR_CSR_FAILED);
  unsigned char *der = nullptr;
  const int n = i2d_re_X509_REQ_tbs(r.get(), &der);
  ZEPH_ENSURE(n > 0, ERR_CSR_FAILED);
  tbs->assign(der, der + n);
  OPENSSL_free(der);
  *req = std::move(r);
  return 0;
}

uint32_t Finish(X509_REQ *req, std::span<const uint8_t> sig, std::vector<uint8_t> *der) {
  const ASN1_BIT_STRING *bits = nullptr;
  const X509_ALGOR *alg = nullptr;
  X509_REQ_get0_signature(req, &bits, &alg);
  auto *mutable_bits = const_cast<ASN1_BIT_STRING *>(bits);
  ZEPH_ENSURE(ASN1_BIT_STRING_set(mutable_bits, const_cast<uint8_t *>(sig.data()), static_cast<int>(sig.size())) == 1,
              ERR_OUT_OF_MEMORY);
  mutable_bits->flags = (mutable_bits->flags & ~0x07L) | ASN1_STRING_FLAG_BITS_LEFT;
  const int n = i2d_X509_REQ(req, nullptr);
  ZEPH_ENSURE(n > 0, ERR_CSR_FAILED);
  der->resize(static_cast<size_t>(n));
  unsigned char *w = der->data();
  ZEPH_ENSURE(i2d_X509_REQ(req, &w) == n, ERR_CSR_FAILED);
  return 0;
}

}  // namespace

EvpPkeyPtr Sm2Key(const uint8_t pubkey65[65]) {
  char group[] = "SM2";
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, group, 0),
      OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, const_cast<uint8_t *>(pubkey65), 65),
      OSSL_PARAM_construct_end()};
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr));
  EVP_PKEY *key = nullptr;
  if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params) != 1) {
    return nullptr;
  }
  return EvpPkeyPtr(key);
}

uint32_t BuildCsr(EVP_PKEY *key, const char *dn, int sig_nid, const TbsSigner &sign, std::vector<uint8_t> *der) {
  X509ReqPtr req;
  std::vector<uint8_t> tbs, sig;
  ZEPH_TRY(Unsigned(key, dn, sig_nid, &req, &tbs));
  ZEPH_TRY(sign(tbs, &sig));
  return Finish(req.get(), sig, der);
}

uint32_t CsrLength(EVP_PKEY *key, const char *dn, int sig_nid, size_t sig_max, size_t *len) {
  X509ReqPtr req;
  std::vector<uint8_t> tbs, der;
  ZEPH_TRY(Unsigned(key, dn, sig_nid, &req, &tbs));
  ZEPH_TRY(Finish(req.get(), std::vector<uint8_t>(sig_max, 0xFF), &der));
  *len = der.size();
  return 0;
}

}  // namespace zeph::bivo

extern "C" {

ZEPH_API uint32_t ZEPH_C_BIVO_GenCSR(ZEPH_BIVO_CTX *ctx, const char *dn, unsigned char *out, uint32_t *in_out_len) {
  return zeph::Guarded([&]() -> uint32_t {
    ZEPH_ENSURE(ctx != nullptr, ZEPH_ERR_MISSING_HANDLE);
    ZEPH_ENSURE(ctx->has_key, ERR_COSIGN_FAILED);
    ZEPH_ENSURE(dn != nullptr && in_out_len != nullptr, ERR_INVALID_PARAMETER);
    const zeph::EvpPkeyPtr key = zeph::bivo::Sm2Key(ctx->pubkey);
    ZEPH_ENSURE(key != nullptr, ERR_COSIGN_FAILED);
    size_t most = 0;
    ZEPH_TRY(zeph::bivo::CsrLength(key.get(), dn, NID_SM2_with_SM3, zeph::bivo::kSignatureMax, &most));
    if (out == nullptr || *in_out_len < most) {
      if (auto done = zeph::ReserveOutput(most, out, in_out_len)) return *done;
    }
    const auto co_sign = [ctx](std::span<const uint8_t> tbs, std::vector<uint8_t> *sig) {
      uint32_t n = zeph::bivo::kSignatureMax;
      sig->resize(n);
      const uint32_t rv = ZEPH_C_BIVO_DoSignature(ctx, tbs.data(), static_cast<uint32_t>(tbs.size()), sig->data(), &n);
      sig->resize(rv == 0 ? n : 0);
      return rv;
    };
    std::vector<uint8_t> der;
    ZEPH_TRY(zeph::bivo::BuildCsr(key.get(), dn, NID_SM2_with_SM3, co_sign, &der));
    return zeph::PutOutput(der, out, in_out_len);
  });
}

}  // extern "C"
