// Whole-file SM4-ECB encryption to "<name>.enc" and decryption to
// "<name>.dec", in 4 MiB chunks so that any file size needs two chunk buffers.
#include <cstdio>
#include <string>

#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

constexpr size_t kChunk = 4u * 1024u * 1024u;
constexpr size_t kBlock = 16;

// A chunk buffer that may hold plaintext: wiped before release.
struct WipedChunk {
  explicit WipedChunk(size_t n) : data(new unsigned char[n]), size(n) {}
  ~WipedChunk() { OPENSSL_cleanse(data.get(), size); }
  std::unique_ptr<unsigned char[]> data;
  size_t size;
};

// The output file exists only while the run may still succeed: a failed run
// removes what it wrote, a successful one keeps it.
struct OutputFile {
  explicit OutputFile(std::string path) : name(std::move(path)) {}
  ~OutputFile() {
    file.reset();
    if (created && !keep) std::remove(name.c_str());
  }
  std::string name;
  zeph::FilePtr file;
  bool created = false;
  bool keep = false;
};

uint32_t TransformFile(int encrypt, const char *file_name, const unsigned char *key, uint32_t key_length) {
  if (file_name == nullptr || file_name[0] == '\0' || key == nullptr || key_length == 0) {
    return ERR_INVALID_PARAMETER;
  }
  if (key_length != kBlock) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    OutputFile output(std::string(file_name) + (encrypt != 0 ? ".enc" : ".dec"));
    // Never overwrite: an output that can already be opened stops the run.
    if (zeph::FilePtr existing{std::fopen(output.name.c_str(), "rb")}) return ERR_FILE_OPEN_FAILED;

    zeph::FilePtr input(std::fopen(file_name, "rb"));
    if (!input) return ERR_FILE_OPEN_FAILED;
    // "x": created here or not at all, even if another process races us.
    output.file.reset(std::fopen(output.name.c_str(), "wbx"));
    if (!output.file) return ERR_FILE_OPEN_FAILED;
    output.created = true;

    WipedChunk in(kChunk);
    WipedChunk out(kChunk + kBlock);  // an update may release one held-back block
    zeph::EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx) return ERR_OUT_OF_MEMORY;
    // OpenSSL's own block padding stays on: the file is padded as a whole.
    if (EVP_CipherInit_ex(ctx.get(), EVP_sm4_ecb(), nullptr, key, nullptr, encrypt) != 1) {
      return ERR_ALG_UNSUPPORTED;
    }
    for (;;) {
      const size_t got = std::fread(in.data.get(), 1, kChunk, input.get());
      if (got == 0) break;
      int produced = 0;
      if (EVP_CipherUpdate(ctx.get(), out.data.get(), &produced, in.data.get(), static_cast<int>(got)) != 1) {
        return ERR_ALG_UNSUPPORTED;
      }
      const auto n = static_cast<size_t>(produced);
      if (std::fwrite(out.data.get(), 1, n, output.file.get()) != n) return ERR_FILE_WRITE_FAILED;
      if (got < kChunk) break;
    }
    if (std::ferror(input.get())) return ERR_FILE_OPEN_FAILED;
    int produced = 0;
    if (EVP_CipherFinal_ex(ctx.get(), out.data.get(), &produced) != 1) return ERR_ALG_UNSUPPORTED;
    const auto n = static_cast<size_t>(produced);
    if (std::fwrite(out.data.get(), 1, n, output.file.get()) != n) return ERR_FILE_WRITE_FAILED;
    // Buffered bytes that fail to reach the file are a short write too.
    if (std::fclose(output.file.release()) != 0) return ERR_FILE_WRITE_FAILED;
    output.keep = true;
    return 0;
  });
}

}  // namespace

extern "C" {

ZEPH_API uint32_t zeph_c_utils_encryptWithFilePath(const char *file_name, const unsigned char *reserved,
                                                   uint32_t reserved_length, const unsigned char *key,
                                                   uint32_t key_length) {
  return TransformFile(1, file_name, key, key_length);
}

ZEPH_API uint32_t zeph_c_utils_decryptWithFilePath(const char *file_name, const unsigned char *reserved,
                                                   uint32_t reserved_length, const unsigned char *key,
                                                   uint32_t key_length) {
  return TransformFile(0, file_name, key, key_length);
}

}  // extern "C"
