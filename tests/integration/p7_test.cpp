// Signed messages and envelopes end to end: one software key for the suite,
// every output checked by OpenSSL on its own (cms, smime, pkeyutl, enc,
// asn1parse), messages built by hand opened and verified through zeph, the
// output protocol and broken input.
#include <cstdlib>
#include <memory>

#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include "ci_support.hpp"
#include "loopback.hpp"
#include "softkey_env.hpp"

namespace {

using zeph_it::Len;
using zeph_it::Out;
using zeph_test::Bytes;
using zeph_test::Shell;

constexpr const char *kKey = "ZS_P70001";
constexpr const char *kPin = zeph_it::kUserPin;

std::string Str(const Bytes &b) { return {b.begin(), b.end()}; }
Bytes B(const std::string &s) { return {s.begin(), s.end()}; }

class P7 : public testing::Test {
 protected:
  // Device P70001: SM2 signing and encryption pairs in VorliEcc/ECC, RSA
  // signing in VorliRsa/RSA1 and encryption in RSA2; OpenSSL's own SM2 and
  // RSA recipients beside it.
  static void SetUpTestSuite() {
    dir_ = std::make_unique<zeph_test::TempDir>();
    const std::string pin = std::string(" --user-pin ") + kPin;
    std::string script = "cd '" + dir_->path().string() + "'";
    for (const std::string &step :
         std::vector<std::string>{"create-device", "create-app --app VorliEcc --admin-pin 12345678" + pin,
                                  "create-app --app VorliRsa --admin-pin 12345678" + pin,
                                  "gen-key --app VorliEcc --container ECC --alg sm2 --usage both" + pin,
                                  "gen-key --app VorliRsa --container RSA1 --alg rsa2048" + pin,
                                  "gen-key --app VorliRsa --container RSA2 --alg rsa1024 --usage enc" + pin,
                                  "export-cert --app VorliEcc --container ECC --usage sign --out sm2.pem",
                                  "export-cert --app VorliEcc --container ECC --usage enc --out sm2enc.pem",
                                  "export-cert --app VorliRsa --container RSA1 --out rsa.pem",
                                  "export-cert --app VorliRsa --container RSA2 --usage enc --out rsaenc.pem"}) {
      script += " && '" ZEPH_SOFTKEY_TOOL "' --root keys " + step + " --serial P70001";
    }
    script += " && openssl genpkey -algorithm SM2 -out osm2.key 2>/dev/null";
    script += " && openssl req -x509 -new -key osm2.key -sm3 -subj /CN=osm2 -days 1 -out osm2.pem";
    script += " && openssl req -x509 -newkey rsa:1024 -nodes -keyout orsa.key -subj /CN=orsa -days 1 -out orsa.pem";
    script += " 2>/dev/null";
    for (const char *name : {"sm2", "sm2enc", "rsa", "rsaenc", "osm2", "orsa"}) {
      script += std::string(" && openssl x509 -in ") + name + ".pem -outform DER -out " + name + ".der";
    }
    std::string out;
    ASSERT_EQ(Shell(script, &out), 0) << out;
  }
  static void TearDownTestSuite() { dir_.reset(); }

  void SetUp() override {
    setenv("ZEPH_SOFTKEY_ROOT", (dir_->path() / "keys").c_str(), 1);
    const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + R"("}])";
    ASSERT_EQ(ZEPH_C_SetConfigInfo(cfg.c_str()), 0u);
  }

  static std::string F(const std::string &name) { return dir_->file(name); }
  static Bytes Der(const std::string &name) { return zeph_test::ReadBytes(F(name + ".der")); }
  static void Put(const std::string &name, const Bytes &b) { zeph_test::WriteBytes(F(name), b); }

  static std::unique_ptr<zeph_test::TempDir> dir_;
};

std::unique_ptr<zeph_test::TempDir> P7::dir_;

