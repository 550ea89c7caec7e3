// Montgomery multiplication and squaring modulo the SM2 prime p and the group
// order n for x86-64 with BMI2 and ADX (System V calling convention).
//
// The 512-bit product is formed with mulx over two independent carry chains
// (adcx, adox), then its low half is reduced one word at a time in a window
// of four words that never overflows, and the high half is added. For p the
// step needs no multiplication: p ≡ −1 mod 2^64 makes the multiplier the low
// word m itself, and m·p / 2^64 is (m, 0, 0, m) − (m·2^32, m/2^32, m·2^32,
// m/2^32). For n the multiplier is m = w0·n0 and m·n is added with mulx.
//
// Memory is touched only at fixed offsets and the final subtraction of the
// modulus is a cmov, so the code runs in the same time for every input.
//
// Also here: the constant-time table scan with AVX2.
#include "gm/sm2_field.hpp"

#if defined(ZEPH_SM2_HAVE_ADX)

#include <immintrin.h>

namespace zeph::gm::sm2::fp {
namespace {

template <int W>
__attribute__((target("avx2"))) void Scan(uint64_t *out, const uint64_t *table, int n, uint64_t idx) {
  constexpr int kVectors = W / 4;
  __m256i acc[kVectors];
  for (__m256i &v : acc) v = _mm256_setzero_si256();
  const __m256i want = _mm256_set1_epi64x(static_cast<long long>(idx)), one = _mm256_set1_epi64x(1);
  __m256i index = one;
  for (int j = 0; j < n; ++j, table += W) {
    const __m256i mask = _mm256_cmpeq_epi64(index, want);
    for (int v = 0; v < kVectors; ++v) {
      const __m256i e = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(table + 4 * v));
      acc[v] = _mm256_or_si256(acc[v], _mm256_and_si256(e, mask));
    }
    index = _mm256_add_epi64(index, one);
  }
  for (int v = 0; v < kVectors; ++v) _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 4 * v), acc[v]);
}

}  // namespace

void ScanAvx2(uint64_t *out, const uint64_t *table, int n, int words, uint64_t idx) {
  if (words == 8) {
    Scan<8>(out, table, n, idx);
  } else {
    Scan<12>(out, table, n, idx);
  }
}

}  // namespace zeph::gm::sm2::fp

