// Certificate verification against CAs made by `openssl ca`: the chain
// statuses, and revocation by CRLs fetched from a loopback server and by an
// `openssl ocsp` responder, including servers that misbehave.
#include <cstring>

#include "ci_support.hpp"
#include "loopback.hpp"
#include "test_ca.hpp"
#include "zeph_c.h"

namespace {

using zeph_test::TestCa;
using Leaf = TestCa::LeafOptions;
using Bytes = std::vector<uint8_t>;

using ci_test::FileText;
using zeph_it::Len;

Bytes Cat(const Bytes &a, const Bytes &b) {
  Bytes out = a;
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

uint32_t Verify(const Bytes &cert, const Bytes &cas, uint32_t revocation = ZEPH_REVOCATION_NONE,
                const char *url = nullptr) {
  return ZEPH_C_VerifyCert(cert.data(), Len(cert), cas.data(), Len(cas), revocation, url);
}

Bytes Bundle(const Bytes &list) {
  Bytes out;
  EXPECT_EQ(zeph_it::Out(&out, ZEPH_C_MakeCertBundle, list.data(), Len(list)), 0u);
  return out;
}

class ChainStatus : public ::testing::TestWithParam<TestCa::Alg> {};

TEST_P(ChainStatus, EveryOutcomeHasItsStatus) {
  TestCa ca(GetParam());
  const bool sm2 = GetParam() == TestCa::Alg::kSm2;
  const Bytes root = TestCa::Der(ca.root()), inter = TestCa::Der(ca.intermediate());
  const std::string pems = FileText(ca.intermediate()) + FileText(ca.root());
  const Bytes pem_list(pems.begin(), pems.end());
  const Bytes good = TestCa::Der(ca.Issue("good"));
  const Bytes expired = TestCa::Der(ca.Issue("old", Leaf().Valid("20200101000000Z", "20210101000000Z")));
  const Bytes early = TestCa::Der(ca.Issue("early", Leaf().Valid("20990101000000Z", "20991231000000Z")));
  Bytes tampered = good;
  tampered[tampered.size() - 5] ^= 0x01;  // inside the signature
  const Bytes stray = TestCa::Der(zeph_test::TestPki::Get().stray_ca);
  const Bytes garbage = {0x30, 0x82, 0x01, 0x00, 0x01};

  struct Case {
    const char *what;
    Bytes cert, cas;
    uint32_t want;
  } cases[] = {
      {"PEM list, issuer first", good, pem_list, 0},
      {"DER certificates, root first", good, Cat(root, inter), 0},
      {"PKCS#7 bundle", good, Bundle(pem_list), 0},
      {"the intermediate alone is trusted", good, inter, 0},
      {"the leaf itself is trusted", good, good, 0},
      {"root without the intermediate", good, root, ERR_ISSUER_NOT_FOUND},
      {"no CA", good, {}, ERR_ISSUER_NOT_FOUND},
      {"a CA that issued nothing here", good, stray, ERR_ISSUER_NOT_FOUND},
      {"CAs that do not decode", good, garbage, ERR_CERT_CHAIN_FAILED},
      {"a certificate that does not decode", garbage, pem_list, ERR_CERT_VERIFY_FAILED},
      {"expired", expired, pem_list, ERR_CERT_EXPIRED},
      {"not yet valid", early, pem_list, ERR_CERT_UNTRUSTED},
      {"signature altered", tampered, pem_list, ERR_CERT_UNTRUSTED},
  };
  for (const Case &c : cases) EXPECT_EQ(Verify(c.cert, c.cas), c.want) << c.what;

  // A CRL the caller has: this CA's, or one that does not decode.
  const std::string crl = ca.Crl();
  for (const auto &[bytes, want] : {std::pair{Bytes(crl.begin(), crl.end()), 0u}, {garbage, ERR_CRL_FAILED}}) {
    EXPECT_EQ(
        ZEPH_C_VerifyCertWithCRL(good.data(), Len(good), pem_list.data(), Len(pem_list), bytes.data(), Len(bytes)),
        want);
  }
  if (sm2) {
    // Signed with OpenSSL's empty identity instead of 1234567812345678.
    const Bytes other_id = TestCa::Der(ca.Issue("other-id", Leaf().EmptyId()));
    EXPECT_EQ(Verify(other_id, pem_list), ERR_CERT_UNTRUSTED);
  }
}

INSTANTIATE_TEST_SUITE_P(Cert, ChainStatus, ::testing::Values(TestCa::Alg::kSm2, TestCa::Alg::kRsa),
                         [](const auto &param_info) { return param_info.param == TestCa::Alg::kSm2 ? "Sm2" : "Rsa"; });

// SM2 leaves naming a loopback CRL server (the test peer), and an `openssl
// ocsp` responder; one leaf revoked, one unknown to the responder.
class Revocation : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string peer = "http://127.0.0.1:" + std::to_string(peer_.port());
    good_ = TestCa::Der(ca_.Issue("good", Leaf().Crl({peer + "/reply/crl"})));
    // Its AIA names a canned response of the responder's.
    revoked_ = TestCa::Der(ca_.Issue(
        "revoked", Leaf().Crl({peer + "/status/500/first", peer + "/reply/crl"}).Ocsp(peer + "/reply/ocsp-revoked")));
    hostile_ = TestCa::Der(ca_.Issue(
        "hostile", Leaf().Crl({peer + "/hostile/huge/a", peer + "/hostile/dribble/b", peer + "/hostile/nonhttp/c"})));
    unknown_ = TestCa::Der(ca_.Issue("unknown", Leaf().Outside()));
    ca_.Revoke("revoked");
    Can("crl", ca_.Crl());
    Can("ocsp-revoked", ca_.OcspResponse("revoked"));
    // The responder reads the database once: started after every change.
    ocsp_ = "http://127.0.0.1:" + std::to_string(ca_.StartOcspResponder());
    Can("garbage", "not an OCSP response");
    Can("trylater", std::string("\x30\x03\x0a\x01\x03", 5));
    const std::string cas = FileText(ca_.intermediate()) + FileText(ca_.root());
    cas_.assign(cas.begin(), cas.end());
    peer_base_ = peer;
  }
  void TearDown() override { ZEPH_C_HttpSetTimeouts(0, 0); }

