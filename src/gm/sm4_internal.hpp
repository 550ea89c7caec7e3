// SM4 internals shared between the block modes and the padded/file modes.
#pragma once

#include <cstdint>

namespace zeph::gm {

inline constexpr uint32_t kSm4Block = 16;

// Whole-block ECB and CBC with the round keys derived once and wiped after.
// in and out may be the same buffer; nblocks may be 0.
void Sm4EcbBlocks(const uint8_t *in, uint8_t *out, uint32_t nblocks, const uint8_t key[16], bool encrypt);
void Sm4CbcBlocks(const uint8_t *in, uint8_t *out, uint32_t nblocks, const uint8_t iv[16], const uint8_t key[16],
                  bool encrypt);

}  // namespace zeph::gm
