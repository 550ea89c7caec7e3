// Fault injection: every vendor call an operation makes is made to fail in
// turn. The operation must hand that vendor status back unchanged (unless it
// ignores that call's status by design) and, whatever happened, close every
// application and container it opened.
#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_NOEXT_LIB) && defined(ZEPH_SOFTKEY_TOOL)

#include <functional>
#include <map>
#include <set>

#include "softkey_env.hpp"

namespace zeph_it {
namespace {

constexpr uint32_t kInjected = 0x0A0000EEu;  // no real call returns this

struct FaultCase {
  const char *name;
  const char *vid;
  std::function<void(SoftkeyTest *, const std::string &serial)> prepare;
  std::function<uint32_t(void *handle, const std::string &key_sn)> op;
  std::set<std::string> ignored;  // statuses the operation ignores on purpose
};

const std::set<std::string> kClosing = {"SKF_CloseApplication", "SKF_CloseContainer", "SKF_CloseHandle",
                                        "SKF_DisConnectDev"};

uint32_t DecryptRsa(void *h) {
  GM_SKF_CTX *ctx = static_cast<GM_SKF_CTX **>(h)[1];
  uint32_t rv = GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_RSA_ENC);
  if (rv == 0) rv = GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6);
  if (rv == 0) {
    // Whatever the block holds, the key is asked; the padding check comes after.
    Bytes cipher(128, 0x11), out(256);
    uint32_t len = 256;
    rv = GM_SKF_CTX_DoAsymDec(ctx, cipher.data(), 128, 1, out.data(), &len);
    if (rv == ERR_PADDING_INVALID) rv = 0;
  }
  GM_SKF_CTX_CloseSession(ctx);
  return rv;
}

