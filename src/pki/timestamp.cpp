// RFC 3161 time stamps of signatures: the query over a signer's signature
// value, posting it, checking a reply and embedding its token into the
// PKCS#7 as the signer's unsigned id-smime-aa-timeStampToken attribute.
#include "pki/timestamp.hpp"

#include <climits>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/rand.h>

#include "foundation/log.hpp"
#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "pki/http_client.hpp"
#include "zeph_c_pki.h"
#include "zeph_c_utils.h"

namespace {

constexpr uint32_t kStatusMinusOne = 0xFFFFFFFFu;
constexpr uint32_t kAlgSm2 = 1;
constexpr uint32_t kReplyCapacity = 16384;        // what ZEPH_C_GetTimeStamp takes from a server
constexpr size_t kCheckedReplyMax = 1024 * 1024;  // what ZEPH_C_StampPKCS7 does
constexpr const char *kDefaultTsaPath = "/timestamp/Timestamp/rfctime.do";

}  // namespace

namespace zeph::tsa {

namespace {

PKCS7_SIGNER_INFO *FirstSigner(PKCS7 *p7) {
  if (p7 == nullptr || !PKCS7_type_is_signed(p7) || p7->d.sign == nullptr) return nullptr;
  return sk_PKCS7_SIGNER_INFO_value(p7->d.sign->signer_info, 0);
}

PKCS7_SIGNER_INFO *FirstSigner(SM2_Sign *sm2) {
  if (sm2 == nullptr) return nullptr;
  SM2_SIGN_INFO *info = sk_SM2_SIGN_INFO_value(sm2->SM2_Sign_Infos, 0);
  return info != nullptr ? sk_PKCS7_SIGNER_INFO_value(info->signer_info, 0) : nullptr;
}

bool CopyValue(const PKCS7_SIGNER_INFO *si, std::vector<uint8_t> *value) {
  if (si == nullptr || si->enc_digest == nullptr) return false;
  const uint8_t *p = ASN1_STRING_get0_data(si->enc_digest);
  value->assign(p, p + ASN1_STRING_length(si->enc_digest));
  return true;
}

Pkcs7Ptr DecodePkcs7(std::span<const uint8_t> der) {
  const uint8_t *p = der.data();
  return Pkcs7Ptr(der.size() <= LONG_MAX ? d2i_PKCS7(nullptr, &p, static_cast<long>(der.size())) : nullptr);
}

// The DER of an object; false when it does not encode.
template <class T>
bool Encode(const T *obj, int (*i2d)(const T *, unsigned char **), std::vector<uint8_t> *out) {
  unsigned char *der = nullptr;
  const int n = i2d(obj, &der);
  if (n <= 0) return false;
  out->assign(der, der + n);
  OPENSSL_free(der);
  return true;
}

// Granted, or granted with modifications.
bool Granted(TS_RESP *reply) {
  TS_STATUS_INFO *info = TS_RESP_get_status_info(reply);
  const long status = info != nullptr ? ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(info)) : -1;
  return status == 0 || status == 1;
}

// Among the queued errors, the one that says the signer did not chain.
bool SignerUntrusted() {
  bool untrusted = false;
  while (const unsigned long e = ERR_get_error()) {
    if (ERR_GET_LIB(e) == ERR_LIB_TS && ERR_GET_REASON(e) == TS_R_CERTIFICATE_VERIFY_ERROR) untrusted = true;
  }
  return untrusted;
}

}  // namespace

uint32_t SignatureValue(bool sm2, std::span<const uint8_t> message, std::vector<uint8_t> *value) {
  if (sm2) {
    const uint8_t *p = message.data();
    const long n = message.size() <= LONG_MAX ? static_cast<long>(message.size()) : 0;
    const Sm2SignPtr decoded(d2i_SM2_Sign(nullptr, &p, n));
    return CopyValue(FirstSigner(decoded.get()), value) ? 0 : ERR_INVALID_PARAMETER;
  }
  const Pkcs7Ptr decoded = DecodePkcs7(message);
  return CopyValue(FirstSigner(decoded.get()), value) ? 0 : kStatusMinusOne;
}

