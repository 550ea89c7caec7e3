// Time stamps end to end: queries as OpenSSL reads them, tokens from a TSA
// run by `openssl ts -reply`, embedding checked by `openssl ts -verify` and
// `openssl cms -verify`, and every refusal of the checked stamping.
#include <cstdlib>
#include <memory>
#include <string>

#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/ts.h>

#include <gtest/gtest.h>

#include "loopback.hpp"
#include "oracle.hpp"
#include "zeph_c.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zeph_test::Peer;
using zeph_test::Shell;
using zeph_test::TestPki;

PKCS7_SIGNER_INFO *FirstSigner(PKCS7 *p7) { return sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), 0); }

Bytes SignatureValue(const Bytes &der) {
  const unsigned char *p = der.data();
  PKCS7 *p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(der.size()));
  const ASN1_OCTET_STRING *v = FirstSigner(p7)->enc_digest;
  Bytes out(ASN1_STRING_get0_data(v), ASN1_STRING_get0_data(v) + ASN1_STRING_length(v));
  PKCS7_free(p7);
  return out;
}

// The PKCS#7's first signer, wrapped as the only signer of an SM2 signed message.
Bytes AsSm2Sign(const Bytes &p7_der) {
  const unsigned char *p = p7_der.data();
  PKCS7 *p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(p7_der.size()));
  SM2_Sign *msg = SM2_Sign_new();
  msg->ID = OBJ_txt2obj(ZEPH_OID_SM2_SIGNED_DATA, 1);
  msg->SM2_Sign_Infos = sk_SM2_SIGN_INFO_new_null();
  SM2_SIGN_INFO *info = SM2_SIGN_INFO_new();
  ASN1_INTEGER_set(info->version, 1);
  ASN1_OBJECT_free(info->contents->ID);
  info->contents->ID = OBJ_txt2obj(ZEPH_OID_SM2_DATA, 1);
  sk_PKCS7_SIGNER_INFO_push(info->signer_info, static_cast<PKCS7_SIGNER_INFO *>(
                                                   ASN1_item_dup(ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), FirstSigner(p7))));
  sk_SM2_SIGN_INFO_push(msg->SM2_Sign_Infos, info);
  unsigned char *der = nullptr;
  const int n = i2d_SM2_Sign(msg, &der);
  Bytes out(der, der + n);
  OPENSSL_free(der);
  SM2_Sign_free(msg);
  PKCS7_free(p7);
  return out;
}

// The token embedded in a stamped PKCS#7, as DER.
Bytes EmbeddedToken(const Bytes &stamped) {
  const unsigned char *p = stamped.data();
  PKCS7 *p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(stamped.size()));
  Bytes out;
  if (p7 != nullptr) {
    const ASN1_TYPE *t = PKCS7_get_attribute(FirstSigner(p7), NID_id_smime_aa_timeStampToken);
    if (t != nullptr && t->type == V_ASN1_SEQUENCE) {
      out.assign(t->value.sequence->data, t->value.sequence->data + t->value.sequence->length);
    }
  }
  PKCS7_free(p7);
  return out;
}

std::string Str(const Bytes &b) { return {b.begin(), b.end()}; }

