#include "seal_test.hpp"

#include <openssl/bn.h>
#include <openssl/ecdsa.h>

#include <gtest/gtest.h>

#include "oracle.hpp"

namespace seal_test {

namespace {

constexpr char kId[] = "1234567812345678";

}  // namespace

Bytes TlvAt(const Bytes &b, size_t offset) {
  size_t len = b.at(offset + 1);
  size_t header = 2;
  if (len & 0x80) {
    const size_t n = len & 0x7F;
    len = 0;
    for (size_t i = 0; i < n; ++i) len = len << 8 | b.at(offset + 2 + i);
    header += n;
  }
  return Bytes(b.begin() + offset, b.begin() + offset + header + len);
}

std::vector<Bytes> Children(const Bytes &tlv) {
  const size_t header = tlv.at(1) & 0x80 ? 2 + (tlv[1] & 0x7F) : 2;
  std::vector<Bytes> out;
  for (size_t at = header; at < tlv.size(); at += out.back().size()) out.push_back(TlvAt(tlv, at));
  return out;
}

Bytes SesSeal() {
  const Bytes b = Sample("ses-v1-user.esl");
  const auto at = [&](size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); };
  const Bytes prop = Tlv(0x30, {at(67, 92), Tlv(0x30, {at(96 + 4, 96 + 4 + 528)}), at(628, 673)});
  return Tlv(0x30, {Tlv(0x30, {at(8, 63), prop, at(673, 16385)}), at(16385, 17004)});
}

Bytes GbSeal(const Bytes &cert_list) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const auto at = [&](size_t from, size_t to) { return Bytes(gb.begin() + from, gb.begin() + to); };
  const Bytes prop = Tlv(0x30, {at(67, 98), cert_list, Tlv(0x18, {Text("20200101000000Z")}),
                                Tlv(0x18, {Text("20200202000000Z")}), Tlv(0x18, {Text("20200303000000Z")})});
  return Tlv(0x30, {Tlv(0x30, {at(8, 63), prop, at(685, 16397)}), at(16397, gb.size())});
}

Signer::Signer() : key(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2")) {
  zeph::X509Ptr x(X509_new());
  EXPECT_TRUE(key && x);
  if (!key || !x) return;
  X509_set_version(x.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x.get()), 1);
  X509_NAME *name = X509_get_subject_name(x.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("seal signer"), -1, -1,
                             0);
  X509_set_issuer_name(x.get(), name);
  X509_gmtime_adj(X509_getm_notBefore(x.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), 86400);
  X509_set_pubkey(x.get(), key.get());
  zeph::EvpMdCtxPtr md(EVP_MD_CTX_new());
  EVP_PKEY_CTX *pctx = nullptr;
  EXPECT_EQ(EVP_DigestSignInit(md.get(), &pctx, EVP_sm3(), nullptr, key.get()), 1);
  EVP_PKEY_CTX_set1_id(pctx, kId, 16);
  EXPECT_GT(X509_sign_ctx(x.get(), md.get()), 0);
  unsigned char *der = nullptr;
  const int n = i2d_X509(x.get(), &der);
  cert.assign(der, der + n);
  OPENSSL_free(der);
}

// A value ending in 0x00 loses that octet in a GB signature's BIT STRING
// (kept encoding rule) and no longer verifies there: sign again.
Bytes Signer::Sign(const Bytes &data) const {
  Bytes sig;
  do {
    sig = zeph_test::Sm2Sign(key.get(), data);
  } while (!sig.empty() && sig.back() == 0);
  return sig;
}

Bytes Signer::Raw(const Bytes &data) const {
  const Bytes der = Sign(data);
  const unsigned char *p = der.data();
  zeph::EcdsaSigPtr sig(d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(der.size())));
  Bytes raw(64);
  BN_bn2binpad(ECDSA_SIG_get0_r(sig.get()), raw.data(), 32);
  BN_bn2binpad(ECDSA_SIG_get0_s(sig.get()), raw.data() + 32, 32);
  return raw;
}

Bytes GbTbs(uint32_t version, const Bytes &seal, const char *time, const Bytes &hash, const std::string &property) {
  return Out([&](uint8_t *out, uint32_t *len) {
    return getGBTBSSignData(version, seal.data(), seal.size(), time, 0, hash.data(), hash.size(), property.c_str(),
                            property.size(), out, len);
  });
}

Bytes GbSig(const Bytes &tbs, const Bytes &value, const Bytes &cert) {
  return Out([&](uint8_t *out, uint32_t *len) {
    return getGBSESSignature(tbs.data(), tbs.size(), value.data(), value.size(), cert.data(), cert.size(), kSm2Sm3, out,
                             len);
  });
}

Bytes SesTbs(const Bytes &seal, const Bytes &time, const Bytes &hash, const Bytes &cert) {
  return Out([&](uint8_t *out, uint32_t *len) {
    return getTBSSignData(1, seal.data(), seal.size(), time.data(), time.size(), hash.data(), hash.size(), "p", 1,
                          cert.data(), cert.size(), kSm2Sm3, out, len);
  });
}

Bytes SesSig(const Bytes &tbs, const Bytes &value) {
  return Out([&](uint8_t *out, uint32_t *len) {
    return getSESSignature(tbs.data(), tbs.size(), value.data(), value.size(), out, len);
  });
}

Bytes GbSignature(const Signer &signer, const Bytes &seal, const Bytes &hash, const char *time) {
  const Bytes tbs = GbTbs(4, seal, time, hash, "/Doc_0/Signature.xml");
  return GbSig(tbs, signer.Sign(tbs), signer.cert);
}

}  // namespace seal_test