const char *ImprintOid(uint32_t alg) {
  switch (alg) {
    case 1:
      return "1.2.156.10197.1.401";
    case 0x10004:
      return "2.16.840.1.101.3.4.2.1";
    case 0x10008:
      return "2.16.840.1.101.3.4.2.2";
    case 0x10010:
      return "2.16.840.1.101.3.4.2.3";
    default:
      // Compat: any other code is labelled SHA-1 whatever it hashed with.
      return "1.3.14.3.2.26";
  }
}

uint32_t BuildQuery(uint32_t alg, std::span<const uint8_t> value, TsReqPtr *query, std::vector<uint8_t> *der) {
  uint8_t hash[128];
  uint32_t hash_len = sizeof hash;
  if (value.size() > UINT32_MAX) return ERR_DIGEST_FAILED;
  ZEPH_TRY(
      zeph_c_utils_digest(alg & 0xFFFF, value.data(), static_cast<uint32_t>(value.size()), hash, &hash_len, nullptr));

  TsReqPtr req(TS_REQ_new());
  const TsMsgImprintPtr imprint(TS_MSG_IMPRINT_new());
  const X509AlgorPtr algor(X509_ALGOR_new());
  Asn1ObjectPtr oid(OBJ_txt2obj(ImprintOid(alg), 1));
  const Asn1IntegerPtr nonce(create_nonce(64));
  if (!req || !imprint || !algor || !oid || !nonce) return ERR_ENCODE_FAILED;
  if (X509_ALGOR_set0(algor.get(), oid.get(), V_ASN1_NULL, nullptr) != 1) return ERR_ENCODE_FAILED;
  oid.release();  // owned by the algorithm identifier now
  if (TS_MSG_IMPRINT_set_algo(imprint.get(), algor.get()) != 1 ||
      TS_MSG_IMPRINT_set_msg(imprint.get(), hash, static_cast<int>(hash_len)) != 1 ||
      TS_REQ_set_version(req.get(), 1) != 1 || TS_REQ_set_msg_imprint(req.get(), imprint.get()) != 1 ||
      TS_REQ_set_nonce(req.get(), nonce.get()) != 1 || TS_REQ_set_cert_req(req.get(), 1) != 1) {
    return ERR_ENCODE_FAILED;
  }
  if (!Encode(req.get(), i2d_TS_REQ, der)) return ERR_ENCODE_FAILED;
  *query = std::move(req);
  return 0;
}

uint32_t CheckReply(TS_REQ *query, TS_RESP *reply, X509_STORE *trust) {
  if (!Granted(reply)) return kStatusMinusOne;
  const TsVerifyCtxPtr ctx(TS_REQ_to_TS_VERIFY_CTX(query, nullptr));
  if (!ctx || X509_STORE_up_ref(trust) != 1) return ERR_SIGNATURE_INVALID;
  TS_VERIFY_CTX_set_store(ctx.get(), trust);  // the context owns the new reference
  // The query's version, nonce and imprint (its policy when it names one),
  // and the token's signature, signer certificate and its purpose.
  TS_VERIFY_CTX_add_flags(ctx.get(), TS_VFY_SIGNATURE);
  ERR_clear_error();
  if (TS_RESP_verify_response(ctx.get(), reply) == 1) return 0;
  return SignerUntrusted() ? ERR_CERT_UNTRUSTED : ERR_SIGNATURE_INVALID;
}

uint32_t EmbedToken(TS_RESP *reply, std::span<const uint8_t> p7, std::vector<uint8_t> *out) {
  if (!Granted(reply)) return kStatusMinusOne;
  PKCS7 *token = TS_RESP_get_token(reply);
  if (token == nullptr) return kStatusMinusOne;
  const Pkcs7Ptr signed_data = DecodePkcs7(p7);
  PKCS7_SIGNER_INFO *signer = FirstSigner(signed_data.get());
  if (signer == nullptr) return kStatusMinusOne;

  std::vector<uint8_t> token_der;
  Asn1StringPtr value(ASN1_STRING_type_new(V_ASN1_SEQUENCE));
  if (!Encode(token, i2d_PKCS7, &token_der) || !value ||
      ASN1_STRING_set(value.get(), token_der.data(), static_cast<int>(token_der.size())) != 1) {
    return kStatusMinusOne;
  }
  // The attribute owns the value once added; should adding fail half-way
  // OpenSSL may already have freed it, so it is not freed here.
  if (PKCS7_add_attribute(signer, NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE, value.release()) != 1) {
    return kStatusMinusOne;
  }
  return Encode(signed_data.get(), i2d_PKCS7, out) ? 0 : kStatusMinusOne;
}

}  // namespace zeph::tsa

