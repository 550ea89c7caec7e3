// The co-signing client against an in-process service on loopback: the
// requests it sends, the share against an independent SM4/SM3 computation,
// and everything a faulty or hostile service can send. The well-behaved
// rounds checked by the openssl tool: tests/integration (cosign rows).
#include <cstring>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include "bivo/bivo_client.hpp"
#include "bivo_reference.hpp"
#include "client_context.hpp"
#include "cosign_service.hpp"
#include "oracle.hpp"
#include "zeph_c_bivo.h"
#include "zeph_c_pki.h"
#include "zeph_c_status.h"

using namespace bivo_test;

namespace {

using zeph_test::CosignService;

Bytes Sm4EcbDecrypt(const uint8_t key[16], const uint8_t *in, size_t n) {
  Bytes out(n + 16);
  int len = 0, fin = 0;
  EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
  EVP_DecryptInit_ex(c, EVP_sm4_ecb(), nullptr, key, nullptr);
  EVP_CIPHER_CTX_set_padding(c, 0);
  EVP_DecryptUpdate(c, out.data(), &len, in, static_cast<int>(n));
  EVP_DecryptFinal_ex(c, out.data() + len, &fin);
  EVP_CIPHER_CTX_free(c);
  out.resize(static_cast<size_t>(len + fin));
  return out;
}

class CosignClient : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Open(service.url(), &ctx), 0u);
    ASSERT_EQ(Create(ctx.get(), &key), 0u);
  }
  void TearDown() override { ZEPH_C_HttpSetTimeouts(0, 0); }

  Bytes Sign(const Bytes &msg, uint32_t *rv) { return bivo_test::Sign(ctx.get(), msg, rv); }

  CosignService service;
  Ctx ctx;
  Key key;
};

TEST_F(CosignClient, SignsAndDecryptsForOpenSsl) {
  const Bytes msg = zeph_test::RandomBytes(1000, 1);
  uint32_t rv = 0;
  const Bytes sig = Sign(msg, &rv);
  ASSERT_EQ(rv, 0u);
  EXPECT_TRUE(OpenSslVerifies(key.pub, msg, sig));
  const std::string request = service.LastRequest("BIVOSignature");
  EXPECT_NE(request.find(std::string(R"({"containerID":")") + key.id + "\", \"q1\":"), std::string::npos) << request;
  EXPECT_NE(request.find(R"("signType":2})"), std::string::npos) << request;

  // Decryption, also with "result" sent as an object.
  EVP_PKEY *pub = zeph_test::Sm2PointKey(key.pub);
  for (bool as_object : {false, true}) {
    service.set_result_as_object(as_object);
    const Bytes plain = zeph_test::RandomBytes(45, 2);
    const Bytes cipher = zeph_test::Encrypt(pub, plain);
    Bytes out(cipher.size());
    uint32_t len = Len(out);
    ASSERT_EQ(ZEPH_C_BIVO_SM2Decrypt(ctx.get(), cipher.data(), Len(cipher), out.data(), &len), 0u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + len), plain);
  }
  EVP_PKEY_free(pub);
}

// The share read with OpenSSL's SM4 and SM3 from the documented seal.
TEST_F(CosignClient, ShareIsTheDocumentedSeal) {
  Bytes pub(65), hash(32), d1(32), d1_inv(32);
  uint32_t pub_len = 65, hash_len = 32, d1_len = 32, inv_len = 32;
  ASSERT_EQ(l_bivo_ResloveParm(key.share.data(), Len(key.share), pub.data(), &pub_len, hash.data(), &hash_len,
                               d1.data(), &d1_len, d1_inv.data(), &inv_len),
            0);
  EXPECT_EQ(pub, key.pub);
  const Bytes k = zeph_test::Sm3({kPin, Bytes({'D', 'E', 'V', '-', '0', '0', '0', '1'})});
  uint8_t sm4_key[16];
  for (int i = 0; i < 16; ++i) sm4_key[i] = k[i] ^ k[16 + i];
  const Bytes plain_d1 = Sm4EcbDecrypt(sm4_key, d1.data(), 32), plain_inv = Sm4EcbDecrypt(sm4_key, d1_inv.data(), 32);
  EXPECT_EQ(zeph_test::Sm3({plain_d1}), hash);
  EXPECT_EQ(zeph_test::ToHex(hash), key.id);
  EXPECT_EQ(Ref().Mul(plain_d1, plain_inv), Ref::One());
  // The structure: version 1, SM2, all 32 bits of each sealed value, SM3.
  const std::string dump = [&] {
    zeph_test::TempDir dir;
    zeph_test::WriteBytes(dir.file("s.der"), key.share);
    std::string out;
    zeph_test::Shell("openssl asn1parse -inform DER -in " + dir.file("s.der"), &out);
    return out;
  }();
  EXPECT_NE(dump.find("INTEGER           :01"), std::string::npos) << dump;
  EXPECT_NE(dump.find("OBJECT            :sm2"), std::string::npos) << dump;
  EXPECT_NE(dump.find("OBJECT            :sm3"), std::string::npos) << dump;
  const size_t first = dump.find("l=  33 prim: BIT STRING");
  EXPECT_NE(first, dump.rfind("l=  33 prim: BIT STRING")) << dump;
}

