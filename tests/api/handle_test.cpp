// The handle API without a key: missing handles and contexts, host random,
// hashing by identifier.
#include <cstdlib>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"

namespace {

unsigned char buf[128];
uint32_t len, a, b, c;

TEST(Handle, MissingHandleOrContextIsRefusedFirst) {
  const std::function<uint32_t(void *)> ops[] = {
      [](void *h) { return ZEPH_C_VerifyUserPin(h, 1, "123456", &a); },
      [](void *h) { return ZEPH_C_ChangeUserPin(h, 1, "123456", "654321"); },
      [](void *h) { return ZEPH_C_UnLockUserPinByAdminPin(h, 9, "a", 1, "b", 1); },
      [](void *h) { return ZEPH_C_DoDeviceAuth(h, buf, 16); },
      [](void *h) { return ZEPH_C_ChangeDeviceAuthCode(h, buf, 16, buf, 16); },
      [](void *h) { return ZEPH_C_DelAllAppWithAuthCode(h, buf, 16); },
      [](void *h) { return ZEPH_C_InitVorliRsaArea(h, buf, 16, "a", 6, "u", 6, 0); },
      [](void *h) { return ZEPH_C_InitVorliSm2Area(h, buf, 16, "a", 6, "u", 6, 0); },
      [](void *h) { return ZEPH_C_InitVorliStampArea(h, buf, 16, "a", 6, "u", 6, 0); },
      [](void *h) { return ZEPH_C_SetVersion(h, "123456", 9, buf, 4); },
      [](void *h) { return ZEPH_C_EnumRSAandSM2andSealInfo(h, &a, &b, &c); },
      [](void *h) { return ZEPH_C_EnumAllInfoInCryptoDevice(h, reinterpret_cast<char *>(buf), &(len = 128)); },
      [](void *h) { return ZEPH_C_WriteUkeyFile(h, "123456", 9, "f", buf, 4); },
      [](void *h) { return ZEPH_C_ReadUkeyFile(h, "", 9, "f", buf, &(len = 128)); },
      [](void *h) { return ZEPH_C_DeleteFile(h, "123456", 9, "f"); },
      [](void *h) { return ZEPH_C_DoRsaSign(h, "123456", buf, 4, buf, &(len = 128), 4); },
  };
  void *no_context = std::calloc(6, sizeof(void *));
  for (size_t i = 0; i < std::size(ops); ++i) {
    EXPECT_EQ(ops[i](nullptr), 0xFFFFFFFFu) << "op " << i;
    EXPECT_EQ(ops[i](no_context), 0xFFFFFFFFu) << "op " << i;
  }
  // SM2 signing tells the two cases apart.
  EXPECT_EQ(ZEPH_C_DoSm2Sign(nullptr, "123456", buf, 4, buf, &(len = 128)), ERR_INVALID_PARAMETER);
  EXPECT_EQ(ZEPH_C_DoSm2Sign(no_context, "123456", buf, 4, buf, &len), ERR_NO_DEVICE_LIBRARY);
  EXPECT_EQ(ZEPH_C_GenRandomBytes(no_context, 8, buf), ERR_INVALID_PARAMETER);
  EXPECT_EQ(ZEPH_C_Finalize(nullptr), 0u);
  EXPECT_EQ(ZEPH_C_Finalize(no_context), 0u);
  ZEPH_C_MALLOC_FREE(no_context);
  // An empty keySN leaves the caller's handle alone.
  void *handle = buf;
  EXPECT_EQ(ZEPH_C_Initialize(&handle, 0, "", 0), ERR_PIN_VERIFY_FAILED);
  EXPECT_EQ(ZEPH_C_Initialize(&handle, 0, nullptr, 0), ERR_PIN_VERIFY_FAILED);
  EXPECT_EQ(handle, buf);
  EXPECT_EQ(ZEPH_C_Initialize(nullptr, 0, "ES_1", 0), ERR_INVALID_PARAMETER);
}

TEST(Handle, HostRandomAndHashing) {
  std::vector<unsigned char> r1(32, 0), r2(32, 0);
  ASSERT_EQ(ZEPH_C_GenRandomBytes(nullptr, 32, r1.data()), 0u);
  ASSERT_EQ(ZEPH_C_GenRandomBytes(nullptr, 32, r2.data()), 0u);
  EXPECT_TRUE(r1 != r2 && r1 != std::vector<unsigned char>(32, 0));
  EXPECT_EQ(ZEPH_C_GenRandomBytes(nullptr, 8, nullptr), ERR_INVALID_PARAMETER);
  // The identifier's low bits choose the digest: 4 SHA-256, 1 SM3.
  const unsigned char abc[] = {'a', 'b', 'c'};
  ASSERT_EQ(ZEPH_C_HashDataWithAlgID(0xABCD0004u, abc, 3, buf, &(len = 64)), 0u);
  EXPECT_EQ(zeph_test::ToHex(buf, len), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  ASSERT_EQ(ZEPH_C_HashDataWithAlgID(1, abc, 3, buf, &(len = 64)), 0u);
  EXPECT_EQ(zeph_test::ToHex(buf, len), "66C7F0F462EEEDD9D1F2D46BDC10E4E24167C4875CF2F7A2297DA02B8F4BA8E0");
  EXPECT_EQ(ZEPH_C_HashDataWithAlgID(3, abc, 3, buf, &(len = 64)), ERR_DIGEST_FAILED);
  EXPECT_EQ(ZEPH_C_GetVersion(nullptr), ERR_INVALID_PARAMETER);
}

}  // namespace
