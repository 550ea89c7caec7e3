// Corvex signatures: the structure as OpenSSL reads it back (and as
// `openssl asn1parse` accepts it), the signature inside verifying for the
// certificate inside, the asymmetric capacity rule, refused inputs.
#include <cstring>
#include <string>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include "oracle.hpp"
#include "test_support.hpp"
#include "zeph_c_corvex.h"

namespace {

using zeph_test::Bytes;

std::string Oid(const ASN1_OBJECT *obj) {
  char text[64];
  OBJ_obj2txt(text, sizeof text, obj, 1);
  return text;
}

Bytes Octets(const ASN1_OCTET_STRING *s) { return Bytes(s->data, s->data + s->length); }

template <class T, int (*I2d)(const T *, unsigned char **)>
Bytes Der(const T *obj) {
  unsigned char *der = nullptr;
  const int n = I2d(obj, &der);
  Bytes out(der, der + (n > 0 ? n : 0));
  OPENSSL_free(der);
  return out;
}

class Corvex : public testing::Test {
 protected:
  // An SM2 certificate and openssl's signature on the message with its key.
  static void SetUpTestSuite() {
    dir_ = new zeph_test::TempDir();
    zeph_test::WriteBytes(dir_->file("msg"), Msg());
    const std::string cd = "cd '" + dir_->path().string() + "' && ";
    ASSERT_EQ(zeph_test::Shell(cd + "openssl ecparam -name SM2 -genkey -noout -out k.pem && "
                                    "openssl req -x509 -new -sm3 -key k.pem -subj /CN=corvex-signer -days 2 "
                                    "-set_serial 0x1234567 -outform DER -out c.der && "
                                    "openssl dgst -sm3 -sign k.pem -sigopt distid:1234567812345678 -out sig msg"),
              0);
    cert_ = new Bytes(zeph_test::ReadBytes(dir_->file("c.der")));
    sig_ = new Bytes(zeph_test::ReadBytes(dir_->file("sig")));
  }
  static void TearDownTestSuite() {
    delete cert_;
    delete sig_;
    delete dir_;
  }
  static Bytes Msg() { return Bytes{'p', 'a', 'y', ' ', '1', '0', '0'}; }
  static uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

  static Bytes Pack(const Bytes &msg) {
    uint32_t len = 0;
    EXPECT_EQ(
        Corvex_DoSignature(msg.data(), Len(msg), cert_->data(), Len(*cert_), sig_->data(), Len(*sig_), nullptr, &len),
        1u);
    Bytes out(len);
    EXPECT_EQ(Corvex_DoSignature(msg.data(), Len(msg), cert_->data(), Len(*cert_), sig_->data(), Len(*sig_), out.data(),
                                 &len),
              1u);
    return out;
  }

