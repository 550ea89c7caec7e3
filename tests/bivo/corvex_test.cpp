// Corvex signatures: the structure as OpenSSL reads it back, holding the
// message, certificate and signature it was given; the asymmetric capacity
// rule; refused inputs. The openssl tool's reading and a co-signed signature
// inside: tests/integration (cosign rows).
#include <cstring>
#include <string>

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

const Bytes kMsg = {'p', 'a', 'y', ' ', '1', '0', '0'};
uint32_t Len(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

// An SM2 certificate and openssl's signature on kMsg with its key, made once.
struct Signer {
  Bytes cert, sig;
};
const Signer &Made() {
  static const Signer made = [] {
    zeph_test::TempDir dir;
    zeph_test::WriteBytes(dir.file("msg"), kMsg);
    EXPECT_EQ(zeph_test::Shell("cd '" + dir.path().string() +
                               "' && openssl ecparam -name SM2 -genkey -noout -out k.pem && "
                               "openssl req -x509 -new -sm3 -key k.pem -subj /CN=corvex-signer -days 2 "
                               "-set_serial 0x1234567 -outform DER -out c.der && "
                               "openssl dgst -sm3 -sign k.pem -sigopt distid:1234567812345678 -out sig msg"),
              0);
    return Signer{zeph_test::ReadBytes(dir.file("c.der")), zeph_test::ReadBytes(dir.file("sig"))};
  }();
  return made;
}

uint32_t Call(const Bytes &msg, const Bytes &cert, uint8_t *out, uint32_t *len) {
  return Corvex_DoSignature(msg.data(), Len(msg), cert.data(), Len(cert), Made().sig.data(), Len(Made().sig), out, len);
}

// The packed signature, after a length query.
Bytes Pack(const Bytes &msg) {
  uint32_t len = 0;
  EXPECT_EQ(Call(msg, Made().cert, nullptr, &len), 1u);
  Bytes out(len);
  EXPECT_EQ(Call(msg, Made().cert, out.data(), &len), 1u);
  return out;
}

TEST(Corvex, DecodesToOneSignerHoldingWhatItWasGiven) {
  const Bytes der = Pack(kMsg);
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
  EXPECT_EQ(Octets(sk_ASN1_OCTET_STRING_value(signer->raw_Data->Raws, 0)), kMsg);
  ASSERT_EQ(sk_X509_num(signer->certList), 1);
  X509 *cert = sk_X509_value(signer->certList, 0);
  EXPECT_EQ((Der<X509, i2d_X509>(cert)), Made().cert);
  ASSERT_EQ(sk_SIGNATURE_INFO_num(signer->info), 1);
  const SIGNATURE_INFO *info = sk_SIGNATURE_INFO_value(signer->info, 0);
  EXPECT_EQ(ASN1_INTEGER_get(info->version), 0);
  EXPECT_EQ(X509_NAME_cmp(info->certInfo->name->issuer, X509_get_issuer_name(cert)), 0);
  EXPECT_EQ(ASN1_INTEGER_get(info->certInfo->serialNumber), 0x1234567);
  EXPECT_EQ(Oid(info->hashAlg->OID), "1.2.156.10197.1.401");
  EXPECT_EQ(Oid(info->asymAlg->OID), "1.2.156.10197.1.301.1");
  EXPECT_EQ(Octets(info->signature), Made().sig);
  Corvex_Signature_free(corvex);
}

// Null asks, exact receives, shorter is refused with the length, larger
// receives nothing and hears nothing.
TEST(Corvex, AsymmetricCapacity) {
  const Bytes want = Pack(kMsg);
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
    EXPECT_EQ(Call(kMsg, Made().cert, out.data(), &len), row.status);
    EXPECT_EQ(len, row.len_after);
    if (row.written) {
      EXPECT_TRUE(std::equal(want.begin(), want.end(), out.begin()));
      EXPECT_EQ(out[n], 0xEE);
    } else {
      EXPECT_EQ(out, Bytes(4096, 0xEE));
    }
  }
}

TEST(Corvex, RefusesWhatIsNotOneCertificate) {
  const Bytes &cert = Made().cert;
  Bytes trailing = cert;
  trailing.push_back(0);
  for (const Bytes &bad : {Bytes{0x30, 0x03, 0x02, 0x01, 0x01}, trailing, Bytes(cert.begin(), cert.end() - 1)}) {
    uint32_t len = 77;
    Bytes out(64, 0xEE);
    EXPECT_EQ(Call(kMsg, bad, out.data(), &len), ERR_INVALID_PARAMETER);
    EXPECT_EQ(len, 77u);
    EXPECT_EQ(out, Bytes(64, 0xEE));
  }
  uint32_t len = 0;
  EXPECT_EQ(Corvex_DoSignature(kMsg.data(), Len(kMsg), cert.data(), Len(cert), nullptr, 0, nullptr, &len),
            ERR_INVALID_PARAMETER);
  EXPECT_EQ(Call(kMsg, cert, nullptr, nullptr), ERR_INVALID_PARAMETER);
  // An empty message is still one (empty) raw data item.
  EXPECT_FALSE(Pack({}).empty());
}

}  // namespace
