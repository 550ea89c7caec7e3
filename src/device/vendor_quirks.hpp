// Where vendor libraries depart from GM/T 0016, named once. A key's device
// type is the "type" of the configuration entry that serves it; the layers
// above ask these predicates instead of reading the session context.
#pragma once

#include <cstdint>

#include "zeph_c_device.h"

namespace zeph::device {

// Device types with behaviour of their own.
inline constexpr uint32_t kTypeHashesOnKey = 10;     // hashes on the key and unpads RSA itself
inline constexpr uint32_t kTypeFallbackVendor = 41;  // the fixed fallback's vendor; RSA decryption mode 50

// The vendor library hashes by itself: signing hands it the message, not
// e = SM3(Z || M) or a DigestInfo, through its SKF_Eu_* entry points.
bool SignsWholeMessage(const GM_SKF_CTX *ctx);

// The vendor's RSA decryption returns the plaintext with the PKCS#1 type-2
// padding already removed.
bool UnpadsRsaItself(const GM_SKF_CTX *ctx);

// The mode handed to SKF_RSADecrypt: the vendor's own 50 for the fallback
// vendor, else 1 with padding and 2 without.
uint32_t RsaDecryptMode(const GM_SKF_CTX *ctx, uint32_t padding);

// Seal slots on a key are numbered 1 to kSealSlots. The picture of slot 1 is
// the file "Picture"; every other slot n is the file "Picture<n>".
inline constexpr uint32_t kSealSlots = 10;

struct SealFileName {
  char text[ZEPH_DEVICE_NAME_MAX];
};

// "Picture<n>" for any n (the extended seal form; slot 1 gives "Picture1").
SealFileName PictureFile(uint32_t slot);
// The file that holds the picture of seal slot n: "Picture" for slot 1.
SealFileName SealSlotFile(uint32_t slot);

}  // namespace zeph::device