std::vector<FaultCase> Cases() {
  static const unsigned char data[] = "fault injection";
  auto pin = [](void *h, uint32_t usage) {
    uint32_t retry = 0;
    return ZEPH_C_VerifyUserPin(h, usage, kUserPin, &retry);
  };
  auto sm2_sign = [](void *h, const std::string &) {
    unsigned char sig[72];
    uint32_t len = 0;
    return ZEPH_C_DoSm2Sign(h, kUserPin, data, sizeof data, sig, &len);
  };
  auto rsa_sign = [](void *h, const std::string &) {
    unsigned char sig[256];
    uint32_t len = sizeof sig;
    return ZEPH_C_DoRsaSign(h, kUserPin, data, sizeof data, sig, &len, 4);
  };
  auto write_chain = [](SoftkeyTest *t, const std::string &sn) {
    t->Must("write-file --serial " + sn + " --app VorliEcc --file CertChain --text chain");
  };
  auto area = [](auto init) {
    return [init](void *h, const std::string &) {
      return init(h, kAuthKey.data(), 16, kAdminPin, 10, kUserPin, 10, 0);
    };
  };
  return {
      {"Initialize", "ZA", nullptr,
       [](void *, const std::string &key_sn) {
         void *h = nullptr;
         const uint32_t rv = ZEPH_C_Initialize(&h, 0, key_sn.c_str(), 0);
         ZEPH_C_Finalize(h);
         ZEPH_C_MALLOC_FREE(h);
         return rv;
       },
       {"SKF_EnumApplication"}},
      {"VerifyUserPin", "ZA", nullptr, [pin](void *h, const std::string &) { return pin(h, ZEPH_AREA_SM2); },
       {"SKF_GetPINInfo"}},
      {"ChangeUserPin", "ZA", nullptr,
       [](void *h, const std::string &) { return ZEPH_C_ChangeUserPin(h, ZEPH_AREA_RSA, kUserPin, kUserPin); }, {}},
      {"UnLockUserPinByAdminPin", "ZA", nullptr,
       [](void *h, const std::string &) {
         return ZEPH_C_UnLockUserPinByAdminPin(h, ZEPH_AREA_SM2, kAdminPin, 8, kUserPin, 6);
       },
       {}},
      {"DoSm2Sign", "ZA", nullptr, sm2_sign, {"SKF_GetPINInfo"}},
      {"DoSm2Sign device hashing", "ZT", nullptr, sm2_sign, {"SKF_GetPINInfo"}},
      {"DoRsaSign", "ZA", nullptr, rsa_sign, {"SKF_GetPINInfo"}},
      {"DoRsaSign without extensions", "ZN", nullptr, rsa_sign, {"SKF_GetPINInfo"}},
      {"RSA decryption", "ZA", nullptr, [](void *h, const std::string &) { return DecryptRsa(h); },
       {"SKF_GetPINInfo"}},
      {"DoDeviceAuth", "ZA", nullptr,
       [](void *h, const std::string &) { return ZEPH_C_DoDeviceAuth(h, kAuthKey.data(), 16); }, {}},
      {"ChangeDeviceAuthCode", "ZA", nullptr,
       [](void *h, const std::string &) {
         return ZEPH_C_ChangeDeviceAuthCode(h, kAuthKey.data(), 16, kAuthKey.data(), 16);
       },
       {}},
      {"InitVorliRsaArea", "ZA", nullptr, area(ZEPH_C_InitVorliRsaArea), {"SKF_DeleteApplication"}},
      {"InitVorliSm2Area", "ZA", nullptr, area(ZEPH_C_InitVorliSm2Area), {"SKF_DeleteApplication"}},
      {"InitVorliStampArea", "ZA", nullptr, area(ZEPH_C_InitVorliStampArea), {"SKF_DeleteApplication"}},
      {"DelAllAppWithAuthCode", "ZA",
       [](SoftkeyTest *t, const std::string &sn) {
         // The same two applications before every run.
         for (const char *app : {"VorliEcc", "VorliRsa", "VorliStamp", "Other"}) {
           t->Tool("delete-app --serial " + sn + " --app " + app);
         }
         for (const char *app : {"VorliStamp", "Other"}) {
           t->Must("create-app --serial " + sn + " --app " + app + " --admin-pin " + kAdminPin + " --user-pin " +
                   kUserPin);
         }
       },
       [](void *h, const std::string &) { return ZEPH_C_DelAllAppWithAuthCode(h, kAuthKey.data(), 16); }, {}},
      {"SetVersion", "ZA", nullptr,
       [](void *h, const std::string &) { return ZEPH_C_SetVersion(h, kUserPin, ZEPH_AREA_SM2, data, 4); },
       {"SKF_GetPINInfo", "SKF_DeleteFile"}},
      {"WriteUkeyFile", "ZA", write_chain,
       [](void *h, const std::string &) {
         return ZEPH_C_WriteUkeyFile(h, kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", data, sizeof data);
       },
       {"SKF_GetPINInfo", "SKF_DeleteFile"}},
      {"ReadUkeyFile", "ZA", write_chain,
       [](void *h, const std::string &) {
         unsigned char out[64];
         uint32_t len = sizeof out;
         return ZEPH_C_ReadUkeyFile(h, kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", out, &len);
       },
       {"SKF_GetPINInfo"}},
      {"DeleteFile", "ZA", write_chain,
       [](void *h, const std::string &) {
         return ZEPH_C_DeleteFile(h, kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain");
       },
       {"SKF_GetPINInfo"}},
      {"EnumRSAandSM2andSealInfo", "ZA", nullptr,
       [](void *h, const std::string &) {
         uint32_t a, b, c;
         return ZEPH_C_EnumRSAandSM2andSealInfo(h, &a, &b, &c);
       },
       {}},
      {"EnumAllInfoInCryptoDevice", "ZA", nullptr,
       [](void *h, const std::string &) {
         char out[2048];
         uint32_t len = sizeof out;
         return ZEPH_C_EnumAllInfoInCryptoDevice(h, out, &len);
       },
       {}},
      {"GenRandomBytes", "ZA", nullptr,
       [](void *h, const std::string &) {
         unsigned char out[16];
         return ZEPH_C_GenRandomBytes(h, 16, out);
       },
       {}},
  };
}

class FaultTest : public SoftkeyTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(FaultTest, EachVendorStatusComesBackAndEverythingCloses) {
  const FaultCase c = Cases()[GetParam()];
  SCOPED_TRACE(c.name);
  const std::string serial = "FLT" + std::to_string(GetParam());
  const std::string key_sn = std::string(c.vid) + "_" + serial;
  CreateStandardKey(serial);
  CreateApp(serial, "VorliStamp");
  Must("write-file --serial " + serial + " --app VorliStamp --file Picture --text seal");
  Handle h(key_sn);

  if (c.prepare) c.prepare(this, serial);
  const std::vector<TraceLine> clean = Traced([&] { ASSERT_EQ(c.op(h.get(), key_sn), 0u); });
  ASSERT_FALSE(clean.empty());
  EXPECT_TRUE(AllClosed(clean));

  std::map<std::string, int> seen;
  for (const TraceLine &call : clean) {
    const int nth = ++seen[call.fn];
    const std::string fault = call.fn + ":" + std::to_string(nth) + ":" + std::to_string(kInjected);
    SCOPED_TRACE(fault);
    if (c.prepare) c.prepare(this, serial);
    uint32_t rv = 0;
    const auto trace = Traced([&] {
      setenv("ZEPH_SOFTKEY_FAULT", fault.c_str(), 1);
      rv = c.op(h.get(), key_sn);
      unsetenv("ZEPH_SOFTKEY_FAULT");
    });
    EXPECT_TRUE(AllClosed(trace));
    if (kClosing.count(call.fn) != 0 || c.ignored.count(call.fn) != 0) continue;
    EXPECT_EQ(rv, kInjected) << Names(trace);
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultTest, ::testing::Range<size_t>(0, Cases().size()),
                         [](const ::testing::TestParamInfo<size_t> &info) {
                           std::string name = Cases()[info.param].name;
                           for (char &ch : name) {
                             if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           }
                           return name;
                         });

}  // namespace
}  // namespace zeph_it

#endif
