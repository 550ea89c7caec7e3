// Device files and seal areas, end to end.
#include "softkey_env.hpp"

namespace zeph_it {
namespace {

using FilesTest = SoftkeyTest;
constexpr uint32_t kChain = ZEPH_OBJ_SM2_CERTCHAIN;

Bytes Read(void *h, const char *pin, uint32_t row, const char *name, uint32_t *status = nullptr) {
  uint32_t len = 0;
  uint32_t rv = ZEPH_C_ReadUkeyFile(h, pin, row, name, nullptr, &len);
  Bytes out(len);
  if (rv == 0) rv = ZEPH_C_ReadUkeyFile(h, pin, row, name, out.data(), &len);
  if (status != nullptr) *status = rv;
  out.resize(rv == 0 ? len : 0);
  return out;
}

TEST_F(FilesTest, WholeFilesReplaceWhatWasThereAndPinRules) {
  CreateStandardKey("F1", false);
  Handle h("ZA_F1");
  const Bytes big = zeph_test::RandomBytes(4096, 1), small = zeph_test::RandomBytes(10, 2);
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, kChain, "CertChain", big.data(), 4096), 0u);
  EXPECT_EQ(Read(h.get(), "", kChain, "CertChain"), big);
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, kChain, "CertChain", small.data(), 10), 0u);
  EXPECT_EQ(Read(h.get(), kUserPin, kChain, "CertChain"), small);
  Bytes buf(4);
  uint32_t len = 4, status = 0;
  EXPECT_EQ(ZEPH_C_ReadUkeyFile(h.get(), "", kChain, "CertChain", buf.data(), &len), SAR_BUFFER_TOO_SMALL);
  ASSERT_EQ(ZEPH_C_SetVersion(h.get(), kUserPin, ZEPH_AREA_SM2, small.data(), 2), 0u);
  EXPECT_EQ(Read(h.get(), nullptr, ZEPH_OBJ_SM2_VERSION, "Version"), Bytes(small.begin(), small.begin() + 2));

  // Reading without a PIN asks for none; writing puts even "" to the key.
  auto trace = Traced([&] { Read(h.get(), "", kChain, "CertChain"); });
  EXPECT_FALSE(Called(trace, "SKF_VerifyPIN")) << Names(trace);
  trace = Traced([&] { EXPECT_NE(ZEPH_C_WriteUkeyFile(h.get(), "", kChain, "CertChain", big.data(), 3), 0u); });
  EXPECT_TRUE(Called(trace, "SKF_VerifyPIN") && !Called(trace, "SKF_CreateFile")) << Names(trace);
  const std::string long_name(100, 'n');
  EXPECT_NE(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, kChain, long_name.c_str(), big.data(), 3), 0u);
  EXPECT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, kChain, nullptr, big.data(), 3), ERR_INVALID_PARAMETER);

  ASSERT_EQ(ZEPH_C_DeleteFile(h.get(), kUserPin, kChain, "CertChain"), 0u);
  Read(h.get(), "", kChain, "CertChain", &status);
  EXPECT_EQ(status, SAR_FILE_NOT_EXIST);
}