class Tsa : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    peer_ = std::make_unique<Peer>();
    tmp_ = std::make_unique<zeph_test::TempDir>();
    const auto &pki = TestPki::Get();
    zeph_test::WriteBytes(tmp_->file("data"), {'p', 'a', 'y', ' ', '1', '0', '0'});
    ASSERT_EQ(Shell("openssl smime -sign -binary -in " + tmp_->file("data") + " -signer " + pki.server_cert +
                    " -inkey " + pki.server_key + " -outform DER -out " + tmp_->file("sig.p7s")),
              0);
    p7_ = zeph_test::ReadBytes(tmp_->file("sig.p7s"));
  }
  static void TearDownTestSuite() {
    peer_.reset();
    tmp_.reset();
  }
  static std::string Url(const std::string &path) { return "http://127.0.0.1:" + std::to_string(peer_->port()) + path; }
  static uint32_t Stamp(const std::string &url, uint32_t alg, const Bytes &sig, Bytes *reply) {
    reply->assign(16384, 0);
    uint32_t len = static_cast<uint32_t>(reply->size());
    const uint32_t rv =
        ZEPH_C_GetTimeStamp(url.c_str(), alg, static_cast<uint32_t>(sig.size()), sig.data(), reply->data(), &len);
    reply->resize(rv == 0 ? len : 0);
    return rv;
  }
  static uint32_t Embed(const Bytes &reply, Bytes *out) {
    out->assign(p7_.size() + 16384, 0);
    uint32_t len = static_cast<uint32_t>(out->size());
    const uint32_t rv = ZEPH_C_GetTimeStampPKCS7(reply.data(), static_cast<uint32_t>(reply.size()), p7_.data(),
                                                 static_cast<uint32_t>(p7_.size()), out->data(), &len);
    out->resize(rv == 0 ? len : 0);
    return rv;
  }
  // `openssl ts -verify` of a token over the digest of our signature value.
  static bool TokenVerifies(const Bytes &token, const EVP_MD *md, const Bytes &value, const std::string &ca) {
    zeph_test::WriteBytes(tmp_->file("token.der"), token);
    const Bytes d = zeph_test::Digest(md, {value});
    std::string out;
    const int rc = Shell("openssl ts -verify -token_in -in " + tmp_->file("token.der") + " -digest " +
                             zeph_test::ToHex(d) + " -CAfile " + ca,
                         &out);
    return rc == 0 && out.find("Verification: OK") != std::string::npos;
  }
  static bool CmsVerifies(const Bytes &stamped) {
    zeph_test::WriteBytes(tmp_->file("stamped.p7s"), stamped);
    return Shell("openssl cms -verify -binary -inform DER -in " + tmp_->file("stamped.p7s") + " -content " +
                 tmp_->file("data") + " -CAfile " + TestPki::Get().ca + " -purpose any -out /dev/null") == 0;
  }

  static std::unique_ptr<Peer> peer_;
  static std::unique_ptr<zeph_test::TempDir> tmp_;
  static Bytes p7_;
};

std::unique_ptr<Peer> Tsa::peer_;
std::unique_ptr<zeph_test::TempDir> Tsa::tmp_;
Bytes Tsa::p7_;

TEST_F(Tsa, NonceIsPositiveMinimalAndBounded) {
  for (const auto &[bits, max_len] : {std::pair{64, 8}, {1, 1}, {160, 20}}) {
    ASN1_INTEGER *n = create_nonce(bits);
    ASSERT_NE(n, nullptr) << bits;
    EXPECT_EQ(ASN1_STRING_type(n), V_ASN1_INTEGER);  // not negative
    EXPECT_LE(ASN1_STRING_length(n), max_len);
    if (ASN1_STRING_length(n) > 0) {
      EXPECT_NE(ASN1_STRING_get0_data(n)[0], 0);
    }
    ASN1_INTEGER_free(n);
  }
  EXPECT_EQ(create_nonce(161), nullptr);
  EXPECT_EQ(create_nonce(0), nullptr);
}

