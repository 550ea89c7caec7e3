// The base64 encoder every part of the library uses: the text OpenSSL's
// EVP_EncodeBlock writes (standard alphabet, '=' padding, no line breaks),
// several times faster. Seals and certificates cross the JSON interface as
// base64, so a seal read from a key spends most of its own time here.
//
// Two paths, chosen once from CPUID and capped by ZEPH_CPU like the GM
// algorithms: a portable one that looks up 12 input bits (two characters)
// at a time, and an AVX2 one that turns 24 bytes into 32 characters per step.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/helpers.hpp"
#include "gm/cpu_path.hpp"

#if ZEPH_GM_X86
#include <immintrin.h>
#endif

namespace zeph {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Every 12-bit value as its two characters.
struct PairTable {
  char pairs[4096][2];
};
constexpr PairTable MakePairTable() {
  PairTable t{};
  for (int v = 0; v < 4096; ++v) {
    t.pairs[v][0] = kAlphabet[v >> 6];
    t.pairs[v][1] = kAlphabet[v & 63];
  }
  return t;
}
constexpr PairTable kPairs = MakePairTable();

// The last one or two bytes, padded with '='.
char *EncodeTail(const uint8_t *in, size_t n, char *out) {
  if (n == 0) return out;
  const uint32_t v = uint32_t{in[0]} << 16 | (n == 2 ? uint32_t{in[1]} << 8 : 0);
  out[0] = kAlphabet[v >> 18];
  out[1] = kAlphabet[v >> 12 & 63];
  out[2] = n == 2 ? kAlphabet[v >> 6 & 63] : '=';
  out[3] = '=';
  return out + 4;
}

// Whole groups of three bytes; returns where the text ends.
char *EncodeGroups(const uint8_t *in, size_t groups, char *out) {
  for (size_t i = 0; i < groups; ++i, in += 3, out += 4) {
    const uint32_t v = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
    std::memcpy(out, kPairs.pairs[v >> 12], 2);
    std::memcpy(out + 2, kPairs.pairs[v & 0xFFF], 2);
  }
  return out;
}

size_t EncodePortable(const uint8_t *in, size_t n, char *out) {
  char *end = EncodeGroups(in, n / 3, out);
  end = EncodeTail(in + n / 3 * 3, n % 3, end);
  *end = '\0';
  return static_cast<size_t>(end - out);
}

#if ZEPH_GM_X86
ZEPH_TARGET_BEGIN("avx2")

// Where each lane's twelve bytes stand: from byte 0 of both lanes, or from
// byte 4 of the low lane (a load from four bytes before them).
inline __m256i SpreadFrom0() {
  return _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, 1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9,
                          11, 10);
}
inline __m256i SpreadFrom4() {
  return _mm256_setr_epi8(5, 4, 6, 5, 8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14, 1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7,
                          10, 9, 11, 10);
}

// 24 input bytes, twelve in each 128-bit lane where `spread_mask` finds
// them, to their 32 six-bit values, one per byte in text order.
inline __m256i SplitSixBits(__m256i in, __m256i spread_mask) {
  // Each group (a, b, c) becomes the little-endian words b a | c b, so that
  // a's and b's bits stand in the low half and b's and c's in the high half.
  const __m256i spread = _mm256_shuffle_epi8(in, spread_mask);
  // First and third values: shifted down to bits 0 and 16 by a high multiply.
  const __m256i first_third =
      _mm256_mulhi_epu16(_mm256_and_si256(spread, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
  // Second and fourth values: shifted up to bits 8 and 24 by a low multiply.
  const __m256i second_fourth =
      _mm256_mullo_epi16(_mm256_and_si256(spread, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
  return _mm256_or_si256(first_third, second_fourth);
}

// Six-bit values to characters: each value selects the offset of its range
// of the alphabet ('A'..'Z', 'a'..'z', '0'..'9', '+', '/') and adds it.
inline __m256i ToAlphabet(__m256i values) {
  // 0..51 give 0, 52..61 give 1..10, 62 gives 11, 63 gives 12 ...
  __m256i range = _mm256_subs_epu8(values, _mm256_set1_epi8(51));
  // ... and 0..25 are told from 26..51 by giving them 13.
  const __m256i upper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
  range = _mm256_or_si256(range, _mm256_and_si256(upper, _mm256_set1_epi8(13)));
  const __m256i offsets = _mm256_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                           '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0,
                                           'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                           '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  return _mm256_add_epi8(values, _mm256_shuffle_epi8(offsets, range));
}

size_t EncodeAvx2(const uint8_t *in, size_t n, char *out) {
  size_t done = 0;
  char *to = out;
  // The first step reads 28 bytes (two 16-byte loads, twelve used from
  // each); the others read 32 from four bytes before the next 24, which the
  // spread finds at 4..15 of the low lane and 0..11 of the high one.
  if (n >= 28) {
    const __m256i block =
        _mm256_loadu2_m128i(reinterpret_cast<const __m128i *>(in + 12), reinterpret_cast<const __m128i *>(in));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(to), ToAlphabet(SplitSixBits(block, SpreadFrom0())));
    done = 24, to += 32;
  }
  for (; n - done >= 28; done += 24, to += 32) {
    const __m256i block = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + done - 4));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(to), ToAlphabet(SplitSixBits(block, SpreadFrom4())));
  }
  return static_cast<size_t>(to - out) + EncodePortable(in + done, n - done, to);
}

ZEPH_TARGET_END
#endif

constexpr Base64Encoder kPortable{"portable", EncodePortable};
#if ZEPH_GM_X86
constexpr Base64Encoder kAvx2{"avx2", EncodeAvx2};
#endif

const Base64Encoder *Select() {
#if ZEPH_GM_X86
  const gm::CpuFeatures cpu = gm::DetectCpuFeatures();
  // ZEPH_CPU=portable (or aesni) keeps the portable path.
  if (cpu.avx2 && gm::ChooseCpuPath(cpu, std::getenv("ZEPH_CPU")) >= gm::CpuPath::kAvx2) return &kAvx2;
#endif
  return &kPortable;
}

// Two threads racing on first use both store the same entry.
std::atomic<const Base64Encoder *> g_encoder{nullptr};

}  // namespace

const Base64Encoder &ActiveBase64Encoder() {
  const Base64Encoder *e = g_encoder.load(std::memory_order_acquire);
  if (e == nullptr) {
    e = Select();
    g_encoder.store(e, std::memory_order_release);
  }
  return *e;
}

void ReselectBase64ForTesting() { g_encoder.store(Select(), std::memory_order_release); }

std::span<const Base64Encoder *const> Base64EncodersOnThisCpu() {
#if ZEPH_GM_X86
  static const Base64Encoder *const kAll[] = {&kPortable, &kAvx2};
  static const size_t count = gm::DetectCpuFeatures().avx2 ? 2 : 1;
  return {kAll, count};
#else
  static const Base64Encoder *const kAll[] = {&kPortable};
  return kAll;
#endif
}

size_t Base64Encode(std::span<const uint8_t> bytes, char *out) {
  return ActiveBase64Encoder().encode(bytes.data(), bytes.size(), out);
}

std::string Base64Text(std::span<const uint8_t> bytes) {
  std::string text(Base64Length(bytes.size()), '\0');
  // The encoder writes a terminator after the text: std::string keeps room for it.
  Base64Encode(bytes, text.data());
  return text;
}

}  // namespace zeph
