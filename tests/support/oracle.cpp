#include "oracle.hpp"

#include <openssl/ecdsa.h>

#include "foundation/owned.hpp"

namespace zeph_test {

namespace {

constexpr char kDefaultId[] = "1234567812345678";

zeph::X509Ptr Parse(const Bytes &der) {
  const unsigned char *p = der.data();
  return zeph::X509Ptr(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}

}  // namespace

Bytes Digest(const EVP_MD *md, const std::vector<Bytes> &parts) {
  zeph::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  EVP_DigestInit_ex(ctx.get(), md, nullptr);
  for (const Bytes &p : parts) EVP_DigestUpdate(ctx.get(), p.data(), p.size());
  Bytes out(EVP_MD_get_size(md));
  EVP_DigestFinal_ex(ctx.get(), out.data(), nullptr);
  return out;
}

Bytes Sm4Encrypt(Sm4Mode mode, bool padding, const uint8_t *key16, const Bytes &iv, const Bytes &in) {
  const EVP_CIPHER *cipher = mode == Sm4Mode::kEcb   ? EVP_sm4_ecb()
                             : mode == Sm4Mode::kCbc ? EVP_sm4_cbc()
                             : mode == Sm4Mode::kCfb ? EVP_sm4_cfb128()
                                                     : EVP_sm4_ofb();
  zeph::EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, key16, mode == Sm4Mode::kEcb ? nullptr : iv.data());
  EVP_CIPHER_CTX_set_padding(ctx.get(), padding ? 1 : 0);
  Bytes out(in.size() + 16);
  int n1 = 0, n2 = 0;
  EVP_EncryptUpdate(ctx.get(), out.data(), &n1, in.data(), static_cast<int>(in.size()));
  EVP_EncryptFinal_ex(ctx.get(), out.data() + n1, &n2);
  out.resize(static_cast<size_t>(n1 + n2));
  return out;
}

std::string Base64(const Bytes &bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  out.resize(static_cast<size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), bytes.data(), static_cast<int>(bytes.size()))));
  return out;
}

Bytes FromBase64(const std::string &text) {
  Bytes out(text.size() / 4 * 3 + 3);
  const int n =
      EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  const size_t pads = text.size() >= 2 ? (text.back() == '=') + (text[text.size() - 2] == '=') : 0;
  out.resize(n < 0 ? 0 : static_cast<size_t>(n) - pads);
  return out;
}

bool Verifies(const Bytes &cert_der, const EVP_MD *md, const Bytes &data, const Bytes &sig) {
  const zeph::X509Ptr cert = Parse(cert_der);
  EVP_PKEY *key = cert ? X509_get0_pubkey(cert.get()) : nullptr;
  if (key == nullptr) return false;
  const bool sm2 = EVP_PKEY_is_a(key, "SM2");
  // The digest context borrows pctx, so pctx outlives it.
  zeph::EvpPkeyCtxPtr pctx(EVP_PKEY_CTX_new(key, nullptr));
  zeph::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (sm2) {
    EVP_PKEY_CTX_set1_id(pctx.get(), kDefaultId, sizeof kDefaultId - 1);
    EVP_MD_CTX_set_pkey_ctx(ctx.get(), pctx.get());
  }
  return EVP_DigestVerifyInit(ctx.get(), nullptr, sm2 ? EVP_sm3() : md, nullptr, key) == 1 &&
         EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), data.data(), data.size()) == 1;
}

Bytes SignatureDer(const uint8_t *r, const uint8_t *s) {
  ECDSA_SIG *sig = ECDSA_SIG_new();
  ECDSA_SIG_set0(sig, BN_bin2bn(r, 32, nullptr), BN_bin2bn(s, 32, nullptr));
  unsigned char *der = nullptr;
  const int n = i2d_ECDSA_SIG(sig, &der);
  Bytes out(der, der + (n > 0 ? n : 0));
  OPENSSL_free(der);
  ECDSA_SIG_free(sig);
  return out;
}

Bytes Sm2Sign(EVP_PKEY *key, const Bytes &data, const std::string &id) {
  zeph::EvpMdCtxPtr md(EVP_MD_CTX_new());
  EVP_PKEY_CTX *pctx = nullptr;  // owned by md
  size_t n = 0;
  if (!md || EVP_DigestSignInit(md.get(), &pctx, EVP_sm3(), nullptr, key) != 1 ||
      EVP_PKEY_CTX_set1_id(pctx, id.data(), id.size()) != 1 ||
      EVP_DigestSign(md.get(), nullptr, &n, data.data(), data.size()) != 1)
    return {};
  Bytes sig(n);
  if (EVP_DigestSign(md.get(), sig.data(), &n, data.data(), data.size()) != 1) return {};
  sig.resize(n);
  return sig;
}

Bytes Encrypt(EVP_PKEY *key, const Bytes &plain, int rsa_padding) {
  zeph::EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
  size_t n = 0;
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1) return {};
  if (EVP_PKEY_is_a(key, "RSA")) EVP_PKEY_CTX_set_rsa_padding(ctx.get(), rsa_padding);
  if (EVP_PKEY_encrypt(ctx.get(), nullptr, &n, plain.data(), plain.size()) != 1) return {};
  Bytes out(n);
  if (EVP_PKEY_encrypt(ctx.get(), out.data(), &n, plain.data(), plain.size()) != 1) return {};
  out.resize(n);
  return out;
}

Bytes Encrypt(const Bytes &cert_der, const Bytes &plain, int rsa_padding) {
  const zeph::X509Ptr cert = Parse(cert_der);
  return cert ? Encrypt(X509_get0_pubkey(cert.get()), plain, rsa_padding) : Bytes{};
}

}  // namespace zeph_test