namespace {

// The codes whose label and digest agree.
bool CheckedAlgorithm(uint32_t alg) {
  return alg == 1 || alg == 2 || alg == 0x10004 || alg == 0x10008 || alg == 0x10010;
}

// ServerIP and ServerPort of [TimeStamp] in the deployment's INI file.
uint32_t DefaultServer(std::string *ip, int *port) {
  char ini[260] = {0};
  GetKandelorOstConfigPath(ini);
  char text[4096] = {0};
  GetPrivateProfileString("TimeStamp", "ServerIP", "127.0.0.1", text, sizeof text, ini);
  in_addr addr{};
  if (inet_pton(AF_INET, text, &addr) != 1) {
    ZEPH_LOG("ZEPH_C_GetTimeStampBySeq: ServerIP is not an IPv4 address", ERR_INVALID_PARAMETER);
    return ERR_INVALID_PARAMETER;
  }
  *ip = text;
  *port = GetPrivateProfileInt("TimeStamp", "ServerPort", 80, ini);
  return 0;
}

}  // namespace

extern "C" {

ZEPH_API ASN1_INTEGER *create_nonce(int bits) {
  if (bits < 1) return nullptr;
  const int n = (bits - 1) / 8 + 1;
  if (n >= 21) return nullptr;
  unsigned char buf[20];
  if (RAND_bytes(buf, n) != 1) return nullptr;
  int skip = 0;
  while (skip < n && buf[skip] == 0) ++skip;
  zeph::Asn1IntegerPtr nonce(ASN1_INTEGER_new());
  if (!nonce || ASN1_STRING_set(nonce.get(), buf + skip, n - skip) != 1) return nullptr;
  return nonce.release();
}

ZEPH_API uint32_t ZEPH_C_GetTimeStamp(const char *url, uint32_t alg, uint32_t sig_len, const unsigned char *sig,
                                      unsigned char *out, uint32_t *in_out_len) {
  if (url == nullptr || sig == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<uint8_t> value;
    ZEPH_TRY(zeph::tsa::SignatureValue(alg == kAlgSm2, {sig, sig_len}, &value));
    zeph::TsReqPtr query;
    std::vector<uint8_t> der;
    const uint32_t built = zeph::tsa::BuildQuery(alg, value, &query, &der);
    if (built == ERR_ENCODE_FAILED) {
      // Compat: a query that cannot be built has always ended the call with
      // 0 and no data.
      *in_out_len = 0;
      return 0;
    }
    ZEPH_TRY(built);

    zeph::http::Target target;
    ZEPH_TRY(zeph::http::ParseUrl(url, &target));
    // Compat: an "https" URL is posted over plain HTTP all the same.
    std::vector<uint8_t> reply(kReplyCapacity);
    uint32_t reply_len = kReplyCapacity;
    const uint32_t rv = http_post_timestamp(target.host.c_str(), target.port, target.path.c_str(), der.data(),
                                            static_cast<uint32_t>(der.size()), reply.data(), &reply_len);
    const std::string note = "ZEPH_C_GetTimeStamp rev_len = " + std::to_string(rv == 0 ? reply_len : 0);
    ZEPH_LOG(note.c_str(), 0);
    ZEPH_TRY(rv);
    return zeph::PutOutput({reply.data(), reply_len}, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_GetTimeStampBySeq(const unsigned char *query, uint32_t query_len, unsigned char **out,
                                           uint32_t *out_len) {
  if (query == nullptr || query_len == 0 || out == nullptr || out_len == nullptr) return ERR_INVALID_PARAMETER;
  *out = nullptr;
  return zeph::Guarded([&]() -> uint32_t {
    std::string ip;
    int port = 0;
    ZEPH_TRY(DefaultServer(&ip, &port));
    std::vector<uint8_t> reply(kReplyCapacity);
    uint32_t reply_len = kReplyCapacity;
    ZEPH_TRY(http_post_timestamp(ip.c_str(), port, kDefaultTsaPath, query, query_len, reply.data(), &reply_len));
    zeph::MallocPtr<unsigned char> copy(static_cast<unsigned char *>(std::malloc(reply_len)));
    if (!copy) return ERR_OUT_OF_MEMORY;
    std::memcpy(copy.get(), reply.data(), reply_len);
    *out = copy.release();
    *out_len = reply_len;
    return 0;
  });
}

ZEPH_API uint32_t ZEPH_C_GetTimeStampPKCS7(const unsigned char *resp, uint32_t resp_len, const unsigned char *p7,
                                           uint32_t p7_len, unsigned char *out, uint32_t *in_out_len) {
  if (resp == nullptr || p7 == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    const unsigned char *p = resp;
    const zeph::TsRespPtr reply(d2i_TS_RESP(nullptr, &p, static_cast<long>(resp_len)));
    if (!reply) return kStatusMinusOne;
    std::vector<uint8_t> stamped;
    ZEPH_TRY(zeph::tsa::EmbedToken(reply.get(), {p7, p7_len}, &stamped));
    return zeph::PutOutput(stamped, out, in_out_len);
  });
}

ZEPH_API uint32_t ZEPH_C_StampPKCS7(const char *url, uint32_t alg, const unsigned char *p7, uint32_t p7_len,
                                    const char *tsa_ca_file, unsigned char *out, uint32_t *in_out_len) {
  if (url == nullptr || p7 == nullptr || p7_len == 0 || tsa_ca_file == nullptr || in_out_len == nullptr) {
    return ERR_INVALID_PARAMETER;
  }
  if (!CheckedAlgorithm(alg)) return ERR_UNSUPPORTED_VALUE;
  return zeph::Guarded([&]() -> uint32_t {
    // Everything local first: no stamp is asked for that could not be used.
    const zeph::X509StorePtr trust(X509_STORE_new());
    if (!trust) return ERR_OUT_OF_MEMORY;
    if (X509_STORE_load_file(trust.get(), tsa_ca_file) != 1) {
      ERR_clear_error();
      return ERR_FILE_OPEN_FAILED;
    }
    std::vector<uint8_t> value;
    ZEPH_TRY(zeph::tsa::SignatureValue(false, {p7, p7_len}, &value));
    zeph::TsReqPtr query;
    std::vector<uint8_t> der;
    ZEPH_TRY(zeph::tsa::BuildQuery(alg, value, &query, &der));
    zeph::http::Target target;
    ZEPH_TRY(zeph::http::ParseUrl(url, &target));

    zeph::http::Request request;
    request.content_type = "application/timestamp-query";
    request.body = der;
    zeph::http::Reply reply;
    const uint32_t sent = zeph::http::Exchange(target, request, kCheckedReplyMax, &reply);
    // A reply too large for any time stamp is the server's failure, not the caller's buffer.
    ZEPH_TRY(sent == ERR_BUFFER_TOO_SMALL ? ERR_HTTP_FAILED : sent);

    const unsigned char *p = reply.body.data();
    const zeph::TsRespPtr resp(d2i_TS_RESP(nullptr, &p, static_cast<long>(reply.body.size())));
    if (!resp) return ERR_SIGNATURE_INVALID;
    ZEPH_TRY(zeph::tsa::CheckReply(query.get(), resp.get(), trust.get()));
    std::vector<uint8_t> stamped;
    ZEPH_TRY(zeph::tsa::EmbedToken(resp.get(), {p7, p7_len}, &stamped));
    return zeph::PutOutput(stamped, out, in_out_len);
  });
}

}  // extern "C"
