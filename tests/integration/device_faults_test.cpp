// Fault injection: each vendor call an operation makes fails in turn. The
// operation hands that status back unchanged (unless it ignores that call's
// status by design) and, whatever happened, closes everything it opened.
#include <map>
#include <set>

#include "softkey_env.hpp"

namespace zeph_it {
namespace {

constexpr uint32_t kInjected = 0x0A0000EEu;  // no real call returns this
const unsigned char kData[] = "fault injection";
unsigned char out[2048];
uint32_t len, a, b, c;

using Op = std::function<uint32_t(void *h, const std::string &key_sn)>;
#define OP(expr) [](void *h, const std::string &key_sn) -> uint32_t { return expr; }

uint32_t DecryptRsa(GM_SKF_CTX *ctx) {
  uint32_t rv = GM_SKF_CTX_OpenSession(ctx, ZEPH_OBJ_RSA_ENC);
  if (rv == 0) rv = GM_SKF_CTX_VerifyPin(ctx, kUserPin, 6);
  const Bytes cipher(128, 0x11);  // the key is asked whatever it holds; padding is checked after
  if (rv == 0) rv = GM_SKF_CTX_DoAsymDec(ctx, cipher.data(), 128, 1, out, &(len = 256));
  GM_SKF_CTX_CloseSession(ctx);
  return rv == ERR_PADDING_INVALID ? 0 : rv;
}

uint32_t Reinitialize(const std::string &key_sn) {
  void *h = nullptr;
  const uint32_t rv = ZEPH_C_Initialize(&h, 0, key_sn.c_str(), 0);
  ZEPH_C_Finalize(h);
  ZEPH_C_MALLOC_FREE(h);
  return rv;
}

struct FaultCase {
  const char *name, *vid;
  Op op;
  std::set<std::string> ignored;  // statuses the operation ignores on purpose
  const char *prepare = nullptr;  // "chain"/"version": a CertChain/Version file; "apps": two applications to delete
  uint32_t rewrite_len = 0;       // the prepared file is rewritten with this many bytes of kData
};

const std::vector<FaultCase> &Cases() {
  const std::set<std::string> pin_info = {"SKF_GetPINInfo"};
  const Op sm2_sign = OP(ZEPH_C_DoSm2Sign(h, kUserPin, kData, sizeof kData, out, &(len = 0)));
  const Op rsa_sign = OP(ZEPH_C_DoRsaSign(h, kUserPin, kData, sizeof kData, out, &(len = 256), 4));
  const Op unlock = OP(ZEPH_C_UnLockUserPinByAdminPin(h, ZEPH_AREA_SM2, kAdminPin, 8, kUserPin, 6));
  const Op enum_all = OP(ZEPH_C_EnumAllInfoInCryptoDevice(h, reinterpret_cast<char *>(out), &(len = sizeof out)));
#define AREA(init) OP(init(h, kAuthKey.data(), 16, kAdminPin, 10, kUserPin, 10, 0))
  static const std::vector<FaultCase> cases = {
      {"Initialize", "ZA", OP(Reinitialize(key_sn)), {"SKF_EnumApplication"}},
      {"VerifyUserPin", "ZA", OP(ZEPH_C_VerifyUserPin(h, ZEPH_AREA_SM2, kUserPin, &a)), pin_info},
      {"ChangeUserPin", "ZA", OP(ZEPH_C_ChangeUserPin(h, ZEPH_AREA_RSA, kUserPin, kUserPin)), {}},
      {"UnLockUserPinByAdminPin", "ZA", unlock, {}},
      {"DoSm2Sign", "ZA", sm2_sign, pin_info},
      {"DoSm2Sign_device_hashing", "ZT", sm2_sign, pin_info},
      {"DoRsaSign", "ZA", rsa_sign, pin_info},
      {"DoRsaSign_without_extensions", "ZN", rsa_sign, pin_info},
      {"RSA_decryption", "ZA", OP(DecryptRsa(static_cast<GM_SKF_CTX **>(h)[1])), pin_info},
      {"DoDeviceAuth", "ZA", OP(ZEPH_C_DoDeviceAuth(h, kAuthKey.data(), 16)), {}},
      {"ChangeDeviceAuthCode", "ZA", OP(ZEPH_C_ChangeDeviceAuthCode(h, kAuthKey.data(), 16, kAuthKey.data(), 16)), {}},
      {"InitVorliRsaArea", "ZA", AREA(ZEPH_C_InitVorliRsaArea), {"SKF_DeleteApplication"}},
      {"InitVorliSm2Area", "ZA", AREA(ZEPH_C_InitVorliSm2Area), {"SKF_DeleteApplication"}},
      {"InitVorliStampArea", "ZA", AREA(ZEPH_C_InitVorliStampArea), {"SKF_DeleteApplication"}},
      {"DelAllAppWithAuthCode", "ZA", OP(ZEPH_C_DelAllAppWithAuthCode(h, kAuthKey.data(), 16)), {}, "apps"},
      {"SetVersion", "ZA", OP(ZEPH_C_SetVersion(h, kUserPin, ZEPH_AREA_SM2, kData, 4)), pin_info, "version", 4},
      {"WriteUkeyFile", "ZA",
       OP(ZEPH_C_WriteUkeyFile(h, kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", kData, sizeof kData)), pin_info,
       "chain", sizeof kData},
      {"ReadUkeyFile", "ZA",
       OP(ZEPH_C_ReadUkeyFile(h, kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain", out, &(len = 64))), pin_info, "chain"},
      {"DeleteFile", "ZA", OP(ZEPH_C_DeleteFile(h, kUserPin, ZEPH_OBJ_SM2_CERTCHAIN, "CertChain")), pin_info, "chain"},
      {"EnumRSAandSM2andSealInfo", "ZA", OP(ZEPH_C_EnumRSAandSM2andSealInfo(h, &a, &b, &c)), {}},
      {"EnumAllInfoInCryptoDevice", "ZA", enum_all, {}},
      {"GenRandomBytes", "ZA", OP(ZEPH_C_GenRandomBytes(h, 16, out)), {}},
  };
#undef AREA
  return cases;
}

class FaultTest : public SoftkeyTest, public ::testing::WithParamInterface<size_t> {
 public:
  void Prepare(const std::string &what, const std::string &sn) {
    if (what == "chain") MustTool("write-file --serial " + sn + " --app VorliEcc --file CertChain --text chain");
    if (what == "version") MustTool("write-file --serial " + sn + " --app VorliEcc --file Version --text v1");
    if (what != "apps") return;
    for (const char *app : {"VorliEcc", "VorliRsa", "VorliStamp", "Other"}) {
      Tool("delete-app --serial " + sn + " --app " + app);  // absent ones too
    }
    CreateApp(sn, "VorliStamp");
    CreateApp(sn, "Other");
  }
};

TEST_P(FaultTest, EachVendorStatusComesBackAndEverythingCloses) {
  const FaultCase &fault_case = Cases()[GetParam()];
  const std::string serial = "FLT" + std::to_string(GetParam()), key_sn = std::string(fault_case.vid) + "_" + serial;
  const std::string prepare = fault_case.prepare != nullptr ? fault_case.prepare : "";
  CreateStandardKey(serial);
  CreateApp(serial, "VorliStamp");
  MustTool("write-file --serial " + serial + " --app VorliStamp --file Picture --text seal");
  Handle h(key_sn);

  Prepare(prepare, serial);
  const auto clean = Traced([&] { ASSERT_EQ(fault_case.op(h.get(), key_sn), 0u); });
  ASSERT_FALSE(clean.empty());
  EXPECT_TRUE(AllClosed(clean));
  std::map<std::string, int> seen;
  for (const TraceLine &call : clean) {
    const std::string fault = call.fn + ":" + std::to_string(++seen[call.fn]) + ":" + std::to_string(kInjected);
    SCOPED_TRACE(fault);
    Prepare(prepare, serial);
    uint32_t rv = 0;
    const auto trace = Traced([&] {
      setenv("ZEPH_SOFTKEY_FAULT", fault.c_str(), 1);
      rv = fault_case.op(h.get(), key_sn);
      unsetenv("ZEPH_SOFTKEY_FAULT");
    });
    EXPECT_TRUE(AllClosed(trace));
    const bool closing = call.fn.find("Close") != std::string::npos || call.fn == "SKF_DisConnectDev";
    EXPECT_TRUE(closing || fault_case.ignored.count(call.fn) != 0 || rv == kInjected) << rv << ": " << Names(trace);
    if (fault_case.rewrite_len != 0) {  // a rewrite that failed lost nothing
      const bool chain = prepare == "chain";
      uint32_t n = sizeof out;
      ASSERT_EQ(ZEPH_C_ReadUkeyFile(h.get(), "", chain ? ZEPH_OBJ_SM2_CERTCHAIN : ZEPH_OBJ_SM2_VERSION,
                                    chain ? "CertChain" : "Version", out, &n),
                0u);
      const std::string old = chain ? "chain" : "v1", now(reinterpret_cast<const char *>(out), n);
      EXPECT_EQ(now, rv == 0 ? std::string(reinterpret_cast<const char *>(kData), fault_case.rewrite_len) : old);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultTest, ::testing::Range<size_t>(0, Cases().size()),
                         [](const auto &param_info) { return std::string(Cases()[param_info.param].name); });

}  // namespace
}  // namespace zeph_it
