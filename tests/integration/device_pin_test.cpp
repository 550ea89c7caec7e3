// PINs, device authentication, areas, selectors and log records, end to end.
#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using PinTest = SoftkeyTest;

std::string Report(void *h) { return OutText(ZEPH_C_EnumAllInfoInCryptoDevice, h); }

TEST_F(PinTest, RetryCountsLockUnblockAndChange) {
  CreateDevice("P1");
  CreateApp("P1", "VorliEcc", 3);
  GenKey("P1", "VorliEcc", "ECC", "sm2");
  Handle h("ZA_P1");
  const struct {
    const char *pin;
    uint32_t status, retry;
  } rows[] = {{kUserPin, 0, 3},
              {"000000", SAR_PIN_INCORRECT, 2},
              {"000000", SAR_PIN_INCORRECT, 1},
              {"000000", SAR_PIN_LOCKED, 0},
              {kUserPin, SAR_PIN_LOCKED, 0}};
  for (const auto &r : rows) {
    uint32_t retry = 99;
    EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, r.pin, &retry), r.status);
    EXPECT_EQ(retry, r.retry);
  }
  // A wrong administrator PIN stops the unblock; with the right one exactly the stated lengths count.
  EXPECT_EQ(ZEPH_C_UnLockUserPinByAdminPin(h.get(), ZEPH_AREA_SM2, "87654321", 8, "654321", 6), SAR_PIN_INCORRECT);
  ASSERT_EQ(ZEPH_C_UnLockUserPinByAdminPin(h.get(), ZEPH_AREA_SM2, "12345678XX", 8, "654321YY", 6), 0u);
  uint32_t retry = 0;
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "654321", &retry), 0u);
  EXPECT_EQ(retry, 3u);
  EXPECT_EQ(ZEPH_C_ChangeUserPin(h.get(), ZEPH_AREA_SM2, "000000", "445566"), SAR_PIN_INCORRECT);
  ASSERT_EQ(ZEPH_C_ChangeUserPin(h.get(), ZEPH_AREA_SM2, "654321", "112233"), 0u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "654321", &retry), SAR_PIN_INCORRECT);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, "112233", &retry), 0u);
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, nullptr, &retry), ERR_INVALID_PARAMETER);

  // PINs with explicit lengths need no terminator.
  GM_SKF_CTX *ctx = h.ctx();
  ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_SM2_SIGN), 0u);
  const char longer[] = {'1', '1', '2', '2', '3', '3', '4', '4', '5'};
  EXPECT_EQ(GM_SKF_CTX_VerifyPin(ctx, longer, 6), 0u);
  EXPECT_EQ(GM_SKF_CTX_VerifyPin(ctx, longer, 7), SAR_PIN_INCORRECT);
  EXPECT_EQ(GM_SKF_CTX_VerifyPinRetryCnt(ctx, longer, 6, &retry), 0u);
  EXPECT_EQ(retry, 3u);
  EXPECT_EQ(GM_SKF_CTX_VerifyAdminPin(ctx, "12345678?", 8), 0u);
  EXPECT_EQ(GM_SKF_CTX_ChangeUserPin(ctx, longer, 6, "7654321!", 7), 0u);
  EXPECT_EQ(GM_SKF_CTX_VerifyPin(ctx, "7654321", 7), 0u);
  EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u);
  // A second close has nothing to hand to the key.
  EXPECT_TRUE(Traced([&] { EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u); }).empty());
}

TEST_F(PinTest, SelectorsPickTheirAreaAndUnknownOnesCallNothing) {
  CreateDevice("P2");
  CreateApp("P2", "VorliRsa", 10, "111111");
  CreateApp("P2", "VorliEcc", 10, "222222");
  CreateApp("P2", "VorliStamp", 10, "444444");
  MustTool("gen-key --serial P2 --app VorliRsa --container RSA1 --user-pin 111111 --alg rsa1024 --no-cert");
  MustTool("gen-key --serial P2 --app VorliEcc --container ECC --user-pin 222222 --alg sm2 --no-cert");
  Handle h("ZA_P2");
  uint32_t retry = 0;
  const struct {
    uint32_t usage;
    const char *pin;
    uint32_t status;
  } rows[] = {{1, "111111", 0}, {2, "222222", 0}, {4, "444444", 0},
              {7, "111111", 0}, {0, "111111", 0}, {7, "222222", SAR_PIN_INCORRECT}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.usage);
    EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), r.usage, r.pin, &retry), r.status);
  }
  const auto trace = Traced([&] {
    EXPECT_EQ(ZEPH_C_UnLockUserPinByAdminPin(h.get(), 7, kAdminPin, 8, "111111", 6), ERR_UNSUPPORTED_VALUE);
    EXPECT_EQ(ZEPH_C_SetVersion(h.get(), "111111", 3, kAuthKey.data(), 2), ERR_UNSUPPORTED_VALUE);
  });
  EXPECT_TRUE(trace.empty()) << Names(trace);
}