TEST_F(Tsa, QueryFieldsPerAlgorithmCode) {
  peer_->Can("one", "HTTP/1.0 200 OK\r\n\r\nX");
  const Bytes value = SignatureValue(p7_);
  const struct {
    uint32_t alg;
    const EVP_MD *md;
    const char *oid;
  } cases[] = {
      {1, EVP_sm3(), "1.2.156.10197.1.401"},
      {2, EVP_sha1(), "1.3.14.3.2.26"},
      {0x10004, EVP_sha256(), "2.16.840.1.101.3.4.2.1"},
      {0x10008, EVP_sha384(), "2.16.840.1.101.3.4.2.2"},
      {0x10010, EVP_sha512(), "2.16.840.1.101.3.4.2.3"},
      {4, EVP_sha256(), "1.3.14.3.2.26"},      // unknown codes are labelled SHA-1 ...
      {0x20002, EVP_sha1(), "1.3.14.3.2.26"},  // ... whatever they hash with
  };
  for (const auto &c : cases) {
    Bytes reply;
    const Bytes sig = c.alg == 1 ? AsSm2Sign(p7_) : p7_;
    ASSERT_EQ(Stamp(Url("/reply/one"), c.alg, sig, &reply), 0u) << c.alg;
    EXPECT_EQ(Str(reply), "X");
    const std::string recorded = peer_->Recorded("one");
    const Bytes query(recorded.begin() + recorded.find("\r\n\r\n") + 4, recorded.end());
    const unsigned char *p = query.data();
    TS_REQ *req = d2i_TS_REQ(nullptr, &p, static_cast<long>(query.size()));
    ASSERT_NE(req, nullptr) << c.alg;
    TS_MSG_IMPRINT *imprint = TS_REQ_get_msg_imprint(req);
    char oid[64];
    OBJ_obj2txt(oid, sizeof oid, TS_MSG_IMPRINT_get_algo(imprint)->algorithm, 1);
    EXPECT_STREQ(oid, c.oid) << c.alg;
    ASSERT_NE(TS_MSG_IMPRINT_get_algo(imprint)->parameter, nullptr) << c.alg;
    EXPECT_EQ(ASN1_TYPE_get(TS_MSG_IMPRINT_get_algo(imprint)->parameter), V_ASN1_NULL);
    const ASN1_OCTET_STRING *msg = TS_MSG_IMPRINT_get_msg(imprint);
    EXPECT_EQ(Bytes(ASN1_STRING_get0_data(msg), ASN1_STRING_get0_data(msg) + ASN1_STRING_length(msg)),
              zeph_test::Digest(c.md, {value}))
        << c.alg;
    EXPECT_EQ(TS_REQ_get_version(req), 1);
    EXPECT_GE(ASN1_STRING_length(TS_REQ_get_nonce(req)), 1);
    EXPECT_LE(ASN1_STRING_length(TS_REQ_get_nonce(req)), 8);
    EXPECT_EQ(TS_REQ_get_cert_req(req), 1);
    EXPECT_EQ(TS_REQ_get_policy_id(req), nullptr);
    EXPECT_EQ(TS_REQ_get_exts(req), nullptr);
    TS_REQ_free(req);
  }
}

TEST_F(Tsa, QueryStatuses) {
  peer_->Can("one", "HTTP/1.0 200 OK\r\n\r\nXYZ");
  const Bytes garbage = {0x30, 0x03, 0x02, 0x01, 0x01};
  const Bytes empty_sm2 = zeph_test::FromHex("300E060A2A811CCF550601040202A000");
  const struct {
    std::string url;
    uint32_t alg;
    Bytes sig;
    uint32_t status;
  } cases[] = {
      {Url("/reply/one"), 1, empty_sm2, ERR_INVALID_PARAMETER},  // no signer in the SM2 message
      {Url("/reply/one"), 2, garbage, 0xFFFFFFFFu},              // not a PKCS#7
      // An "https" URL still goes out as plain HTTP, to the port it names.
      {"https://127.0.0.1:" + std::to_string(peer_->port()) + "/reply/one", 2, p7_, 0},
      {Url("/reply/one"), 3, p7_, ERR_DIGEST_FAILED},  // no digest for 3
      {"ftp:/nowhere", 2, p7_, ERR_INVALID_PARAMETER},
      {Url("/hostile/nonhttp/x"), 2, p7_, ERR_HTTP_FAILED},
  };
  for (const auto &c : cases) {
    Bytes reply;
    EXPECT_EQ(Stamp(c.url, c.alg, c.sig, &reply), c.status) << c.url << " " << c.alg;
  }
}

