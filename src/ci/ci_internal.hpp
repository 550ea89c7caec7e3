// The JSON command interface inside: the request and response records, the
// parser and printer, the dispatch table and every command handler.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/status_flow.hpp"
#include "zeph_c_status.h"

namespace zeph::ci {

// Text fields hold their nominal size plus one byte, so a value that fills
// the field is still terminated.
template <size_t N>
struct Text {
  static constexpr size_t kCapacity = N;
  char s[N + 1];
};

// Binary fields hold the decoded bytes and how many there are.
template <size_t N>
struct Blob {
  static constexpr size_t kCapacity = N;
  uint8_t bytes[N];
  uint32_t len;
};

// One request, parsed once. Every field starts zero; absent keys leave it so.
struct ZEPH_REQ_PARAM {
  uint32_t command;  // "type"
  uint32_t devType;
  uint8_t reserved[130];
  Blob<130> bivo_d1;
  Blob<520> bivo_d1_inv;
  Blob<390> bivo_credential;
  Blob<130> bivo_r;
  Blob<130> bivo_s2;
  Blob<130> bivo_s3;
  Blob<130> bivo_pubkey;
  Blob<260> bivo_c;  // "bivo_c1", overwritten by "bivo_c2"
  Blob<130> bivo_c3;
  Blob<130> bivo_t2;
  Blob<130> bivo_k1;
  uint32_t bivo_c2_len;
  Text<260> keySN;
  Text<260> oid;  // "oid" or "adminPin"
  Text<260> pin;
  Text<260> deviceID;
  Text<260> url;
  uint32_t nocrl;
  Text<1024> signData;
  Text<4096> prikey;
  Text<4096> symKey;
  uint32_t asymid;    // key-area selector: 1 RSA, 2 SM2, 4 seal
  uint32_t usage;     // "usage", "appID", "isRaw"
  bool usageGiven;    // one of the usage keys was a number or boolean
  uint32_t selector;  // "signDataType", "wrapperType", "retryCnt", "chkMode", "idx", "itemNo"
  uint32_t algID;     // "algID", "modLen", "signMethodID", "randLen"
  uint32_t valueLen;
  uint32_t certLen;
  char *value;  // "raw", "certChain", "dn", "newPin", "encKey", "authCode", "seal", "sealData"
  char *cert;   // "cert", "pubkey", "prikeyinfo", "filepath"
};

// Data kind that embeds the data text as a JSON object.
inline constexpr uint32_t kDataObject = 64;
// Data kind of a JSON string whose text holds nothing JSON escapes (base64
// the library wrote): printed as it is, unscanned.
inline constexpr uint32_t kDataPlain = 1;

struct ZEPH_RES_PARAM {
  uint32_t command;
  int64_t code;     // dispatcher failures zero-extended, handler statuses sign-extended
  uint32_t length;  // of data
  char *data;       // malloc'd by the handler, the text of `adopted`, or null
  uint32_t kind;    // kDataObject, or anything else for a JSON string
  // A data text handed over whole (AdoptData); the record is not copied
  // while data points into it.
  std::string adopted = {};
};

using Handler = uint32_t (*)(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res);

inline constexpr int kGroups = 10;
inline constexpr int kSlots = 15;
// group x 15 + slot; empty slots are null.
extern const std::array<Handler, kGroups * kSlots> ptrZEPH_C_CI_apis;

// Parses the request text into a zeroed record: 0, ERR_JSON_INVALID,
// ERR_INVALID_PARAMETER / ERR_BASE64_INVALID for a value that does not fit
// its field, or 0xFFFFFFFF for a "keySN" above 260 characters. On failure
// the record may hold owned texts already; ReleaseRequest frees them.
uint32_t ParseRequest(const char *text, ZEPH_REQ_PARAM *req);
// Frees the owned texts and wipes the record (it carries PINs and keys).
void ReleaseRequest(ZEPH_REQ_PARAM *req);

// The handler for a command code, or null for an empty slot or a code out
// of range (negative codes included).
Handler FindHandler(int32_t command);

// The request size limit that ZEPH_C_CI_SetRequestLimit(0) restores.
inline constexpr uint32_t kDefaultRequestLimit = 16u << 20;

// Runs one request through parser, table and handler; the response record
// is filled, its data owned by the caller of this function. A request above
// the size limit is refused unread.
void Dispatch(const char *request, ZEPH_RES_PARAM *res);
// The response document, printed without formatting (cJSON_free it).
char *PrintResponse(const ZEPH_RES_PARAM &res);
void ReleaseResponse(ZEPH_RES_PARAM *res);

// ---- Handler helpers -------------------------------------------------------

// Stores a handler status sign-extended and hands it back.
inline uint32_t Answer(ZEPH_RES_PARAM *res, uint32_t status) {
  res->code = static_cast<int64_t>(static_cast<int32_t>(status));
  return status;
}
// Rows whose operation the library does not offer yet.
inline uint32_t NotOffered(ZEPH_RES_PARAM *res) { return Answer(res, 0x8208005Au); }
// Copies text into a fresh data buffer of the response.
uint32_t SetData(ZEPH_RES_PARAM *res, std::string_view text, uint32_t kind = 0);
// Takes the text over without a copy: a seal's base64 is most of its reply.
uint32_t AdoptData(ZEPH_RES_PARAM *res, std::string &&text, uint32_t kind = 0);

// ---- The handlers, by group ------------------------------------------------
#define ZEPH_CI_HANDLER(name) uint32_t name(ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res)

// 0xx test commands
ZEPH_CI_HANDLER(l_testGetP8Data);
ZEPH_CI_HANDLER(l_testGetECCKeyPair);
ZEPH_CI_HANDLER(l_completeRandomnessTest);
// 1xx devices, random, device files
ZEPH_CI_HANDLER(l_ci4getUKeyList);
ZEPH_CI_HANDLER(l_ci4verifyUserPin);
ZEPH_CI_HANDLER(l_ci4getVer);
ZEPH_CI_HANDLER(l_ci4getUKeyDevErrStatus);
ZEPH_CI_HANDLER(l_ci4doEnumRSAandSM2andSealInfo);
ZEPH_CI_HANDLER(l_ci4getUKeyKeySNList);
ZEPH_CI_HANDLER(l_ci4genRandomBytes);
ZEPH_CI_HANDLER(l_ci4writeUkeyFile);
ZEPH_CI_HANDLER(l_ci4readfile);
ZEPH_CI_HANDLER(l_ci4deletefile);
// 2xx certificates and seal reading
ZEPH_CI_HANDLER(l_ci4getCertificate);
ZEPH_CI_HANDLER(l_ci4verifyCert);
ZEPH_CI_HANDLER(l_ci4getCertChain);
ZEPH_CI_HANDLER(l_ci4getSealInfo);
ZEPH_CI_HANDLER(l_ci4resolveEnveloperCertChain);
ZEPH_CI_HANDLER(l_ci4getSealStruct);
ZEPH_CI_HANDLER(l_ci4GetCertInfoWithItemNo);
// 3xx signing, envelopes, symmetric and file encryption
ZEPH_CI_HANDLER(l_ci4doSignature);
ZEPH_CI_HANDLER(l_ci4verifySignData);
ZEPH_CI_HANDLER(l_ci4encodeEnveloper);
ZEPH_CI_HANDLER(l_ci4decodeEnveloper);
ZEPH_CI_HANDLER(l_ci4decodeSM2SymkeyCipher);
ZEPH_CI_HANDLER(l_ci4doSignatureToPKCS7);
ZEPH_CI_HANDLER(l_ci4encodeRSAEnveloperByVORLI);
ZEPH_CI_HANDLER(l_ci4doSymmetricAlgorithm);
ZEPH_CI_HANDLER(l_doCompositeEncryption);
ZEPH_CI_HANDLER(l_doCompositeDecryption);
ZEPH_CI_HANDLER(l_getHashForPath);
ZEPH_CI_HANDLER(l_doEncryptionForPath);
ZEPH_CI_HANDLER(l_doDecryptionForPath);
ZEPH_CI_HANDLER(l_ci4encodeRsaVorliEnveloperWithCryptoDevice);
ZEPH_CI_HANDLER(l_ci4decodeRsaVorliEnveloperWithCryptoDevice);
// 4xx enrolment and storing
ZEPH_CI_HANDLER(l_ci4genCSR);
ZEPH_CI_HANDLER(l_ci4saveSignCert);
ZEPH_CI_HANDLER(l_ci4saveCertChain);
ZEPH_CI_HANDLER(l_ci4saveEncCertAndKey);
ZEPH_CI_HANDLER(l_ci4setSealInfo);
// 5xx PINs, areas, device authentication
ZEPH_CI_HANDLER(l_ci4changeUserPin);
ZEPH_CI_HANDLER(l_ci4initDevice);
ZEPH_CI_HANDLER(l_ci4unlockUserPin);
ZEPH_CI_HANDLER(l_ci4changeDeviceAuthCode);
// 6xx co-signing
ZEPH_CI_HANDLER(l_ci4doBIVO_CreateKeyShare);
ZEPH_CI_HANDLER(l_ci4doBIVO_doSignature);
ZEPH_CI_HANDLER(l_ci4doBIVO_genCSR);
ZEPH_CI_HANDLER(l_ci4doBIVO_DecodeEnveloper);
ZEPH_CI_HANDLER(l_ci4doBIVO_SM2Decrypt);
ZEPH_CI_HANDLER(l_ci4doBIVO_VerifyUserPin);
ZEPH_CI_HANDLER(l_ci4doBIVO_RSACreateKeyShare);
ZEPH_CI_HANDLER(l_ci4doBIVO_RSAdoSignature);
ZEPH_CI_HANDLER(l_ci4doBIVO_RSAgenCSR);
ZEPH_CI_HANDLER(l_ci4doBIVO_ChangeUserPin);
// 7xx software key
ZEPH_CI_HANDLER(l_ci4fkeyGetKeypair);
ZEPH_CI_HANDLER(l_ci4fkeyDoSignature);
ZEPH_CI_HANDLER(l_ci4fkeyGenCSR);
ZEPH_CI_HANDLER(l_ci4parseSealInfo);
ZEPH_CI_HANDLER(l_ci4fkeyEncodeEnveloper);
ZEPH_CI_HANDLER(l_ci4fkeyDecodeEnveloper);
// 8xx seals (extended)
ZEPH_CI_HANDLER(l_ci4setSealInfoEx);
ZEPH_CI_HANDLER(l_ci4getSealInfoEx);
ZEPH_CI_HANDLER(l_ci4CheckSealType);
ZEPH_CI_HANDLER(l_ci4getSealAll);
// 9xx Corvex, RSA key unwrapping, SM2 PKCS#7
ZEPH_CI_HANDLER(l_ci4doBIVO_doSignatureforCorvex);
ZEPH_CI_HANDLER(l_ci4decodeRSASymkeyCipher);
ZEPH_CI_HANDLER(l_ci4SM2SignForP7_301);
ZEPH_CI_HANDLER(l_ci4SM2SignForP7_EX);
ZEPH_CI_HANDLER(l_ci4SM2VerifyForP7);
ZEPH_CI_HANDLER(l_ci4SM2SignForP7_501);

#undef ZEPH_CI_HANDLER

}  // namespace zeph::ci