// The signer info's signature and, when it has them, its attributes as the
// DER SET the signature covers.
void SignerPieces(const Bytes &p7_der, Bytes *sig, Bytes *attrs, Bytes *digest) {
  const unsigned char *p = p7_der.data();
  PKCS7 *p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(p7_der.size()));
  ASSERT_NE(p7, nullptr);
  PKCS7_SIGNER_INFO *si = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), 0);
  sig->assign(si->enc_digest->data, si->enc_digest->data + si->enc_digest->length);
  unsigned char *der = nullptr;
  const int n = ASN1_item_i2d(reinterpret_cast<ASN1_VALUE *>(si->auth_attr), &der, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
  attrs->assign(der, der + n);
  OPENSSL_free(der);
  const ASN1_OCTET_STRING *md = PKCS7_digest_from_attributes(si->auth_attr);
  digest->assign(md->data, md->data + md->length);
  PKCS7_free(p7);
}

TEST_F(P7, RsaPkcs7PassesOpenSslCmsAndSmime) {
  zeph_it::Handle key(kKey);
  const Bytes data = B("pay 100 to Alice\n"), chain = Der("sm2");
  Bytes attached, detached, content;
  for (auto [layout, out] : {std::pair{ZEPH_P7_ATTACHED, &attached}, std::pair{ZEPH_P7_DETACHED, &detached}}) {
    ASSERT_EQ(Out(out, ZEPH_C_DoSignToPKCS7, key.get(), kPin, ZEPH_AREA_RSA, 8u, layout, data.data(), 17u, chain.data(),
                  Len(chain)),
              0u);
  }
  Put("a.p7", attached);
  Put("d.p7", detached);
  Put("data", data);
  std::string out;
  const std::string v = "openssl cms -verify -binary -inform DER -CAfile " + F("rsa.pem") + " -purpose any ";
  EXPECT_EQ(Shell(v + "-in " + F("a.p7") + " -out " + F("a.out") + " && " + v + "-in " + F("d.p7") + " -content " +
                      F("data") + " -out /dev/null && openssl smime -verify -binary -inform DER -in " + F("a.p7") +
                      " -CAfile " + F("rsa.pem") + " -purpose any -out /dev/null",
                  &out),
            0)
      << out;
  EXPECT_EQ(zeph_test::ReadBytes(F("a.out")), data);

  // Our verifier agrees, and refuses other content.
  EXPECT_EQ(ZEPH_C_VerifyPKCS7(attached.data(), Len(attached), nullptr, 0, nullptr, nullptr), 0u);
  EXPECT_EQ(ZEPH_C_VerifyPKCS7(detached.data(), Len(detached), data.data(), 16, nullptr, nullptr),
            ERR_SIGNATURE_INVALID);
}

TEST_F(P7, Sm2OutputsVerifyWithOpenSslPkeyutl) {
  zeph_it::Handle key(kKey);
  const Bytes data = B("an SM2 signed text");
  const unsigned char *none = nullptr;
  Bytes gm, p7;
  ASSERT_EQ(Out(&gm, ZEPH_C_DoSm2SignToPKCS7_501, key.get(), kPin, data.data(), Len(data), none, 0u), 0u);
  ASSERT_EQ(Out(&p7, ZEPH_C_DoSignToPKCS7, key.get(), kPin, ZEPH_AREA_SM2, 0u, ZEPH_P7_ATTACHED, data.data(), Len(data),
                none, 0u),
            0u);
  // The SM2_Sign signature is the last OCTET STRING; the PKCS#7 one covers
  // the attribute SET, whose message-digest is SM3 of the content.
  Bytes gm_sig, p7_sig, attrs, digest;
  SignerPieces(p7, &p7_sig, &attrs, &digest);
  EXPECT_EQ(digest, zeph_test::Sm3({data}));
  Put("gm.der", gm);
  Put("data", data);
  Put("p7.sig", p7_sig);
  Put("attrs", attrs);
  std::string out;
  ASSERT_EQ(Shell("openssl asn1parse -inform DER -in " + F("gm.der") + " | grep 'OCTET STRING' | tail -n 1", &out), 0);
  gm_sig = zeph_test::FromHex(out.substr(out.rfind(':') + 1));
  Put("gm.sig", gm_sig);
  const std::string pk = "openssl pkeyutl -verify -certin -inkey " + F("sm2.pem") +
                         " -rawin -digest sm3 -pkeyopt distid:1234567812345678 ";
  EXPECT_EQ(Shell(pk + "-in " + F("data") + " -sigfile " + F("gm.sig") + " && " + pk + "-in " + F("attrs") +
                      " -sigfile " + F("p7.sig"),
                  &out),
            0)
      << out;
  Bytes back;
  EXPECT_EQ(Out(&back, ZEPH_C_VerifySm2SignPKCS7, gm.data(), Len(gm), none, 0u), 0u);
  EXPECT_EQ(back, data);
}

