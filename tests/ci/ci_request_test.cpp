// The request parser: aliases in their lookup order, field bounds, base64
// fields, owned texts.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "ci/ci_internal.hpp"
#include "zeph_c_status.h"

namespace {

using zeph::ci::l_GetZEPH_REQ_PARAM;
using zeph::ci::ReleaseRequest;
using zeph::ci::ZEPH_REQ_PARAM;

// A parsed record that releases itself.
struct Parsed {
  std::unique_ptr<ZEPH_REQ_PARAM> req = std::make_unique<ZEPH_REQ_PARAM>();
  uint32_t rv;
  explicit Parsed(const std::string &text) : rv(l_GetZEPH_REQ_PARAM(text.c_str(), req.get())) {}
  ~Parsed() { ReleaseRequest(req.get()); }
  ZEPH_REQ_PARAM *operator->() const { return req.get(); }
};

std::string Quote(const std::string &s) { return "\"" + s + "\""; }
std::string Base64Of(size_t n) {
  // n bytes of 0xA5 in base64 without OpenSSL, so the test is independent.
  static const char *kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < n; i += 3) {
    const size_t left = n - i;
    const uint32_t v = (0xA5u << 16) | (left > 1 ? 0xA5u << 8 : 0) | (left > 2 ? 0xA5u : 0);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += left > 1 ? kAlphabet[(v >> 6) & 63] : '=';
    out += left > 2 ? kAlphabet[v & 63] : '=';
  }
  return out;
}

TEST(CiRequest, NumericAliasesTakeTheFirstKeyInLookupOrder) {
  struct Case {
    const char *json;
    uint32_t ZEPH_REQ_PARAM::*field;
    uint32_t want;
  };
  const Case cases[] = {
      {R"({"usage":1,"appID":2,"isRaw":3})", &ZEPH_REQ_PARAM::usage, 1},
      {R"({"isRaw":3,"appID":2,"usage":1})", &ZEPH_REQ_PARAM::usage, 1},  // lookup order, not text order
      {R"({"isRaw":3,"appID":2})", &ZEPH_REQ_PARAM::usage, 2},
      {R"({"isRaw":true})", &ZEPH_REQ_PARAM::usage, 1},
      {R"({"itemNo":6,"idx":5,"chkMode":4,"retryCnt":3,"wrapperType":2})", &ZEPH_REQ_PARAM::selector, 2},
      {R"({"itemNo":6,"idx":5})", &ZEPH_REQ_PARAM::selector, 5},
      {R"({"itemNo":6,"signDataType":1})", &ZEPH_REQ_PARAM::selector, 1},
      {R"({"randLen":32,"signMethodID":3,"modLen":2048})", &ZEPH_REQ_PARAM::algID, 2048},
      {R"({"randLen":32,"algID":4})", &ZEPH_REQ_PARAM::algID, 4},
      {R"({"randLen":32})", &ZEPH_REQ_PARAM::algID, 32},
      // The first key present wins even when its value is unusable.
      {R"({"usage":"1","appID":2})", &ZEPH_REQ_PARAM::usage, 0},
      {R"({"type":101.9})", &ZEPH_REQ_PARAM::command, 101},
      {R"({"type":-5})", &ZEPH_REQ_PARAM::command, 0xFFFFFFFBu},
      {R"({"type":"101"})", &ZEPH_REQ_PARAM::command, 0},
      {R"({"devType":41,"asymid":2})", &ZEPH_REQ_PARAM::devType, 41},
      {R"({"devType":41,"asymid":2})", &ZEPH_REQ_PARAM::asymid, 2},
      {R"({"nocrl":1,"bivo_c2_len":77})", &ZEPH_REQ_PARAM::nocrl, 1},
      {R"({"nocrl":1,"bivo_c2_len":77})", &ZEPH_REQ_PARAM::bivo_c2_len, 77},
  };
  for (const auto &c : cases) {
    Parsed p(c.json);
    ASSERT_EQ(p.rv, 0u) << c.json;
    EXPECT_EQ((*p.req).*c.field, c.want) << c.json;
  }
}

