// PINs, device authentication, areas and the key layouts, end to end.
#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_NOEXT_LIB) && defined(ZEPH_SOFTKEY_TOOL)

#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using PinTest = SoftkeyTest;

std::string Report(void *h) {
  uint32_t len = 0;
  EXPECT_EQ(ZEPH_C_EnumAllInfoInCryptoDevice(h, nullptr, &len), 0u);
  std::string text(len, '\0');
  EXPECT_EQ(ZEPH_C_EnumAllInfoInCryptoDevice(h, text.data(), &len), 0u);
  text.resize(len > 0 ? len - 1 : 0);
  return text;
}

TEST_F(PinTest, RetryCountsLockAndUnblock) {
  CreateDevice("P1");
  CreateApp("P1", "VorliEcc", 3);
  GenKey("P1", "VorliEcc", "ECC", "sm2");
  Handle h("ZA_P1");
  uint32_t retry = 99;
  ASSERT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, kUserPin, &retry), 0u);
  EXPECT_EQ(retry, 3u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "000000", &retry), SAR_PIN_INCORRECT);
  EXPECT_EQ(retry, 2u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "000000", &retry), SAR_PIN_INCORRECT);
  EXPECT_EQ(retry, 1u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "000000", &retry), SAR_PIN_LOCKED);
  EXPECT_EQ(retry, 0u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, kUserPin, &retry), SAR_PIN_LOCKED);

  // A wrong administrator PIN stops the unblock; the right one sets the new
  // user PIN, of which exactly the stated lengths count.
  EXPECT_EQ(ZEPH_C_UnLockUserPinByAdminPin(h.get(), ZEPH_AREA_SM2, "87654321", 8, "654321", 6), SAR_PIN_INCORRECT);
  ASSERT_EQ(ZEPH_C_UnLockUserPinByAdminPin(h.get(), ZEPH_AREA_SM2, "12345678XX", 8, "654321YY", 6), 0u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "654321", &retry), 0u);
  EXPECT_EQ(retry, 3u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, kUserPin, &retry), SAR_PIN_INCORRECT);

  ASSERT_EQ(ZEPH_C_ChangeUserPin(h.get(), ZEPH_AREA_SM2, "654321", "112233"), 0u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "654321", &retry), SAR_PIN_INCORRECT);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "112233", &retry), 0u);
  EXPECT_EQ(ZEPH_C_ChangeUserPin(h.get(), ZEPH_AREA_SM2, "000000", "445566"), SAR_PIN_INCORRECT);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, nullptr, &retry), ERR_INVALID_PARAMETER);
}

std::vector<std::string> *g_messages = nullptr;

// Keeps the msg part of each debug record.
void KeepMessage(const char *record) {
  const std::string r = record;
  const size_t from = r.find(",msg:'"), to = r.rfind("',res:");
  if (g_messages != nullptr && from != std::string::npos && to != std::string::npos) {
    g_messages->push_back(r.substr(from + 6, to - from - 6));
  }
}

TEST_F(PinTest, LogRecordsOfASessionAndAFileWrite) {
  CreateStandardKey("L1", false);
  Handle h("ZA_L1");
  std::vector<std::string> messages;
  g_messages = &messages;
  setLogCallback(KeepMessage);
  uint32_t retry = 0;
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, kUserPin, &retry), 0u);
  const unsigned char data[] = "v1";
  EXPECT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, ZEPH_OBJ_SM2_VERSION, "Version", data, 2), 0u);
  setLogCallback(nullptr);
  g_messages = nullptr;
  const std::string pin_record =
      "{\"SKF_VerifyPIN: maxretryCnt\":\"10\",\"retryCnt\":\"10\",\"IsDefaultPin\":\"1\",\"UserPin\":\"123456\"}";
  const std::vector<std::string> want = {
      "SKF_OpenApplicationProc start:", "SKF_OpenApplicationProc end:", "SKF_OpenContainerProc start:",
      "SKF_OpenContainerProc end:",     pin_record,                     "SKF_OpenApplicationProc start:",
      "SKF_OpenApplicationProc end:",   pin_record,                     "GM_SKF_CTX_SetFileIntoCryptoDevice:",
      "SKF_DeleteFileProc end:",        "SKF_CreateFileProc end:",      "SKF_WriteFileProc end:"};
  EXPECT_EQ(messages, want);
}