TEST_F(P7, EnvelopesOpenWithOpenSslAlone) {
  const Bytes data = B("a secret for OpenSSL to read\n");
  Put("data", data);
  const struct {
    const char *cert;
    uint32_t wrapper;
  } cases[] = {{"osm2", ZEPH_ENVELOPE_DEFAULT}, {"orsa", ZEPH_ENVELOPE_GM}, {"orsa", ZEPH_ENVELOPE_DEFAULT}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.cert) + " " + std::to_string(c.wrapper));
    const Bytes cert = Der(c.cert);
    Bytes env;
    ASSERT_EQ(Out(&env, ZEPH_C_EncodeEnveloperWithCert, cert.data(), Len(cert), data.data(), Len(data), c.wrapper), 0u);
    Put("env", env);
    std::string out;
    if (std::string(c.cert) == "orsa" && c.wrapper == ZEPH_ENVELOPE_DEFAULT) {
      const std::string args = " -decrypt -binary -inform DER -in " + F("env") + " -inkey " + F("orsa.key");
      ASSERT_EQ(
          Shell("openssl cms" + args + " -out " + F("cms.out") + " && openssl smime" + args + " -out " + F("smime.out"),
                &out),
          0)
          << out;
      EXPECT_EQ(zeph_test::ReadBytes(F("cms.out")), data);
      EXPECT_EQ(zeph_test::ReadBytes(F("smime.out")), data);
      continue;
    }
    // GM layout: the key with pkeyutl, the content with enc -sm4-ecb.
    const unsigned char *p = env.data();
    SM2_Envelope *gm = d2i_SM2_Envelope(nullptr, &p, static_cast<long>(env.size()));
    ASSERT_NE(gm, nullptr);
    const SM2_Envelope_Item *item = sk_SM2_Envelope_Item_value(gm->SM2_Envelope_Items, 0);
    const ASN1_OCTET_STRING *k = sk_PKCS7_RECIP_INFO_value(item->recipientinfo, 0)->enc_key;
    Put("key.enc", Bytes(k->data, k->data + k->length));
    Put("content.enc",
        Bytes(item->enc_data->enc_data->data, item->enc_data->enc_data->data + item->enc_data->enc_data->length));
    SM2_Envelope_free(gm);
    ASSERT_EQ(Shell("openssl pkeyutl -decrypt -inkey " + F(std::string(c.cert) + ".key") + " -in " + F("key.enc") +
                        " -out " + F("key") + " && openssl enc -d -sm4-ecb -K $(od -An -tx1 " + F("key") +
                        " | tr -d ' \\n') -in " + F("content.enc") + " -out " + F("gm.out"),
                    &out),
              0)
        << out;
    EXPECT_EQ(zeph_test::ReadBytes(F("gm.out")), data);
  }
}

TEST_F(P7, EnvelopesOpenWithTheKey) {
  zeph_it::Handle key(kKey);
  const Bytes data = B("for the key holder");
  std::string out;
  ASSERT_EQ(Shell("printf 'from openssl cms\\n' | openssl cms -encrypt -binary -aes-256-cbc -outform DER -out " +
                      F("cms.p7") + " " + F("rsaenc.pem"),
                  &out),
            0)
      << out;
  Bytes plain;
  const Bytes cms = zeph_test::ReadBytes(F("cms.p7"));
  const auto open = [&](const Bytes &env, uint32_t area, const char *pin, Bytes *result) {
    return Out(result, ZEPH_C_DecodeEnveloper, key.get(), pin, area, env.data(), Len(env));
  };
  ASSERT_EQ(open(cms, ZEPH_AREA_RSA, kPin, &plain), 0u);
  EXPECT_EQ(Str(plain), "from openssl cms\n");

  for (const char *cert_name : {"sm2enc", "rsaenc"}) {
    for (const uint32_t wrapper : {ZEPH_ENVELOPE_DEFAULT, ZEPH_ENVELOPE_GM}) {
      const Bytes cert = Der(cert_name);
      Bytes env;
      ASSERT_EQ(Out(&env, ZEPH_C_EncodeEnveloperWithCryptoDevice, key.get(), cert.data(), Len(cert), data.data(),
                    Len(data), wrapper),
                0u);
      EXPECT_EQ(open(env, 0, kPin, &plain), 0u) << cert_name << wrapper;
      EXPECT_EQ(plain, data);
    }
  }
  // A wrong PIN is the key's status, and nothing comes out.
  Bytes out_bytes(64);
  uint32_t n = 64;
  const uint32_t rv =
      ZEPH_C_DecodeEnveloper(key.get(), "000000", ZEPH_AREA_RSA, cms.data(), Len(cms), out_bytes.data(), &n);
  EXPECT_EQ(rv & 0xFFFF0000u, 0x0A000000u) << std::hex << rv;
  EXPECT_EQ(open(cms, ZEPH_AREA_SM2, kPin, &plain), ERR_ENVELOPE_FAILED);
}