TEST(CiRequest, TextAliasesAndOwnedTexts) {
  Parsed p(R"({"adminPin":"admin","oid":"1.2.3","pin":"1234","keySN":"SK_01",
               "filepath":"f","cert":"MIIB","sealData":{"a": [1, 2], "b": "x"},"raw":"AAAA"})");
  ASSERT_EQ(p.rv, 0u);
  EXPECT_STREQ(p->oid.s, "1.2.3");
  EXPECT_STREQ(p->pin.s, "1234");
  EXPECT_STREQ(p->keySN.s, "SK_01");
  ASSERT_NE(p->cert, nullptr);
  EXPECT_STREQ(p->cert, "MIIB");
  EXPECT_EQ(p->certLen, 4u);
  ASSERT_NE(p->value, nullptr);
  EXPECT_STREQ(p->value, "AAAA");  // "raw" comes before "sealData"
  EXPECT_EQ(p->valueLen, 4u);
}

TEST(CiRequest, ValueKeepsObjectsAsUnformattedTextAndDropsOtherTypes) {
  struct Case {
    const char *json;
    const char *want;  // null: field stays empty
  };
  const Case cases[] = {
      {R"({"sealData":{"a": [1, 2], "b" : "x"}})", R"({"a":[1,2],"b":"x"})"},
      {R"({"sealData":"text"})", "text"},
      {R"({"sealData":"" })", ""},
      {R"({"sealData":12})", nullptr},
      {R"({"sealData":[1,2]})", nullptr},
      {R"({"sealData":null})", nullptr},
      {R"({"raw":12,"sealData":"text"})", nullptr},  // "raw" is present first
      {R"({"newPin":"n","authCode":"a"})", "n"},
      {R"({"authCode":"a","seal":"s"})", "a"},
  };
  for (const auto &c : cases) {
    Parsed p(c.json);
    ASSERT_EQ(p.rv, 0u) << c.json;
    if (c.want == nullptr) {
      EXPECT_EQ(p->value, nullptr) << c.json;
      EXPECT_EQ(p->valueLen, 0u) << c.json;
    } else {
      ASSERT_NE(p->value, nullptr) << c.json;
      EXPECT_STREQ(p->value, c.want) << c.json;
      EXPECT_EQ(p->valueLen, std::strlen(c.want)) << c.json;
    }
  }
  // The certificate group takes strings only.
  Parsed obj(R"({"cert":{"a":1},"pubkey":"p"})");
  ASSERT_EQ(obj.rv, 0u);
  EXPECT_EQ(obj->cert, nullptr);
  Parsed path(R"({"prikeyinfo":"k","filepath":"f"})");
  ASSERT_EQ(path.rv, 0u);
  EXPECT_STREQ(path->cert, "k");
}