  void Can(const std::string &file, const std::string &body) const {
    peer_.Can(file, "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  }
  // Row 201 as a host sends it.
  int64_t Row201(const Bytes &cert, std::map<std::string, std::string> texts = {},
                 const std::map<std::string, int> &numbers = {}) const {
    texts["cert"] = ci_test::Base64(cert);
    texts["certChain"].assign(cas_.begin(), cas_.end());
    return ci_test::Row(201, texts, numbers).code;
  }

  TestCa ca_{TestCa::Alg::kSm2};
  zeph_test::Peer peer_;
  std::string ocsp_, peer_base_;
  Bytes good_, revoked_, hostile_, unknown_, cas_;
};

TEST_F(Revocation, CrlFromTheDistributionPoints) {
  using ci_test::Signed;
  EXPECT_EQ(Row201(good_), 0);
  EXPECT_EQ(Row201(revoked_), Signed(ERR_CERT_REVOKED)) << "the second point answers";
  EXPECT_EQ(Row201(revoked_, {}, {{"nocrl", 1}}), 0);
  EXPECT_EQ(Row201(unknown_), Signed(ERR_CRL_FAILED)) << "no distribution point";
  // 100 MB, a byte a second, not HTTP: each ends within the deadline.
  ZEPH_C_HttpSetTimeouts(500, 800);
  EXPECT_EQ(Row201(hostile_), Signed(ERR_CRL_FAILED));
}

TEST_F(Revocation, OcspStatuses) {
  using ci_test::Signed;
  const std::map<std::string, std::string> url = {{"url", ocsp_}};
  EXPECT_EQ(Row201(good_, url), 0);
  EXPECT_EQ(Row201(revoked_, url), Signed(ERR_CERT_REVOKED));
  EXPECT_EQ(Row201(unknown_, url), Signed(ERR_CERT_STATUS_UNKNOWN));
  // The responder the certificate names (a response without nonce).
  EXPECT_EQ(Verify(revoked_, cas_, ZEPH_REVOCATION_OCSP, nullptr), ERR_CERT_REVOKED);
  EXPECT_EQ(Verify(hostile_, cas_, ZEPH_REVOCATION_OCSP, nullptr), ERR_OCSP_CONNECT_FAILED) << "names none";

  ZEPH_C_HttpSetTimeouts(500, 800);
  const struct {
    std::string url;
    uint32_t want;
  } servers[] = {
      {"http://127.0.0.1:1/", ERR_OCSP_CONNECT_FAILED},
      {peer_base_ + "/status/500/ocsp", ERR_OCSP_RESPONSE_FAILED},
      {peer_base_ + "/reply/trylater", ERR_OCSP_RESPONSE_FAILED},
      {peer_base_ + "/hostile/dribble/ocsp", ERR_OCSP_RESPONSE_FAILED},
      {peer_base_ + "/hostile/huge/ocsp", ERR_OCSP_RESPONSE_FAILED},
      {peer_base_ + "/reply/garbage", ERR_OCSP_FAILED},
  };
  for (const auto &s : servers) EXPECT_EQ(Verify(good_, cas_, ZEPH_REVOCATION_OCSP, s.url.c_str()), s.want) << s.url;
}

}  // namespace