TEST_F(CosignClient, PinOperations) {
  const Bytes wrong = {'6', '5', '4', '3', '2', '1'};
  Ctx fresh, other_device;
  ASSERT_EQ(Open("", &fresh), 0u);
  ASSERT_EQ(Open("", &other_device, R"({"DeviceNumber":"DEV-0002"})"), 0u);
  const auto verify = [](const Ctx &c, const Bytes &pin, const Bytes &share) {
    return ZEPH_C_BIVO_VerifyUserPin(c.get(), pin.data(), Len(pin), share.data(), Len(share));
  };
  EXPECT_EQ(verify(fresh, wrong, key.share), ERR_PIN_VERIFY_FAILED);
  EXPECT_EQ(verify(other_device, kPin, key.share), ERR_PIN_VERIFY_FAILED);
  EXPECT_EQ(verify(fresh, kPin, Bytes(key.share.begin(), key.share.end() - 1)), ERR_INVALID_PARAMETER);
  // A refused secret leaves the context without a key.
  uint8_t sig[72];
  uint32_t len = sizeof sig;
  EXPECT_EQ(ZEPH_C_BIVO_DoSignature(fresh.get(), sig, 1, sig, &len), ERR_COSIGN_FAILED);

  Bytes resealed(key.share.size());
  uint32_t n = Len(resealed);
  ASSERT_EQ(ZEPH_C_BIVO_ChangeUserPin(fresh.get(), kPin.data(), 6, wrong.data(), 6, key.share.data(), Len(key.share),
                                      resealed.data(), &n),
            0u);
  EXPECT_EQ(verify(fresh, kPin, resealed), ERR_PIN_VERIFY_FAILED);
  EXPECT_EQ(verify(fresh, wrong, resealed), 0u);
  n = 10;
  EXPECT_EQ(ZEPH_C_BIVO_ChangeUserPin(fresh.get(), wrong.data(), 6, kPin.data(), 6, resealed.data(), Len(resealed),
                                      resealed.data(), &n),
            ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(n, key.share.size());
}

TEST_F(CosignClient, ContextWithoutAKeyOrServiceSendsNothing) {
  Ctx fresh;
  ASSERT_EQ(Open(service.url(), &fresh), 0u);
  uint8_t buf[128] = {};
  uint32_t len = sizeof buf;
  EXPECT_EQ(ZEPH_C_BIVO_DoSignature(fresh.get(), buf, 4, buf, &len), ERR_COSIGN_FAILED);
  EXPECT_EQ(ZEPH_C_BIVO_SM2Decrypt(fresh.get(), buf, 4, buf, &len), ERR_COSIGN_FAILED);
  EXPECT_EQ(service.Count("BIVOSignature") + service.Count("BIVODecrypt"), 0);

  // Short outputs of a key creation are refused before the service is asked.
  Bytes pub(65), share(key.share.size());
  uint32_t pub_len = 64, share_len = Len(share);
  char id[65];
  EXPECT_EQ(ZEPH_C_BIVO_CreateKeyPair(fresh.get(), kPin.data(), 6, pub.data(), &pub_len, id, share.data(), &share_len),
            0xFFFFFFFFu);
  pub_len = 65;
  share_len -= 1;
  EXPECT_EQ(ZEPH_C_BIVO_CreateKeyPair(fresh.get(), kPin.data(), 6, pub.data(), &pub_len, id, share.data(), &share_len),
            ERR_OUT_OF_MEMORY);
  EXPECT_EQ(share_len, key.share.size());
  EXPECT_EQ(service.Count("BIVOGenKeyPair"), 1);

  // URLs of 10 characters or fewer name no service: no greeting, and key
  // creation has nobody to ask.
  Ctx offline;
  ASSERT_EQ(Open("http://a/b", &offline), 0u);
  Key k;
  EXPECT_EQ(Create(offline.get(), &k), ERR_COSIGN_FAILED);
  EXPECT_EQ(service.Count("BIVOInit"), 2);
}

TEST_F(CosignClient, InitializeStatuses) {
  struct Case {
    const char *what;
    std::string url, device, raw;
    int http;
    uint32_t status;
  };
  const std::string url = service.url();
  // clang-format off
  const Case cases[] = {
      {"greeted", url, kDevice, "", 200, 0},
      {"status 500 in the body", url, kDevice, R"({"status":500})", 200, ERR_HTTP_FAILED},
      {"HTTP 503", url, kDevice, R"({"status":503,"message":"down"})", 503, ERR_HTTP_FAILED},
      {"no status", url, kDevice, R"({"ok":true})", 200, ERR_JSON_INVALID},
      {"not JSON", url, kDevice, "<html>", 200, ERR_JSON_INVALID},
      {"URL that does not parse", "ftp://127.0.0.1/x", kDevice, "", 200, 0xFFFFFFFFu},
      {"no DeviceNumber", url, R"({"Device":"x"})", "", 200, ERR_JSON_INVALID},
      {"device JSON not JSON", url, "DEV", "", 200, ERR_JSON_INVALID},
      {"nothing listens", "http://127.0.0.1:1/cosign/", kDevice, "", 200, ERR_HTTP_FAILED},
  };
  // clang-format on
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    service.set_tamper([&](const std::string &, std::map<std::string, std::string> *, std::string *raw, int *http) {
      *raw = c.raw;
      *http = c.http;
    });
    Ctx made;
    EXPECT_EQ(Open(c.url, &made, c.device.c_str()), c.status);
    EXPECT_EQ(made != nullptr, c.status == 0);
  }
}

