// Device files and seal areas, end to end.
#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_NOEXT_LIB) && defined(ZEPH_SOFTKEY_TOOL)

#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using FilesTest = SoftkeyTest;

Bytes Read(void *h, const char *pin, uint32_t row, const char *name, uint32_t *status = nullptr) {
  uint32_t len = 0;
  uint32_t rv = ZEPH_C_ReadUkeyFile(h, pin, row, name, nullptr, &len);
  Bytes out(len);
  if (rv == 0) rv = ZEPH_C_ReadUkeyFile(h, pin, row, name, out.data(), &len);
  if (status != nullptr) *status = rv;
  out.resize(rv == 0 ? len : 0);
  return out;
}

bool Called(const std::vector<TraceLine> &trace, const std::string &fn) {
  for (const auto &t : trace) {
    if (t.fn == fn) return true;
  }
  return false;
}

TEST_F(FilesTest, WholeFilesReplaceWhatWasThere) {
  CreateStandardKey("F1", false);
  Handle h("ZA_F1");
  const Bytes big = zeph_test::RandomBytes(4096, 1), small = zeph_test::RandomBytes(10, 2);
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", big.data(), 4096), 0u);
  EXPECT_EQ(Read(h.get(), "", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain"), big);
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", small.data(), 10), 0u);
  uint32_t len = 999;
  ASSERT_EQ(ZEPH_C_ReadUkeyFile(h.get(), "", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", nullptr, &len), 0u);
  EXPECT_EQ(len, 10u);
  EXPECT_EQ(Read(h.get(), kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain"), small);

  // A short buffer gets the key's own answer.
  Bytes buf(4);
  len = 4;
  const uint32_t short_rv = ZEPH_C_ReadUkeyFile(h.get(), "", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", buf.data(), &len);
  EXPECT_EQ(short_rv, SAR_BUFFER_TOO_SMALL);

  const unsigned char version[] = {'v', '2'};
  ASSERT_EQ(ZEPH_C_SetVersion(h.get(), kUserPin, ZEPH_AREA_SM2, version, 2), 0u);
  EXPECT_EQ(Read(h.get(), "", ZEPH_OBJ_SM2_VERSION, "Version"), Bytes(version, version + 2));

  ASSERT_EQ(ZEPH_C_DeleteFile(h.get(), kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain"), 0u);
  uint32_t status = 0;
  Read(h.get(), "", ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", &status);
  EXPECT_EQ(status, SAR_FILE_NOT_EXIST);
  EXPECT_EQ(ZEPH_C_DeleteFile(h.get(), kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain"), SAR_FILE_NOT_EXIST);
}

TEST_F(FilesTest, PinRulesOfReadingAndWriting) {
  CreateStandardKey("F2", false);
  Handle h("ZA_F2");
  const unsigned char data[] = "abc";
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, ZEPH_OBJ_SM2_VERSION, "Version", data, 3), 0u);
  auto trace = Traced([&] { EXPECT_EQ(Read(h.get(), "", ZEPH_OBJ_SM2_VERSION, "Version").size(), 3u); });
  EXPECT_FALSE(Called(trace, "SKF_VerifyPIN")) << Names(trace);
  trace = Traced([&] { EXPECT_EQ(Read(h.get(), nullptr, ZEPH_OBJ_SM2_VERSION, "Version").size(), 3u); });
  EXPECT_FALSE(Called(trace, "SKF_VerifyPIN")) << Names(trace);
  uint32_t status = 0;
  trace = Traced([&] { Read(h.get(), "000000", ZEPH_OBJ_SM2_VERSION, "Version", &status); });
  EXPECT_EQ(status, SAR_PIN_INCORRECT);
  EXPECT_TRUE(AllClosed(trace));
  // An empty PIN is still put to the key when writing.
  trace = Traced([&] {
    EXPECT_NE(ZEPH_C_WriteUkeyFile(h.get(), "", ZEPH_OBJ_SM2_VERSION, "Version", data, 3), 0u);
  });
  EXPECT_TRUE(Called(trace, "SKF_VerifyPIN")) << Names(trace);
  EXPECT_FALSE(Called(trace, "SKF_CreateFile")) << Names(trace);
  EXPECT_TRUE(AllClosed(trace));
  // Names the key cannot hold, and names that are missing.
  const std::string long_name(100, 'n');
  EXPECT_NE(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, ZEPH_OBJ_SM2_VERSION, long_name.c_str(), data, 3), 0u);
  EXPECT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, ZEPH_OBJ_SM2_VERSION, nullptr, data, 3), ERR_INVALID_PARAMETER);
}

TEST_F(FilesTest, SealAreasAndSlots) {
  CreateDevice("F3");
  CreateApp("F3", "VorliStamp");
  Handle h("ZA_F3");
  GM_SKF_CTX *ctx = h.ctx();
  ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_STAMP_PICTURE), 0u);
  ASSERT_EQ(GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6), 0u);
  const struct {
    uint32_t area;
    const char *file;
  } areas[] = {{1, "Cert"}, {2, "Picture"}, {3, "CertChain"}, {9, "Cert"}};
  for (const auto &a : areas) {
    SCOPED_TRACE(a.area);
    const Bytes data = zeph_test::RandomBytes(20 + a.area, a.area);
    ASSERT_EQ(GM_SKF_CTX_SetSealInfo(ctx, a.area, data.data(), static_cast<uint32_t>(data.size())), 0u);
    Bytes back(64);
    uint32_t len = static_cast<uint32_t>(back.size());
    ASSERT_EQ(GM_SKF_CTX_GetFileFromCryptoDevice(ctx, a.file, back.data(), &len), 0u);
    back.resize(len);
    EXPECT_EQ(back, data);
    len = 0;
    ASSERT_EQ(GM_SKF_CTX_GetSealInfo(ctx, a.area, nullptr, &len), 0u);
    EXPECT_EQ(len, data.size());
  }
  const unsigned char slot5[] = "fifth seal";
  ASSERT_EQ(GM_SKF_CTX_SetSealInfoEx(ctx, 5, slot5, 10), 0u);
  unsigned char back[32];
  uint32_t len = sizeof back;
  ASSERT_EQ(GM_SKF_CTX_GetFileFromCryptoDevice(ctx, "Picture5", back, &len), 0u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(back), len), "fifth seal");
  len = sizeof back;
  ASSERT_EQ(GM_SKF_CTX_GetSealInfoEx(ctx, 5, back, &len), 0u);
  EXPECT_EQ(len, 10u);
  EXPECT_EQ(GM_SKF_CTX_DeleteFile(ctx, "Picture5"), 0u);
  EXPECT_EQ(GM_SKF_CTX_GetSealInfoEx(ctx, 5, nullptr, &len), SAR_FILE_NOT_EXIST);
  EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u);
  // Without a session there is no application to write into.
  EXPECT_EQ(GM_SKF_CTX_SetSealInfo(ctx, 2, slot5, 10), ERR_DEVICE_FILE_WRITE_FAILED);
  EXPECT_EQ(GM_SKF_CTX_GetSealInfo(ctx, 2, back, &len), ERR_DEVICE_FILE_READ_FAILED);
}

}  // namespace
}  // namespace zeph_it

#endif
