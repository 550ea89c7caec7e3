// ZEPH_C_CI: parse the request, pick the handler by group and slot, print
// the response. Stateless; every call parses, dispatches, prints and frees.
#include "zeph_c_ci.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "ci/ci_internal.hpp"
#include "foundation/json_owned.hpp"
#include "foundation/log.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_api.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::ci {
namespace {

struct Row {
  int code;
  Handler handler;
};

// The command table: group x 100 + slot.
constexpr Row kRows[] = {
    {1, l_testGetP8Data},
    {2, l_testGetECCKeyPair},
    {3, l_completeRandomnessTest},
    {100, l_ci4getUKeyList},
    {101, l_ci4verifyUserPin},
    {102, l_ci4getVer},
    {103, l_ci4getUKeyDevErrStatus},
    {104, l_ci4doEnumRSAandSM2andSealInfo},
    {105, l_ci4getUKeyKeySNList},
    {106, l_ci4genRandomBytes},
    {107, l_ci4writeUkeyFile},
    {108, l_ci4readfile},
    {109, l_ci4deletefile},
    {200, l_ci4getCertificate},
    {201, l_ci4verifyCert},
    {202, l_ci4getCertChain},
    {203, l_ci4getSealInfo},
    {204, l_ci4resolveEnveloperCertChain},
    {205, l_ci4getSealStruct},
    {206, l_ci4GetCertInfoWithItemNo},
    {300, l_ci4doSignature},
    {301, l_ci4verifySignData},
    {302, l_ci4encodeEnveloper},
    {303, l_ci4decodeEnveloper},
    {304, l_ci4decodeSM2SymkeyCipher},
    {305, l_ci4doSignatureToPKCS7},
    {306, l_ci4encodeRSAEnveloperByVORLI},
    {307, l_ci4doSymmetricAlgorithm},
    {308, l_doCompositeEncryption},
    {309, l_doCompositeDecryption},
    {310, l_getHashForPath},
    {311, l_doEncryptionForPath},
    {312, l_doDecryptionForPath},
    {313, l_ci4encodeRsaVorliEnveloperWithCryptoDevice},
    {314, l_ci4decodeRsaVorliEnveloperWithCryptoDevice},
    {400, l_ci4genCSR},
    {401, l_ci4saveSignCert},
    {402, l_ci4saveCertChain},
    {403, l_ci4saveEncCertAndKey},
    {404, l_ci4setSealInfo},
    {405, l_ci4getSealStruct},
    {500, l_ci4changeUserPin},
    {501, l_ci4initDevice},
    {502, l_ci4unlockUserPin},
    {503, l_ci4changeDeviceAuthCode},
    {600, l_ci4doBIVO_CreateKeyShare},
    {601, l_ci4doBIVO_doSignature},
    {602, l_ci4doBIVO_genCSR},
    {603, l_ci4doBIVO_DecodeEnveloper},
    {604, l_ci4doBIVO_SM2Decrypt},
    {605, l_ci4doBIVO_VerifyUserPin},
    {606, l_ci4doBIVO_RSACreateKeyShare},
    {607, l_ci4doBIVO_RSAdoSignature},
    {608, l_ci4doBIVO_RSAgenCSR},
    {609, l_ci4doBIVO_ChangeUserPin},
    {700, l_ci4fkeyGetKeypair},
    {701, l_ci4fkeyDoSignature},
    {702, l_ci4fkeyGenCSR},
    {703, l_ci4parseSealInfo},
    {704, l_ci4fkeyEncodeEnveloper},
    {705, l_ci4fkeyDecodeEnveloper},
    {800, l_ci4setSealInfoEx},
    {801, l_ci4getSealInfoEx},
    {802, l_ci4CheckSealType},
    {803, l_ci4getSealAll},
    {900, l_ci4doBIVO_doSignatureforCorvex},
    {901, l_ci4decodeRSASymkeyCipher},
    {902, l_ci4SM2SignForP7_301},
    {903, l_ci4SM2SignForP7_EX},
    {904, l_ci4SM2VerifyForP7},
    {907, l_ci4SM2SignForP7_501},
};

constexpr std::array<Handler, kGroups * kSlots> BuildTable() {
  std::array<Handler, kGroups * kSlots> table{};
  for (const Row &row : kRows) {
    const int group = row.code / 100;
    const int slot = row.code % 100;
    // A row outside the table or a slot used twice stops the build.
    if (group >= kGroups || slot >= kSlots || table[group * kSlots + slot] != nullptr) throw "bad command table";
    table[group * kSlots + slot] = row.handler;
  }
  return table;
}

// Compat: dispatcher failures keep the status zero-extended (2181562459 for
// 0x8208005B) while handlers store theirs sign-extended; hosts match both.
constexpr int64_t kDispatchFailure = static_cast<int64_t>(uint64_t{ERR_INVALID_PARAMETER});

// Requests longer than this are refused unread (ZEPH_C_CI_SetRequestLimit).
std::atomic<uint32_t> g_request_limit{kDefaultRequestLimit};

bool AboveLimit(const char *request) {
  const size_t limit = g_request_limit.load(std::memory_order_relaxed);
  return strnlen(request, limit + 1) > limit;
}

// Frees the request's owned texts and wipes it on every path.
struct RequestScope {
  ZEPH_REQ_PARAM req{};
  ~RequestScope() { ReleaseRequest(&req); }
};

uint32_t RunHandler(Handler handler, ZEPH_REQ_PARAM *req, ZEPH_RES_PARAM *res) noexcept {
  try {
    return handler(req, res);
  } catch (...) {
    return Answer(res, ERR_OUT_OF_MEMORY);
  }
}

// {"type":..,"code":..} as cJSON prints it: both are 32-bit statuses (either
// extension), integers that it prints in decimal.
struct Head {
  char text[64];
  size_t len;
};
Head HeadOf(const ZEPH_RES_PARAM &res) {
  Head h;
  char *at = h.text;
  char *const end = h.text + sizeof h.text;
  const auto put = [&at](std::string_view part) { at = std::copy(part.begin(), part.end(), at); };
  put("{\"type\":");
  at = std::to_chars(at, end, static_cast<int32_t>(res.command)).ptr;
  put(",\"code\":");
  at = std::to_chars(at, end, res.code).ptr;
  put("}");
  *at = '\0';
  h.len = static_cast<size_t>(at - h.text);
  return h;
}

// A data text as cJSON writes it inside a JSON string: \\" \\\\ \\b \\f \\n \\r \\t,
// the other control characters as \\u00xx, every other byte as it is. Runs
// without any of them (most of a text) are copied whole.
template <class Put>
void Escape(std::string_view text, Put put) {
  static constexpr char kShort[] = "btn\0fr";  // \b \t \n, \f \r (8 to 13 but 11)
  while (!text.empty()) {
    const size_t run = PlainJsonRun(text);
    put(text.substr(0, run));
    if (run == text.size()) return;
    const auto c = static_cast<unsigned char>(text[run]);
    char esc[6] = {'\\', static_cast<char>(c), 0, 0, 0, 0};
    size_t n = 2;
    if (c >= 8 && c <= 13 && c != 11) {
      esc[1] = kShort[c - 8];
    } else if (c < 0x20) {
      static constexpr char kHex[] = "0123456789abcdef";
      esc[1] = 'u', esc[2] = '0', esc[3] = '0', esc[4] = kHex[c >> 4], esc[5] = kHex[c & 15];
      n = 6;
    }
    put(std::string_view(esc, n));
    text.remove_prefix(run + 1);
  }
}

size_t EscapedSize(std::string_view text) {
  size_t n = 0;
  Escape(text, [&n](std::string_view part) { n += part.size(); });
  return n;
}

// A reply that is its head with the data string written after it, the text
// cJSON would print, without its character loop and growing buffer for
// replies that are mostly data.
struct Spliced {
  Head head;
  std::string_view data;
  bool escaped;  // false: nothing in it needs escaping
  size_t data_size;
};

// PIN verification reports its retry count on failure too.
bool HasData(const ZEPH_RES_PARAM &res) { return res.data != nullptr && (res.code == 0 || res.command == 101); }

std::optional<Spliced> Splice(const ZEPH_RES_PARAM &res) {
  if (!HasData(res) || res.kind == kDataObject) return std::nullopt;
  std::string_view text(res.data, res.length);
  if (res.kind == kDataPlain) return Spliced{HeadOf(res), text, false, text.size()};
  text = text.substr(0, text.find('\0'));  // a C string to cJSON
  if (PlainJsonRun(text) == text.size()) return Spliced{HeadOf(res), text, false, text.size()};
  return Spliced{HeadOf(res), text, true, EscapedSize(text)};
}

size_t SplicedSize(const Spliced &s) { return s.head.len + s.data_size + 10; }  // ,"data":" and "

// Writes the reply and its terminator: SplicedSize + 1 bytes.
void WriteSpliced(const Spliced &s, char *out) {
  const auto put = [&out](std::string_view part) { out = std::copy(part.begin(), part.end(), out); };
  put(std::string_view(s.head.text, s.head.len - 1));  // without '}'
  put(",\"data\":\"");
  if (s.escaped) {
    Escape(s.data, put);
  } else {
    put(s.data);
  }
  put("\"}");
  *out = '\0';
}

// The last resort when cJSON cannot allocate: the document without data.
char *PrintBare(const ZEPH_RES_PARAM &res) {
  const Head head = HeadOf(res);
  const char *text = head.text;
  const size_t n = head.len;
  auto *copy = static_cast<char *>(cJSON_malloc(n + 1));
  if (copy != nullptr) std::memcpy(copy, text, n + 1);
  return copy;
}

// One call's response record and its printed document.
struct Reply {
  ZEPH_RES_PARAM res{};
  JsonTextPtr text;
  ~Reply() { ReleaseResponse(&res); }
};

void Print(Reply *reply) {
  reply->text.reset(PrintResponse(reply->res));
  if (!reply->text) reply->text.reset(PrintBare(reply->res));
  if (reply->text) ZEPH_LOG(reply->text.get(), reply->res.code);
}

void Run(const char *request, Reply *reply) {
  Dispatch(request, &reply->res);
  Print(reply);
}

}  // namespace