// Messages built outside zeph: Python writes the DER, OpenSSL signs and
// encrypts; zeph verifies and opens them.
TEST_F(P7, HandBuiltMessagesVerifyAndOpen) {
  const std::string script = F("build.py");
  const std::string py = R"PY(
import subprocess, sys
d = sys.argv[1]
def tlv(tag, body):
    n = len(body)
    if n < 128: l = bytes([n])
    else:
        b = n.to_bytes((n.bit_length() + 7) // 8, 'big'); l = bytes([0x80 | len(b)]) + b
    return bytes([tag]) + l + body
def oid(text):
    a = [int(x) for x in text.split('.')]
    out = bytes([40 * a[0] + a[1]])
    for v in a[2:]:
        enc = [v & 0x7f]; v >>= 7
        while v: enc.insert(0, 0x80 | (v & 0x7f)); v >>= 7
        out += bytes(enc)
    return tlv(0x06, out)
seq = lambda *x: tlv(0x30, b''.join(x))
alg = lambda o: seq(oid(o), b'\x05\x00')
run = lambda *c: subprocess.run(c, check=True, capture_output=True).stdout
cert = run('openssl', 'x509', '-in', d + '/osm2.pem', '-outform', 'DER')
tbs = run('openssl', 'asn1parse', '-in', d + '/osm2.pem', '-strparse', '4', '-noout', '-out', '/dev/stdout')
issuer_serial = seq(tlv(0x30, b''), b'')  # replaced below
# issuer and serial from the certificate: TBSCertificate = [0] version, serial, alg, issuer, ...
def items(der):
    i, out = 0, []
    while i < len(der):
        n = der[i + 1]; h = 2
        if n & 0x80: k = n & 0x7f; n = int.from_bytes(der[i + 2:i + 2 + k], 'big'); h = 2 + k
        out.append(der[i:i + h + n]); i += h + n
    return out
body = items(items(tbs)[0][4:] if tbs[1] & 0x80 else items(tbs)[0][2:])
serial, issuer = body[1], body[3]
content = b'built by hand'
open(d + '/hand.txt', 'wb').write(content)
sig = run('openssl', 'pkeyutl', '-sign', '-inkey', d + '/osm2.key', '-rawin', '-digest', 'sm3',
          '-pkeyopt', 'distid:1234567812345678', '-in', d + '/hand.txt')
si = seq(tlv(0x02, b'\x01'), seq(issuer, serial), alg('1.2.156.10197.1.401'), alg('1.2.156.10197.1.501'),
         tlv(0x04, sig))
info = seq(tlv(0x02, b'\x01'), tlv(0x31, alg('1.2.156.10197.1.401')),
           seq(oid('1.2.156.10197.6.1.4.2.1'), tlv(0xa0, tlv(0x04, content))),
           tlv(0xa0, cert), tlv(0x31, si))
open(d + '/hand.sm2', 'wb').write(seq(oid('1.2.156.10197.6.1.4.2.2'), tlv(0xa0, info)))
key = bytes(range(16))
open(d + '/hand.key', 'wb').write(key)
enc_key = run('openssl', 'pkeyutl', '-encrypt', '-certin', '-inkey', d + '/osm2.pem', '-in', d + '/hand.key')
enc = run('openssl', 'enc', '-sm4-ecb', '-K', key.hex(), '-in', d + '/hand.txt')
ri = seq(tlv(0x02, b'\x00'), seq(issuer, serial), alg('1.2.156.10197.1.301.3'), tlv(0x04, enc_key))
item = seq(tlv(0x02, b'\x00'), tlv(0x31, ri),
           seq(oid('1.2.156.10197.6.1.4.2.1'), alg('1.2.156.10197.1.104'), tlv(0x80, enc)))
open(d + '/hand.env', 'wb').write(seq(oid('1.2.156.10197.6.1.4.2.3'), tlv(0xa0, item)))
)PY";
  zeph_test::WriteBytes(script, B(py));
  std::string out;
  ASSERT_EQ(Shell("python3 " + script + " " + dir_->path().string() + " && openssl pkcs8 -topk8 -nocrypt -in " +
                      F("osm2.key") + " -outform DER -out " + F("osm2.p8"),
                  &out),
            0)
      << out;
  const Bytes msg = zeph_test::ReadBytes(F("hand.sm2")), env = zeph_test::ReadBytes(F("hand.env"));
  const Bytes p8 = zeph_test::ReadBytes(F("osm2.p8"));
  Bytes content, plain;
  const unsigned char *none = nullptr;
  EXPECT_EQ(Out(&content, ZEPH_C_VerifySm2SignPKCS7, msg.data(), Len(msg), none, 0u), 0u);
  EXPECT_EQ(Str(content), "built by hand");
  const char *no_password = nullptr;
  EXPECT_EQ(Out(&plain, ZEPH_C_DecodeEnveloperWithPrivateKey, p8.data(), Len(p8), no_password, env.data(), Len(env)),
            0u);
  EXPECT_EQ(Str(plain), "built by hand");
}

