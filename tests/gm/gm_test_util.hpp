// Independent references for the GM tests: OpenSSL's EVP SM3 and SM4.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace gm_test {

using Bytes = std::vector<uint8_t>;

inline Bytes EvpSm3(const std::vector<Bytes> &parts) {
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, EVP_sm3(), nullptr);
  for (const Bytes &p : parts) EVP_DigestUpdate(ctx, p.data(), p.size());
  Bytes out(32);
  unsigned int n = 0;
  EVP_DigestFinal_ex(ctx, out.data(), &n);
  EVP_MD_CTX_free(ctx);
  return out;
}

// SM4-ECB or SM4-CBC (iv empty for ECB), with or without PKCS#7 padding,
// which is the padding rule of the library's padded modes.
inline Bytes EvpSm4(const Bytes &in, const Bytes &key, const Bytes &iv, bool encrypt, bool pad = false) {
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(ctx, iv.empty() ? EVP_sm4_ecb() : EVP_sm4_cbc(), nullptr, key.data(),
                    iv.empty() ? nullptr : iv.data(), encrypt ? 1 : 0);
  EVP_CIPHER_CTX_set_padding(ctx, pad ? 1 : 0);
  Bytes out(in.size() + 16);
  int n1 = 0, n2 = 0;
  EVP_CipherUpdate(ctx, out.data(), &n1, in.data(), static_cast<int>(in.size()));
  EVP_CipherFinal_ex(ctx, out.data() + n1, &n2);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<size_t>(n1 + n2));
  return out;
}

inline Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }

}  // namespace gm_test