TEST_F(PinTest, SelectorsPickTheirArea) {
  CreateDevice("P2");
  Must(std::string("create-app --serial P2 --app VorliRsa --admin-pin ") + kAdminPin + " --user-pin 111111");
  Must(std::string("create-app --serial P2 --app VorliEcc --admin-pin ") + kAdminPin + " --user-pin 222222");
  Must(std::string("create-app --serial P2 --app VorliStamp --admin-pin ") + kAdminPin + " --user-pin 444444");
  Must("gen-key --serial P2 --app VorliRsa --container RSA1 --user-pin 111111 --alg rsa1024 --no-cert");
  Must("gen-key --serial P2 --app VorliEcc --container ECC --user-pin 222222 --alg sm2 --no-cert");
  Handle h("ZA_P2");
  uint32_t retry = 0;
  const struct {
    uint32_t usage;
    const char *pin;
  } rows[] = {{1, "111111"}, {2, "222222"}, {4, "444444"}, {7, "111111"}, {0, "111111"}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.usage);
    EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), r.usage, r.pin, &retry), 0u);
  }
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), 7, "222222", &retry), SAR_PIN_INCORRECT);

  // Unlock and version writing refuse what they do not know, with nothing left open.
  const auto trace = Traced([&] {
    EXPECT_EQ(ZEPH_C_UnLockUserPinByAdminPin(h.get(), 7, kAdminPin, 8, "111111", 6), ERR_UNSUPPORTED_VALUE);
    const unsigned char v[] = {1, 2};
    EXPECT_EQ(ZEPH_C_SetVersion(h.get(), "111111", 3, v, 2), ERR_UNSUPPORTED_VALUE);
  });
  EXPECT_TRUE(trace.empty()) << Names(trace);
}

TEST_F(PinTest, PinsNeedNotBeTerminated) {
  CreateStandardKey("P3", false);
  Handle h("ZA_P3");
  GM_SKF_CTX *ctx = h.ctx();
  ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_SM2_SIGN), 0u);
  const char longer[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};  // no terminator anywhere
  EXPECT_EQ(GM_SKF_CTX_VerifyPin(ctx, longer, 6), 0u);
  EXPECT_EQ(GM_SKF_CTX_VerifyPin(ctx, longer, 7), SAR_PIN_INCORRECT);
  uint32_t retry = 0;
  EXPECT_EQ(GM_SKF_CTX_VerifyPinRetryCnt(ctx, longer, 6, &retry), 0u);
  EXPECT_EQ(retry, 10u);
  EXPECT_EQ(GM_SKF_CTX_VerifyAdminPin(ctx, "12345678?", 8), 0u);
  EXPECT_EQ(GM_SKF_CTX_ChangeUserPin(ctx, longer, 6, "7654321!", 7), 0u);
  EXPECT_EQ(GM_SKF_CTX_VerifyPin(ctx, "7654321", 7), 0u);
  // Closing twice: the second close has nothing to hand to the key.
  EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u);
  const auto trace = Traced([&] { EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u); });
  EXPECT_TRUE(trace.empty()) << Names(trace);
}

TEST_F(PinTest, DeviceAuthenticationAndItsKey) {
  CreateDevice("D1");
  Handle h("ZA_D1");
  const Bytes wrong(16, 'x'), next = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6};
  EXPECT_EQ(ZEPH_C_DoDeviceAuth(h.get(), kAuthKey.data(), 16), 0u);
  const uint32_t refused = ZEPH_C_DoDeviceAuth(h.get(), wrong.data(), 16);
  EXPECT_NE(refused, 0u);
  EXPECT_EQ(refused & 0xFFFFFF00u, 0x0A000000u) << std::hex << refused;
  EXPECT_EQ(ZEPH_C_ChangeDeviceAuthCode(h.get(), wrong.data(), 16, next.data(), 16), refused);
  ASSERT_EQ(ZEPH_C_ChangeDeviceAuthCode(h.get(), kAuthKey.data(), 16, next.data(), 16), 0u);
  EXPECT_EQ(ZEPH_C_DoDeviceAuth(h.get(), kAuthKey.data(), 16), refused);
  EXPECT_EQ(ZEPH_C_DoDeviceAuth(h.get(), next.data(), 16), 0u);
  EXPECT_EQ(ZEPH_C_DoDeviceAuth(h.get(), nullptr, 16), ERR_INVALID_PARAMETER);
}

