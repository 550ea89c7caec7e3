// Table-free SM4 over many blocks at once, generic over a vector type.
//
// Each instruction-set unit (sm4_x86_*.cpp) includes this header last, inside
// its target region, and instantiates it with its own vector type. The
// anonymous namespace keeps every instantiation in the unit that compiled it,
// so code built for one instruction set is never linked in place of another's.
//
// A vector type V has registers R of V::kBlocks 16-byte blocks and offers
// Load, Store (unaligned), Splat16 (a 16-byte pattern in every 128-bit lane),
// Splat32, Low32 (the first word), Xor, And, Shr4 (a right shift by 4 within
// 16- or 32-bit lanes), Shuffle (PSHUFB within each 128-bit lane) and
// Transpose (4x4 32-bit words within each 128-bit lane, its own inverse). An
// AES vector type adds SubBytes (AESENCLAST with a zero key), a GFNI one Sbox
// and Rotl<n> on 32-bit lanes. Opaque returns its argument through an empty
// asm statement, so that the compiler keeps a value as computed.
//
// No round reads a table and nothing branches on key or data: the blocks go
// through the same instructions whatever their values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <openssl/crypto.h>

#include "gm/gm_internal.hpp"
#include "gm/sm4_engine.hpp"
#include "gm/sm4_internal.hpp"
#include "gm/sm4_iso.hpp"

namespace zeph::gm {
namespace {

// The S-box through AESENCLAST, state words in the mapped domain of
// sm4_iso.hpp and in memory byte order.
template <class V>
struct AesRound {
  using R = typename V::R;
  struct Parts {  // a ^ b ^ c, a ready first
    R a, b, c;
  };
  struct Map {
    R lo, hi;
  };

  R nib, rot0, rot1, rot2, rot3, word_rot1, word_rot2, word_rot3;
  Map uv, vw, uw, enter, leave, pre, post;

  AesRound()
      : nib(V::Splat32(0x0F0F0F0F)),
        rot0(V::Splat16(sm4iso::kRot0.idx)),
        rot1(V::Splat16(sm4iso::kRot1.idx)),
        rot2(V::Splat16(sm4iso::kRot2.idx)),
        rot3(V::Splat16(sm4iso::kRot3.idx)),
        word_rot1(V::Splat16(sm4iso::kWordRot1.idx)),
        word_rot2(V::Splat16(sm4iso::kWordRot2.idx)),
        word_rot3(V::Splat16(sm4iso::kWordRot3.idx)),
        uv(MapOf(sm4iso::kTermUV)),
        vw(MapOf(sm4iso::kTermVW)),
        uw(MapOf(sm4iso::kTermUW)),
        enter(MapOf(sm4iso::kEnter)),
        leave(MapOf(sm4iso::kLeave)),
        pre(MapOf(sm4iso::kPreNibbles)),
        post(MapOf(sm4iso::kPostNibbles)) {}

  static Map MapOf(const sm4iso::Nibbles &t) { return {V::Splat16(t.lo), V::Splat16(t.hi)}; }
  R Apply(const Map &m, R x) const {
    return V::Xor(V::Shuffle(m.lo, V::And(x, nib)), V::Shuffle(m.hi, V::And(V::Shr4(x), nib)));
  }

  // Lanes hold words in memory byte order.
  static uint32_t PrepareKey(uint32_t rk) { return __builtin_bswap32(sm4iso::MappedRoundKey(rk)); }

  R Enter(R x) const { return Apply(enter, x); }
  R Leave(R x) const { return Apply(leave, x); }
  R EnterWord(const uint8_t *p) const {
    uint32_t w;
    std::memcpy(&w, p, 4);
    return Apply(enter, V::Splat32(w));
  }
  void LeaveWord(R x, uint8_t *p) const {
    const uint32_t w = V::Low32(Apply(leave, x));
    std::memcpy(p, &w, 4);
  }

  // The S-box on each byte of one plain word (the key schedule). All four
  // columns are equal, so ShiftRows changes nothing.
  uint32_t Tau(uint32_t x) const { return V::Low32(Apply(post, V::SubBytes(Apply(pre, V::Splat32(x))))); }