TEST_F(PinTest, DeviceAuthenticationAreasAndTheirReport) {
  CreateDevice("A1");
  Handle h("ZA_A1");
  const Bytes wrong(16, 'x'), next = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6};
  const uint32_t refused = ZEPH_C_DoDeviceAuth(h.get(), wrong.data(), 16);
  EXPECT_EQ(refused & 0xFFFFFF00u, 0x0A000000u) << std::hex << refused;
  EXPECT_NE(refused, 0u);
  EXPECT_EQ(ZEPH_C_DoDeviceAuth(h.get(), kAuthKey.data(), 16), 0u);
  EXPECT_EQ(ZEPH_C_DoDeviceAuth(h.get(), nullptr, 16), ERR_INVALID_PARAMETER);
  EXPECT_EQ(ZEPH_C_ChangeDeviceAuthCode(h.get(), wrong.data(), 16, next.data(), 16), refused);
  EXPECT_EQ(ZEPH_C_InitVorliSm2Area(h.get(), wrong.data(), 16, "87654321", 5, "135791", 5, 0), refused);
  EXPECT_EQ(Report(h.get()), "");
  ASSERT_EQ(ZEPH_C_ChangeDeviceAuthCode(h.get(), kAuthKey.data(), 16, next.data(), 16), 0u);
  EXPECT_EQ(ZEPH_C_DoDeviceAuth(h.get(), kAuthKey.data(), 16), refused);

  const auto trace = Traced([&] {
    for (auto init : {ZEPH_C_InitVorliRsaArea, ZEPH_C_InitVorliSm2Area, ZEPH_C_InitVorliStampArea}) {
      ASSERT_EQ(init(h.get(), next.data(), 16, "87654321", 5, "135791", 5, 0), 0u);
    }
  });
  EXPECT_TRUE(AllClosed(trace));
  uint32_t retry = 0;
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SEAL, "135791", &retry), 0u);
  EXPECT_EQ(retry, 5u);
  EXPECT_EQ(Report(h.get()),
            "application VorliRsa\n  container RSA2: empty\n  container RSA1: empty\n"
            "application VorliEcc\n  container ECC: empty\napplication VorliStamp\n");
  // Re-creating an area wipes what it held.
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), "135791", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", next.data(), 5), 0u);
  ASSERT_EQ(ZEPH_C_InitVorliSm2Area(h.get(), next.data(), 16, "87654321", 5, "246802", 5, 0), 0u);
  uint32_t len = 0;
  EXPECT_EQ(ZEPH_C_ReadUkeyFile(h.get(), "", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", nullptr, &len), SAR_FILE_NOT_EXIST);
  EXPECT_EQ(ZEPH_C_DelAllAppWithAuthCode(h.get(), wrong.data(), 16), refused);
  ASSERT_EQ(ZEPH_C_DelAllAppWithAuthCode(h.get(), next.data(), 16), 0u);
  EXPECT_EQ(Report(h.get()), "");
}

std::vector<std::string> g_messages;

TEST_F(PinTest, LogRecordsOfAPinCheckAndAFileWrite) {
  CreateStandardKey("L1", false);
  Handle h("ZA_L1");
  setLogCallback([](const char *record) {  // keeps the msg part of each record
    const std::string r = record;
    const size_t from = r.find(",msg:'"), to = r.rfind("',res:");
    if (from != std::string::npos && to != std::string::npos) g_messages.push_back(r.substr(from + 6, to - from - 6));
  });
  uint32_t retry = 0;
  EXPECT_EQ(ZEPH_C_VerifyUserPin(h.get(), ZEPH_AREA_SM2, kUserPin, &retry), 0u);
  EXPECT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, ZEPH_OBJ_SM2_VERSION, "Version", kAuthKey.data(), 2), 0u);
  setLogCallback(nullptr);
  const std::string pin =
      "{\"SKF_VerifyPIN: maxretryCnt\":\"10\",\"retryCnt\":\"10\",\"IsDefaultPin\":\"1\",\"UserPin\":\"123456\"}";
  EXPECT_EQ(g_messages, (std::vector<std::string>{"SKF_OpenApplicationProc start:", "SKF_OpenApplicationProc end:",
                                                  "SKF_OpenContainerProc start:", "SKF_OpenContainerProc end:", pin,
                                                  "SKF_OpenApplicationProc start:", "SKF_OpenApplicationProc end:", pin,
                                                  "GM_SKF_CTX_SetFileIntoCryptoDevice:", "SKF_DeleteFileProc end:",
                                                  "SKF_CreateFileProc end:", "SKF_WriteFileProc end:"}));
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
}

}  // namespace
}  // namespace zeph_it