TEST(CiRequest, TextFieldsAcceptTheirSizeAndRejectOneMore) {
  struct Case {
    const char *key;
    size_t size;
    std::function<const char *(const ZEPH_REQ_PARAM &)> field;
    uint32_t too_long;
  };
  const Case cases[] = {
      {"keySN", 260, [](const ZEPH_REQ_PARAM &r) { return r.keySN.s; }, 0xFFFFFFFFu},
      {"pin", 260, [](const ZEPH_REQ_PARAM &r) { return r.pin.s; }, ERR_INVALID_PARAMETER},
      {"adminPin", 260, [](const ZEPH_REQ_PARAM &r) { return r.oid.s; }, ERR_INVALID_PARAMETER},
      {"deviceID", 260, [](const ZEPH_REQ_PARAM &r) { return r.deviceID.s; }, ERR_INVALID_PARAMETER},
      {"url", 260, [](const ZEPH_REQ_PARAM &r) { return r.url.s; }, ERR_INVALID_PARAMETER},
      {"signData", 1024, [](const ZEPH_REQ_PARAM &r) { return r.signData.s; }, ERR_INVALID_PARAMETER},
      {"prikey", 4096, [](const ZEPH_REQ_PARAM &r) { return r.prikey.s; }, ERR_INVALID_PARAMETER},
      {"symKey", 4096, [](const ZEPH_REQ_PARAM &r) { return r.symKey.s; }, ERR_INVALID_PARAMETER},
  };
  for (const auto &c : cases) {
    const std::string fits(c.size, 'k');
    Parsed ok("{\"type\":101,\"" + std::string(c.key) + "\":" + Quote(fits) + "}");
    ASSERT_EQ(ok.rv, 0u) << c.key;
    EXPECT_EQ(std::string(c.field(*ok.req)), fits) << c.key;

    Parsed over("{\"type\":101,\"" + std::string(c.key) + "\":" + Quote(fits + "k") + "}");
    EXPECT_EQ(over.rv, c.too_long) << c.key;
    EXPECT_EQ(std::strlen(c.field(*over.req)), 0u) << c.key << ": nothing copied on rejection";
  }
}

TEST(CiRequest, Base64FieldsDecodeUpToTheirSize) {
  struct Field {
    const char *key;
    size_t size;
    std::function<std::pair<const uint8_t *, uint32_t>(const ZEPH_REQ_PARAM &)> get;
  };
  auto blob = [](auto member) {
    return [member](const ZEPH_REQ_PARAM &r) {
      const auto &b = r.*member;
      return std::pair<const uint8_t *, uint32_t>(b.bytes, b.len);
    };
  };
  const Field fields[] = {
      {"bivo_d1", 130, blob(&ZEPH_REQ_PARAM::bivo_d1)},
      {"bivo_d1_inv", 520, blob(&ZEPH_REQ_PARAM::bivo_d1_inv)},
      {"bivo_credential", 390, blob(&ZEPH_REQ_PARAM::bivo_credential)},
      {"bivo_r", 130, blob(&ZEPH_REQ_PARAM::bivo_r)},
      {"bivo_s2", 130, blob(&ZEPH_REQ_PARAM::bivo_s2)},
      {"bivo_s3", 130, blob(&ZEPH_REQ_PARAM::bivo_s3)},
      {"bivo_pubkey", 130, blob(&ZEPH_REQ_PARAM::bivo_pubkey)},
      {"bivo_c1", 260, blob(&ZEPH_REQ_PARAM::bivo_c)},
      {"bivo_c2", 260, blob(&ZEPH_REQ_PARAM::bivo_c)},
      {"bivo_c3", 130, blob(&ZEPH_REQ_PARAM::bivo_c3)},
      {"bivo_t2", 130, blob(&ZEPH_REQ_PARAM::bivo_t2)},
      {"bivo_k1", 130, blob(&ZEPH_REQ_PARAM::bivo_k1)},
  };
  for (const auto &f : fields) {
    const std::string key = f.key;
    for (size_t n : {size_t{1}, size_t{2}, f.size - 1, f.size}) {
      Parsed p("{\"" + key + "\":" + Quote(Base64Of(n)) + "}");
      ASSERT_EQ(p.rv, 0u) << key << " " << n;
      const auto [bytes, len] = f.get(*p.req);
      ASSERT_EQ(len, n) << key;
      for (size_t i = 0; i < n; ++i) ASSERT_EQ(bytes[i], 0xA5) << key << " byte " << i;
    }
    Parsed over("{\"" + key + "\":" + Quote(Base64Of(f.size + 1)) + "}");
    EXPECT_EQ(over.rv, ERR_INVALID_PARAMETER) << key;
  }
}

