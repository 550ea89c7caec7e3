// Every session-context operation on a missing context, on a context that
// is connected but has no session, and on a session over a vendor library
// that lacks every entry point: each answers with its own status and calls
// nothing it does not have.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "device/vorli_gm_skf.hpp"
#include "test_support.hpp"
#include "zeph_c_device.h"

namespace {

// Stand-ins for vendor handles; no entry point exists to receive them.
void *const kFake = reinterpret_cast<void *>(0x10);

GM_SKF_CTX Connected() {
  GM_SKF_CTX ctx;
  ctx.module = kFake;
  ctx.device = kFake;
  ctx.key_kind = ZEPH_KEY_SM2_SIGN;
  return ctx;
}

GM_SKF_CTX OpenContainer(uint32_t kind) {
  GM_SKF_CTX ctx = Connected();
  ctx.application = kFake;
  ctx.container = kFake;
  ctx.key_kind = kind;
  return ctx;
}

struct Op {
  const char *name;
  std::function<uint32_t(GM_SKF_CTX *)> call;
  uint32_t no_context, connected, lacking_entries;
};

std::vector<Op> Ops() {
  static unsigned char buf[512];
  static uint32_t len;
  static uint32_t u1, u2, u3;
  static const unsigned char key[16] = {1};
  static unsigned char blob[200];  // an ECCCIPHERBLOB with CipherLen 0
  auto cap = [] { return len = sizeof buf, &len; };
  return {
      {"OpenSession", [](GM_SKF_CTX *c) { return GM_SKF_CTX_OpenSession(c, 3); }, ERR_OPEN_SESSION_FAILED,
       ERR_OPEN_SESSION_FAILED, ERR_OPEN_SESSION_FAILED},
      {"NewSession", [](GM_SKF_CTX *c) { return GM_SKF_CTX_NewSession(c, 3, "12345678", 6, "123456", 6); },
       ERR_OPEN_SESSION_FAILED, ERR_OPEN_SESSION_FAILED, ERR_OPEN_SESSION_FAILED},
      {"VerifyPin", [](GM_SKF_CTX *c) { return GM_SKF_CTX_VerifyPin(c, "123456", 6); }, ERR_PIN_VERIFY_FAILED,
       ERR_PIN_VERIFY_FAILED, ERR_PIN_VERIFY_FAILED},
      {"VerifyPinRetryCnt", [](GM_SKF_CTX *c) { return GM_SKF_CTX_VerifyPinRetryCnt(c, "123456", 6, &u1); },
       ERR_PIN_VERIFY_FAILED, ERR_PIN_VERIFY_FAILED, ERR_PIN_VERIFY_FAILED},
      {"VerifyAdminPin", [](GM_SKF_CTX *c) { return GM_SKF_CTX_VerifyAdminPin(c, "123456", 6); },
       ERR_PIN_VERIFY_FAILED, ERR_PIN_VERIFY_FAILED, ERR_PIN_VERIFY_FAILED},
      {"UnLockUserPinByAdminPin",
       [](GM_SKF_CTX *c) { return GM_SKF_CTX_UnLockUserPinByAdminPin(c, "admin1", 6, "user12", 6, &u1); },
       ERR_UNLOCK_PIN_FAILED, ERR_UNLOCK_PIN_FAILED, ERR_UNLOCK_PIN_FAILED},
      {"ChangeUserPin", [](GM_SKF_CTX *c) { return GM_SKF_CTX_ChangeUserPin(c, "123456", 6, "654321", 6); },
       ERR_PIN_VERIFY_FAILED, ERR_PIN_VERIFY_FAILED, ERR_PIN_VERIFY_FAILED},
      {"DoDeviceAuth", [](GM_SKF_CTX *c) { return GM_SKF_CTX_DoDeviceAuth(c, key, 16); }, ERR_DEVICE_AUTH_FAILED,
       ERR_DEVICE_AUTH_FAILED, ERR_DEVICE_AUTH_FAILED},
      {"ChangeDevAuthKey", [](GM_SKF_CTX *c) { return GM_SKF_CTX_ChangeDevAuthKey(c, key, 16); },
       ERR_DEVICE_AUTH_FAILED, ERR_DEVICE_AUTH_FAILED, ERR_DEVICE_AUTH_FAILED},
      {"IsExt4SKF", [](GM_SKF_CTX *c) { return GM_SKF_CTX_IsExt4SKF(c, &u1); }, ERR_NO_DEVICE_LIBRARY, 0, 0},
      {"EnumAllInfo", [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_EnumAllInfo(c, reinterpret_cast<char *>(buf), cap()); },
       ERR_OPEN_SESSION_FAILED, ERR_OPEN_SESSION_FAILED, ERR_OPEN_SESSION_FAILED},
      {"EnumRSAandSM2andSealInfo",
       [](GM_SKF_CTX *c) { return GM_SKF_CTX_EnumRSAandSM2andSealInfo(c, &u1, &u2, &u3); }, ERR_OPEN_SESSION_FAILED,
       ERR_OPEN_SESSION_FAILED, ERR_OPEN_SESSION_FAILED},
      {"DelAllApp", [](GM_SKF_CTX *c) { return GM_SKF_CTX_DelAllApp(c); }, ERR_OPEN_SESSION_FAILED,
       ERR_OPEN_SESSION_FAILED, ERR_OPEN_SESSION_FAILED},
      {"DataOnPretreatment",
       [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_DataOnPretreatment(c, buf, 3, buf, cap(), 0); },
       ERR_PRETREATMENT_FAILED, ERR_PRETREATMENT_FAILED, ERR_PRETREATMENT_FAILED},
      {"SignHash", [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_SignHash(c, buf, 32, buf + 100, cap()); },
       ERR_SIGN_FAILED, ERR_SIGN_FAILED, ERR_SIGN_FAILED},
      {"SignHashEx", [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_SignHashEx(c, buf, 32, buf + 100, cap(), nullptr); },
       ERR_SIGN_FAILED, ERR_SIGN_FAILED, ERR_SIGN_FAILED},
      {"DoAsymDec", [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_DoAsymDec(c, buf, 128, 1, buf + 128, cap()); },
       ERR_ASYM_CRYPT_FAILED, ERR_ASYM_CRYPT_FAILED, ERR_UNSUPPORTED_VALUE},
      {"SM2Decrypt", [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_SM2Decrypt(c, blob, sizeof blob, buf, cap(), 0); },
       ERR_INVALID_PARAMETER, ERR_INVALID_PARAMETER, ERR_UNSUPPORTED_VALUE},
      {"ExportPublicKey", [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_ExportPublicKey(c, buf, cap()); },
       ERR_EXPORT_PUBKEY_FAILED, ERR_EXPORT_PUBKEY_FAILED, ERR_EXPORT_PUBKEY_FAILED},
      {"GenRandom", [](GM_SKF_CTX *c) { return GM_SKF_CTX_GenRandom(c, 8, buf); }, ERR_INVALID_PARAMETER,
       ERR_INVALID_PARAMETER, ERR_INVALID_PARAMETER},
      {"SetFileIntoCryptoDevice", [](GM_SKF_CTX *c) { return GM_SKF_CTX_SetFileIntoCryptoDevice(c, "f", buf, 4); },
       ERR_DEVICE_FILE_WRITE_FAILED, ERR_DEVICE_FILE_WRITE_FAILED, ERR_DEVICE_FILE_WRITE_FAILED},
      {"GetFileFromCryptoDevice",
       [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_GetFileFromCryptoDevice(c, "f", buf, cap()); },
       ERR_DEVICE_FILE_READ_FAILED, ERR_DEVICE_FILE_READ_FAILED, ERR_DEVICE_FILE_READ_FAILED},
      {"DeleteFile", [](GM_SKF_CTX *c) { return GM_SKF_CTX_DeleteFile(c, "f"); }, ERR_DEVICE_FILE_WRITE_FAILED,
       ERR_DEVICE_FILE_WRITE_FAILED, ERR_DEVICE_FILE_WRITE_FAILED},
      {"SetSealInfo", [](GM_SKF_CTX *c) { return GM_SKF_CTX_SetSealInfo(c, 2, buf, 4); }, ERR_DEVICE_FILE_WRITE_FAILED,
       ERR_DEVICE_FILE_WRITE_FAILED, ERR_DEVICE_FILE_WRITE_FAILED},
      {"GetSealInfoEx", [cap](GM_SKF_CTX *c) { return GM_SKF_CTX_GetSealInfoEx(c, 5, nullptr, cap()); },
       ERR_DEVICE_FILE_READ_FAILED, ERR_DEVICE_FILE_READ_FAILED, ERR_DEVICE_FILE_READ_FAILED},
  };
}

TEST(SessionContext, EachOperationAnswersWithItsOwnStatus) {
  for (const Op &op : Ops()) {
    SCOPED_TRACE(op.name);
    EXPECT_EQ(op.call(nullptr), op.no_context);
    GM_SKF_CTX connected = Connected();
    EXPECT_EQ(op.call(&connected), op.connected);
    GM_SKF_CTX open = OpenContainer(ZEPH_KEY_SM2_SIGN);
    EXPECT_EQ(op.call(&open), op.lacking_entries);
  }
}

TEST(SessionContext, UnknownRowFailsBeforeAnythingIsClosed) {
  GM_SKF_CTX ctx = OpenContainer(ZEPH_KEY_SM2_SIGN);
  ctx.layout = ZEPH_LAYOUT_SM_APPLICATION;
  EXPECT_EQ(GM_SKF_CTX_OpenSession(&ctx, ZEPH_OBJ_RSA_SIGN), ERR_UNSUPPORTED_VALUE);
  EXPECT_EQ(GM_SKF_CTX_NewSession(&ctx, ZEPH_OBJ_RSA_CONTAINER, "12345678", 6, "123456", 6), ERR_UNSUPPORTED_VALUE);
  ctx.layout = 2;
  EXPECT_EQ(GM_SKF_CTX_OpenSession(&ctx, ZEPH_OBJ_SM2_SIGN), ERR_UNSUPPORTED_VALUE);
  EXPECT_EQ(ctx.application, kFake);
}

TEST(SessionContext, CloseSessionClearsHandlesAndKeepsTheDevice) {
  GM_SKF_CTX ctx = OpenContainer(ZEPH_KEY_RSA_SIGN);
  ctx.key = kFake;
  EXPECT_EQ(GM_SKF_CTX_CloseSession(&ctx), 0u);
  EXPECT_EQ(ctx.key, nullptr);
  EXPECT_EQ(ctx.container, nullptr);
  EXPECT_EQ(ctx.application, nullptr);
  EXPECT_EQ(ctx.device, kFake);
  EXPECT_EQ(GM_SKF_CTX_CloseSession(&ctx), 0u);
  GM_SKF_CTX no_module = OpenContainer(ZEPH_KEY_RSA_SIGN);
  no_module.module = nullptr;
  EXPECT_EQ(GM_SKF_CTX_CloseSession(&no_module), 0u);
  EXPECT_EQ(no_module.container, kFake);  // nothing to close with
  GM_SKF_CTX_Finalize(nullptr);
  GM_SKF_CTX_Finalize(new GM_SKF_CTX(OpenContainer(ZEPH_KEY_RSA_SIGN)));
}

TEST(SessionContext, BadArgumentsAreRefusedBeforeAnyVendorCall) {
  GM_SKF_CTX ctx = OpenContainer(ZEPH_KEY_SM2_SIGN);
  unsigned char buf[64];
  uint32_t len = sizeof buf;
  EXPECT_EQ(GM_SKF_CTX_VerifyPin(&ctx, nullptr, 6), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_VerifyAdminPin(&ctx, nullptr, 0), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_ChangeUserPin(&ctx, "123456", 6, nullptr, 0), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_UnLockUserPinByAdminPin(&ctx, nullptr, 0, "1", 1, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_NewSession(&ctx, 3, nullptr, 6, "123456", 6), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_DoDeviceAuth(&ctx, nullptr, 16), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_DoDeviceAuth(&ctx, buf, 0), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_IsExt4SKF(&ctx, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_SignHash(&ctx, buf, 32, nullptr, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_SignHash(&ctx, nullptr, 32, buf, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_DataOnPretreatment(&ctx, nullptr, 3, buf, &len, 4), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_SetFileIntoCryptoDevice(&ctx, nullptr, buf, 1), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_SetFileIntoCryptoDevice(&ctx, "f", nullptr, 1), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_GetFileFromCryptoDevice(&ctx, "f", buf, nullptr), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_GenRandom(&ctx, 8, nullptr), ERR_INVALID_PARAMETER);
  // An SM2 ciphertext blob must hold the CipherLen bytes it announces.
  std::vector<unsigned char> blob(204, 0);
  const uint32_t announced = 40;
  std::memcpy(blob.data() + 160, &announced, 4);
  EXPECT_EQ(GM_SKF_CTX_SM2Decrypt(&ctx, blob.data(), 204, buf, &len, 0), ERR_UNSUPPORTED_VALUE);
  EXPECT_EQ(GM_SKF_CTX_SM2Decrypt(&ctx, blob.data(), 203, buf, &len, 0), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_SM2Decrypt(&ctx, blob.data(), 170, buf, &len, 0), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_SM2Decrypt(&ctx, blob.data(), 163, buf, &len, 0), ERR_INVALID_PARAMETER);
}

TEST(Pretreatment, RsaSessionsSignTheDigestInfoOfTheMessage) {
  GM_SKF_CTX ctx = OpenContainer(ZEPH_KEY_RSA_SIGN);
  const unsigned char msg[] = "abc";
  unsigned char out[128];
  uint32_t len = sizeof out;
  // The identifier's high bits are ignored.
  ASSERT_EQ(GM_SKF_CTX_DataOnPretreatment(&ctx, msg, 3, out, &len, 0x10004), 0u);
  EXPECT_EQ(zeph_test::ToHex(out, len),
            "3031300D060960864801650304020105000420"
            "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  len = 10;
  EXPECT_EQ(GM_SKF_CTX_DataOnPretreatment(&ctx, msg, 3, out, &len, 4), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 51u);
  len = sizeof out;
  EXPECT_EQ(GM_SKF_CTX_DataOnPretreatment(&ctx, msg, 3, out, &len, 3), ERR_PRETREATMENT_FAILED);
  // Every kind but SM2 signing takes the RSA branch.
  ctx.key_kind = ZEPH_KEY_SM2_ENC;
  len = sizeof out;
  EXPECT_EQ(GM_SKF_CTX_DataOnPretreatment(&ctx, msg, 3, out, &len, 2), 0u);
  EXPECT_EQ(len, 35u);
}

}  // namespace
