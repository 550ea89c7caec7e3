// SM2 sizes and the default signer identity, shared by the library and the
// software key.
#pragma once

#include <cstddef>

namespace zeph {

// The identity GM/T 0009 fixes for signers that give none.
inline constexpr char kDefaultSm2Id[] = "1234567812345678";
inline constexpr size_t kDefaultSm2IdLen = sizeof kDefaultSm2Id - 1;

inline constexpr size_t kSm2CoordLen = 32;                       // one coordinate or scalar
inline constexpr size_t kSm2RawSignatureLen = 2 * kSm2CoordLen;  // r || s
inline constexpr size_t kSm2DerSignatureMax = 72;                // SEQUENCE { r, s }, both 33 bytes at most
inline constexpr size_t kSm2PointLen = 1 + 2 * kSm2CoordLen;     // 0x04 || x || y

// Work buffers for the value a key signs (e = SM3(Z || M), or an RSA
// DigestInfo) and for the key blobs a vendor library exports.
inline constexpr size_t kSignWorkLen = 1024;

}  // namespace zeph