TEST_F(P7, OutputProtocolAndBrokenInput) {
  zeph_it::Handle key(kKey);
  const Bytes data = B("sized");
  // A length query signs nothing and needs no PIN; its answer is an upper
  // bound of the message; a short buffer is refused with the length.
  uint32_t bound = 0;
  ASSERT_EQ(ZEPH_C_DoSm2SignToPKCS7_301(key.get(), "wrong", data.data(), 5, nullptr, 0, nullptr, &bound), 0u);
  Bytes out(bound);
  uint32_t n = bound;
  ASSERT_EQ(ZEPH_C_DoSm2SignToPKCS7_301(key.get(), kPin, data.data(), 5, nullptr, 0, out.data(), &n), 0u);
  EXPECT_LE(n, bound);
  EXPECT_GE(n + 2, bound);
  uint32_t small = 10;
  EXPECT_EQ(ZEPH_C_DoSm2SignToPKCS7_301(key.get(), kPin, data.data(), 5, nullptr, 0, out.data(), &small),
            ERR_BUFFER_TOO_SMALL);
  const Bytes bad_cert = {0x30, 0x03, 0x02, 0x01, 0x01};
  uint32_t m = bound;
  EXPECT_EQ(ZEPH_C_DoSm2SignToPKCS7_EX(key.get(), kPin, data.data(), 5, nullptr, 0, 1, bad_cert.data(), 5, nullptr, 0,
                                       out.data(), &m),
            ERR_CERT_DECODE_FAILED);
  EXPECT_EQ(ZEPH_C_DoSm2SignToPKCS7_EX(key.get(), kPin, data.data(), 5, nullptr, 0, 64, nullptr, 0, nullptr, 0,
                                       out.data(), &m),
            ERR_ALG_UNSUPPORTED);
  EXPECT_EQ(ZEPH_C_DoSm2SignToPKCS7_501(key.get(), kPin, data.data(), 5, bad_cert.data(), 5, out.data(), &m),
            ERR_CERT_CHAIN_FAILED);
  const Bytes msg(out.begin(), out.begin() + n);

  // An envelope's query answers its length plus 128.
  const Bytes cert = Der("sm2enc");
  uint32_t q = 0;
  ASSERT_EQ(ZEPH_C_EncodeEnveloperWithCert(cert.data(), Len(cert), data.data(), 5, 0, nullptr, &q), 0u);
  Bytes env;
  ASSERT_EQ(Out(&env, ZEPH_C_EncodeEnveloperWithCert, cert.data(), Len(cert), data.data(), 5u, 0u), 0u);
  EXPECT_GE(Len(env) + 128 + 4, q);
  EXPECT_LE(Len(env) + 128 - 4, q);

  // Every truncation and a few flipped bytes: a status, never a crash.
  for (size_t cut = 0; cut < msg.size(); cut += 13) {
    EXPECT_EQ(ZEPH_C_VerifySm2SignPKCS7(msg.data(), static_cast<uint32_t>(cut), nullptr, 0, nullptr, nullptr),
              ERR_SIGNATURE_INVALID);
    EXPECT_EQ(ZEPH_C_VerifyPKCS7(msg.data(), static_cast<uint32_t>(cut), nullptr, 0, nullptr, nullptr),
              ERR_SIGNATURE_INVALID);
  }
  for (size_t cut = 0; cut < env.size(); cut += 29) {
    uint32_t p = 64;
    Bytes plain(64);
    EXPECT_EQ(ZEPH_C_DecodeEnveloper(key.get(), kPin, ZEPH_AREA_SM2, env.data(), static_cast<uint32_t>(cut),
                                     plain.data(), &p),
              ERR_ENVELOPE_FAILED);
  }
}

