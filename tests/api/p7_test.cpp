// Signed messages and envelopes without a device: the builders signed by
// OpenSSL keys, the exact bytes and round trips of the SM2 types, the
// verifier against tampering and broken DER, the envelope builder's sizing
// and statuses, and envelopes opened with OpenSSL unwrapping. Messages built
// outside zeph and checked by the openssl tool: tests/integration.
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <gtest/gtest.h>

#include "api/p7_internal.hpp"
#include "loopback.hpp"
#include "oracle.hpp"
#include "zeph_c_status.h"

namespace {

using zeph::p7::Bytes;
using zeph::p7::KeyKind;

zeph::X509Ptr LoadCert(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "r");
  X509 *x = f != nullptr ? PEM_read_X509(f, nullptr, nullptr, nullptr) : nullptr;
  if (f != nullptr) std::fclose(f);
  return zeph::X509Ptr(x);
}

template <class T>
Bytes Der(const T *obj, int (*i2d)(const T *, unsigned char **)) {
  unsigned char *p = nullptr;
  const int n = i2d(obj, &p);
  Bytes out(p, p + std::max(n, 0));
  OPENSSL_free(p);
  return out;
}

std::string Oid(const ASN1_OBJECT *o) {
  char text[80];
  OBJ_obj2txt(text, sizeof text, o, 1);
  return text;
}

// An SM2 key and a self-signed certificate, made once for the suite.
struct Sm2Signer {
  zeph::EvpPkeyPtr key;
  zeph::X509Ptr cert;
  Sm2Signer() {
    key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2"));
    cert.reset(X509_new());
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 7);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("p7 test"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), X509_get_subject_name(cert.get()));
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
    X509_set_pubkey(cert.get(), key.get());
    X509_sign(cert.get(), key.get(), EVP_sm3());
  }
  // SM2 with the default identity over tbs, as the key signs.
  zeph::p7::Signer Sign() const {
    return [this](zeph::p7::Span tbs, Bytes *sig) -> uint32_t {
      *sig = zeph_test::Sm2Sign(key.get(), Bytes(tbs.begin(), tbs.end()));
      return sig->empty() ? ERR_SIGN_FAILED : 0;
    };
  }
};

const Sm2Signer &Signer() {
  static const Sm2Signer s;
  return s;
}

TEST(P7, DigestIdentifierTable) {
  const std::pair<uint32_t, const char *> table[] = {
      {1, "1.2.156.10197.1.401"},
      {2, "1.3.14.3.2.26"},
      {4, "2.16.840.1.101.3.4.2.1"},
      {8, "2.16.840.1.101.3.4.2.2"},
      {16, "2.16.840.1.101.3.4.2.3"},
      {32, "2.16.840.1.101.3.4.2.4"},
      {128, "1.2.840.113549.2.5"},
      {0, nullptr},
      {64, nullptr},
      {3, nullptr},
  };
  for (const auto &[id, oid] : table) {
    const char *got = getHashAlgOID(id);
    EXPECT_EQ(got == nullptr, oid == nullptr) << id;
    if (got != nullptr && oid != nullptr) {
      EXPECT_STREQ(got, oid) << id;
    }
  }
}