// Every value a service sends is checked before it is used; a refused reply
// writes nothing and leaves the key where it was. The reference service's own
// faults (r = 0, a foreign credential or plaintext share, a reply that is not
// JSON): CosignRows.ServiceFaults in tests/integration.
TEST_F(CosignClient, RefusesWhatTheServiceSends) {
  const std::string order = zeph_test::Base64(Ref::N()), off_curve = zeph_test::Base64(Bytes(65, 1)),
                    one = zeph_test::Base64(Bytes(32, 1));
  struct Case {
    const char *what, *method, *field;
    std::string value;  // "-": remove the field
    std::string raw;
    int http;
    uint32_t status;
  };
  // clang-format off
  const Case cases[] = {
      {"r = n", "BIVOSignature", "r", order, "", 200, ERR_COSIGN_FAILED},
      {"s2 of 33 bytes", "BIVOSignature", "s2", zeph_test::Base64(Bytes(33, 1)), "", 200, ERR_COSIGN_FAILED},
      {"s2 of 31 bytes", "BIVOSignature", "s2", zeph_test::Base64(Bytes(31, 1)), "", 200, ERR_COSIGN_FAILED},
      {"s3 not base64", "BIVOSignature", "s3", "!!!!", "", 200, ERR_COSIGN_FAILED},
      {"s3 wrong but in range", "BIVOSignature", "s3", one, "", 200, ERR_COSIGN_FAILED},
      {"s2 missing", "BIVOSignature", "s2", "-", "", 200, ERR_JSON_INVALID},
      {"status 500", "BIVOSignature", "", "", R"({"status":500,"message":"x"})", 200, ERR_HTTP_FAILED},
      {"HTTP 404", "BIVOSignature", "", "", R"({"status":404,"message":"x"})", 404, ERR_HTTP_FAILED},
      {"result not JSON", "BIVOSignature", "", "", R"({"status":200,"result":"r=1"})", 200, ERR_JSON_INVALID},
      {"reply too large", "BIVOSignature", "", "", std::string(2000, ' ') + "{}", 200, ERR_HTTP_FAILED},
      {"t2 off the curve", "BIVODecrypt", "t2", off_curve, "", 200, ERR_COSIGN_FAILED},
      {"pubKey of 64 bytes", "BIVOGenKeyPair", "pubKey", zeph_test::Base64(Bytes(64, 4)), "", 200, ERR_COSIGN_FAILED},
      {"credential off the curve", "BIVOGenKeyPair", "credential", off_curve, "", 200, ERR_COSIGN_FAILED},
  };
  // clang-format on
  EVP_PKEY *pub = zeph_test::Sm2PointKey(key.pub);
  const Bytes cipher = zeph_test::Encrypt(pub, Bytes(20, 7));
  EVP_PKEY_free(pub);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    service.set_tamper(
        [&](const std::string &method, std::map<std::string, std::string> *result, std::string *raw, int *http) {
          if (method != c.method) return;
          *raw = c.raw;
          *http = c.http;
          if (c.value == "-") {
            result->erase(c.field);
          } else if (c.field[0] != '\0') {
            (*result)[c.field] = c.value;
          }
        });
    const std::string method = c.method;
    if (method == "BIVOSignature") {
      uint32_t rv = 0;
      EXPECT_EQ(Bytes(Sign({1, 2, 3}, &rv)), Bytes(72, 0xEE));
      EXPECT_EQ(rv, c.status);
    } else if (method == "BIVODecrypt") {
      Bytes out(20, 0xEE);
      uint32_t len = 20;
      EXPECT_EQ(ZEPH_C_BIVO_SM2Decrypt(ctx.get(), cipher.data(), Len(cipher), out.data(), &len), c.status);
      EXPECT_EQ(out, Bytes(20, 0xEE));
    } else {
      Key k;
      EXPECT_EQ(Create(ctx.get(), &k), c.status);
      EXPECT_EQ(k.share, Bytes(k.share.size(), 0xEE));
      EXPECT_EQ(k.id[0], '\0');
    }
    // The context still holds the key it had.
    service.set_tamper(nullptr);
    uint32_t rv = 0;
    EXPECT_TRUE(OpenSslVerifies(key.pub, {9}, Sign({9}, &rv)));
  }
}

