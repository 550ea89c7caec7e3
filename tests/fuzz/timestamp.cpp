// The time-stamp functions on arbitrary DER. The first byte chooses:
//   0  a reply embedded into a fixed PKCS#7 (ZEPH_C_GetTimeStampPKCS7)
//   1  a fixed reply embedded into a PKCS#7
//   2  the checks of the checked stamping on a reply to a fixed query
//   3  the signature value of a PKCS#7
//   4  the signature value of an SM2 signed message
// The fixed objects (a time-stamping certificate, a detached PKCS#7 signed
// with it, a query over its signature and the reply) are made at start-up.
#include "pki/timestamp.hpp"

#include <cstdlib>
#include <vector>

#include <openssl/pkcs7.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include "zeph_c_pki.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Fixed {
  Bytes p7, reply;
  TS_REQ *query = nullptr;
  X509_STORE *trust = nullptr;
};

template <class T>
Bytes Der(T *obj, int (*i2d)(const T *, unsigned char **)) {
  unsigned char *p = nullptr;
  const int n = i2d(obj, &p);
  Bytes out(p, p + (n > 0 ? n : 0));
  OPENSSL_free(p);
  return out;
}

Fixed Make() {
  Fixed f;
  EVP_PKEY *key = EVP_EC_gen("P-256");
  X509 *cert = X509_new();
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 7);
  X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert), 3600L * 24 * 3650);
  X509_set_pubkey(cert, key);
  X509_NAME *name = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("fuzz tsa"), -1, -1, 0);
  X509_set_issuer_name(cert, name);
  X509_EXTENSION *eku = X509V3_EXT_conf_nid(nullptr, nullptr, NID_ext_key_usage, "critical,timeStamping");
  X509_add_ext(cert, eku, -1);
  X509_EXTENSION_free(eku);
  X509_sign(cert, key, EVP_sha256());

  BIO *content = BIO_new_mem_buf("fuzz", 4);
  PKCS7 *p7 = PKCS7_sign(cert, key, nullptr, content, PKCS7_BINARY | PKCS7_DETACHED);
  f.p7 = Der(p7, i2d_PKCS7);
  std::vector<uint8_t> value;
  Bytes query_der;
  zeph::TsReqPtr query;
  if (zeph::tsa::SignatureValue(false, f.p7, &value) != 0 ||
      zeph::tsa::BuildQuery(0x10004, value, &query, &query_der) != 0)
    std::abort();

  TS_RESP_CTX *ctx = TS_RESP_CTX_new();
  ASN1_OBJECT *policy = OBJ_txt2obj("1.2.3.4.1", 1);
  TS_RESP_CTX_set_signer_cert(ctx, cert);
  TS_RESP_CTX_set_signer_key(ctx, key);
  TS_RESP_CTX_set_def_policy(ctx, policy);
  TS_RESP_CTX_add_md(ctx, EVP_sha256());
  BIO *query_bio = BIO_new_mem_buf(query_der.data(), static_cast<int>(query_der.size()));
  TS_RESP *resp = TS_RESP_create_response(ctx, query_bio);
  f.reply = Der(resp, i2d_TS_RESP);
  f.query = query.release();
  f.trust = X509_STORE_new();
  X509_STORE_add_cert(f.trust, cert);

  TS_RESP_free(resp);
  BIO_free(query_bio);
  ASN1_OBJECT_free(policy);
  TS_RESP_CTX_free(ctx);
  PKCS7_free(p7);
  BIO_free(content);
  X509_free(cert);
  EVP_PKEY_free(key);
  // The fixed reply passes every check: mutations start from a good one.
  const unsigned char *p = f.reply.data();
  const zeph::TsRespPtr good(d2i_TS_RESP(nullptr, &p, static_cast<long>(f.reply.size())));
  if (!good || zeph::tsa::CheckReply(f.query, good.get(), f.trust) != 0) std::abort();
  return f;
}

// Lives for the whole run.
const Fixed &Get() {
  static const Fixed *fixed = new Fixed(Make());
  return *fixed;
}

void Embed(const Bytes &reply, const Bytes &p7) {
  std::vector<uint8_t> out(p7.size() + reply.size() + 64);
  uint32_t len = static_cast<uint32_t>(out.size());
  const uint32_t rv = ZEPH_C_GetTimeStampPKCS7(reply.data(), static_cast<uint32_t>(reply.size()), p7.data(),
                                               static_cast<uint32_t>(p7.size()), out.data(), &len);
  if (rv == 0) {
    const unsigned char *p = out.data();
    PKCS7 *back = d2i_PKCS7(nullptr, &p, len);
    if (back == nullptr) std::abort();
    PKCS7_free(back);
  } else if (rv != 0xFFFFFFFFu && rv != ERR_BUFFER_TOO_SMALL &&
             !(rv == ERR_INVALID_PARAMETER && (reply.empty() || p7.empty()))) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const Fixed &f = Get();
  const Bytes input(data + 1, data + size);
  std::vector<uint8_t> value;
  switch (data[0] % 5) {
    case 0:
      Embed(input, f.p7);
      break;
    case 1:
      Embed(f.reply, input);
      break;
    case 2: {
      const unsigned char *p = input.data();
      TS_RESP *resp = d2i_TS_RESP(nullptr, &p, static_cast<long>(input.size()));
      if (resp != nullptr) {
        const uint32_t rv = zeph::tsa::CheckReply(f.query, resp, f.trust);
        if (rv != 0 && rv != 0xFFFFFFFFu && rv != ERR_SIGNATURE_INVALID && rv != ERR_CERT_UNTRUSTED) std::abort();
      }
      TS_RESP_free(resp);
      break;
    }
    case 3:
      if (const uint32_t rv = zeph::tsa::SignatureValue(false, input, &value); rv != 0 && rv != 0xFFFFFFFFu)
        std::abort();
      break;
    default:
      if (const uint32_t rv = zeph::tsa::SignatureValue(true, input, &value); rv != 0 && rv != ERR_INVALID_PARAMETER)
        std::abort();
      break;
  }
  return 0;
}
