// Whole-file SM4-ECB encryption to "<name>.enc" and decryption to
// "<name>.dec", in 4 MiB chunks so that any file size needs one chunk buffer.
#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/owned.hpp"
#include "foundation/status_flow.hpp"
#include "gm/sm4_engine.hpp"
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

bool WriteAll(FILE *f, const unsigned char *p, size_t n) { return n == 0 || std::fwrite(p, 1, n, f) == n; }

// The library's own SM4 over the file, whole chunks at a time: the round keys
// are derived once, and the multi-block engine runs each chunk in place. The
// result is the same as OpenSSL's SM4-ECB with its block padding.
uint32_t EncryptChunks(FILE *input, FILE *output, const zeph::gm::Sm4Key &key, unsigned char *chunk) {
  for (;;) {
    const size_t got = std::fread(chunk, 1, kChunk, input);
    if (got == kChunk) {
      key.Ecb(chunk, chunk, kChunk / kBlock);
      if (!WriteAll(output, chunk, kChunk)) return ERR_FILE_WRITE_FAILED;
      continue;
    }
    if (std::ferror(input)) return ERR_FILE_OPEN_FAILED;
    // The last, short chunk (possibly empty) gains 1 to 16 bytes of padding.
    const size_t padded = got - got % kBlock + kBlock;
    std::memset(chunk + got, static_cast<int>(padded - got), padded - got);
    key.Ecb(chunk, chunk, padded / kBlock);
    return WriteAll(output, chunk, padded) ? 0 : ERR_FILE_WRITE_FAILED;
  }
}

// The last plaintext block is held back until the end of the file shows it
// carries the padding.
uint32_t DecryptChunks(FILE *input, FILE *output, const zeph::gm::Sm4Key &key, unsigned char *chunk) {
  struct HeldBlock {
    unsigned char b[kBlock];
    bool full = false;
    ~HeldBlock() { OPENSSL_cleanse(b, sizeof b); }
  } held;
  for (;;) {
    const size_t got = std::fread(chunk, 1, kChunk, input);
    if (std::ferror(input)) return ERR_FILE_OPEN_FAILED;
    if (got == 0) break;
    if (got % kBlock != 0) return ERR_ALG_UNSUPPORTED;  // not whole blocks
    key.Ecb(chunk, chunk, got / kBlock);
    if ((held.full && !WriteAll(output, held.b, kBlock)) || !WriteAll(output, chunk, got - kBlock)) {
      return ERR_FILE_WRITE_FAILED;
    }
    std::memcpy(held.b, chunk + got - kBlock, kBlock);
    held.full = true;
    if (got < kChunk) break;
  }
  // An empty file or bad padding (a wrong key, most likely) is refused.
  if (!held.full) return ERR_ALG_UNSUPPORTED;
  const unsigned pad = held.b[kBlock - 1];
  if (pad < 1 || pad > kBlock) return ERR_ALG_UNSUPPORTED;
  for (unsigned i = 2; i <= pad; ++i) {
    if (held.b[kBlock - i] != pad) return ERR_ALG_UNSUPPORTED;
  }
  return WriteAll(output, held.b, kBlock - pad) ? 0 : ERR_FILE_WRITE_FAILED;
}

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

    WipedChunk chunk(kChunk + kBlock);  // room for the padding block
    const zeph::gm::Sm4Key sm4(key, encrypt != 0);
    ZEPH_TRY(encrypt != 0 ? EncryptChunks(input.get(), output.file.get(), sm4, chunk.data.get())
                          : DecryptChunks(input.get(), output.file.get(), sm4, chunk.data.get()));
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
