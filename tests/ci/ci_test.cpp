// The JSON command interface inside: dispatch table, request parser, response
// document and the bounded entry.
#include <climits>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include <gtest/gtest.h>

#include "ci/ci_internal.hpp"
#include "zeph_c_ci.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

using namespace zeph::ci;
using Req = ZEPH_REQ_PARAM;

std::string Ci(const std::string &request) {
  std::vector<char> out(1 << 16, '\x7f');
  EXPECT_EQ(ZEPH_C_CI(request.c_str(), out.data()), 0u);
  return out.data();
}

// A parsed record that releases itself.
struct Parsed {
  std::unique_ptr<Req> req = std::make_unique<Req>();
  uint32_t rv;
  explicit Parsed(const std::string &text) : rv(ParseRequest(text.c_str(), req.get())) {}
  ~Parsed() { ReleaseRequest(req.get()); }
  Req *operator->() const { return req.get(); }
};

// A text field, or a base64 field's decoded bytes.
template <auto M>
std::string Field(const Req &r) {
  const auto &f = r.*M;
  if constexpr (requires { f.s; }) {
    return f.s;
  } else {
    return std::string(reinterpret_cast<const char *>(f.bytes), f.len);
  }
}
// n bytes of 0xFF in base64.
std::string Base64Ff(size_t n) { return std::string(4 * (n / 3), '/') + (n % 3 == 1 ? "/w==" : n % 3 ? "//8=" : ""); }

TEST(CiDispatch, HandlersSitExactlyAtTheTableCodes) {
  std::set<int> codes = {907};
  const int ranges[][2] = {{1, 3},     {100, 109}, {200, 206}, {300, 314}, {400, 405},
                           {500, 503}, {600, 609}, {700, 705}, {800, 803}, {900, 904}};
  for (const auto &r : ranges) {
    for (int c = r[0]; c <= r[1]; ++c) codes.insert(c);
  }
  for (int code = -1000; code < 1100; ++code) EXPECT_EQ(FindHandler(code) != nullptr, codes.count(code) != 0) << code;
  for (int32_t code : {INT_MIN, INT_MAX, 10000, 1014}) EXPECT_EQ(FindHandler(code), nullptr) << code;
  EXPECT_EQ(FindHandler(405), FindHandler(205));  // one handler, two codes
  EXPECT_EQ(FindHandler(101), &l_ci4verifyUserPin);
}

TEST(CiDispatch, InterfaceFailuresPrintZeroExtended) {
  const std::string k261(261, 'K'), failed = R"({"type":0,"code":2181562459})";
  for (const std::string &request : std::vector<std::string>{
           "not json", "", "[101]", "null", R"({"type":)", R"({"type" 1})", R"({})", R"({"Type":101})",
           R"({"type":"101"})", R"({"type":101,"keySN":")" + k261 + "\"}", R"({"type":101,"pin":")" + k261 + "\"}",
           R"({"type":600,"bivo_d1":")" + std::string(176, 'A') + "\"}", R"({"type":600,"bivo_d1":"@@@@"})"}) {
    EXPECT_EQ(Ci(request), failed) << request;
  }
  // Codes that name no handler keep their number.
  for (const char *type : {"150", "-5", "-100", "905", "1014"}) {
    EXPECT_EQ(Ci(std::string(R"({"keySN":"x","type":)") + type + "}"),
              std::string(R"({"type":)") + type + R"(,"code":2181562459})");
  }
  EXPECT_EQ(Ci(R"({"type":1e12})"), R"({"type":2147483647,"code":2181562459})");
  std::vector<char> out(256, '\x7f');
  EXPECT_EQ(ZEPH_C_CI(nullptr, out.data()), 0u);
  EXPECT_STREQ(out.data(), R"({"type":0,"code":2181562459})");
  EXPECT_EQ(ZEPH_C_CI(R"({"type":102})", nullptr), 0u);  // nowhere to write: still no crash
}

