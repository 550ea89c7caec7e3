// What a stored seal says: the summary, detail and structure texts against
// what the tolerant reader finds in the same seals, the text form's record,
// GBK names, and the slot texts a key may hold.
#include <algorithm>
#include <cstdlib>
#include <ctime>

#include <cjson/cJSON.h>

#include <gtest/gtest.h>

#include "seal/seal_store.hpp"
#include "seal_record.hpp"
#include "seal_test.hpp"

namespace seal_test {
namespace {

using zeph::seal::SlotSeal;

std::string B64(const Bytes &b) { return zeph::seal::ToBase64(b); }

// Times are local; the expected texts are written for UTC.
class SealTexts : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

std::string Str(const cJSON *obj, const char *key) {
  const char *s = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(obj, key));
  return s != nullptr ? s : "";
}
int Num(const cJSON *obj, const char *key) {
  return static_cast<int>(cJSON_GetNumberValue(cJSON_GetObjectItemCaseSensitive(obj, key)));
}
// "20200422020900Z" as the standard time text.
std::string Local(const std::string &utc) { return utc.substr(0, 14); }

TEST_F(SealTexts, DerSealsSayWhatTheTolerantReaderFinds) {
  const struct {
    const char *what;
    Bytes der;
    int32_t type;
    const char *kind;
  } cases[] = {
      {"GB sample (structures)", Sample("gb-v4-user.esl"), ZEPH_SEAL_TYPE_GB, "TYPE3"},
      {"GIF seal (structures)", Sample("gb-v4-seal-gif.der"), ZEPH_SEAL_TYPE_GB, "TYPE3"},
      {"SES sample (reader only)", Sample("ses-v1-user.esl"), ZEPH_SEAL_TYPE_SES, "TYPE2"},
      {"SES with inline certificates (structures)", SesSeal(), ZEPH_SEAL_TYPE_SES, "TYPE2"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(zeph::seal::DerSealType(c.der), c.type);
    std::string described(c.der.size() * 2, '\0');
    auto len = static_cast<uint32_t>(described.size());
    ASSERT_EQ(ZEPH_C_SealDescribe(c.der.data(), c.der.size(), described.data(), &len), 0u);
    cJSON *d = cJSON_Parse(described.c_str());
    const cJSON *pic = cJSON_GetObjectItemCaseSensitive(d, "picture");
    Bytes picture(c.der.size());
    len = static_cast<uint32_t>(picture.size());
    ASSERT_EQ(ZEPH_C_SealPicture(c.der.data(), c.der.size(), picture.data(), &len), 0u);
    picture.resize(len);

    const SlotSeal seal{c.type, c.der, "", "", ""};
    std::string summary, detail, structure;
    ASSERT_EQ(zeph::seal::SealSummary(seal, &summary), 0u);
    ASSERT_EQ(zeph::seal::SealDetail(seal, &detail), 0u);
    ASSERT_EQ(zeph::seal::SealStructure(seal, &structure), 0u);
    EXPECT_EQ(summary, std::string(R"({"sealType":")") + c.kind + R"(","notBefore":")" + Local(Str(d, "validStart")) +
                           R"(","notAfter":")" + Local(Str(d, "validEnd")) +
                           R"(","signAlgoName":"SM2-with-SM3","picHight":)" + std::to_string(Num(pic, "height")) +
                           R"(,"picWidth":)" + std::to_string(Num(pic, "width")) + R"(,"sealPic":")" + B64(picture) +
                           R"(","issuerCert":")" + Str(d, "makerCert") + R"(","stampName":")" + Str(d, "name") +
                           R"("})");
    const cJSON *certs = cJSON_GetObjectItemCaseSensitive(d, "certs");
    EXPECT_EQ(detail, R"({"algorithm":"SM2-with-SM3","cert":")" +
                          std::string(cJSON_GetArrayItem(certs, 0)->valuestring) + R"(","createtime":")" +
                          Local(Str(d, "createDate")) + R"(","starttime":")" + Local(Str(d, "validStart")) +
                          R"(","endtime":")" + Local(Str(d, "validEnd")) + R"(","pic":")" + B64(picture) + R"("})");
    EXPECT_EQ(structure, "{\"type\":" + std::to_string(c.type + 1) + ", \"SealStruct\":\"" + B64(c.der) + "\"}");
    cJSON_Delete(d);
  }
}

