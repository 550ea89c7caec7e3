// The handle API without a key: missing handles and contexts, the host
// random generator, the version, and the encoding wrappers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "test_support.hpp"
#include "zeph_c_api.h"
#include "zeph_c_device.h"

namespace {

TEST(Handle, MissingHandleOrContextIsRefusedFirst) {
  static unsigned char buf[128];
  static uint32_t len, a, b, c;
  const struct {
    const char *name;
    std::function<uint32_t(void *)> call;
  } ops[] = {
      {"VerifyUserPin", [](void *h) { return ZEPH_C_VerifyUserPin(h, 1, "123456", &a); }},
      {"ChangeUserPin", [](void *h) { return ZEPH_C_ChangeUserPin(h, 1, "123456", "654321"); }},
      {"UnLockUserPinByAdminPin", [](void *h) { return ZEPH_C_UnLockUserPinByAdminPin(h, 9, "a", 1, "b", 1); }},
      {"DoDeviceAuth", [](void *h) { return ZEPH_C_DoDeviceAuth(h, buf, 16); }},
      {"ChangeDeviceAuthCode", [](void *h) { return ZEPH_C_ChangeDeviceAuthCode(h, buf, 16, buf, 16); }},
      {"DelAllAppWithAuthCode", [](void *h) { return ZEPH_C_DelAllAppWithAuthCode(h, buf, 16); }},
      {"InitVorliRsaArea", [](void *h) { return ZEPH_C_InitVorliRsaArea(h, buf, 16, "a", 6, "u", 6, 0); }},
      {"InitVorliSm2Area", [](void *h) { return ZEPH_C_InitVorliSm2Area(h, buf, 16, "a", 6, "u", 6, 0); }},
      {"InitVorliStampArea", [](void *h) { return ZEPH_C_InitVorliStampArea(h, buf, 16, "a", 6, "u", 6, 0); }},
      {"SetVersion", [](void *h) { return ZEPH_C_SetVersion(h, "123456", 9, buf, 4); }},
      {"EnumRSAandSM2andSealInfo", [](void *h) { return ZEPH_C_EnumRSAandSM2andSealInfo(h, &a, &b, &c); }},
      {"EnumAllInfoInCryptoDevice",
       [](void *h) { return len = sizeof buf, ZEPH_C_EnumAllInfoInCryptoDevice(h, reinterpret_cast<char *>(buf), &len); }},
      {"WriteUkeyFile", [](void *h) { return ZEPH_C_WriteUkeyFile(h, "123456", 9, "f", buf, 4); }},
      {"ReadUkeyFile", [](void *h) { return len = sizeof buf, ZEPH_C_ReadUkeyFile(h, "", 9, "f", buf, &len); }},
      {"DeleteFile", [](void *h) { return ZEPH_C_DeleteFile(h, "123456", 9, "f"); }},
      {"DoRsaSign", [](void *h) { return len = sizeof buf, ZEPH_C_DoRsaSign(h, "123456", buf, 4, buf, &len, 4); }},
  };
  void *no_context = std::calloc(6, sizeof(void *));
  for (const auto &op : ops) {
    SCOPED_TRACE(op.name);
    EXPECT_EQ(op.call(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(op.call(no_context), 0xFFFFFFFFu);
  }
  // The SM2 signing entry reports the two cases apart.
  len = sizeof buf;
  EXPECT_EQ(ZEPH_C_DoSm2Sign(nullptr, "123456", buf, 4, buf, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(ZEPH_C_DoSm2Sign(no_context, "123456", buf, 4, buf, &len), ERR_NO_DEVICE_LIBRARY);
  EXPECT_EQ(ZEPH_C_GenRandomBytes(no_context, 8, buf), ERR_INVALID_PARAMETER);
  EXPECT_EQ(ZEPH_C_Finalize(nullptr), 0u);
  EXPECT_EQ(ZEPH_C_Finalize(no_context), 0u);
  ZEPH_C_MALLOC_FREE(no_context);
}

TEST(Handle, InitializeRefusesAnEmptyKeySnAndLeavesTheHandleAlone) {
  void *handle = reinterpret_cast<void *>(0x1234);
  EXPECT_EQ(ZEPH_C_Initialize(&handle, 0, "", 0), ERR_PIN_VERIFY_FAILED);
  EXPECT_EQ(ZEPH_C_Initialize(&handle, 0, nullptr, 0), ERR_PIN_VERIFY_FAILED);
  EXPECT_EQ(handle, reinterpret_cast<void *>(0x1234));
  EXPECT_EQ(ZEPH_C_Initialize(nullptr, 0, "ES_1", 0), ERR_INVALID_PARAMETER);
}

TEST(Handle, HostRandomWithoutAHandle) {
  std::vector<unsigned char> a(32, 0), b(32, 0);
  ASSERT_EQ(ZEPH_C_GenRandomBytes(nullptr, 32, a.data()), 0u);
  ASSERT_EQ(ZEPH_C_GenRandomBytes(nullptr, 32, b.data()), 0u);
  EXPECT_NE(a, b);
  EXPECT_NE(a, std::vector<unsigned char>(32, 0));
  EXPECT_EQ(ZEPH_C_GenRandomBytes(nullptr, 0, a.data()), 0u);
  EXPECT_EQ(ZEPH_C_GenRandomBytes(nullptr, 8, nullptr), ERR_INVALID_PARAMETER);
}

TEST(Handle, Version) {
  uint32_t v = 0;
  ASSERT_EQ(ZEPH_C_GetVersion(&v), 0u);
  EXPECT_EQ(v, 611680u);
  char hex[16];
  std::snprintf(hex, sizeof hex, "%X", v);
  EXPECT_STREQ(hex, "95560");
  EXPECT_EQ(ZEPH_C_GetVersion(nullptr), ERR_INVALID_PARAMETER);
}

TEST(Encodings, Base64RoundTripsThroughLibraryBuffers) {
  for (size_t n : {1u, 2u, 3u, 57u}) {
    SCOPED_TRACE(n);
    const std::vector<uint8_t> data = zeph_test::RandomBytes(n, static_cast<uint32_t>(n));
    char *text = nullptr;
    ASSERT_EQ(ZEPH_C_Dohex2b64(data.data(), static_cast<uint32_t>(n), &text), 0u);
    std::string copy((n + 2) / 3 * 4 + 4, '\0');
    ASSERT_EQ(ZEPH_C_hex2b64(data.data(), static_cast<uint32_t>(n), copy.data()), 0u);
    EXPECT_STREQ(copy.c_str(), text);
    unsigned char *bytes = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(ZEPH_C_Dob64tohex(text, &bytes, &len), 0u);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + len), data);
    EXPECT_EQ(ZEPH_C_MALLOC_FREE(bytes), 0u);
    EXPECT_EQ(ZEPH_C_MALLOC_FREE(text), 0u);
  }
}

TEST(Encodings, NothingDecodedMeansNothingAllocated) {
  unsigned char *bytes = reinterpret_cast<unsigned char *>(0x99);
  uint32_t len = 42;
  EXPECT_EQ(ZEPH_C_Dob64tohex("", &bytes, &len), 0u);
  EXPECT_EQ(bytes, reinterpret_cast<unsigned char *>(0x99));
  EXPECT_EQ(len, 42u);
  EXPECT_EQ(ZEPH_C_Dob64tohex(nullptr, &bytes, &len), ERR_INVALID_PARAMETER);
  EXPECT_EQ(ZEPH_C_Dohex2b64(nullptr, 3, nullptr), ERR_INVALID_PARAMETER);
}

TEST(DiskFiles, WriteThenReadWithTheLengthProtocol) {
  zeph_test::TempDir dir;
  const std::string path = dir.file("data.bin");
  const std::vector<uint8_t> data = zeph_test::RandomBytes(300, 3);
  ASSERT_EQ(ZEPH_C_WriteFile(path.c_str(), data.data(), 300), 0u);
  uint32_t len = 0;
  ASSERT_EQ(ZEPH_C_ReadFile(path.c_str(), nullptr, &len), 0u);
  EXPECT_EQ(len, 300u);
  std::vector<uint8_t> back(400, 0);
  len = 299;
  EXPECT_EQ(ZEPH_C_ReadFile(path.c_str(), back.data(), &len), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 300u);
  EXPECT_EQ(back[0], 0);
  len = 400;
  ASSERT_EQ(ZEPH_C_ReadFile(path.c_str(), back.data(), &len), 0u);
  back.resize(len);
  EXPECT_EQ(back, data);
  EXPECT_NE(ZEPH_C_ReadFile(dir.file("missing").c_str(), nullptr, &len), 0u);
  EXPECT_EQ(ZEPH_C_ReadFile(nullptr, nullptr, &len), ERR_INVALID_PARAMETER);
}

}  // namespace