TEST(CiRequest, Base64FieldsRejectMalformedText) {
  const char *bad[] = {"QQ", "QQ=", "Q===", "Q Q=", "QQ!=", "\\n"};
  for (const char *text : bad) {
    Parsed p(std::string(R"({"bivo_r":")") + text + "\"}");
    EXPECT_EQ(p.rv, ERR_BASE64_INVALID) << text;
  }
  Parsed empty(R"({"bivo_r":"","bivo_s2":7})");
  ASSERT_EQ(empty.rv, 0u);
  EXPECT_EQ(empty->bivo_r.len, 0u);
  EXPECT_EQ(empty->bivo_s2.len, 0u);
}

TEST(CiRequest, SecondCoSigningKeyOverwritesTheFirst) {
  // c1 decodes to 7 bytes, c2 to 2: the field holds exactly c2.
  Parsed p(R"({"bivo_c2":"AQI=","bivo_c1":"/////////w=="})");
  ASSERT_EQ(p.rv, 0u);
  ASSERT_EQ(p->bivo_c.len, 2u);
  EXPECT_EQ(p->bivo_c.bytes[0], 1);
  EXPECT_EQ(p->bivo_c.bytes[1], 2);
  for (size_t i = 2; i < sizeof p->bivo_c.bytes; ++i) ASSERT_EQ(p->bivo_c.bytes[i], 0) << i;

  Parsed only_c1(R"({"bivo_c1":"/////////w=="})");
  ASSERT_EQ(only_c1.rv, 0u);
  EXPECT_EQ(only_c1->bivo_c.len, 7u);
}

TEST(CiRequest, TextsThatAreNotJsonObjectsAreRefused) {
  for (const char *text : {"", "not json", "[1,2]", "101", "\"type\"", "null", "{\"type\":", "{\"type\" 1}"}) {
    Parsed p(text);
    EXPECT_EQ(p.rv, ERR_JSON_INVALID) << text;
  }
  ZEPH_REQ_PARAM req{};
  EXPECT_EQ(l_GetZEPH_REQ_PARAM(nullptr, &req), ERR_JSON_INVALID);
}

TEST(CiRequest, KeyNamesAreCaseSensitiveAndNonStringTextsStayEmpty) {
  Parsed p(R"({"keysn":"SK_1","PIN":"1","pin":1234,"Type":101})");
  ASSERT_EQ(p.rv, 0u);
  EXPECT_STREQ(p->keySN.s, "");
  EXPECT_STREQ(p->pin.s, "");
  EXPECT_EQ(p->command, 0u);
}

}  // namespace

namespace {

TEST(CiRequest, ReleaseWipesEverySecretTheParserWrote) {
  Parsed p(R"({"pin":"123456","adminPin":"admin1","prikey":"MIGHAgEA","symKey":"0011","keySN":"K_1",)"
           R"("signData":"s","bivo_d1":"AQID","bivo_d1_inv":"BAUG","bivo_c2":"BwgJ","raw":"v","cert":"c"})");
  ASSERT_EQ(p.rv, 0u);
  ReleaseRequest(p.req.get());
  const auto zero = [](const void *data, size_t n) {
    const auto *b = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < n; ++i) {
      if (b[i] != 0) return false;
    }
    return true;
  };
  EXPECT_TRUE(zero(&p->keySN, sizeof p->keySN));
  EXPECT_TRUE(zero(&p->oid, sizeof p->oid));
  EXPECT_TRUE(zero(&p->pin, sizeof p->pin));
  EXPECT_TRUE(zero(&p->signData, sizeof p->signData));
  EXPECT_TRUE(zero(&p->prikey, sizeof p->prikey));
  EXPECT_TRUE(zero(&p->symKey, sizeof p->symKey));
  EXPECT_TRUE(zero(&p->bivo_d1, sizeof p->bivo_d1));
  EXPECT_TRUE(zero(&p->bivo_d1_inv, sizeof p->bivo_d1_inv));
  EXPECT_TRUE(zero(&p->bivo_c, sizeof p->bivo_c));
  EXPECT_EQ(p->value, nullptr);
  EXPECT_EQ(p->cert, nullptr);
}

}  // namespace