  static zeph_test::TempDir *dir_;
  static Bytes *cert_, *sig_;
};

zeph_test::TempDir *Corvex::dir_ = nullptr;
Bytes *Corvex::cert_ = nullptr;
Bytes *Corvex::sig_ = nullptr;

TEST_F(Corvex, DecodesToOneSignerWhoseSignatureVerifies) {
  const Bytes der = Pack(Msg());
  const unsigned char *p = der.data();
  Corvex_Signature *corvex = d2i_Corvex_Signature(nullptr, &p, static_cast<long>(der.size()));
  ASSERT_NE(corvex, nullptr);
  EXPECT_EQ(p, der.data() + der.size());
  EXPECT_EQ((Der<Corvex_Signature, i2d_Corvex_Signature>(corvex)), der);
  EXPECT_EQ(Oid(corvex->ID), "1.2.156.10197.6.1.4.2.2");
  ASSERT_EQ(sk_SignerInfo_num(corvex->signers), 1);
  const SignerInfo *signer = sk_SignerInfo_value(corvex->signers, 0);
  EXPECT_EQ(ASN1_INTEGER_get(signer->version), 0);
  ASSERT_EQ(sk_HASHALG_num(signer->hashAlg), 1);
  EXPECT_EQ(Oid(sk_HASHALG_value(signer->hashAlg, 0)->OID), "1.2.156.10197.1.401");
  EXPECT_EQ(Oid(signer->raw_Data->ID), "1.2.156.10197.6.1.4.2.1");
  ASSERT_EQ(sk_ASN1_OCTET_STRING_num(signer->raw_Data->Raws), 1);
  const Bytes raw = Octets(sk_ASN1_OCTET_STRING_value(signer->raw_Data->Raws, 0));
  EXPECT_EQ(raw, Msg());
  ASSERT_EQ(sk_X509_num(signer->certList), 1);
  X509 *cert = sk_X509_value(signer->certList, 0);
  EXPECT_EQ((Der<X509, i2d_X509>(cert)), *cert_);
  ASSERT_EQ(sk_SIGNATURE_INFO_num(signer->info), 1);
  const SIGNATURE_INFO *info = sk_SIGNATURE_INFO_value(signer->info, 0);
  EXPECT_EQ(ASN1_INTEGER_get(info->version), 0);
  EXPECT_EQ(X509_NAME_cmp(info->certInfo->name->issuer, X509_get_issuer_name(cert)), 0);
  EXPECT_EQ(ASN1_INTEGER_get(info->certInfo->serialNumber), 0x1234567);
  EXPECT_EQ(Oid(info->hashAlg->OID), "1.2.156.10197.1.401");
  EXPECT_EQ(Oid(info->asymAlg->OID), "1.2.156.10197.1.301.1");
  // What a relying party does: the signature inside, over the message
  // inside, for the certificate inside.
  EXPECT_TRUE(zeph_test::Verifies(*cert_, EVP_sm3(), raw, Octets(info->signature)));
  Corvex_Signature_free(corvex);

  zeph_test::WriteBytes(dir_->file("corvex.der"), der);
  std::string parsed;
  EXPECT_EQ(zeph_test::Shell("openssl asn1parse -inform DER -in '" + dir_->file("corvex.der") + "'", &parsed), 0);
  EXPECT_NE(parsed.find("1.2.156.10197.6.1.4.2.2"), std::string::npos) << parsed;
  EXPECT_EQ(parsed.find("Error"), std::string::npos) << parsed;
}

// Null asks, exact receives, shorter is refused with the length, larger
// receives nothing and hears nothing.
TEST_F(Corvex, AsymmetricCapacity) {
  const Bytes want = Pack(Msg());
  const uint32_t n = Len(want);
  struct Row {
    uint32_t capacity, status, len_after;
    bool written;
  };
  // clang-format off
  const Row rows[] = {
    {n,     1u,                   n,     true},
    {n - 1, ERR_BUFFER_TOO_SMALL, n,     false},
    {1,     ERR_BUFFER_TOO_SMALL, n,     false},
    {n + 1, 1u,                   n + 1, false},
    {4096,  1u,                   4096,  false},
  };
  // clang-format on
  for (const Row &row : rows) {
    SCOPED_TRACE(row.capacity);
    Bytes out(4096, 0xEE);
    uint32_t len = row.capacity;
    const Bytes msg = Msg();
    EXPECT_EQ(Corvex_DoSignature(msg.data(), Len(msg), cert_->data(), Len(*cert_), sig_->data(), Len(*sig_), out.data(),
                                 &len),
              row.status);
    EXPECT_EQ(len, row.len_after);
    if (row.written) {
      EXPECT_TRUE(std::equal(want.begin(), want.end(), out.begin()));
      EXPECT_EQ(out[n], 0xEE);
    } else {
      EXPECT_EQ(out, Bytes(4096, 0xEE));
    }
  }
}

TEST_F(Corvex, RefusesWhatIsNotOneCertificate) {
  Bytes trailing = *cert_;
  trailing.push_back(0);
  Bytes cut(cert_->begin(), cert_->end() - 1);
  const Bytes msg = Msg(), garbage = {0x30, 0x03, 0x02, 0x01, 0x01};
  for (const Bytes &cert : {garbage, trailing, cut}) {
    uint32_t len = 77;
    Bytes out(64, 0xEE);
    EXPECT_EQ(
        Corvex_DoSignature(msg.data(), Len(msg), cert.data(), Len(cert), sig_->data(), Len(*sig_), out.data(), &len),
        ERR_INVALID_PARAMETER);
    EXPECT_EQ(len, 77u);
    EXPECT_EQ(out, Bytes(64, 0xEE));
  }
  uint32_t len = 0;
  EXPECT_EQ(Corvex_DoSignature(msg.data(), Len(msg), cert_->data(), Len(*cert_), nullptr, 0, nullptr, &len),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(
      Corvex_DoSignature(msg.data(), Len(msg), cert_->data(), Len(*cert_), sig_->data(), Len(*sig_), nullptr, nullptr),
      ERR_INVALID_PARAMETER);
  // An empty message is still one (empty) raw data item.
  EXPECT_FALSE(Pack({}).empty());
}

}  // namespace
