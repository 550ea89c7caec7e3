// Dispatch by group and slot, the response document and the bounded entry.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "ci/ci_internal.hpp"
#include "zeph_c_ci.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace {

using namespace zeph::ci;

std::string Ci(const std::string &request) {
  std::vector<char> out(1 << 20, '\x7f');
  EXPECT_EQ(ZEPH_C_CI(request.c_str(), out.data()), 0u);
  return out.data();
}

// The codes of the command table.
std::set<int> TableCodes() {
  std::set<int> codes = {907};
  const int ranges[][2] = {{1, 3},     {100, 109}, {200, 206}, {300, 314}, {400, 405},
                           {500, 503}, {600, 609}, {700, 705}, {800, 803}, {900, 904}};
  for (const auto &r : ranges) {
    for (int c = r[0]; c <= r[1]; ++c) codes.insert(c);
  }
  return codes;
}

const std::set<int> kLive = {100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 300, 301, 500, 501, 502, 503};

TEST(CiDispatch, ExactlyTheTableCodesFindAHandler) {
  const auto codes = TableCodes();
  for (int code = 0; code < 1000; ++code) {
    EXPECT_EQ(FindHandler(code) != nullptr, codes.count(code) != 0) << code;
  }
  EXPECT_EQ(FindHandler(405), FindHandler(205));  // one handler, two codes
  EXPECT_EQ(FindHandler(101), &l_ci4verifyUserPin);
}

TEST(CiDispatch, CodesOutsideTheTableFindNothing) {
  for (int32_t code : {1000, 1001, 1014, 10000, -1, -5, -14, -99, -100, -101, -905, INT_MIN, INT_MAX}) {
    EXPECT_EQ(FindHandler(code), nullptr) << code;
  }
}

TEST(CiDispatch, DispatcherFailuresPrintZeroExtended) {
  struct Case {
    std::string request;
    std::string want;
  };
  const Case cases[] = {
      {"not json", R"({"type":0,"code":2181562459})"},
      {"", R"({"type":0,"code":2181562459})"},
      {"[101]", R"({"type":0,"code":2181562459})"},
      {R"({"type":150})", R"({"type":150,"code":2181562459})"},
      {R"({"type":0})", R"({"type":0,"code":2181562459})"},
      {R"({})", R"({"type":0,"code":2181562459})"},
      {R"({"type":-5})", R"({"type":-5,"code":2181562459})"},
      {R"({"type":-100})", R"({"type":-100,"code":2181562459})"},
      {R"({"type":905,"keySN":"x"})", R"({"type":905,"code":2181562459})"},
      {R"({"type":1014})", R"({"type":1014,"code":2181562459})"},
      {R"({"type":1e12})", R"({"type":2147483647,"code":2181562459})"},
      {R"({"type":101,"keySN":")" + std::string(261, 'K') + "\"}", R"({"type":0,"code":2181562459})"},
      {R"({"type":101,"pin":")" + std::string(261, '1') + "\"}", R"({"type":0,"code":2181562459})"},
      {R"({"type":600,"bivo_d1":")" + std::string(176, 'A') + "\"}", R"({"type":0,"code":2181562459})"},
      {R"({"type":600,"bivo_d1":"@@@@"})", R"({"type":0,"code":2181562459})"},
  };
  for (const auto &c : cases) EXPECT_EQ(Ci(c.request), c.want) << c.request;

  std::vector<char> out(256, '\x7f');
  EXPECT_EQ(ZEPH_C_CI(nullptr, out.data()), 0u);
  EXPECT_STREQ(out.data(), R"({"type":0,"code":2181562459})");
  EXPECT_EQ(ZEPH_C_CI(R"({"type":102})", nullptr), 0u);  // nowhere to write: still no crash
}

TEST(CiDispatch, RowsWithoutAnOperationAnswerUnsupportedSignExtended) {
  for (int row : TableCodes()) {
    if (kLive.count(row) != 0) continue;
    const std::string code = std::to_string(row);
    EXPECT_EQ(Ci(R"({"type":)" + code + "}"), R"({"type":)" + code + R"(,"code":-2113404838})");
  }
}

// Prints a response record built by hand.
std::string Print(uint32_t command, int64_t code, const char *data, uint32_t kind = 0) {
  ZEPH_RES_PARAM res{};
  res.command = command;
  res.code = code;
  if (data != nullptr) {
    EXPECT_EQ(SetData(&res, data, kind), 0u);
  }
  char *text = PrintResponse(res);
  std::string out = text != nullptr ? text : "<null>";
  cJSON_free(text);
  ReleaseResponse(&res);
  return out;
}