  // M(L(S(x))) from the mapped S-box input, as three parts whose XOR it is.
  // kSplat: every word of the register is the same (one block at a time), so
  // ShiftRows needs no undoing.
  template <bool kSplat>
  Parts Round(R x) const {
    const R z = V::SubBytes(x);
    const R lo = V::And(z, nib), hi = V::And(V::Shr4(z), nib);
    const R t_uv = V::Xor(V::Shuffle(uv.lo, lo), V::Shuffle(uv.hi, hi));
    const R t_vw = V::Xor(V::Shuffle(vw.lo, lo), V::Shuffle(vw.hi, hi));
    if constexpr (kSplat) {  // latency counts: a lookup of its own
      const R t_uw = V::Xor(V::Shuffle(uw.lo, lo), V::Shuffle(uw.hi, hi));
      return {t_uv, V::Shuffle(t_vw, word_rot1), V::Xor(V::Shuffle(t_vw, word_rot2), V::Shuffle(t_uw, word_rot3))};
    } else {  // throughput counts: u^w = (u^v) ^ (v^w), two lookups fewer
      const R t_uw = V::Xor(t_uv, t_vw);
      return {V::Shuffle(t_uv, rot0), V::Shuffle(t_vw, rot1), V::Xor(V::Shuffle(t_vw, rot2), V::Shuffle(t_uw, rot3))};
    }
  }
};

// The S-box through GF2P8AFFINE(INV)QB, state words as 32-bit integers.
template <class V>
struct GfniRound {
  using R = typename V::R;
  struct Parts {  // a ^ b ^ c, a ready first
    R a, b, c;
  };

  R bswap;
  GfniRound() : bswap(V::Splat16(sm4iso::kByteSwap32.idx)) {}

  static uint32_t PrepareKey(uint32_t rk) { return rk; }

  R Enter(R x) const { return V::Shuffle(x, bswap); }
  R Leave(R x) const { return V::Shuffle(x, bswap); }
  R EnterWord(const uint8_t *p) const { return V::Splat32(load_u32_be(p)); }
  void LeaveWord(R x, uint8_t *p) const { store_u32_be(p, V::Low32(x)); }
  uint32_t Tau(uint32_t x) const { return V::Low32(V::Sbox(V::Splat32(x))); }

