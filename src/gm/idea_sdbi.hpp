// IDEA and the SDBI segment layer, for the library's own callers and tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zeph::gm::idea {

inline constexpr size_t kBlock = 8;
inline constexpr size_t kSubkeys = 52;
inline constexpr uint32_t kSegment = 4096;

// Multiplication modulo 65537 with 0 standing for 65536, constant time.
uint16_t mul(uint16_t a, uint16_t b);
// Multiplicative inverse modulo 65537 (0 and 1 are their own).
uint16_t inv(uint16_t x);

void gen_i_enkey(const uint8_t key[16], uint16_t ek[kSubkeys]);
void gen_i_dekey(const uint16_t ek[kSubkeys], uint16_t dk[kSubkeys]);

void idea_uchar_to_ushort(const uint8_t in[kBlock], uint16_t out[4]);
void idea_ushort_to_uchar(const uint16_t in[4], uint8_t out[kBlock]);
// Eight rounds and the output transformation on one block.
void cip(const uint16_t in[4], uint16_t out[4], const uint16_t k[kSubkeys]);

// ECB over nblocks whole blocks; in and out may be the same buffer.
void ecb_encry_proc(const uint8_t *in, uint8_t *out, size_t nblocks, const uint16_t ek[kSubkeys]);
void ecb_decry_proc(const uint8_t *in, uint8_t *out, size_t nblocks, const uint16_t dk[kSubkeys]);

// One segment under prepared subkeys; statuses as Enc_Message_SDBI and
// Dec_Message_SDBI.
uint32_t enc_message_sdbi(int mode, const uint8_t *in, uint32_t len, uint8_t *out, uint32_t *out_len,
                          const uint16_t ek[kSubkeys]);
uint32_t dec_message_sdbi(int mode, const uint8_t *in, uint32_t len, uint8_t *out, uint32_t *out_len,
                          const uint16_t dk[kSubkeys]);

}  // namespace zeph::gm::idea