TEST_F(CosignClient, ASilentServiceEndsWithinTheDeadline) {
  ZEPH_C_HttpSetTimeouts(200, 300);
  service.set_silent(true);
  uint32_t rv = 0;
  EXPECT_EQ(Sign({1}, &rv), Bytes(72, 0xEE));
  EXPECT_EQ(rv, ERR_HTTP_FAILED);
}

// The openssl tool checks both kinds of request in the integration rows;
// here the length query, the slash form of a name and a name refused.
TEST_F(CosignClient, CertificateRequests) {
  Bytes csr(2048);
  uint32_t len = 0;
  ASSERT_EQ(ZEPH_C_BIVO_GenCSR(ctx.get(), "CN=co-signed,O=zeph", nullptr, &len), 0u);
  EXPECT_GT(len, 200u);
  len = Len(csr);
  ASSERT_EQ(ZEPH_C_BIVO_GenCSR(ctx.get(), "/CN=co-signed/O=zeph", csr.data(), &len), 0u);
  const unsigned char *p = csr.data();
  X509_REQ *req = d2i_X509_REQ(nullptr, &p, len);
  ASSERT_NE(req, nullptr);
  char subject[64];
  X509_NAME_oneline(X509_REQ_get_subject_name(req), subject, sizeof subject);
  EXPECT_STREQ(subject, "/CN=co-signed/O=zeph");
  X509_REQ_free(req);
  len = Len(csr);
  EXPECT_EQ(ZEPH_C_BIVO_GenCSR(ctx.get(), "CN", csr.data(), &len), ERR_INVALID_PARAMETER);
}

// A wrong PIN, and a service share that does not complete the signature.
TEST_F(CosignClient, RsaSplitRefusals) {
  Bytes pub(1024), share(2048);
  uint32_t pub_len = Len(pub), share_len = Len(share);
  char id[65] = {};
  ASSERT_EQ(
      ZEPH_C_BIVO_RSACreateKeyPair(ctx.get(), kPin.data(), 6, 0, pub.data(), &pub_len, id, share.data(), &share_len),
      0u);
  EXPECT_EQ(std::strlen(id), 64u);
  const Bytes msg = zeph_test::RandomBytes(300, 5);
  const auto sign = [&](const Bytes &pin, Bytes *sig) {
    sig->assign(256, 0xEE);
    uint32_t n = 256;
    return ZEPH_C_BIVO_RSADoSignature(ctx.get(), pin.data(), Len(pin), share.data(), share_len, 4, msg.data(), Len(msg),
                                      sig->data(), &n);
  };
  Bytes sig;
  ASSERT_EQ(sign(kPin, &sig), 0u);
  EXPECT_EQ(sign({'0', '0', '0', '0', '0', '0'}, &sig), ERR_PIN_VERIFY_FAILED);
  service.set_tamper([](const std::string &, std::map<std::string, std::string> *result, std::string *, int *) {
    if (result->count("s2") != 0) (*result)["s2"] = zeph_test::Base64(Bytes(256, 0x11));
  });
  EXPECT_EQ(sign(kPin, &sig), ERR_COSIGN_FAILED);
  EXPECT_EQ(sig, Bytes(256, 0xEE));
}

}  // namespace