TEST(CiDispatch, ResponseCarriesDataOnlyOnSuccessOrForPinVerification) {
  const int64_t device = static_cast<int32_t>(0x0A000024u);
  const int64_t handler = static_cast<int32_t>(ERR_INVALID_PARAMETER);
  const struct {
    uint32_t command;
    int64_t code;
    const char *data;
    uint32_t kind;
    std::string want;
  } cases[] = {
      {102, 0, "95560", 0, R"({"type":102,"code":0,"data":"95560"})"},
      {101, 0, R"({"retryCnt":3})", 0, R"({"type":101,"code":0,"data":"{\"retryCnt\":3}"})"},
      {101, device, R"({"retryCnt":2})", 0, R"({"type":101,"code":167772196,"data":"{\"retryCnt\":2}"})"},
      {101, handler, R"({"retryCnt":0})", 0, R"({"type":101,"code":-2113404837,"data":"{\"retryCnt\":0}"})"},
      {106, handler, "AAAA", 0, R"({"type":106,"code":-2113404837})"},
      {100, 0, nullptr, 0, R"({"type":100,"code":0})"},
      {801, 0, R"({ "a" : [1, {"b":null}] })", kDataObject, R"({"type":801,"code":0,"data":{"a":[1,{"b":null}]}})"},
      {801, 0, R"({"a":)", kDataObject, R"({"type":801,"code":0,"data":"{\"a\":"})"},
      {801, 0, "{}", 63, R"({"type":801,"code":0,"data":"{}"})"},
      {801, 0, "QUJD+/==", kDataPlain, R"({"type":801,"code":0,"data":"QUJD+/=="})"},
      {801, handler, R"({"a":1})", kDataObject, R"({"type":801,"code":-2113404837})"},
      {108, 0, "", 0, R"({"type":108,"code":0,"data":""})"},
      {101, handler, "5", 0, R"({"type":101,"code":-2113404837,"data":"5"})"},
  };
  for (const auto &c : cases) {
    ZEPH_RES_PARAM res{c.command, c.code, 0, nullptr, 0};
    if (c.data != nullptr) {
      EXPECT_EQ(SetData(&res, c.data, c.kind), 0u);
    }
    char *text = PrintResponse(res);
    EXPECT_STREQ(text, c.want.c_str());
    cJSON_free(text);
    ReleaseResponse(&res);
  }
}

// Plain data texts are spliced into the reply, the others printed by cJSON:
// either way the reply is what cJSON prints, for every byte anywhere in a word
// (escapes, UTF-8 and DEL included).
TEST(CiDispatch, DataTextsPrintAsCjsonPrintsThem) {
  for (int byte = 1; byte < 256; ++byte) {
    for (const size_t at : {0u, 5u, 7u, 8u, 15u, 16u, 22u}) {
      std::string text = "ABCDEFGHIJKLMNOPQRSTUVW";
      text[at] = static_cast<char>(byte);
      ZEPH_RES_PARAM res{203, 0, 0, nullptr, 0};
      ASSERT_EQ(SetData(&res, text), 0u);
      char *ours = PrintResponse(res);
      cJSON *doc = cJSON_CreateObject();
      cJSON_AddNumberToObject(doc, "type", 203);
      cJSON_AddNumberToObject(doc, "code", 0);
      cJSON_AddStringToObject(doc, "data", text.c_str());
      char *theirs = cJSON_PrintUnformatted(doc);
      EXPECT_STREQ(ours, theirs) << "byte " << byte << " at " << at;
      cJSON_free(theirs);
      cJSON_Delete(doc);
      cJSON_free(ours);
      ReleaseResponse(&res);
    }
  }
}