TEST(P7, Sm2SignBytesBundleOrderAndVerification) {
  const auto &pki = zeph_test::TestPki::Get();
  std::vector<zeph::X509Ptr> chain;
  chain.push_back(LoadCert(pki.other_cert));  // "B"
  chain.push_back(LoadCert(pki.ca));          // "A"
  const std::string text = "signed content";
  zeph::p7::Sm2SignRequest req;
  req.sig_oid = ZEPH_OID_SM2_SIGN_301;
  req.content = {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
  req.chain = &chain;
  req.signer = Signer().cert.get();
  Bytes der;
  ASSERT_EQ(zeph::p7::BuildSm2Sign(req, Signer().Sign(), &der), 0u);

  const unsigned char *p = der.data();
  zeph::Sm2SignPtr msg(d2i_SM2_Sign(nullptr, &p, static_cast<long>(der.size())));
  ASSERT_TRUE(msg);
  EXPECT_EQ(Der(msg.get(), i2d_SM2_Sign), der);
  // SEQUENCE { OID 1.2.156.10197.6.1.4.2.2, [0] constructed { SM2_SIGN_INFO } }:
  // a PKCS#7-style explicit wrapper around the one element.
  const SM2_SIGN_INFO *info = sk_SM2_SIGN_INFO_value(msg->SM2_Sign_Infos, 0);
  const Bytes oid = zeph_test::FromHex("060A2A811CCF550601040202"), body = Der(info, i2d_SM2_SIGN_INFO);
  const size_t wrap = der[1] == 0x82 ? 4 : 2;
  EXPECT_EQ(Bytes(der.begin() + wrap, der.begin() + wrap + oid.size()), oid);
  EXPECT_EQ(der[wrap + oid.size()], 0xA0);
  EXPECT_EQ(Bytes(der.end() - body.size(), der.end()), body);
  ASSERT_EQ(sk_X509_num(info->cert), 3);
  EXPECT_EQ(X509_cmp(sk_X509_value(info->cert, 0), chain[0].get()), 0);
  EXPECT_EQ(X509_cmp(sk_X509_value(info->cert, 1), chain[1].get()), 0);
  EXPECT_EQ(X509_cmp(sk_X509_value(info->cert, 2), Signer().cert.get()), 0);
  const X509_ALGOR *md = sk_X509_ALGOR_value(info->md_algs, 0);
  EXPECT_EQ(ASN1_TYPE_get(md->parameter), V_ASN1_NULL);
  EXPECT_EQ(ASN1_INTEGER_get(info->version), 1);
  EXPECT_EQ(Oid(info->contents->ID), ZEPH_OID_SM2_DATA);
  EXPECT_EQ(info->crl, nullptr);
  for (size_t n = 0; n < der.size(); n += 7) {
    p = der.data();
    EXPECT_EQ(zeph::Sm2SignPtr(d2i_SM2_Sign(nullptr, &p, static_cast<long>(n))), nullptr) << "cut at " << n;
  }

  Bytes content;
  EXPECT_EQ(zeph::p7::VerifySm2Sign(der, {}, &content), 0u);
  EXPECT_EQ(std::string(content.begin(), content.end()), text);
  // Another detached content than the attached one, and every flipped byte
  // of the content or signature, fail.
  const uint8_t other[] = {'x'};
  EXPECT_EQ(zeph::p7::VerifySm2Sign(der, other, &content), ERR_SIGNATURE_INVALID);
  const size_t at = std::search(der.begin(), der.end(), text.begin(), text.end()) - der.begin();
  for (size_t i : {at, at + text.size() - 1, der.size() - 1, der.size() - 30}) {
    Bytes bad = der;
    bad[i] ^= 0x01;
    EXPECT_EQ(zeph::p7::VerifySm2Sign(bad, {}, &content), ERR_SIGNATURE_INVALID) << i;
  }

  req.hash_id = 64;
  EXPECT_EQ(zeph::p7::BuildSm2Sign(req, Signer().Sign(), &der), ERR_ALG_UNSUPPORTED);
}

TEST(P7, HandBuiltVectorDecodes) {
  // The outer wrapper alone, with an empty [0]: a message without a body.
  const Bytes empty = zeph_test::FromHex("300E 060A2A811CCF550601040202 A000");
  const unsigned char *p = empty.data();
  zeph::Sm2SignPtr msg(d2i_SM2_Sign(nullptr, &p, static_cast<long>(empty.size())));
  ASSERT_TRUE(msg);
  EXPECT_EQ(Oid(msg->ID), ZEPH_OID_SM2_SIGNED_DATA);
  EXPECT_EQ(sk_SM2_SIGN_INFO_num(msg->SM2_Sign_Infos), 0);
  EXPECT_EQ(Der(msg.get(), i2d_SM2_Sign), empty);
}

TEST(P7, Pkcs7SignedVerifiesAttachedAndDetached) {
  const std::string text = "pkcs7 content";
  for (const bool detached : {false, true}) {
    zeph::p7::Pkcs7SignRequest req;
    req.kind = KeyKind::kSm2;
    req.digest_id = 1;
    req.detached = detached;
    req.content = {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
    req.signer = Signer().cert.get();
    Bytes der, content;
    ASSERT_EQ(zeph::p7::BuildPkcs7Signed(req, Signer().Sign(), &der), 0u);
    EXPECT_EQ(zeph::p7::VerifyPkcs7Signed(der, detached ? req.content : zeph::p7::Span(), &content), 0u);
    EXPECT_EQ(std::string(content.begin(), content.end()), text);
    const uint8_t other[] = {'x'};
    EXPECT_EQ(zeph::p7::VerifyPkcs7Signed(der, other, &content), ERR_SIGNATURE_INVALID);
    req.digest_id = 4;  // SM2 signs with SM3 only
    EXPECT_EQ(zeph::p7::BuildPkcs7Signed(req, Signer().Sign(), &der), ERR_UNSUPPORTED_VALUE);
  }
}

TEST(P7, EnvelopeBuilderSizingAndRecipientTypes) {
  const zeph::X509Ptr cert = LoadCert(zeph_test::TestPki::Get().server_cert);
  const Bytes key(48, 0x11), content(32, 0x22);
  uint32_t len = 0;
  ASSERT_EQ(zeph::p7::BuildSm2Envelope(cert.get(), 2, key, content, nullptr, &len), 0u);
  const uint32_t exact = len - 128;  // a query carries the margin
  Bytes out(len);
  uint32_t cap = exact - 1;
  EXPECT_EQ(zeph::p7::BuildSm2Envelope(cert.get(), 2, key, content, out.data(), &cap), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(cap, exact + 128);
  cap = exact;
  EXPECT_EQ(zeph::p7::BuildSm2Envelope(cert.get(), 2, key, content, out.data(), &cap), 0u);
  EXPECT_EQ(cap, exact);
  cap = static_cast<uint32_t>(out.size());
  EXPECT_EQ(zeph::p7::BuildSm2Envelope(cert.get(), 3, key, content, out.data(), &cap), ERR_UNSUPPORTED_VALUE);

  // Type 1 puts the RSA identifiers inside the GM wrapper, mixed by design.
  cap = static_cast<uint32_t>(out.size());
  ASSERT_EQ(zeph::p7::BuildSm2Envelope(cert.get(), 1, key, content, out.data(), &cap), 0u);
  const unsigned char *p = out.data();
  zeph::Sm2EnvelopePtr env(d2i_SM2_Envelope(nullptr, &p, cap));
  ASSERT_TRUE(env);
  EXPECT_EQ(Der(env.get(), i2d_SM2_Envelope), Bytes(out.begin(), out.begin() + cap));
  EXPECT_EQ(Oid(env->ID), ZEPH_OID_SM2_ENVELOPED_DATA);
  const SM2_Envelope_Item *item = sk_SM2_Envelope_Item_value(env->SM2_Envelope_Items, 0);
  EXPECT_EQ(ASN1_INTEGER_get(item->version), 0);
  EXPECT_EQ(Oid(sk_PKCS7_RECIP_INFO_value(item->recipientinfo, 0)->key_enc_algor->algorithm), ZEPH_OID_RSA_ENCRYPTION);
  EXPECT_EQ(Oid(item->enc_data->content_type), ZEPH_OID_PKCS7_DATA);
  EXPECT_EQ(Oid(item->enc_data->algorithm->algorithm), ZEPH_OID_SM4);
  EXPECT_EQ(ASN1_TYPE_get(item->enc_data->algorithm->parameter), V_ASN1_NULL);
}

TEST(P7, EnvelopesOpenWithTheRecipientsKeyOnly) {
  const Bytes key(16, 0x5A);
  const std::string text = "enveloped text";
  const zeph::p7::Span data(reinterpret_cast<const uint8_t *>(text.data()), text.size());
  // OpenSSL's SM2 decryption stands in for the key.
  const auto unwrap = [](const zeph::p7::Recipient &r, zeph::SecureBytes *k) -> uint32_t {
    zeph::EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(Signer().key.get(), nullptr));
    size_t n = 64;
    zeph::SecureBytes plain(n);
    if (EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_decrypt(ctx.get(), plain.data(), &n, r.enc_key.data(), r.enc_key.size()) != 1) {
      return ERR_ASYM_CRYPT_FAILED;
    }
    plain.resize(n);
    *k = std::move(plain);
    return 0;
  };
  Bytes env;
  ASSERT_EQ(zeph::p7::Seal(Signer().cert.get(), ZEPH_ENVELOPE_DEFAULT, key, data, &env), 0u);
  EXPECT_EQ(zeph::p7::FirstRecipientKind(env), KeyKind::kSm2);
  zeph::SecureBytes plain;
  ASSERT_EQ(zeph::p7::Open(env, KeyKind::kSm2, Signer().cert.get(), unwrap, &plain), 0u);
  EXPECT_EQ(std::string(plain.data(), plain.data() + plain.size()), text);
  EXPECT_EQ(zeph::p7::Open(env, KeyKind::kRsa, nullptr, unwrap, &plain), ERR_ENVELOPE_FAILED);
  // A truncated envelope and one with a flipped content byte do not open.
  EXPECT_EQ(zeph::p7::Open({env.data(), env.size() - 1}, KeyKind::kSm2, nullptr, unwrap, &plain), ERR_ENVELOPE_FAILED);
  Bytes bad = env;
  bad[bad.size() - 1] ^= 0x80;
  EXPECT_EQ(zeph::p7::Open(bad, KeyKind::kSm2, nullptr, unwrap, &plain), ERR_ENVELOPE_FAILED);
  EXPECT_EQ(zeph::p7::Seal(Signer().cert.get(), 2, key, data, &env), ERR_UNSUPPORTED_VALUE);
}

TEST(P7, BrokenDerDecodesToNothing) {
  // A wrong outer tag, a length longer than the input, and nesting far
  // deeper than any message: no type takes them.
  Bytes nested;
  for (int i = 0; i < 20000; ++i) nested.insert(nested.end(), {0x30, 0x80});
  const Bytes inputs[] = {
      zeph_test::FromHex("310E060A2A811CCF550601040202A000"),
      zeph_test::FromHex("30820FFF060A2A811CCF550601040202A000"),
      zeph_test::FromHex("300E060A2A811CCF550601040202A100"),
      nested,
  };
  for (const Bytes &in : inputs) {
    const auto n = static_cast<long>(in.size());
    const unsigned char *p = in.data();
    EXPECT_EQ(d2i_SM2_Sign(nullptr, &p, n), nullptr);
    p = in.data();
    EXPECT_EQ(d2i_SM2_Envelope(nullptr, &p, n), nullptr);
    p = in.data();
    EXPECT_EQ(d2i_SM2_SIGN_INFO(nullptr, &p, n), nullptr);
    p = in.data();
    EXPECT_EQ(d2i_SM2_Envelope_Item(nullptr, &p, n), nullptr);
    p = in.data();
    EXPECT_EQ(d2i_RAW_DATA_SM2(nullptr, &p, n), nullptr);
    Bytes content;
    EXPECT_EQ(zeph::p7::VerifySm2Sign(in, {}, &content), ERR_SIGNATURE_INVALID);
    EXPECT_EQ(zeph::p7::VerifyPkcs7Signed(in, {}, &content), ERR_SIGNATURE_INVALID);
    std::vector<zeph::X509Ptr> certs;
    EXPECT_EQ(zeph::p7::ReadBundle(in, &certs), ERR_CERT_CHAIN_FAILED);
  }
}

}  // namespace