constinit const std::array<Handler, kGroups *kSlots> ptrZEPH_C_CI_apis = BuildTable();

Handler FindHandler(int32_t command) {
  // Truncating division leaves negative codes with a negative slot: refuse
  // them along with everything past group 9 or slot 14.
  const int32_t group = command / 100;
  const int32_t slot = command - group * 100;
  if (command < 0 || group >= kGroups || slot >= kSlots) return nullptr;
  return ptrZEPH_C_CI_apis[static_cast<size_t>(group * kSlots + slot)];
}

uint32_t SetData(ZEPH_RES_PARAM *res, std::string_view text, uint32_t kind) {
  if (text.size() >= UINT32_MAX) return ERR_INVALID_PARAMETER;
  auto *copy = static_cast<char *>(std::malloc(text.size() + 1));
  if (copy == nullptr) return ERR_OUT_OF_MEMORY;
  if (!text.empty()) std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  ReleaseResponse(res);
  res->data = copy;
  res->length = static_cast<uint32_t>(text.size());
  res->kind = kind;
  return 0;
}

uint32_t AdoptData(ZEPH_RES_PARAM *res, std::string &&text, uint32_t kind) {
  if (text.size() >= UINT32_MAX) return ERR_INVALID_PARAMETER;
  ReleaseResponse(res);
  res->adopted = std::move(text);
  res->data = res->adopted.data();
  res->length = static_cast<uint32_t>(res->adopted.size());
  res->kind = kind;
  return 0;
}