TEST_F(SealTexts, TextFormRecordFieldsAndNames) {
  const zeph_test::RecordTime created{2021, 3, 4, 5, 6, 7}, start{2021, 12, 31, 23, 59, 58}, end{2031, 1, 2, 0, 0, 1};
  // "张三" in GBK, a byte no GBK character starts with, and a trail after the terminator.
  const std::string gbk_name = "\xD5\xC5\xC8\xFD\xFF" + std::string("!\0junk", 6);
  const Bytes rec = zeph_test::SealInfoRecord(4, 4099, 250, gbk_name, created, start, end);
  const SlotSeal seal{ZEPH_SEAL_TYPE_TEXT, {}, B64(rec), "UElD", "Q0VSVA=="};
  std::string summary, detail, structure;
  ASSERT_EQ(zeph::seal::SealSummary(seal, &summary), 0u);
  EXPECT_EQ(summary,
            R"({"sealType":"TYPE1","notBefore":"20211231235958","notAfter":"20310102000001",)"
            R"("signAlgoName":"SHA256withRSA","picHight":2,"picWidth":40,"sealPic":"UElD","issuerCert":"Q0VSVA==",)"
            "\"stampName\":\"\xE5\xBC\xA0\xE4\xB8\x89\xEF\xBF\xBD!\"}");
  ASSERT_EQ(zeph::seal::SealDetail(seal, &detail), 0u);
  EXPECT_EQ(detail, R"({"algorithm":"SHA256withRSA","cert":"Q0VSVA==","createtime":"20210304050607",)"
                    R"("starttime":"20211231235958","endtime":"20310102000001","pic":"UElD"})");
  ASSERT_EQ(zeph::seal::SealStructure(seal, &structure), 0u);
  EXPECT_EQ(structure, R"({"type":1, "SealStruct":")" + seal.info + R"(", "Pic":"UElD", "Cert":"Q0VSVA=="})");
  const SlotSeal picture_only{ZEPH_SEAL_TYPE_PICTURE, {'P', 'N', 'G'}, "", "", ""};
  ASSERT_EQ(zeph::seal::SealDetail(picture_only, &detail), 0u);
  EXPECT_EQ(detail, R"({"pic":"UE5H"})");
  ASSERT_EQ(zeph::seal::SealStructure(picture_only, &structure), 0u);
  EXPECT_EQ(structure, R"({"type":4, "SealStruct":"UE5H"})");

  // Unknown algorithm codes, a name filling its field, quotes that JSON must escape.
  const struct {
    int16_t alg;
    std::string name;
    std::string algo_text, name_text;
  } fields[] = {
      {-1, std::string(96, 'x'), "unknown signAlgoName", std::string(96, 'x')},
      {6, "a\"b\\c\n", "SHA512withRSA", "a\\\"b\\\\c\\u000a"},
  };
  for (const auto &f : fields) {
    const Bytes r = zeph_test::SealInfoRecord(f.alg, 0, 0, f.name, created, start, end);
    ASSERT_EQ(zeph::seal::SealSummary({ZEPH_SEAL_TYPE_TEXT, {}, B64(r), "", ""}, &summary), 0u);
    EXPECT_NE(summary.find("\"signAlgoName\":\"" + f.algo_text + "\""), std::string::npos) << summary;
    EXPECT_NE(summary.find("\"stampName\":\"" + f.name_text + "\"}"), std::string::npos) << summary;
  }
  // The converted name never exceeds its bound, nor splits a character.
  std::string out;
  std::string many;
  for (int i = 0; i < 100; ++i) many += "\xD6\xD0";  // "中", three bytes in UTF-8
  ASSERT_EQ(zeph::seal::GbkToUtf8({reinterpret_cast<const uint8_t *>(many.data()), many.size()}, 256, &out), 0u);
  EXPECT_EQ(out.size(), 255u);
  EXPECT_EQ(out.substr(252), "\xE4\xB8\xAD");
}

TEST_F(SealTexts, SlotTextsAndParsedSealsGiveAStatusForAnythingElse) {
  const Bytes gb = Sample("gb-v4-user.esl");
  const struct {
    const char *what;
    std::string text;
    uint32_t status;
  } slots[] = {
      {"GB seal with bytes after it", B64(Cat({gb, {0, 1, 2}})), 0},
      {"markers cut short", "<I>SU5GTw==</I><P>UElD", ERR_DEVICE_FILE_READ_FAILED},
      {"a quote in a part", "<I>SU5\"GTw==</I><P>UElD</P><C>Q0VSVA==</C>", ERR_DEVICE_FILE_READ_FAILED},
      {"base64 of no seal", B64(Bytes(gb.begin() + 4, gb.end())), ERR_DEVICE_FILE_READ_FAILED},
      {"not base64", "%%%%", ERR_BASE64_INVALID},
      {"empty", "", ERR_DEVICE_FILE_READ_FAILED},
      {"a NUL inside", std::string("MIIC\0MIIC", 9), ERR_BASE64_INVALID},
  };
  for (const auto &s : slots) {
    SlotSeal seal;
    EXPECT_EQ(zeph::seal::ReadSlotText(s.text, &seal), s.status) << s.what;
    if (s.status != 0) continue;
    EXPECT_EQ(seal.type, ZEPH_SEAL_TYPE_GB) << s.what;
    EXPECT_TRUE(seal.der.size() >= gb.size() && std::equal(gb.begin(), gb.end(), seal.der.begin())) << s.what;
  }

  const std::string record = B64(zeph_test::SealInfoRecord(3, 0, 0, "n", {}, {}, {}));
  const struct {
    std::string text;
    uint32_t status;
  } parsed[] = {
      {R"({"info":")" + record + R"(","pic":"UElD"})", ERR_JSON_INVALID},
      {R"({"info":")" + record + R"(","pic":"UElD","cert":7})", ERR_JSON_INVALID},
      {R"({"info":"%%%%","pic":"UElD","cert":""})", ERR_BASE64_INVALID},
      {R"({"info":"SU5GTw==","pic":"UElD","cert":""})", ERR_DEVICE_FILE_READ_FAILED},  // too short for a record
      {"UElD", ERR_DEVICE_FILE_READ_FAILED},
      {"[1,2]", ERR_BASE64_INVALID},
  };
  for (const auto &p : parsed) {
    std::string summary;
    EXPECT_EQ(zeph::seal::l_parseSealInfo(p.text.c_str(), &summary), p.status) << p.text.substr(0, 80);
  }
}

}  // namespace
}  // namespace seal_test