TEST_F(P7, TimeStampedPkcs7ThroughTheJsonRow) {
  zeph_test::Peer tsa;
  const std::string url = "http://127.0.0.1:" + std::to_string(tsa.port()) + "/tsa/tsa_ok/p7";
  const ci_test::Reply r = ci_test::Ci(std::string(R"({"type":305,"keySN":")") + kKey + R"(","pin":")" + kPin +
                                       R"(","asymid":1,"signData":"stamp me","url":")" + url + R"("})");
  ASSERT_EQ(r.code, 0) << r.text;
  const Bytes p7 = ci_test::FromBase64(r.data);
  EXPECT_EQ(ZEPH_C_VerifyPKCS7(p7.data(), Len(p7), nullptr, 0, nullptr, nullptr), 0u);
  const unsigned char *p = p7.data();
  PKCS7 *parsed = d2i_PKCS7(nullptr, &p, static_cast<long>(p7.size()));
  ASSERT_NE(parsed, nullptr);
  PKCS7_SIGNER_INFO *si = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(parsed), 0);
  EXPECT_NE(PKCS7_get_attribute(si, NID_id_smime_aa_timeStampToken), nullptr);
  PKCS7_free(parsed);

  // A value longer than its field fails the request itself.
  const ci_test::Reply big = ci_test::Ci(std::string(R"({"type":902,"keySN":")") + kKey + R"(","pin":")" + kPin +
                                         R"(","signData":")" + std::string(1025, 'a') + R"("})");
  EXPECT_EQ(big.code, 2181562459);
  EXPECT_FALSE(big.has_data);
}

TEST_F(P7, CommandLineRoundTrips) {
  const std::string cfg = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + R"("}])";
  Put("cfg.json", B(cfg));
  Put("doc.txt", B("a document for zeph p7\n"));
  const std::string z = std::string("'") + ZEPH_TOOL + "' p7 ";
  const std::string key = " --config " + F("cfg.json") + " --key " + kKey + " --pin " + kPin + " ";
  std::string out;
  EXPECT_EQ(
      Shell(z + "sign" + key + "--gm501 --out " + F("doc.sm2") + " " + F("doc.txt") + " && " + z + "verify --out " +
                F("doc.back") + " " + F("doc.sm2") + " && " + z + "sign" + key + "--area rsa --detached --out " +
                F("doc.p7") + " " + F("doc.txt") + " && " + z + "verify --content " + F("doc.txt") + " " + F("doc.p7") +
                " && " + z + "envelope --cert " + F("sm2enc.pem") + " --out " + F("doc.env") + " " + F("doc.txt") +
                " && " + z + "open" + key + "--out " + F("doc.open") + " " + F("doc.env"),
            &out),
      0)
      << out;
  EXPECT_EQ(zeph_test::ReadBytes(F("doc.back")), zeph_test::ReadBytes(F("doc.txt")));
  EXPECT_EQ(zeph_test::ReadBytes(F("doc.open")), zeph_test::ReadBytes(F("doc.txt")));
  // A message that does not verify exits 1; a usage mistake 2.
  EXPECT_EQ(Shell(z + "verify --content " + F("doc.sm2") + " " + F("doc.p7") + " 2>/dev/null"), 1);
  EXPECT_EQ(Shell(z + "sign --gm301 --gm501 --pin 1 " + F("doc.txt") + " 2>/dev/null"), 2);
}

}  // namespace