TEST_F(PinTest, AreasAreCreatedAfterDeviceAuthentication) {
  CreateDevice("A1");
  Handle h("ZA_A1");
  const Bytes wrong(16, 'x');
  EXPECT_NE(ZEPH_C_InitVorliSm2Area(h.get(), wrong.data(), 16, "87654321", 5, "135791", 5, 0), 0u);
  EXPECT_EQ(Report(h.get()), "");

  const auto trace = Traced([&] {
    ASSERT_EQ(ZEPH_C_InitVorliRsaArea(h.get(), kAuthKey.data(), 16, "87654321", 5, "135791", 5, 0), 0u);
    ASSERT_EQ(ZEPH_C_InitVorliSm2Area(h.get(), kAuthKey.data(), 16, "87654321", 5, "135791", 5, 0), 0u);
    ASSERT_EQ(ZEPH_C_InitVorliStampArea(h.get(), kAuthKey.data(), 16, "87654321", 5, "135791", 5, 0), 0u);
  });
  EXPECT_TRUE(AllClosed(trace));
  uint32_t retry = 0;
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "135791", &retry), 0u);
  EXPECT_EQ(retry, 5u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SEAL, "135791", &retry), 0u);
  const std::string report = Report(h.get());
  EXPECT_NE(report.find("application VorliRsa\n  container RSA2: empty\n  container RSA1: empty\n"), std::string::npos)
      << report;
  EXPECT_NE(report.find("application VorliEcc\n  container ECC: empty\n"), std::string::npos) << report;
  EXPECT_NE(report.find("application VorliStamp\n"), std::string::npos) << report;

  // Re-creating an area wipes what it held.
  const unsigned char data[] = "kept?";
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), "135791", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", data, 5), 0u);
  ASSERT_EQ(ZEPH_C_InitVorliSm2Area(h.get(), kAuthKey.data(), 16, "87654321", 5, "246802", 5, 0), 0u);
  uint32_t len = 0;
  EXPECT_EQ(ZEPH_C_ReadUkeyFile(h.get(), "", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", nullptr, &len), SAR_FILE_NOT_EXIST);

  // Deleting every application needs the key too.
  EXPECT_NE(ZEPH_C_DelAllAppWithAuthCode(h.get(), wrong.data(), 16), 0u);
  ASSERT_EQ(ZEPH_C_DelAllAppWithAuthCode(h.get(), kAuthKey.data(), 16), 0u);
  EXPECT_EQ(Report(h.get()), "");
}

TEST_F(PinTest, CountsAndReportOfAKey) {
  CreateStandardKey("C1");
  CreateApp("C1", "VorliStamp");
  Must("write-file --serial C1 --app VorliStamp --file Picture --text p1");
  Must("write-file --serial C1 --app VorliStamp --file Picture4 --text p4");
  Must("write-file --serial C1 --app VorliStamp --file Picture11 --text not-a-slot");
  Handle h("ZA_C1");
  uint32_t rsa = 9, sm2 = 9, seal = 9;
  const auto trace = Traced([&] { ASSERT_EQ(ZEPH_C_EnumRSAandSM2andSealInfo(h.get(), &rsa, &sm2, &seal), 0u); });
  EXPECT_EQ(rsa, 2u);
  EXPECT_EQ(sm2, 1u);
  EXPECT_EQ(seal, 2u);
  EXPECT_TRUE(AllClosed(trace));
  const std::string report = Report(h.get());
  EXPECT_NE(report.find("application VorliEcc\n  container ECC: SM2\n"), std::string::npos) << report;
  EXPECT_NE(report.find("  container RSA1: RSA\n"), std::string::npos) << report;
  EXPECT_NE(report.find("  file Picture4: 2 bytes\n"), std::string::npos) << report;
  uint32_t len = 5;
  char small[5];
  EXPECT_EQ(ZEPH_C_EnumAllInfoInCryptoDevice(h.get(), small, &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, report.size() + 1);
}

TEST_F(PinTest, SmApplicationKeysUseTheirOwnLayout) {
  CreateDevice("S1");
  CreateApp("S1", "SM-Application");
  GenKey("S1", "SM-Application", "SM-Application", "sm2");
  const Bytes cert = ExportCert("S1", "SM-Application", "SM-Application");
  Handle h("ZA_S1");
  uint32_t retry = 0;
  // The RSA objects do not exist in this layout; the SM2 ones do.
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_RSA, kUserPin, &retry), ERR_UNSUPPORTED_VALUE);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, kUserPin, &retry), 0u);
  unsigned char sig[80];
  uint32_t sig_len = 0;
  const unsigned char msg[] = "layout";
  ASSERT_EQ(ZEPH_C_DoSm2Sign(h.get(), kUserPin, msg, 6, sig, &sig_len), 0u);
  EXPECT_EQ(ZEPH_C_VerifySm2SignWithCert(cert.data(), static_cast<uint32_t>(cert.size()), msg, 6, sig, sig_len), 0u);
  uint32_t rsa = 9, sm2 = 9, seal = 9;
  ASSERT_EQ(ZEPH_C_EnumRSAandSM2andSealInfo(h.get(), &rsa, &sm2, &seal), 0u);
  EXPECT_EQ(sm2, 1u);
}

}  // namespace
}  // namespace zeph_it

#endif
