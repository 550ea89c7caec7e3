// Montgomery multiplication and squaring modulo the SM2 prime for x86-64 with
// BMI2 and ADX (System V calling convention). The 512-bit product is formed
// with mulx over two independent carry chains (adcx, adox), then reduced one
// word at a time with the same shift-and-add step as the portable build:
// p ≡ −1 mod 2^64 makes each step's multiplier the low word itself, and
// m·p / 2^64 is (m, 0, 0, m) − (m·2^32, m/2^32, m·2^32, m/2^32). Memory is
// touched only at fixed offsets and the final subtraction of p is a cmov, so
// the code runs in the same time for every input.
#include "gm/sm2_field.hpp"

#if defined(ZEPH_SM2_HAVE_ADX)

// Registers: t0..t7 = r8..r15, rbx and rbp scratch, rax zero, rdx the mulx
// multiplier, rsi = a, rcx = b, rdi = r.
__asm__(R"(
.pushsection .text

# One reduction step on the window (w0, w1, w2, w3); the result is the window
# (w1, w2, w3, w0). rcx holds 32.
.macro ZEPH_SM2_REDUCE_STEP w0, w1, w2, w3
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

.macro ZEPH_SM2_PUSH
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

# Reduces t0..t7, writes the result to (rdi), restores and returns.
.macro ZEPH_SM2_REDUCE_STORE
  mov $32, %ecx
  ZEPH_SM2_REDUCE_STEP %r8, %r9, %r10, %r11
  ZEPH_SM2_REDUCE_STEP %r9, %r10, %r11, %r8
  ZEPH_SM2_REDUCE_STEP %r10, %r11, %r8, %r9
  ZEPH_SM2_REDUCE_STEP %r11, %r8, %r9, %r10
  xor %eax, %eax
  add %r12, %r8
  adc %r13, %r9
  adc %r14, %r10
  adc %r15, %r11
  adc $0, %rax
  movabs $0xFFFFFFFF00000000, %rsi
  movabs $0xFFFFFFFEFFFFFFFF, %rdx
  mov %r8, %r12
  mov %r9, %r13
  mov %r10, %r14
  mov %r11, %r15
  sub $-1, %r12
  sbb %rsi, %r13
  sbb $-1, %r14
  sbb %rdx, %r15
  sbb $0, %rax
  cmovnc %r12, %r8
  cmovnc %r13, %r9
  cmovnc %r14, %r10
  cmovnc %r15, %r11
  mov %r8, 0(%rdi)
  mov %r9, 8(%rdi)
  mov %r10, 16(%rdi)
  mov %r11, 24(%rdi)
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

.p2align 5
.globl zeph_sm2_fp_mul_adx
.hidden zeph_sm2_fp_mul_adx
.type zeph_sm2_fp_mul_adx, @function
zeph_sm2_fp_mul_adx:
  ZEPH_SM2_PUSH
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
  ZEPH_SM2_REDUCE_STORE
.size zeph_sm2_fp_mul_adx, .-zeph_sm2_fp_mul_adx

.p2align 5
.globl zeph_sm2_fp_sqr_adx
.hidden zeph_sm2_fp_sqr_adx
.type zeph_sm2_fp_sqr_adx, @function
zeph_sm2_fp_sqr_adx:
  ZEPH_SM2_PUSH
  # Cross products a_i·a_j, i < j, into t1..t6.
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
  # Doubled (carry chain) plus the squares (overflow chain).
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
  ZEPH_SM2_REDUCE_STORE
.size zeph_sm2_fp_sqr_adx, .-zeph_sm2_fp_sqr_adx

.purgem ZEPH_SM2_REDUCE_STEP
.purgem ZEPH_SM2_PUSH
.purgem ZEPH_SM2_REDUCE_STORE
.purgem ZEPH_SM2_MUL_ROW
.popsection
)");

#endif
