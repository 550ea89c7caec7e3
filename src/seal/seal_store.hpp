// Seals on a key, inside: what a slot holds, the operations behind the seal
// commands, and the JSON texts they answer with.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zeph_c_seal.h"

namespace zeph::seal {

// The seal of one slot. A DER seal (SES or GB) keeps its bytes, a
// picture-only seal its picture, a text-form seal the base64 of its
// information record, picture and certificate.
struct SlotSeal {
  int32_t type = ZEPH_SEAL_TYPE_UNKNOWN;
  std::vector<uint8_t> der;
  std::string info, pic, cert;
};

// SES or GB for DER that the seal structures decode, and, where they refuse
// a real seal (an SES list of wrapped certificates, say), for what the
// tolerant reader recognises; otherwise ZEPH_SEAL_TYPE_UNKNOWN.
int32_t DerSealType(std::span<const uint8_t> der);

// The text of a slot from 2 to 10 as stored: "<I>...</I><P>...</P><C>...</C>"
// or the base64 of a DER seal. Neither: ERR_DEVICE_FILE_READ_FAILED.
uint32_t ReadSlotText(std::string_view text, SlotSeal *out);
// The seal as the commands hand it over: its base64, or for the text form
// {"info":"..","pic":"..","cert":".."}.
std::string SealText(const SlotSeal &seal);

// The JSON texts of the commands: the summary (703, 803), the detail (203)
// and the structure (205, 405).
uint32_t SealSummary(const SlotSeal &seal, std::string *out);
uint32_t SealDetail(const SlotSeal &seal, std::string *out);
uint32_t SealStructure(const SlotSeal &seal, std::string *out);

// Base64 of bytes (empty for none), and back: ERR_BASE64_INVALID for text
// that does not decode; the empty text is no bytes.
std::string ToBase64(std::span<const uint8_t> bytes);
uint32_t FromBase64(std::string_view text, std::vector<uint8_t> *out);

// GBK to UTF-8, at most max_out bytes and never half a character; bytes
// that are not GBK become U+FFFD. ERR_ENCODE_FAILED without a converter.
uint32_t GbkToUtf8(std::span<const uint8_t> gbk, size_t max_out, std::string *out);

// ---- The operations of the seal commands ------------------------------------
// Each opens its own handle on key_sn and finalises it on every path.

// Stores a seal in a slot, the seal PIN proven by the user PIN. `data` is a
// JSON object {"info","pic","cert"} of base64 texts (text form) or the base64
// of a DER seal. Refusals come before anything is written.
uint32_t l_setSealInfo(const char *key_sn, const char *user_pin, uint32_t slot, const char *data);
// The same without the user PIN.
uint32_t l_setSealInfoSpec(const char *key_sn, uint32_t slot, const char *data);
// The seal of slot 1, or of slot 2 to 10, as its type and SealText.
uint32_t l_getFirstSealInfo(const char *key_sn, int32_t *out_type, std::string *out_text);
uint32_t l_getSealInfo_NotFirst(const char *key_sn, uint32_t slot, int32_t *out_type, std::string *out_text);
// The summary of a seal given as SealText.
uint32_t l_parseSealInfo(const char *text, std::string *out_summary);

// Seal bytes for ZEPH_C_SetSealInfo with the seal PIN proven by user_pin.
uint32_t StoreSealArea(const char *key_sn, const char *user_pin, uint32_t area, std::span<const uint8_t> data);
// The seal of any slot, read from the key.
uint32_t ReadSealSlot(const char *key_sn, uint32_t slot, SlotSeal *out);
// {"quantity":n,"keyList":[{"idx":slot,"data":{summary}},...]}: slot 1 must
// hold a seal with a summary; other slots that do not are left out.
uint32_t ListSeals(const char *key_sn, std::string *out);

}  // namespace zeph::seal