TEST(CiDispatch, ResponseCarriesDataOnlyOnSuccessOrForPinVerification) {
  const int64_t failed = static_cast<int32_t>(0x0A000024u);
  const int64_t handler_fail = static_cast<int32_t>(ERR_INVALID_PARAMETER);
  struct Case {
    uint32_t command;
    int64_t code;
    const char *data;
    uint32_t kind;
    std::string want;
  };
  const Case cases[] = {
      {102, 0, "95560", 0, R"({"type":102,"code":0,"data":"95560"})"},
      {101, 0, R"({"retryCnt":3})", 0, R"({"type":101,"code":0,"data":"{\"retryCnt\":3}"})"},
      {101, failed, R"({"retryCnt":2})", 0, R"({"type":101,"code":167772196,"data":"{\"retryCnt\":2}"})"},
      {101, handler_fail, R"({"retryCnt":0})", 0, R"({"type":101,"code":-2113404837,"data":"{\"retryCnt\":0}"})"},
      {106, handler_fail, "AAAA", 0, R"({"type":106,"code":-2113404837})"},
      {100, 0, nullptr, 0, R"({"type":100,"code":0})"},
      {801, 0, R"({ "a" : [1, {"b":null}] })", kDataObject, R"({"type":801,"code":0,"data":{"a":[1,{"b":null}]}})"},
      {801, 0, R"({"a":)", kDataObject, R"({"type":801,"code":0,"data":"{\"a\":"})"},
      {801, 0, "{}", 63, R"({"type":801,"code":0,"data":"{}"})"},
      {801, handler_fail, R"({"a":1})", kDataObject, R"({"type":801,"code":-2113404837})"},
      {108, 0, "line\n\"quoted\"\t", 0, R"({"type":108,"code":0,"data":"line\n\"quoted\"\t"})"},
      {108, 0, "", 0, R"({"type":108,"code":0,"data":""})"},
  };
  for (const auto &c : cases) EXPECT_EQ(Print(c.command, c.code, c.data, c.kind), c.want) << c.want;
}

TEST(CiDispatch, BoundedVariantNeverWritesPastCapacity) {
  const std::string request = R"({"type":200})";
  const std::string full = R"({"type":200,"code":-2113404838})";
  const uint32_t need = static_cast<uint32_t>(full.size() + 1);

  struct Case {
    uint32_t capacity;
    uint32_t want_rv;
    std::string want_text;
  };
  const Case cases[] = {
      {need + 10, 0, full},
      {need, 0, full},
      {need - 1, ERR_BUFFER_TOO_SMALL, ""},  // the bare form is the whole document here
      {1, ERR_BUFFER_TOO_SMALL, ""},
  };
  for (const auto &c : cases) {
    std::vector<char> buf(c.capacity + 16, '\x7f');
    uint32_t required = 0;
    EXPECT_EQ(ZEPH_C_CI_Ex(request.c_str(), buf.data(), c.capacity, &required), c.want_rv) << c.capacity;
    EXPECT_EQ(required, need);
    EXPECT_EQ(std::string(buf.data()), c.want_text) << c.capacity;
    for (size_t i = c.capacity; i < buf.size(); ++i) ASSERT_EQ(buf[i], '\x7f') << "byte " << i << " written";
  }

  uint32_t required = 0;
  EXPECT_EQ(ZEPH_C_CI_Ex(request.c_str(), nullptr, 0, &required), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(required, need);
  char untouched = '\x7f';
  EXPECT_EQ(ZEPH_C_CI_Ex(request.c_str(), &untouched, 0, nullptr), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(untouched, '\x7f');
  std::vector<char> buf(need);
  EXPECT_EQ(ZEPH_C_CI_Ex(nullptr, buf.data(), need, nullptr), 0u);
  EXPECT_STREQ(buf.data(), R"({"type":0,"code":2181562459})");
}

std::vector<std::string> gRecords;
void Capture(const char *record) { gRecords.emplace_back(record); }

TEST(CiDispatch, RequestParseResultAndResponseAreLogged) {
  gRecords.clear();
  setLogCallback(Capture);
  Ci(R"({"type":150,"pin":"1234"})");
  setLogCallback(nullptr);
  ASSERT_EQ(gRecords.size(), 3u);
  EXPECT_NE(gRecords[0].find(R"(msg:'{"type":150,"pin":"1234"}')"), std::string::npos) << gRecords[0];
  EXPECT_NE(gRecords[0].find("res:0}"), std::string::npos) << gRecords[0];
  EXPECT_NE(gRecords[1].find("msg:'l_GetZEPH_REQ_PARAM result:',res:0"), std::string::npos) << gRecords[1];
  EXPECT_NE(gRecords[2].find(R"(msg:'{"type":150,"code":2181562459}')"), std::string::npos) << gRecords[2];

  gRecords.clear();
  setLogCallback(Capture);
  Ci("nope");
  setLogCallback(nullptr);
  ASSERT_EQ(gRecords.size(), 3u);
  EXPECT_NE(gRecords[1].find("res:" + std::to_string(ERR_JSON_INVALID)), std::string::npos) << gRecords[1];
}

}  // namespace