  // L(s) = s ^ (s <<< 24) ^ ((s ^ (s <<< 8) ^ (s <<< 16)) <<< 2), in three parts.
  template <bool kSplat>
  Parts Round(R x) const {
    const R s = V::Sbox(x);
    const R t = V::Xor(V::Xor(s, V::template Rotl<8>(s)), V::template Rotl<16>(s));
    return {s, V::template Rotl<24>(s), V::template Rotl<2>(t)};
  }
};

template <class V, class P>
[[gnu::always_inline]] inline typename V::R T(const P &p, typename V::R x) {
  const auto parts = p.template Round<false>(x);
  return V::Xor(V::Xor(parts.a, parts.b), parts.c);
}

// 32 rounds on G groups of four state registers. The small loops here are
// unrolled by force: only then do the state arrays live in registers.
template <class V, class P, int G>
[[gnu::always_inline]] inline void Rounds(const P &p, const uint32_t *rk, typename V::R (&s)[G][4]) {
  using R = typename V::R;
  for (int i = 0; i < 32; i += 4) {
    const R k0 = V::Splat32(rk[i]), k1 = V::Splat32(rk[i + 1]), k2 = V::Splat32(rk[i + 2]), k3 = V::Splat32(rk[i + 3]);
    // The word written by the previous round enters last: it is the one the
    // round waits for.
#pragma GCC unroll 8
    for (int g = 0; g < G; ++g)
      s[g][0] = V::Xor(s[g][0], T<V>(p, V::Xor(V::Xor(V::Xor(s[g][1], s[g][2]), k0), s[g][3])));
#pragma GCC unroll 8
    for (int g = 0; g < G; ++g)
      s[g][1] = V::Xor(s[g][1], T<V>(p, V::Xor(V::Xor(V::Xor(s[g][2], s[g][3]), k1), s[g][0])));
#pragma GCC unroll 8
    for (int g = 0; g < G; ++g)
      s[g][2] = V::Xor(s[g][2], T<V>(p, V::Xor(V::Xor(V::Xor(s[g][3], s[g][0]), k2), s[g][1])));
#pragma GCC unroll 8
    for (int g = 0; g < G; ++g)
      s[g][3] = V::Xor(s[g][3], T<V>(p, V::Xor(V::Xor(V::Xor(s[g][0], s[g][1]), k3), s[g][2])));
  }
}

// 32 rounds on one block, each word in every lane of its register. Only
// latency counts here, so the next round's S-box input is formed from the
// round output's parts directly, beside the new state word:
//   x(i+1) = (X(i+2) ^ X(i+3) ^ rk(i+1) ^ X(i)) ^ T(x(i)).
template <class V, class P>
[[gnu::always_inline]] inline void SplatRounds(const P &p, const uint32_t *rk, typename V::R (&s)[4]) {
  using R = typename V::R;
  R x = V::Xor(V::Xor(V::Xor(s[1], s[2]), V::Splat32(rk[0])), s[3]);
  for (int i = 0; i < 32; i += 4) {
#pragma GCC unroll 4
    for (int j = 0; j < 4; ++j) {
      const int r = i + j;
      // Opaque to the compiler, which would otherwise spread it over the
      // chain again.
      const R next =
          V::Opaque(r == 31 ? x : V::Xor(V::Xor(V::Xor(s[(j + 2) & 3], s[(j + 3) & 3]), V::Splat32(rk[r + 1])), s[j]));
      const auto parts = p.template Round<true>(x);
      s[j] = V::Xor(V::Xor(V::Xor(s[j], parts.a), parts.b), parts.c);
      x = V::Xor(V::Xor(V::Opaque(V::Xor(next, parts.a)), parts.b), V::Opaque(parts.c));
    }
  }
}

template <class V>
inline constexpr size_t kStride = 16 * V::kBlocks;  // bytes per register
template <class V>
inline constexpr size_t kGroupBlocks = 4 * V::kBlocks;

// Encrypts or decrypts G groups in place in registers: in, 16 * G *
// kGroupBlocks bytes, comes back in block order, output words reversed.
template <class V, class P, int G>
[[gnu::always_inline]] inline void CryptGroups(const P &p, const uint32_t *rk, const uint8_t *in,
                                               typename V::R (&out)[G][4]) {
  typename V::R s[G][4];
#pragma GCC unroll 8
  for (int g = 0; g < G; ++g) {
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) s[g][k] = V::Load(in + (4 * g + k) * kStride<V>);
    V::Transpose(s[g][0], s[g][1], s[g][2], s[g][3]);
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) s[g][k] = p.Enter(s[g][k]);
  }
  Rounds<V, P, G>(p, rk, s);
#pragma GCC unroll 8
  for (int g = 0; g < G; ++g) {
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) out[g][k] = p.Leave(s[g][3 - k]);
    V::Transpose(out[g][0], out[g][1], out[g][2], out[g][3]);
  }
}

template <class V, class P, int G>
void EcbGroups(const P &p, const uint32_t *rk, const uint8_t *in, uint8_t *out) {
  typename V::R r[G][4];
  CryptGroups<V, P, G>(p, rk, in, r);
#pragma GCC unroll 8
  for (int g = 0; g < G; ++g) {
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) V::Store(out + (4 * g + k) * kStride<V>, r[g][k]);
  }
}

// chain: the ciphertext block before in[0]; updated to the last one of in
// before out (which may be in) is written.
template <class V, class P, int G>
void CbcDecryptGroups(const P &p, const uint32_t *rk, const uint8_t *in, uint8_t *out, uint8_t chain[16]) {
  using R = typename V::R;
  R r[G][4], prev[G][4];
  CryptGroups<V, P, G>(p, rk, in, r);
  uint8_t head[kStride<V>];
  std::memcpy(head, chain, 16);
  if constexpr (16 < kStride<V>) std::memcpy(head + 16, in, kStride<V> - 16);
#pragma GCC unroll 8
  for (int g = 0; g < G; ++g) {
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) {
      const size_t at = (4 * g + k) * kStride<V>;
      prev[g][k] = at == 0 ? V::Load(head) : V::Load(in + at - 16);
    }
  }
  std::memcpy(chain, in + G * kGroupBlocks<V> * 16 - 16, 16);
