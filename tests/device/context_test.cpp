// Every session-context operation on a missing context, on a connected
// context without a session, and on a session over a vendor library lacking
// every entry point; vendor name lists.
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "device/skf_functions.hpp"
#include "device/vorli_gm_skf.hpp"
#include "zeph_c_device.h"
#include "zeph_c_utils.h"

namespace {

void *const kFake = reinterpret_cast<void *>(0x10);  // a vendor handle nothing can receive

GM_SKF_CTX Context(bool session, uint32_t kind = ZEPH_KEY_SM2_SIGN) {
  GM_SKF_CTX ctx;
  ctx.module = ctx.device = kFake;
  ctx.application = ctx.container = session ? kFake : nullptr;
  ctx.key_kind = kind;
  return ctx;
}

unsigned char buf[512], blob[200];  // blob: an SM2 ciphertext announcing no cipher bytes
const unsigned char key[16] = {1};
uint32_t len, u1, u2, u3;
uint32_t *Cap() { return &(len = sizeof buf); }

struct Op {
  const char *name;
  std::function<uint32_t(GM_SKF_CTX *)> call;
  uint32_t no_context, connected, lacking_entries;
};
#define OP(expr, ...)                                                   \
  {                                                                     \
#expr, [](GM_SKF_CTX * c) -> uint32_t { return expr; }, __VA_ARGS__ \
  }
#define OP3(expr, status) OP(expr, status, status, status)

const Op kOps[] = {
    OP3(GM_SKF_CTX_OpenSession(c, 3), ERR_OPEN_SESSION_FAILED),
    OP3(GM_SKF_CTX_NewSession(c, 3, "12345678", 6, "123456", 6), ERR_OPEN_SESSION_FAILED),
    OP3(GM_SKF_CTX_VerifyPin(c, "123456", 6), ERR_PIN_VERIFY_FAILED),
    OP3(GM_SKF_CTX_VerifyPinRetryCnt(c, "123456", 6, &u1), ERR_PIN_VERIFY_FAILED),
    OP3(GM_SKF_CTX_VerifyAdminPin(c, "123456", 6), ERR_PIN_VERIFY_FAILED),
    OP3(GM_SKF_CTX_UnLockUserPinByAdminPin(c, "admin1", 6, "user12", 6, &u1), ERR_UNLOCK_PIN_FAILED),
    OP3(GM_SKF_CTX_ChangeUserPin(c, "123456", 6, "654321", 6), ERR_PIN_VERIFY_FAILED),
    OP3(GM_SKF_CTX_DoDeviceAuth(c, key, 16), ERR_DEVICE_AUTH_FAILED),
    OP3(GM_SKF_CTX_ChangeDevAuthKey(c, key, 16), ERR_DEVICE_AUTH_FAILED),
    OP(GM_SKF_CTX_IsExt4SKF(c, &u1), ERR_NO_DEVICE_LIBRARY, 0, 0),
    OP3(GM_SKF_CTX_EnumAllInfo(c, reinterpret_cast<char *>(buf), Cap()), ERR_OPEN_SESSION_FAILED),
    OP3(GM_SKF_CTX_EnumRSAandSM2andSealInfo(c, &u1, &u2, &u3), ERR_OPEN_SESSION_FAILED),
    OP3(GM_SKF_CTX_DelAllApp(c), ERR_OPEN_SESSION_FAILED),
    OP3(GM_SKF_CTX_DataOnPretreatment(c, buf, 3, buf, Cap(), 0), ERR_PRETREATMENT_FAILED),
    OP3(GM_SKF_CTX_SignHash(c, buf, 32, buf + 100, Cap()), ERR_SIGN_FAILED),
    OP3(GM_SKF_CTX_SignHashEx(c, buf, 32, buf + 100, Cap(), nullptr), ERR_SIGN_FAILED),
    OP(GM_SKF_CTX_DoAsymDec(c, buf, 128, 1, buf + 128, Cap()), ERR_ASYM_CRYPT_FAILED, ERR_ASYM_CRYPT_FAILED,
       ERR_UNSUPPORTED_VALUE),
    OP(GM_SKF_CTX_SM2Decrypt(c, blob, sizeof blob, buf, Cap(), 0), ERR_INVALID_PARAMETER, ERR_INVALID_PARAMETER,
       ERR_UNSUPPORTED_VALUE),
    OP3(GM_SKF_CTX_ExportPublicKey(c, buf, Cap()), ERR_EXPORT_PUBKEY_FAILED),
    OP3(GM_SKF_CTX_GenRandom(c, 8, buf), ERR_INVALID_PARAMETER),
    OP3(GM_SKF_CTX_SetFileIntoCryptoDevice(c, "f", buf, 4), ERR_DEVICE_FILE_WRITE_FAILED),
    OP3(GM_SKF_CTX_GetFileFromCryptoDevice(c, "f", buf, Cap()), ERR_DEVICE_FILE_READ_FAILED),
    OP3(GM_SKF_CTX_DeleteFile(c, "f"), ERR_DEVICE_FILE_WRITE_FAILED),
    OP3(GM_SKF_CTX_SetSealInfo(c, 2, buf, 4), ERR_DEVICE_FILE_WRITE_FAILED),
    OP3(GM_SKF_CTX_GetSealInfoEx(c, 5, nullptr, Cap()), ERR_DEVICE_FILE_READ_FAILED),
    OP3(GM_SKF_CTX_GenRSAKeyPair(c, 2048), ERR_GEN_KEYPAIR_FAILED),
    OP3(GM_SKF_CTX_GenECCKeyPair(c), ERR_GEN_KEYPAIR_FAILED),
    OP3(GM_SKF_CTX_ImportECCKeyPair(c, buf, sizeof buf), ERR_EXT_INTERFACE_MISSING),
    OP3(GM_SKF_CTX_ImportRSAKeyPair(c, buf, 128, buf, 16), ERR_EXT_INTERFACE_MISSING),
    OP3(GM_SKF_CTX_ImportCertificate(c, 1, buf, 4), ERR_DEVICE_FILE_WRITE_FAILED),
    OP3(GM_SKF_CTX_ExportCertificate(c, 1, buf, Cap()), ERR_GET_CERT_FAILED),
    OP3(GM_SKF_CTX_ExportPublicKeyEx(c, 0, buf, Cap()), ERR_EXPORT_PUBKEY_FAILED),
    OP3(GM_SKF_CTX_EnumObjects(c, reinterpret_cast<char *>(buf), Cap()), ERR_OPEN_SESSION_FAILED),
};

TEST(SessionContext, EachOperationAnswersWithItsOwnStatus) {
  for (const Op &op : kOps) {
    SCOPED_TRACE(op.name);
    GM_SKF_CTX connected = Context(false), open = Context(true);
    EXPECT_EQ(op.call(nullptr), op.no_context);
    EXPECT_EQ(op.call(&connected), op.connected);
    EXPECT_EQ(op.call(&open), op.lacking_entries);
  }
}

TEST(SessionContext, BadArgumentsAreRefusedBeforeAnyVendorCall) {
  GM_SKF_CTX ctx = Context(true);
  std::vector<unsigned char> cipher(204, 0);  // announces 40 cipher bytes
  cipher[160] = 40;
  EXPECT_EQ(GM_SKF_CTX_SM2Decrypt(&ctx, cipher.data(), 204, buf, Cap(), 0), ERR_UNSUPPORTED_VALUE);  // well formed
  for (uint32_t short_len : {203u, 170u, 163u}) {  // fewer bytes than announced, or no room for the length
    EXPECT_EQ(GM_SKF_CTX_SM2Decrypt(&ctx, cipher.data(), short_len, buf, Cap(), 0), ERR_INVALID_PARAMETER);
  }
  EXPECT_EQ(GM_SKF_CTX_VerifyAdminPin(&ctx, nullptr, 0), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_SignHash(&ctx, buf, 32, nullptr, Cap()), ERR_INVALID_PARAMETER);
  EXPECT_EQ(GM_SKF_CTX_GetFileFromCryptoDevice(&ctx, "f", buf, nullptr), ERR_INVALID_PARAMETER);
  // An enveloped key shorter than its head, or than the ciphertext it announces.
  std::vector<unsigned char> envelope(sizeof(ENVELOPEDKEYBLOB) + 15, 0);
  envelope[offsetof(ENVELOPEDKEYBLOB, ECCCipherBlob) + offsetof(ECCCIPHERBLOB, CipherLen)] = 16;
  EXPECT_EQ(GM_SKF_CTX_ImportECCKeyPair(&ctx, envelope.data(), static_cast<uint32_t>(envelope.size())),
            ERR_EXT_INTERFACE_MISSING);
  EXPECT_EQ(GM_SKF_CTX_ImportECCKeyPair(&ctx, envelope.data(), static_cast<uint32_t>(envelope.size() - 1)),
            ERR_INVALID_PARAMETER);
  // An RSA DigestInfo that does not fit is measured, whatever the identifier's high bits.
  ctx.key_kind = ZEPH_KEY_RSA_SIGN;
  len = 10;
  EXPECT_EQ(GM_SKF_CTX_DataOnPretreatment(&ctx, buf, 3, buf, &len, 0x10004), ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 51u);
}

TEST(VendorNameLists, SplitWithinTheReportedSize) {
  using zeph::device::SplitNames;
  const char list[] = "A1\0B22\0\0junk";
  EXPECT_EQ(SplitNames(list, sizeof list), (std::vector<std::string>{"A1", "B22"}));
  EXPECT_EQ(SplitNames(list, 3), (std::vector<std::string>{"A1"}));
  EXPECT_EQ(SplitNames(list, 5), (std::vector<std::string>{"A1"}));  // cut inside a name: dropped
  EXPECT_TRUE(SplitNames(list, 0).empty());
  EXPECT_TRUE(SplitNames("\0A\0", 3).empty());
}

// Entry points are kept per library, and looked up afresh once a library has
// been unloaded: the loader often puts the next library at the same handle.
TEST(VendorEntryPoints, KeptPerLibraryUntilAnUnload) {
  using zeph::device::CachedSkf;
  using zeph::device::ResolveSkf;
  void *ext = LoadLibraryA(ZEPH_SOFTKEY_LIB);
  ASSERT_NE(ext, nullptr);
  EXPECT_NE(CachedSkf(ext).SKF_RSADecrypt, nullptr);
  EXPECT_EQ(CachedSkf(ext).SKF_ConnectDev, ResolveSkf(ext).SKF_ConnectDev);
  EXPECT_EQ(CachedSkf(nullptr).SKF_ConnectDev, nullptr);
  ASSERT_EQ(FreeLibrary(ext), 0);
  void *noext = LoadLibraryA(ZEPH_SOFTKEY_NOEXT_LIB);
  ASSERT_NE(noext, nullptr);
  EXPECT_EQ(CachedSkf(noext).SKF_RSADecrypt, nullptr);  // the extension the other library had
  EXPECT_EQ(CachedSkf(noext).SKF_ConnectDev, ResolveSkf(noext).SKF_ConnectDev);
  EXPECT_EQ(FreeLibrary(noext), 0);
}

}  // namespace