void Dispatch(const char *request, ZEPH_RES_PARAM *res) {
  *res = ZEPH_RES_PARAM{};
  // Before parsing, and before logging: the tree of a huge text costs
  // several times its size.
  if (request != nullptr && AboveLimit(request)) {
    ZEPH_LOG("request above the size limit", ERR_INVALID_PARAMETER);
    res->code = kDispatchFailure;
    return;
  }
  ZEPH_LOG(request != nullptr ? request : "", 0);
  RequestScope scope;
  const uint32_t parsed = ParseRequest(request, &scope.req);
  ZEPH_LOG("l_GetZEPH_REQ_PARAM result:", parsed);
  if (parsed != 0) {
    res->command = 0;
    res->code = kDispatchFailure;
    return;
  }
  res->command = scope.req.command;
  const Handler handler = FindHandler(static_cast<int32_t>(scope.req.command));
  if (handler == nullptr) {
    res->code = kDispatchFailure;
    return;
  }
  RunHandler(handler, &scope.req, res);
}

char *PrintResponse(const ZEPH_RES_PARAM &res) {
  if (const auto spliced = Splice(res)) {
    auto *out = static_cast<char *>(cJSON_malloc(SplicedSize(*spliced) + 1));
    if (out != nullptr) WriteSpliced(*spliced, out);
    return out;
  }
  JsonPtr doc(cJSON_CreateObject());
  if (!doc) return nullptr;
  if (cJSON_AddNumberToObject(doc.get(), "type", static_cast<int32_t>(res.command)) == nullptr) return nullptr;
  if (cJSON_AddNumberToObject(doc.get(), "code", static_cast<double>(res.code)) == nullptr) return nullptr;
  if (HasData(res)) {
    cJSON *data = nullptr;
    if (res.kind == kDataObject) data = cJSON_Parse(res.data);
    if (data == nullptr) data = cJSON_CreateString(res.data);
    if (data == nullptr) return nullptr;
    cJSON_AddItemToObject(doc.get(), "data", data);
  }
  return cJSON_PrintUnformatted(doc.get());
}