TEST_F(Tsa, TokensFromTheTsaEmbedAndVerify) {
  const auto &pki = TestPki::Get();
  const Bytes value = SignatureValue(p7_);
  const std::pair<uint32_t, const EVP_MD *> algs[] = {
      {1, EVP_sm3()}, {2, EVP_sha1()}, {0x10004, EVP_sha256()}, {0x10008, EVP_sha384()}, {0x10010, EVP_sha512()}};
  for (const auto &[alg, md] : algs) {
    Bytes reply, stamped;
    ASSERT_EQ(Stamp(Url("/tsa/tsa_ok/t"), alg, alg == 1 ? AsSm2Sign(p7_) : p7_, &reply), 0u) << alg;
    ASSERT_EQ(Embed(reply, &stamped), 0u) << alg;
    EXPECT_TRUE(TokenVerifies(EmbeddedToken(stamped), md, value, pki.ca)) << alg;
    EXPECT_TRUE(CmsVerifies(stamped)) << alg;
  }

  // OpenSSL's own query and reply pass through the embedding too.
  const Bytes d = zeph_test::Digest(EVP_sha256(), {value});
  ASSERT_EQ(Shell("openssl ts -query -sha256 -digest " + zeph_test::ToHex(d) + " -cert -out " + tmp_->file("o.tsq") +
                  " && openssl ts -reply -config " + pki.tsa_config + " -section tsa_ok -queryfile " +
                  tmp_->file("o.tsq") + " -out " + tmp_->file("o.tsr")),
            0);
  Bytes stamped;
  ASSERT_EQ(Embed(zeph_test::ReadBytes(tmp_->file("o.tsr")), &stamped), 0u);
  EXPECT_TRUE(TokenVerifies(EmbeddedToken(stamped), EVP_sha256(), value, pki.ca));
  // The length protocol: a query, the exact size, one byte less.
  const Bytes reply = zeph_test::ReadBytes(tmp_->file("o.tsr"));
  uint32_t len = 0;
  ASSERT_EQ(ZEPH_C_GetTimeStampPKCS7(reply.data(), static_cast<uint32_t>(reply.size()), p7_.data(),
                                     static_cast<uint32_t>(p7_.size()), nullptr, &len),
            0u);
  EXPECT_EQ(len, stamped.size());
  Bytes exact(len);
  len -= 1;
  EXPECT_EQ(ZEPH_C_GetTimeStampPKCS7(reply.data(), static_cast<uint32_t>(reply.size()), p7_.data(),
                                     static_cast<uint32_t>(p7_.size()), exact.data(), &len),
            ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, stamped.size());

  // A rejected request (the section takes SHA-256 imprints only) and a reply that is no reply.
  Bytes rejected;
  ASSERT_EQ(Stamp(Url("/tsa/tsa_sha256/r"), 2, p7_, &rejected), 0u);
  EXPECT_EQ(Embed(rejected, &stamped), 0xFFFFFFFFu);
  EXPECT_EQ(Embed({0x30, 0x03, 0x02, 0x01, 0x00}, &stamped), 0xFFFFFFFFu);
}