TEST_F(FilesTest, ARewriteThatCannotFitOrFailsKeepsWhatWasStored) {
  MustTool("create-device --space 8192 --serial F2");
  CreateApp("F2", "VorliEcc");
  Handle h("ZA_F2");
  const Bytes old = zeph_test::RandomBytes(3000, 1);
  ASSERT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, kChain, "CertChain", old.data(), 3000), 0u);
  // 5,192 bytes are free and the old file frees 3,000 more.
  const struct {
    uint32_t len;
    const char *fault;
    uint32_t status;
    bool deletes;
  } rows[] = {
      {8193, nullptr, SAR_NO_ROOM, false},
      {3000, "SKF_WriteFile:1:0x0A000008", SAR_WRITEFILEERR, false},  // same size: written in place
      {8192, nullptr, 0, true},
      {3000, nullptr, 0, true},
      {3000, nullptr, 0, false},
  };
  Bytes stored = old;
  for (const auto &r : rows) {
    SCOPED_TRACE(std::to_string(r.len) + (r.fault != nullptr ? r.fault : ""));
    const Bytes data = zeph_test::RandomBytes(r.len, r.len);
    if (r.fault != nullptr) setenv("ZEPH_SOFTKEY_FAULT", r.fault, 1);
    const auto trace = Traced(
        [&] { EXPECT_EQ(ZEPH_C_WriteUkeyFile(h.get(), kUserPin, kChain, "CertChain", data.data(), r.len), r.status); });
    unsetenv("ZEPH_SOFTKEY_FAULT");
    EXPECT_EQ(Called(trace, "SKF_DeleteFile"), r.deletes) << Names(trace);
    if (r.status == 0) stored = data;
    EXPECT_EQ(Read(h.get(), "", kChain, "CertChain"), stored);
  }
}

TEST_F(FilesTest, SealAreasSlotsAndCounts) {
  CreateStandardKey("F3");
  CreateApp("F3", "VorliStamp");
  Handle h("ZA_F3");
  GM_SKF_CTX *ctx = h.ctx();
  ASSERT_EQ(GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_STAMP_PICTURE), 0u);
  ASSERT_EQ(GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6), 0u);
  // Area 2 is the picture, 3 the chain, any other the certificate; slot n is Picture<n>.
  const struct {
    uint32_t area;
    const char *file;
    bool slot = false;
  } rows[] = {{1, "Cert"}, {2, "Picture"},        {3, "CertChain"},
              {9, "Cert"}, {5, "Picture5", true}, {11, "Picture11", true}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.file);
    const Bytes data = zeph_test::RandomBytes(20 + r.area, r.area);
    const uint32_t n = static_cast<uint32_t>(data.size());
    ASSERT_EQ((r.slot ? GM_SKF_CTX_SetSealInfoEx : GM_SKF_CTX_SetSealInfo)(ctx, r.area, data.data(), n), 0u);
    Bytes back(64);
    uint32_t len = 64;
    ASSERT_EQ(GM_SKF_CTX_GetFileFromCryptoDevice(ctx, r.file, back.data(), &len), 0u);
    EXPECT_EQ(Bytes(back.begin(), back.begin() + len), data);
    len = 0;
    ASSERT_EQ((r.slot ? GM_SKF_CTX_GetSealInfoEx : GM_SKF_CTX_GetSealInfo)(ctx, r.area, nullptr, &len), 0u);
    EXPECT_EQ(len, n);
  }
  uint32_t len = 0;
  EXPECT_EQ(GM_SKF_CTX_DeleteFile(ctx, "Picture5"), 0u);
  EXPECT_EQ(GM_SKF_CTX_GetSealInfoEx(ctx, 5, nullptr, &len), SAR_FILE_NOT_EXIST);
  MustTool("write-file --serial F3 --app VorliStamp --file Picture4 --text p4");
  EXPECT_EQ(GM_SKF_CTX_CloseSession(ctx), 0u);
  // Without a session there is no application to write into.
  EXPECT_EQ(GM_SKF_CTX_SetSealInfo(ctx, 2, kAuthKey.data(), 10), ERR_DEVICE_FILE_WRITE_FAILED);
  EXPECT_EQ(GM_SKF_CTX_GetSealInfo(ctx, 2, nullptr, &len), ERR_DEVICE_FILE_READ_FAILED);

  // Seals are Picture and Picture1..9 (not Picture11).
  uint32_t rsa = 9, sm2 = 9, seal = 9;
  ASSERT_EQ(ZEPH_C_EnumRSAandSM2andSealInfo(h.get(), &rsa, &sm2, &seal), 0u);
  EXPECT_EQ(rsa * 100 + sm2 * 10 + seal, 212u);
}

}  // namespace
}  // namespace zeph_it
