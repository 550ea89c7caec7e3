// Command handlers: Signing, envelopes, symmetric and file encryption (3xx).
// Operations the library does not offer yet answer 0x8208005A.
#include "ci/ci_internal.hpp"

namespace zeph::ci {

uint32_t l_ci4doSignature(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4verifySignData(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4encodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4decodeEnveloper(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4decodeSM2SymkeyCipher(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4doSignatureToPKCS7(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4encodeRSAEnveloperByVORLI(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4doSymmetricAlgorithm(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doCompositeEncryption(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doCompositeDecryption(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_getHashForPath(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doEncryptionForPath(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_doDecryptionForPath(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4encodeRsaVorliEnveloperWithCryptoDevice(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }
uint32_t l_ci4decodeRsaVorliEnveloperWithCryptoDevice(ZEPH_REQ_PARAM *, ZEPH_RES_PARAM *res) { return NotOffered(res); }

}  // namespace zeph::ci