TEST_F(Tsa, CheckedStampingEmbedsOnlyWhatVerifies) {
  const auto &pki = TestPki::Get();
  Bytes replay;
  ASSERT_EQ(Stamp(Url("/tsa/tsa_ok/old"), 0x10004, p7_, &replay), 0u);
  peer_->Can("replay",
             "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(replay.size()) + "\r\n\r\n" + Str(replay));
  peer_->Can("junk", "HTTP/1.0 200 OK\r\nContent-Length: 3\r\n\r\nabc");
  const struct {
    std::string url;
    uint32_t alg;
    std::string ca;
    uint32_t status;
  } cases[] = {
      {Url("/tsa/tsa_ok/s"), 0x10004, pki.ca, 0},
      {Url("/tsa/tsa_ok/s"), 1, pki.ca, 0},
      {Url("/tsa/tsa_sha256/s"), 2, pki.ca, 0xFFFFFFFFu},              // rejected
      {Url("/tsa/tsa_stray/s"), 0x10004, pki.ca, ERR_CERT_UNTRUSTED},  // TSA under another CA
      {Url("/tsa/tsa_ok/s"), 0x10004, pki.stray_ca, ERR_CERT_UNTRUSTED},
      {Url("/reply/replay"), 0x10004, pki.ca, ERR_SIGNATURE_INVALID},  // nonce of another query
      {Url("/reply/junk"), 0x10004, pki.ca, ERR_SIGNATURE_INVALID},
      {Url("/status/500/s"), 0x10004, pki.ca, ERR_HTTP_FAILED},
      {Url("/tsa/tsa_ok/s"), 0x10004, "/nonexistent.pem", ERR_FILE_OPEN_FAILED},
      {Url("/tsa/tsa_ok/s"), 4, pki.ca, ERR_UNSUPPORTED_VALUE},  // label and digest would differ
  };
  for (const auto &c : cases) {
    Bytes out(p7_.size() + 16384, 0xA5);
    uint32_t len = static_cast<uint32_t>(out.size());
    EXPECT_EQ(ZEPH_C_StampPKCS7(c.url.c_str(), c.alg, p7_.data(), static_cast<uint32_t>(p7_.size()), c.ca.c_str(),
                                out.data(), &len),
              c.status)
        << c.url << " " << c.alg << " " << c.ca;
    if (c.status != 0) {
      EXPECT_EQ(out, Bytes(p7_.size() + 16384, 0xA5)) << "written on failure: " << c.url;
      continue;
    }
    out.resize(len);
    EXPECT_TRUE(CmsVerifies(out));
    EXPECT_TRUE(TokenVerifies(EmbeddedToken(out), c.alg == 1 ? EVP_sm3() : EVP_sha256(), SignatureValue(p7_), c.ca));
  }
}

TEST_F(Tsa, BySeqPostsToTheConfiguredServer) {
  zeph_test::TempDir conf;
  const char *saved = std::getenv("KANDELOR_CONFIG_FILE_PATH");
  const std::string restore = saved != nullptr ? saved : "";
  setenv("KANDELOR_CONFIG_FILE_PATH", conf.path().c_str(), 1);
  const auto ini = [&](const std::string &ip) {
    const std::string text = "[TimeStamp]\nServerIP = " + ip + "\nServerPort = " + std::to_string(peer_->port()) + "\n";
    zeph_test::WriteBytes(conf.file("KandelorOstConfig.ini"), {text.begin(), text.end()});
  };
  const unsigned char query[] = {0x30, 0x00};
  unsigned char *out = nullptr;
  uint32_t len = 0;
  ini("127.0.0.1");
  ASSERT_EQ(ZEPH_C_GetTimeStampBySeq(query, 2, &out, &len), 0u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out), len), "no such mode");  // the peer has no such path
  std::free(out);
  EXPECT_EQ(peer_->Recorded("rfctime_do")
                .rfind("POST /timestamp/Timestamp/rfctime.do HTTP/1.0\r\nHost: 127.0.0.1:" +
                           std::to_string(peer_->port()) + "\r\n",
                       0),
            0u);
  ini("tsa.example.com");
  out = nullptr;
  EXPECT_EQ(ZEPH_C_GetTimeStampBySeq(query, 2, &out, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(out, nullptr);
  if (saved != nullptr) {
    setenv("KANDELOR_CONFIG_FILE_PATH", restore.c_str(), 1);
  } else {
    unsetenv("KANDELOR_CONFIG_FILE_PATH");
  }
}

}  // namespace