// Registers: t0..t7 = r8..r15, rbx and rbp scratch, rax zero, rdx the mulx
// multiplier, rsi = a, rcx = b, rdi = r.
__asm__(R"(
.pushsection .rodata
.p2align 5
.Lzeph_sm2_n:
  .quad 0x53BBF40939D54123, 0x7203DF6B21C6052B, 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFEFFFFFFFF
.Lzeph_sm2_p:
  .quad 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFF00000000, 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFEFFFFFFFF
.Lzeph_sm2_n0:
  .quad 0x327F9E8872350975
.popsection

.pushsection .text

.macro ZEPH_SM2_ENTER name
.p2align 5
.globl \name
.hidden \name
.type \name, @function
\name:
  .cfi_startproc
  push %rbx
  .cfi_adjust_cfa_offset 8
  .cfi_offset %rbx, -16
  push %rbp
  .cfi_adjust_cfa_offset 8
  .cfi_offset %rbp, -24
  push %r12
  .cfi_adjust_cfa_offset 8
  .cfi_offset %r12, -32
  push %r13
  .cfi_adjust_cfa_offset 8
  .cfi_offset %r13, -40
  push %r14
  .cfi_adjust_cfa_offset 8
  .cfi_offset %r14, -48
  push %r15
  .cfi_adjust_cfa_offset 8
  .cfi_offset %r15, -56
.endm

.macro ZEPH_SM2_LEAVE name
  pop %r15
  .cfi_adjust_cfa_offset -8
  pop %r14
  .cfi_adjust_cfa_offset -8
  pop %r13
  .cfi_adjust_cfa_offset -8
  pop %r12
  .cfi_adjust_cfa_offset -8
  pop %rbp
  .cfi_adjust_cfa_offset -8
  pop %rbx
  .cfi_adjust_cfa_offset -8
  ret
  .cfi_endproc
.size \name, .-\name
.endm

# Adds a·b_i into (t_i .. t_i+4), t_i+4 fresh. rdx = b_i.
.macro ZEPH_SM2_MUL_ROW ti, ti1, ti2, ti3, ti4
  xor %eax, %eax
  mulx 0(%rsi), %rbx, %rbp
  adcx %rbx, \ti
  adox %rbp, \ti1
  mulx 8(%rsi), %rbx, %rbp
  adcx %rbx, \ti1
  adox %rbp, \ti2
  mulx 16(%rsi), %rbx, %rbp
  adcx %rbx, \ti2
  adox %rbp, \ti3
  mulx 24(%rsi), %rbx, \ti4
  adcx %rbx, \ti3
  adox %rax, \ti4
  adcx %rax, \ti4
.endm

# t0..t7 = a·b, a at rsi, b at rdx (moved to rcx).
.macro ZEPH_SM2_MUL_PRODUCT
  mov %rdx, %rcx
  mov 0(%rcx), %rdx
  mulx 0(%rsi), %r8, %r9
  mulx 8(%rsi), %rbx, %r10
  add %rbx, %r9
  mulx 16(%rsi), %rbx, %r11
  adc %rbx, %r10
  mulx 24(%rsi), %rbx, %r12
  adc %rbx, %r11
  adc $0, %r12
  mov 8(%rcx), %rdx
  ZEPH_SM2_MUL_ROW %r9, %r10, %r11, %r12, %r13
  mov 16(%rcx), %rdx
  ZEPH_SM2_MUL_ROW %r10, %r11, %r12, %r13, %r14
  mov 24(%rcx), %rdx
  ZEPH_SM2_MUL_ROW %r11, %r12, %r13, %r14, %r15
.endm

# t0..t7 = a², a at rsi: the cross products once, doubled (carry chain),
# plus the squares (overflow chain).
.macro ZEPH_SM2_SQR_PRODUCT
  mov 0(%rsi), %rdx
  mulx 8(%rsi), %r9, %r10
  mulx 16(%rsi), %rbx, %r11
  mulx 24(%rsi), %rbp, %r12
  add %rbx, %r10
  adc %rbp, %r11
  adc $0, %r12
  mov 8(%rsi), %rdx
  xor %eax, %eax
  mulx 16(%rsi), %rbx, %rbp
  adcx %rbx, %r11
  adox %rbp, %r12
  mulx 24(%rsi), %rbx, %r13
  adcx %rbx, %r12
  adox %rax, %r13
  adcx %rax, %r13
  mov 16(%rsi), %rdx
  mulx 24(%rsi), %rbx, %r14
  add %rbx, %r13
  adc $0, %r14
  xor %r15d, %r15d
  mov 0(%rsi), %rdx
  mulx %rdx, %r8, %rbx
  adcx %r9, %r9
  adox %rbx, %r9
  mov 8(%rsi), %rdx
  mulx %rdx, %rbx, %rbp
  adcx %r10, %r10
  adox %rbx, %r10
  adcx %r11, %r11
  adox %rbp, %r11
  mov 16(%rsi), %rdx
  mulx %rdx, %rbx, %rbp
  adcx %r12, %r12
  adox %rbx, %r12
  adcx %r13, %r13
  adox %rbp, %r13
  mov 24(%rsi), %rdx
  mulx %rdx, %rbx, %rbp
  adcx %r14, %r14
  adox %rbx, %r14
  adcx %r15, %r15
  adox %rbp, %r15
.endm

# One step modulo p on the window (w0, w1, w2, w3); the result is the window
# (w1, w2, w3, w0). rcx holds 32.
.macro ZEPH_SM2_STEP_P w0, w1, w2, w3
  shlx %rcx, \w0, %rbx
  shrx %rcx, \w0, %rbp
  add \w0, \w1
  adc $0, \w2
  adc $0, \w3
  adc $0, \w0
  sub %rbx, \w1
  sbb %rbp, \w2
  sbb %rbx, \w3
  sbb %rbp, \w0
.endm

# One step modulo n: w + (w0·n0 mod 2^64)·n, whose low word is zero.
.macro ZEPH_SM2_STEP_N w0, w1, w2, w3
  mov \w0, %rdx
  imul .Lzeph_sm2_n0(%rip), %rdx
  xor %eax, %eax
  mulx .Lzeph_sm2_n+0(%rip), %rbx, %rbp
  adcx %rbx, \w0
  adox %rbp, \w1
  mulx .Lzeph_sm2_n+8(%rip), %rbx, %rbp
  adcx %rbx, \w1
  adox %rbp, \w2
  mulx .Lzeph_sm2_n+16(%rip), %rbx, %rbp
  adcx %rbx, \w2
  adox %rbp, \w3
  mulx .Lzeph_sm2_n+24(%rip), %rbx, %rbp
  adcx %rbx, \w3
  mov %rbp, \w0
  adox %rax, \w0
  adcx %rax, \w0
.endm

# (t0..t3 reduced) + (t4..t7), less the modulus unless that goes negative;
# stores to (rdi).
.macro ZEPH_SM2_FINISH mod
  xor %eax, %eax
  add %r12, %r8
  adc %r13, %r9
  adc %r14, %r10
  adc %r15, %r11
  adc $0, %rax
  mov %r8, %r12
  mov %r9, %r13
  mov %r10, %r14
  mov %r11, %r15
  sub \mod+0(%rip), %r12
  sbb \mod+8(%rip), %r13
  sbb \mod+16(%rip), %r14
  sbb \mod+24(%rip), %r15
  sbb $0, %rax
  cmovnc %r12, %r8
  cmovnc %r13, %r9
  cmovnc %r14, %r10
  cmovnc %r15, %r11
  mov %r8, 0(%rdi)
  mov %r9, 8(%rdi)
  mov %r10, 16(%rdi)
  mov %r11, 24(%rdi)
.endm

.macro ZEPH_SM2_REDUCE_P
  mov $32, %ecx
  ZEPH_SM2_STEP_P %r8, %r9, %r10, %r11
  ZEPH_SM2_STEP_P %r9, %r10, %r11, %r8
  ZEPH_SM2_STEP_P %r10, %r11, %r8, %r9
  ZEPH_SM2_STEP_P %r11, %r8, %r9, %r10
  ZEPH_SM2_FINISH .Lzeph_sm2_p
.endm

.macro ZEPH_SM2_REDUCE_N
  ZEPH_SM2_STEP_N %r8, %r9, %r10, %r11
  ZEPH_SM2_STEP_N %r9, %r10, %r11, %r8
  ZEPH_SM2_STEP_N %r10, %r11, %r8, %r9
  ZEPH_SM2_STEP_N %r11, %r8, %r9, %r10
  ZEPH_SM2_FINISH .Lzeph_sm2_n
.endm

ZEPH_SM2_ENTER zeph_sm2_fp_mul_adx
  ZEPH_SM2_MUL_PRODUCT
  ZEPH_SM2_REDUCE_P
ZEPH_SM2_LEAVE zeph_sm2_fp_mul_adx

ZEPH_SM2_ENTER zeph_sm2_fp_sqr_adx
  ZEPH_SM2_SQR_PRODUCT
  ZEPH_SM2_REDUCE_P
ZEPH_SM2_LEAVE zeph_sm2_fp_sqr_adx

ZEPH_SM2_ENTER zeph_sm2_fn_mul_adx
  ZEPH_SM2_MUL_PRODUCT
  ZEPH_SM2_REDUCE_N
ZEPH_SM2_LEAVE zeph_sm2_fn_mul_adx

ZEPH_SM2_ENTER zeph_sm2_fn_sqr_adx
  ZEPH_SM2_SQR_PRODUCT
  ZEPH_SM2_REDUCE_N
ZEPH_SM2_LEAVE zeph_sm2_fn_sqr_adx

.purgem ZEPH_SM2_ENTER
.purgem ZEPH_SM2_LEAVE
.purgem ZEPH_SM2_MUL_ROW
.purgem ZEPH_SM2_MUL_PRODUCT
.purgem ZEPH_SM2_SQR_PRODUCT
.purgem ZEPH_SM2_STEP_P
.purgem ZEPH_SM2_STEP_N
.purgem ZEPH_SM2_FINISH
.purgem ZEPH_SM2_REDUCE_P
.purgem ZEPH_SM2_REDUCE_N
.popsection
)");

#endif