void ReleaseResponse(ZEPH_RES_PARAM *res) {
  if (res->data != res->adopted.data()) ZEPH_C_MALLOC_FREE(res->data);
  res->adopted = std::string();
  res->data = nullptr;
  res->length = 0;
}

}  // namespace zeph::ci

using zeph::ci::Reply;

extern "C" {

ZEPH_API uint32_t ZEPH_C_CI(const char *request, char *out_response) {
  zeph::Guarded([&]() -> uint32_t {
    Reply reply;
    zeph::ci::Dispatch(request, &reply.res);
    // With nobody logging the reply, one that is mostly a data text goes
    // into the caller's buffer in one copy.
    if (out_response != nullptr && !zeph::LogEnabled()) {
      if (const auto spliced = zeph::ci::Splice(reply.res)) {
        zeph::ci::WriteSpliced(*spliced, out_response);
        return 0;
      }
    }
    zeph::ci::Print(&reply);
    // Compat: the response is written without a capacity (the host sizes it
    // for the largest reply it asks for) and the call always returns 0: the
    // outcome is the document's "code".
    if (out_response != nullptr && reply.text) {
      std::memcpy(out_response, reply.text.get(), std::strlen(reply.text.get()) + 1);
    }
    return 0;
  });
  return 0;
}

ZEPH_API uint32_t ZEPH_C_CI_SetRequestLimit(uint32_t max_bytes) {
  return zeph::ci::g_request_limit.exchange(max_bytes != 0 ? max_bytes : zeph::ci::kDefaultRequestLimit);
}

ZEPH_API uint32_t ZEPH_C_CI_Ex(const char *request, char *out_response, uint32_t capacity, uint32_t *out_required) {
  return zeph::Guarded([&]() -> uint32_t {
    Reply reply;
    zeph::ci::Run(request, &reply);
    if (!reply.text) return ERR_OUT_OF_MEMORY;
    const size_t need = std::strlen(reply.text.get()) + 1;
    if (need > UINT32_MAX) return ERR_OUT_OF_MEMORY;
    if (out_required != nullptr) *out_required = static_cast<uint32_t>(need);
    if (out_response != nullptr && capacity >= need) {
      std::memcpy(out_response, reply.text.get(), need);
      return 0;
    }
    if (out_response != nullptr && capacity > 0) {
      const zeph::ci::ZEPH_RES_PARAM bare{reply.res.command, reply.res.code, 0, nullptr, reply.res.kind};
      const zeph::JsonTextPtr shorter(zeph::ci::PrintResponse(bare));
      const size_t n = shorter ? std::strlen(shorter.get()) + 1 : 0;
      if (n != 0 && n <= capacity) {
        std::memcpy(out_response, shorter.get(), n);
      } else {
        out_response[0] = '\0';
      }
    }
    return ERR_BUFFER_TOO_SMALL;
  });
}

}  // extern "C"
