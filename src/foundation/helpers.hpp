// Foundation helpers that other modules of the library call but that are not
// part of the exported interface (hidden by the build's default visibility).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include <openssl/evp.h>

#include "zeph_c_status.h"

namespace zeph {

// Decodes a NUL-terminated base64 text into a new malloc'd buffer of
// (length / 4) * 3 bytes and returns the decoded length less one byte per
// trailing '=' (three or more trailing '=' fail). An empty text gives 0 and
// no buffer; failure gives -1 and no buffer. The caller frees *out_buffer.
int Base64Decode(const char *text, unsigned char **out_buffer);

// The length of the base64 text of n bytes, without a terminator.
constexpr size_t Base64Length(size_t n) { return (n + 2) / 3 * 4; }

// Writes the base64 text of `bytes` exactly as EVP_EncodeBlock does ('='
// padding, no line breaks) and a terminator after it into `out`, which holds
// Base64Length + 1 bytes; returns the text's length. No length limit.
size_t Base64Encode(std::span<const uint8_t> bytes, char *out);
// The same as a string (empty for no bytes).
std::string Base64Text(std::span<const uint8_t> bytes);

// An encoder path: portable, or AVX2 where CPUID reports it. The process
// uses one, chosen on first use; ZEPH_CPU=portable (or aesni) keeps the
// portable path.
struct Base64Encoder {
  const char *name;
  size_t (*encode)(const uint8_t *in, size_t n, char *out);  // as Base64Encode
};
const Base64Encoder &ActiveBase64Encoder();
// Every path this CPU runs, portable first, so tests can compare them.
std::span<const Base64Encoder *const> Base64EncodersOnThisCpu();
// Reads ZEPH_CPU again. Not for use while other threads encode.
void ReselectBase64ForTesting();

// How many times FreeLibrary has run in this process. Entry points looked up
// before an unload may belong to a library that is gone.
uint64_t LibraryUnloads();

// PKCS#5 padding of `length` bytes up to `out_size` bytes: out_size - length
// pad bytes, each holding that count, after the data (front == 0) or before
// it. Returns 0, or -1 when out_size does not exceed length or the count does
// not fit a byte. `out` may alias `data`.
int P5Pad(const unsigned char *data, size_t length, unsigned char *out, size_t out_size, int front);

// Checks the padding at the end (front == 0) or the start of the data:
// 0, or ERR_PADDING_INVALID. A pad value of 0 passes and removes nothing.
uint32_t P5PaddingCheck(const unsigned char *data, size_t length, int front);

// Checks the padding and copies the data without it into `out`, which holds
// at least `length` bytes (it may alias `data`); *out_len gets the unpadded
// length. 0, or ERR_PADDING_INVALID.
uint32_t P5Unpad(const unsigned char *data, size_t length, unsigned char *out, size_t *out_len, int front);

// The OpenSSL digest of a digest identifier (ZEPH_DIGEST_*), or null for an
// identifier the library does not know.
const EVP_MD *DigestById(uint32_t digest_id);

}  // namespace zeph
