// The time-stamp functions on arbitrary DER. The first byte chooses:
//   0  a reply embedded into a fixed PKCS#7 (ZEPH_C_GetTimeStampPKCS7)
//   1  a fixed reply embedded into a PKCS#7
//   2  the checks of the checked stamping on a reply to a fixed query
//   3  the signature value of a PKCS#7
//   4  the signature value of an SM2 signed message
// The fixed objects (a time-stamping certificate, a detached PKCS#7 signed
// with it, a query over its signature and the reply) are made at start-up.
#include "pki/timestamp.hpp"

#include <openssl/pkcs7.h>
#include <openssl/ts.h>

#include "fixed_cert.hpp"
#include "zeph_c_pki.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Fixed {
  Bytes p7, reply;
  zeph::TsReqPtr query;
  zeph::X509StorePtr trust{X509_STORE_new()};
};

Fixed Make() {
  Fixed f;
  const zeph::EvpPkeyPtr key(EVP_EC_gen("P-256"));
  const zeph::X509Ptr cert = fuzz::MakeCert("fuzz tsa", key.get(), nullptr, key.get(), 7, "critical,timeStamping");
  const zeph::BioPtr content(BIO_new_mem_buf("fuzz", 4));
  const zeph::Pkcs7Ptr p7(PKCS7_sign(cert.get(), key.get(), nullptr, content.get(), PKCS7_BINARY | PKCS7_DETACHED));
  f.p7 = fuzz::Der(p7.get(), i2d_PKCS7);
  Bytes value, query_der;
  fuzz::Check(zeph::tsa::SignatureValue(false, f.p7, &value) == 0 &&
              zeph::tsa::BuildQuery(0x10004, value, &f.query, &query_der) == 0);

  const std::unique_ptr<TS_RESP_CTX, zeph::Free<TS_RESP_CTX_free>> ctx(TS_RESP_CTX_new());
  const zeph::Asn1ObjectPtr policy(OBJ_txt2obj("1.2.3.4.1", 1));
  fuzz::Check(TS_RESP_CTX_set_signer_cert(ctx.get(), cert.get()) == 1 &&
              TS_RESP_CTX_set_signer_key(ctx.get(), key.get()) == 1 &&
              TS_RESP_CTX_set_def_policy(ctx.get(), policy.get()) == 1 &&
              TS_RESP_CTX_add_md(ctx.get(), EVP_sha256()) == 1);
  const zeph::BioPtr query_bio(BIO_new_mem_buf(query_der.data(), static_cast<int>(query_der.size())));
  const zeph::TsRespPtr resp(TS_RESP_create_response(ctx.get(), query_bio.get()));
  f.reply = fuzz::Der(resp.get(), i2d_TS_RESP);
  X509_STORE_add_cert(f.trust.get(), cert.get());
  // The fixed reply passes every check: mutations start from a good one.
  const unsigned char *p = f.reply.data();
  const zeph::TsRespPtr good(d2i_TS_RESP(nullptr, &p, static_cast<long>(f.reply.size())));
  fuzz::Check(good != nullptr && zeph::tsa::CheckReply(f.query.get(), good.get(), f.trust.get()) == 0);
  return f;
}

// Lives for the whole run.
const Fixed &Get() {
  static const Fixed *fixed = new Fixed(Make());
  return *fixed;
}

void Embed(const Bytes &reply, const Bytes &p7) {
  Bytes out(p7.size() + reply.size() + 64);
  auto len = static_cast<uint32_t>(out.size());
  const uint32_t rv = ZEPH_C_GetTimeStampPKCS7(reply.data(), static_cast<uint32_t>(reply.size()), p7.data(),
                                               static_cast<uint32_t>(p7.size()), out.data(), &len);
  const unsigned char *p = out.data();
  // What is embedded reads back as PKCS#7; a refusal is one of the documented ones.
  fuzz::Check(rv == 0 ? zeph::Pkcs7Ptr(d2i_PKCS7(nullptr, &p, len)) != nullptr
                      : fuzz::OneOf(rv, {0xFFFFFFFFu, ERR_BUFFER_TOO_SMALL}) ||
                            (rv == ERR_INVALID_PARAMETER && (reply.empty() || p7.empty())));
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
  Bytes value;
  switch (data[0] % 5) {
    case 0:
      Embed(input, f.p7);
      break;
    case 1:
      Embed(f.reply, input);
      break;
    case 2: {
      const unsigned char *p = input.data();
      const zeph::TsRespPtr resp(d2i_TS_RESP(nullptr, &p, static_cast<long>(input.size())));
      if (resp != nullptr) {
        fuzz::Check(fuzz::OneOf(zeph::tsa::CheckReply(f.query.get(), resp.get(), f.trust.get()),
                                {0, 0xFFFFFFFFu, ERR_SIGNATURE_INVALID, ERR_CERT_UNTRUSTED}));
      }
      break;
    }
    case 3:
      fuzz::Check(fuzz::OneOf(zeph::tsa::SignatureValue(false, input, &value), {0, 0xFFFFFFFFu}));
      break;
    default:
      fuzz::Check(fuzz::OneOf(zeph::tsa::SignatureValue(true, input, &value), {0, ERR_INVALID_PARAMETER}));
      break;
  }
  return 0;
}