TEST(CiDispatch, BoundedVariantNeverWritesPastCapacity) {
  const char *request = R"({"type":102})";
  const std::string full = R"({"type":102,"code":0,"data":"95560"})", bare = R"({"type":102,"code":0})";
  const auto need = static_cast<uint32_t>(full.size() + 1), bare_need = static_cast<uint32_t>(bare.size() + 1);
  const struct {
    uint32_t capacity;
    uint32_t rv;
    std::string text;
  } cases[] = {{need + 10, 0, full},
               {need, 0, full},
               {need - 1, ERR_BUFFER_TOO_SMALL, bare},
               {bare_need, ERR_BUFFER_TOO_SMALL, bare},
               {bare_need - 1, ERR_BUFFER_TOO_SMALL, ""},
               {1, ERR_BUFFER_TOO_SMALL, ""},
               {0, ERR_BUFFER_TOO_SMALL, ""}};
  for (const auto &c : cases) {
    std::vector<char> buf(need + 32, '\x7f');
    buf.back() = '\0';
    uint32_t required = 0;
    EXPECT_EQ(ZEPH_C_CI_Ex(request, buf.data(), c.capacity, &required), c.rv) << c.capacity;
    EXPECT_EQ(required, need);
    if (c.capacity > 0) {
      EXPECT_EQ(std::string(buf.data()), c.text) << c.capacity;
    }
    for (size_t i = c.capacity; i + 1 < buf.size(); ++i) ASSERT_EQ(buf[i], '\x7f') << c.capacity << ": byte " << i;
  }
  uint32_t required = 0;
  EXPECT_EQ(ZEPH_C_CI_Ex(request, nullptr, 0, &required), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(required, need);
  std::vector<char> buf(64);
  EXPECT_EQ(ZEPH_C_CI_Ex(nullptr, buf.data(), 64, nullptr), 0u);
  EXPECT_STREQ(buf.data(), R"({"type":0,"code":2181562459})");
}

// Refused before the parser (or the log) ever reads them; the limit counts
// the bytes before the terminator.
TEST(CiDispatch, RequestsAboveTheLimitAreRefusedUnread) {
  static int parsed;
  parsed = 0;
  setLogCallback([](const char *record) { parsed += std::strstr(record, "l_GetZEPH_REQ_PARAM") != nullptr; });
  const std::string answered = R"({"type":102,"code":0,"data":"95560"})", refused = R"({"type":0,"code":2181562459})";
  const auto padded = [](size_t n) {
    std::string r = R"({"type":102})";
    r.insert(r.size() - 1, n - r.size(), ' ');
    return r;
  };
  EXPECT_EQ(ZEPH_C_CI_SetRequestLimit(64), kDefaultRequestLimit);
  EXPECT_EQ(Ci(padded(64)), answered);
  EXPECT_EQ(parsed, 1);
  EXPECT_EQ(Ci(padded(65)), refused);
  std::vector<char> out(64);
  EXPECT_EQ(ZEPH_C_CI_Ex(padded(65).c_str(), out.data(), 64, nullptr), 0u);
  EXPECT_STREQ(out.data(), refused.c_str());
  EXPECT_EQ(parsed, 1);
  EXPECT_EQ(ZEPH_C_CI_SetRequestLimit(0), 64u);
  EXPECT_EQ(Ci(padded(16u << 20)), answered);
  EXPECT_EQ(Ci(padded((16u << 20) + 1)), refused);
  EXPECT_EQ(parsed, 2);
  setLogCallback(nullptr);
}

TEST(CiRequest, NumbersTakeTheFirstAliasPresent) {
  const struct {
    const char *json;
    uint32_t Req::*field;
    uint32_t want;
  } cases[] = {{R"({"isRaw":3,"appID":2,"usage":1})", &Req::usage, 1},  // lookup order, not text order
               {R"({"isRaw":3,"appID":2})", &Req::usage, 2},
               {R"({"isRaw":true})", &Req::usage, 1},
               {R"({"usage":"1","appID":2})", &Req::usage, 0},  // the first present wins even when unusable
               {R"({"itemNo":6,"idx":5,"chkMode":4,"retryCnt":3,"wrapperType":2})", &Req::selector, 2},
               {R"({"itemNo":6,"idx":5})", &Req::selector, 5},
               {R"({"itemNo":6,"signDataType":1})", &Req::selector, 1},
               {R"({"randLen":32,"signMethodID":3,"modLen":2048})", &Req::algID, 2048},
               {R"({"randLen":32,"algID":4})", &Req::algID, 4},
               {R"({"randLen":32})", &Req::algID, 32},
               {R"({"randLen":-1})", &Req::algID, 0xFFFFFFFFu},
               {R"({"type":101.9})", &Req::command, 101},
               {R"({"devType":41})", &Req::devType, 41},
               {R"({"asymid":2})", &Req::asymid, 2},
               {R"({"nocrl":1})", &Req::nocrl, 1},
               {R"({"bivo_c2_len":77})", &Req::bivo_c2_len, 77}};
  for (const auto &c : cases) {
    Parsed p(c.json);
    ASSERT_EQ(p.rv, 0u) << c.json;
    EXPECT_EQ((*p.req).*c.field, c.want) << c.json;
  }
}

TEST(CiRequest, TextsTakeStringsAndValueKeepsObjectsUnformatted) {
  using Get = std::string (*)(const Req &);
  const Get value = [](const Req &r) { return r.value ? r.value + std::to_string(r.valueLen) : "null"; };
  const Get cert = [](const Req &r) { return r.cert ? r.cert + std::to_string(r.certLen) : "null"; };
  const struct {
    const char *json;
    Get field;
    const char *want;  // owned texts end with their length
  } cases[] = {
      {R"({"adminPin":"admin","oid":"1.2.3"})", Field<&Req::oid>, "1.2.3"},
      {R"({"adminPin":"admin"})", Field<&Req::oid>, "admin"},
      {R"({"keysn":"SK_1","PIN":"1"})", Field<&Req::keySN>, ""},  // names are case-sensitive
      {R"({"pin":1234})", Field<&Req::pin>, ""},
      {R"({"sealData":{"a": [1, 2], "b" : "x"}})", value, R"({"a":[1,2],"b":"x"}19)"},
      {R"({"sealData":"text"})", value, "text4"},
      {R"({"sealData":""})", value, "0"},
      {R"({"sealData":12})", value, "null"},
      {R"({"sealData":[1,2]})", value, "null"},
      {R"({"raw":12,"sealData":"text"})", value, "null"},
      {R"({"sealData":{"a":1},"raw":"AAAA"})", value, "AAAA4"},
      {R"({"newPin":"n","authCode":"a"})", value, "n1"},
      {R"({"cert":"MIIB"})", cert, "MIIB4"},
      {R"({"cert":{"a":1},"pubkey":"p"})", cert, "null"},  // certificates are strings only
      {R"({"filepath":"f","prikeyinfo":"k"})", cert, "k1"},
  };
  for (const auto &c : cases) {
    Parsed p(c.json);
    ASSERT_EQ(p.rv, 0u) << c.json;
    EXPECT_EQ(c.field(*p.req), c.want) << c.json;
  }
}

TEST(CiRequest, FieldsHoldTheirSizeAndRefuseOneMore) {
  const struct {
    const char *key;
    size_t size;
    std::string (*field)(const Req &);
  } cases[] = {{"keySN", 260, Field<&Req::keySN>},
               {"pin", 260, Field<&Req::pin>},
               {"adminPin", 260, Field<&Req::oid>},
               {"deviceID", 260, Field<&Req::deviceID>},
               {"url", 260, Field<&Req::url>},
               {"signData", 1024, Field<&Req::signData>},
               {"prikey", 4096, Field<&Req::prikey>},
               {"symKey", 4096, Field<&Req::symKey>},
               {"bivo_d1", 130, Field<&Req::bivo_d1>},
               {"bivo_d1_inv", 520, Field<&Req::bivo_d1_inv>},
               {"bivo_credential", 390, Field<&Req::bivo_credential>},
               {"bivo_r", 130, Field<&Req::bivo_r>},
               {"bivo_s2", 130, Field<&Req::bivo_s2>},
               {"bivo_s3", 130, Field<&Req::bivo_s3>},
               {"bivo_pubkey", 130, Field<&Req::bivo_pubkey>},
               {"bivo_c1", 260, Field<&Req::bivo_c>},
               {"bivo_c2", 260, Field<&Req::bivo_c>},
               {"bivo_c3", 130, Field<&Req::bivo_c3>},
               {"bivo_t2", 130, Field<&Req::bivo_t2>},
               {"bivo_k1", 130, Field<&Req::bivo_k1>}};
  for (const auto &c : cases) {
    const bool base64 = std::strncmp(c.key, "bivo_", 5) == 0;
    const uint32_t too_long = std::strcmp(c.key, "keySN") == 0 ? 0xFFFFFFFFu : ERR_INVALID_PARAMETER;
    const std::string prefix = std::string("{\"") + c.key + "\":\"";
    for (size_t n : {size_t{1}, size_t{2}, c.size - 1, c.size, c.size + 1}) {
      SCOPED_TRACE(std::string(c.key) + " " + std::to_string(n));
      Parsed p(prefix + (base64 ? Base64Ff(n) : std::string(n, 'k')) + "\"}");
      EXPECT_EQ(p.rv, n > c.size ? too_long : 0u);
      EXPECT_EQ(c.field(*p.req), n > c.size ? "" : std::string(n, base64 ? '\xff' : 'k'));
    }
  }
  for (const char *text : {"QQ", "QQ=", "Q===", "Q Q=", "QQ!=", "\\n"}) {
    EXPECT_EQ(Parsed(std::string(R"({"bivo_r":")") + text + "\"}").rv, ERR_BASE64_INVALID) << text;
  }
  Parsed empty(R"({"bivo_r":"","bivo_s2":7})");
  EXPECT_EQ(empty->bivo_r.len + empty->bivo_s2.len, 0u);
  // c2 is read second and replaces c1 whole: 2 bytes after 7.
  Parsed c(R"({"bivo_c2":"AQI=","bivo_c1":"/////////w=="})");
  ASSERT_EQ(c->bivo_c.len, 2u);
  EXPECT_EQ(c->bivo_c.bytes[0] + c->bivo_c.bytes[1], 3);
  for (size_t i = 2; i < sizeof c->bivo_c.bytes; ++i) ASSERT_EQ(c->bivo_c.bytes[i], 0) << i;
}

TEST(CiRequest, ReleaseWipesEverySecretTheParserWrote) {
  Parsed p(R"({"pin":"123456","adminPin":"admin1","prikey":"MIGHAgEA","symKey":"0011","keySN":"K_1",)"
           R"("signData":"s","bivo_d1":"AQID","bivo_d1_inv":"BAUG","bivo_c2":"BwgJ","raw":"v","cert":"c"})");
  ASSERT_EQ(p.rv, 0u);
  ReleaseRequest(p.req.get());
  p->valueLen = p->certLen = 0;  // lengths are no secret
  const auto *bytes = reinterpret_cast<const uint8_t *>(p.req.get());
  for (size_t i = 0; i < sizeof(Req); ++i) ASSERT_EQ(bytes[i], 0) << "byte " << i << " of the record";
}

}  // namespace
