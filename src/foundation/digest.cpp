// Software digests by the library's algorithm identifiers.
#include <cstdio>
#include <vector>

#include "foundation/helpers.hpp"
#include "foundation/output.hpp"
#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_api.h"
#include "zeph_c_utils.h"

namespace {

constexpr size_t kFileChunk = 4u * 1024u * 1024u;

// Hands out a finished digest by the size-query protocol and reports the NID.
uint32_t DeliverDigest(const EVP_MD *md, const uint8_t *digest, unsigned int n, unsigned char *out,
                       uint32_t *in_out_len, int *out_nid) {
  if (out_nid != nullptr) *out_nid = EVP_MD_get_type(md);
  return zeph::PutOutput({digest, n}, out, in_out_len);
}

}  // namespace

namespace zeph {

const EVP_MD *DigestById(uint32_t digest_id) {
  switch (digest_id) {
    case ZEPH_DIGEST_SM3:
      return EVP_sm3();
    case ZEPH_DIGEST_SHA1:
      return EVP_sha1();
    case ZEPH_DIGEST_SHA256:
      return EVP_sha256();
    case ZEPH_DIGEST_SHA384:
      return EVP_sha384();
    case ZEPH_DIGEST_SHA512:
      return EVP_sha512();
    case ZEPH_DIGEST_MD5:
      return EVP_md5();
    default:
      return nullptr;
  }
}

}  // namespace zeph

extern "C" {

ZEPH_API uint32_t zeph_c_utils_digest(uint32_t algorithm, const unsigned char *data, uint32_t data_length,
                                      unsigned char *out_digest, uint32_t *in_out_digest_len, int *out_nid) {
  const EVP_MD *md = zeph::DigestById(algorithm);
  if (md == nullptr || data == nullptr || data_length == 0) return ERR_DIGEST_FAILED;
  if (in_out_digest_len == nullptr) return ERR_INVALID_PARAMETER;
  // The size is known before hashing; a length query also reports the NID.
  if (auto done = zeph::ReserveOutput(static_cast<size_t>(EVP_MD_get_size(md)), out_digest, in_out_digest_len)) {
    if (*done == 0 && out_nid != nullptr) *out_nid = EVP_MD_get_type(md);
    return *done;
  }
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (EVP_Digest(data, data_length, digest, &n, md, nullptr) != 1) return ERR_DIGEST_FAILED;
  return DeliverDigest(md, digest, n, out_digest, in_out_digest_len, out_nid);
}

ZEPH_API uint32_t zeph_c_utils_digestWithFilePath(const char *file_name, uint32_t algorithm, unsigned char *out_digest,
                                                  uint32_t *in_out_digest_len, int *out_nid) {
  const EVP_MD *md = zeph::DigestById(algorithm);
  if (md == nullptr) return ERR_DIGEST_FAILED;
  if (file_name == nullptr || in_out_digest_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    zeph::FilePtr f(std::fopen(file_name, "rb"));
    if (!f) return ERR_FILE_OPEN_FAILED;
    zeph::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    if (!ctx) return ERR_OUT_OF_MEMORY;
    if (EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) return ERR_DIGEST_FAILED;
    std::vector<uint8_t> chunk(kFileChunk);
    size_t total = 0;
    for (;;) {
      const size_t got = std::fread(chunk.data(), 1, chunk.size(), f.get());
      if (got == 0) break;
      total += got;
      if (EVP_DigestUpdate(ctx.get(), chunk.data(), got) != 1) return ERR_DIGEST_FAILED;
      if (got < chunk.size()) break;
    }
    if (std::ferror(f.get())) return ERR_FILE_OPEN_FAILED;
    if (total == 0) return ERR_DIGEST_FAILED;  // as the buffer digest treats empty input
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &n) != 1) return ERR_DIGEST_FAILED;
    return DeliverDigest(md, digest, n, out_digest, in_out_digest_len, out_nid);
  });
}

}  // extern "C"
