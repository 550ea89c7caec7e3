// Owners for OpenSSL objects, C streams and malloc'd blocks: one deleter
// template and one alias per owned type. An object has its owner from the
// moment it exists; release() only hands it out.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

namespace zeph {

template <auto Fn>
struct Free {
  template <class T>
  void operator()(T *p) const noexcept {
    if (p != nullptr) Fn(p);
  }
};

using BnPtr = std::unique_ptr<BIGNUM, Free<BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, Free<BN_CTX_free>>;
using EcGroupPtr = std::unique_ptr<EC_GROUP, Free<EC_GROUP_free>>;
using EcPointPtr = std::unique_ptr<EC_POINT, Free<EC_POINT_free>>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, Free<ECDSA_SIG_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Free<EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, Free<EVP_MD_CTX_free>>;
using EvpCipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, Free<EVP_CIPHER_CTX_free>>;
using X509Ptr = std::unique_ptr<X509, Free<X509_free>>;
using X509SigPtr = std::unique_ptr<X509_SIG, Free<X509_SIG_free>>;
using BioPtr = std::unique_ptr<BIO, Free<BIO_free_all>>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, Free<OSSL_PARAM_BLD_free>>;
using ParamPtr = std::unique_ptr<OSSL_PARAM, Free<OSSL_PARAM_free>>;

inline void CloseFile(FILE *f) noexcept { std::fclose(f); }
using FilePtr = std::unique_ptr<FILE, Free<CloseFile>>;

inline void FreeMalloc(void *p) noexcept { std::free(p); }
template <class T>
using MallocPtr = std::unique_ptr<T, Free<FreeMalloc>>;

}  // namespace zeph