#pragma GCC unroll 8
  for (int g = 0; g < G; ++g) {
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) V::Store(out + (4 * g + k) * kStride<V>, V::Xor(r[g][k], prev[g][k]));
  }
}

template <class V, class P>
struct EcbStep {
  const P &p;
  const uint32_t *rk;
  template <int G>
  void Run(const uint8_t *in, uint8_t *out) const {
    EcbGroups<V, P, G>(p, rk, in, out);
  }
};

template <class V, class P>
struct CbcDecryptStep {
  const P &p;
  const uint32_t *rk;
  uint8_t *chain;
  template <int G>
  void Run(const uint8_t *in, uint8_t *out) const {
    CbcDecryptGroups<V, P, G>(p, rk, in, out, chain);
  }
};

// kGroups groups at a time while the input lasts (independent groups keep the
// pipeline full while each waits on its own rounds), then two, then one, then
// the last blocks through a zero-padded group on the stack.
template <class V, int kGroups, class Step>
void ForEachGroup(const Step &step, const uint8_t *in, uint8_t *out, size_t n) {
  constexpr size_t kBlocks = kGroupBlocks<V>;
  for (; n >= kGroups * kBlocks; n -= kGroups * kBlocks, in += 16 * kGroups * kBlocks, out += 16 * kGroups * kBlocks) {
    step.template Run<kGroups>(in, out);
  }
  if constexpr (kGroups > 2) {
    for (; n >= 2 * kBlocks; n -= 2 * kBlocks, in += 32 * kBlocks, out += 32 * kBlocks) step.template Run<2>(in, out);
  }
  for (; n >= kBlocks; n -= kBlocks, in += 16 * kBlocks, out += 16 * kBlocks) step.template Run<1>(in, out);
  if (n != 0) {
    uint8_t buf[16 * kBlocks] = {};
    std::memcpy(buf, in, 16 * n);
    step.template Run<1>(buf, buf);
    std::memcpy(out, buf, 16 * n);
    OPENSSL_cleanse(buf, sizeof buf);
  }
}

template <class V, class P, int kGroups>
void Ecb(const uint32_t rk[32], const uint8_t *in, uint8_t *out, size_t n) {
  const P p;
  ForEachGroup<V, kGroups>(EcbStep<V, P>{p, rk}, in, out, n);
}

template <class V, class P, int kGroups>
void CbcDecrypt(const uint32_t rk[32], const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t n) {
  const P p;
  uint8_t chain[16];
  std::memcpy(chain, iv, 16);
  ForEachGroup<V, kGroups>(CbcDecryptStep<V, P>{p, rk, chain}, in, out, n);
  OPENSSL_cleanse(chain, sizeof chain);
}

// CBC encryption is serial: one block at a time, each word in every lane of
// its own register, the chaining value kept in the engine's domain.
template <class V, class P>
void CbcEncrypt(const uint32_t rk[32], const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t n) {
  using R = typename V::R;
  const P p;
  R c[4];
#pragma GCC unroll 4
  for (int k = 0; k < 4; ++k) c[k] = p.EnterWord(iv + 4 * k);
  for (; n != 0; --n, in += 16, out += 16) {
    R s[4];
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) s[k] = V::Xor(p.EnterWord(in + 4 * k), c[k]);
    SplatRounds<V>(p, rk, s);
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) {
      c[k] = s[3 - k];
      p.LeaveWord(c[k], out + 4 * k);
    }
  }
}

template <class P>
struct TauOf {
  const P &p;
  uint32_t operator()(uint32_t x) const { return p.Tau(x); }
};

template <class V, class P>
void Schedule(const uint8_t key[16], bool encrypt, uint32_t rk[32]) {
  const P p;
  uint32_t plain[32];
  ExpandSm4Key(key, plain, TauOf<P>{p});
  for (int i = 0; i < 32; ++i) rk[i] = P::PrepareKey(plain[encrypt ? i : 31 - i]);
  OPENSSL_cleanse(plain, sizeof plain);
}

template <class V, class P, int kGroups>
constexpr Sm4Engine MakeSm4Engine(const char *name) {
  return {name, &Schedule<V, P>, &Ecb<V, P, kGroups>, &CbcEncrypt<V, P>, &CbcDecrypt<V, P, kGroups>};
}

}  // namespace
}  // namespace zeph::gm
