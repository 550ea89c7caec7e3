// SM4 engines: the portable table code and the table-free vector cores, one
// per instruction set, behind one interface.
#pragma once

#include <cstddef>
#include <cstdint>

#include <openssl/crypto.h>

#include "gm/cpu_path.hpp"

namespace zeph::gm {

// SM4 over whole blocks. Round keys are in the engine's own form: schedule()
// makes them (for decryption in reverse order) and only the same engine reads
// them. in and out may be the same buffer; nblocks may be 0.
struct Sm4Engine {
  const char *name;
  void (*schedule)(const uint8_t key[16], bool encrypt, uint32_t rk[32]);
  void (*ecb)(const uint32_t rk[32], const uint8_t *in, uint8_t *out, size_t nblocks);
  void (*cbc_encrypt)(const uint32_t rk[32], const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t nblocks);
  void (*cbc_decrypt)(const uint32_t rk[32], const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t nblocks);
};

extern const Sm4Engine kSm4Portable;
#if ZEPH_GM_X86
extern const Sm4Engine kSm4Aesni;       // 4 blocks per step, AES-NI S-box
extern const Sm4Engine kSm4Avx2;        // 8 blocks, AES-NI on each 128-bit half
extern const Sm4Engine kSm4Avx2Vaes;    // 8 blocks, VAES
extern const Sm4Engine kSm4Avx2Gfni;    // 8 blocks, GFNI
extern const Sm4Engine kSm4Avx512Gfni;  // 16 blocks, GFNI
#endif

inline const Sm4Engine &ActiveSm4() { return *ActiveGm().sm4; }

// Round keys for one direction, derived once per key and wiped when done.
class Sm4Key {
 public:
  Sm4Key(const uint8_t key[16], bool encrypt, const Sm4Engine &engine = ActiveSm4()) : engine_(engine) {
    engine.schedule(key, encrypt, rk_);
  }
  ~Sm4Key() { OPENSSL_cleanse(rk_, sizeof rk_); }
  Sm4Key(const Sm4Key &) = delete;
  Sm4Key &operator=(const Sm4Key &) = delete;

  void Ecb(const uint8_t *in, uint8_t *out, size_t nblocks) const { engine_.ecb(rk_, in, out, nblocks); }
  void CbcEncrypt(const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t nblocks) const {
    engine_.cbc_encrypt(rk_, iv, in, out, nblocks);
  }
  void CbcDecrypt(const uint8_t iv[16], const uint8_t *in, uint8_t *out, size_t nblocks) const {
    engine_.cbc_decrypt(rk_, iv, in, out, nblocks);
  }

 private:
  const Sm4Engine &engine_;
  uint32_t rk_[32];
};

}  // namespace zeph::gm
