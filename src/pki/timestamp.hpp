// RFC 3161 pieces behind the time-stamp API: the value stamped, the query,
// the checks of a reply and the embedding of its token.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "pki/pki_owned.hpp"

namespace zeph::tsa {

// The first signer's signature value of an SM2 signed message (sm2) or of a
// PKCS#7 signed-data. A missing piece gives ERR_INVALID_PARAMETER (sm2) or
// 0xFFFFFFFF (PKCS#7).
uint32_t SignatureValue(bool sm2, std::span<const uint8_t> message, std::vector<uint8_t> *value);

// The imprint label of an algorithm code: SM3, SHA-256, SHA-384, SHA-512 for
// 1, 0x10004, 0x10008, 0x10010, SHA-1 for every other code.
const char *ImprintOid(uint32_t alg);

// The query over `value`, hashed by the low 16 bits of alg and labelled by
// ImprintOid(alg): version 1, a 64-bit nonce, certReq. 0, the digest's
// status, or ERR_ENCODE_FAILED when a step of building fails.
uint32_t BuildQuery(uint32_t alg, std::span<const uint8_t> value, TsReqPtr *query, std::vector<uint8_t> *der);

// A reply worth embedding for `query`: granted (else 0xFFFFFFFF), version,
// nonce and imprint equal to the query's, token signed by a time-stamping
// certificate that chains to `trust` (ERR_CERT_UNTRUSTED), everything else
// ERR_SIGNATURE_INVALID.
uint32_t CheckReply(TS_REQ *query, TS_RESP *reply, X509_STORE *trust);

// The PKCS#7 signed-data with the reply's token as the first signer's
// time-stamp attribute. 0xFFFFFFFF when the reply is not granted or has no
// token, or the PKCS#7 is not signed-data with a signer.
uint32_t EmbedToken(TS_RESP *reply, std::span<const uint8_t> p7, std::vector<uint8_t> *out);

}  // namespace zeph::tsa
