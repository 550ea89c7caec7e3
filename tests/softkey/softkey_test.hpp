// Shared fixture of the software key tests: the library is reached only
// through dlopen/dlsym, the way the device layer reaches a vendor library, and
// devices are set up with the zeph-softkey utility in a private root folder.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "oracle.hpp"
#include "softkey_fixture.hpp"
#include "zeph_skf.h"

namespace sk_test {

using zeph_test::Bytes;
constexpr const char *kSerial = "0123ABCD";
constexpr const char *kAdminPin = "12345678";
constexpr const char *kUserPin = "87654321";
constexpr const char *kAuthKey = "1234567812345678";  // the utility's default; also the default SM2 identity

// Every entry point the library offers; a missing one stays null.
struct Skf {
  void *lib = nullptr;
#define SK_MEMBER(name, args) PFN_##name name = nullptr;
  ZEPH_SKF_FUNCTIONS(SK_MEMBER)
#undef SK_MEMBER
};

inline const Skf &Lib() {
  static Skf s;  // kept loaded, as the device layer does
  if (s.lib == nullptr && (s.lib = dlopen(ZEPH_SOFTKEY_LIB, RTLD_NOW | RTLD_LOCAL)) != nullptr) {
#define SK_RESOLVE(name, args) s.name = reinterpret_cast<PFN_##name>(dlsym(s.lib, #name));
    ZEPH_SKF_FUNCTIONS(SK_RESOLVE)
#undef SK_RESOLVE
  }
  return s;
}

inline char *S(const char *s) { return const_cast<char *>(s); }
inline BYTE *B(const std::string &s) { return reinterpret_cast<BYTE *>(const_cast<char *>(s.data())); }

// A listing call (size query, then fetch) split into its names.
template <typename F>
std::vector<std::string> List(F call) {
  ULONG size = 0;
  EXPECT_EQ(call(nullptr, &size), SAR_OK);
  std::vector<char> list(size);
  EXPECT_EQ(call(list.data(), &size), SAR_OK);
  EXPECT_EQ(size, list.size());
  std::vector<std::string> out;
  for (size_t i = 0; i < list.size() && list[i] != '\0'; i += out.back().size() + 1) out.emplace_back(&list[i]);
  return out;
}

// SM4 in the mode an SKF algorithm names, from the oracle.
inline Bytes Sm4(ULONG alg, bool padding, const void *key, const Bytes &iv, const Bytes &in) {
  using zeph_test::Sm4Mode;
  const Sm4Mode mode = alg == SGD_SM4_ECB   ? Sm4Mode::kEcb
                       : alg == SGD_SM4_CBC ? Sm4Mode::kCbc
                       : alg == SGD_SM4_CFB ? Sm4Mode::kCfb
                                            : Sm4Mode::kOfb;
  return zeph_test::Sm4Encrypt(mode, padding, static_cast<const uint8_t *>(key), iv, in);
}

class SoftkeyTest : public zeph_test::SoftkeyFixture {
 protected:
  const Skf &skf = Lib();

  void SetUp() override {
    ASSERT_NE(skf.lib, nullptr) << dlerror();
    SoftkeyFixture::SetUp();
  }

  // Device kSerial: VorliEcc with container ECC (SM2 sign and enc pairs with
  // certificates), VorliRsa (with_rsa: container RSA1, RSA 1024), retries 3.
  void MakeStandardKey(bool with_rsa = false) {
    const std::string dev = std::string(" --serial ") + kSerial;
    MustTool("create-device" + dev);
    for (const char *app : {"VorliEcc", "VorliRsa"})
      MustTool("create-app" + dev + " --app " + app + " --admin-pin " + kAdminPin + " --user-pin " + kUserPin +
               " --admin-retry 3 --user-retry 3");
    MustTool("gen-key" + dev + " --app VorliEcc --container ECC --alg sm2 --usage both --user-pin " + kUserPin);
    if (with_rsa) MustTool("gen-key" + dev + " --app VorliRsa --container RSA1 --alg rsa1024 --user-pin " + kUserPin);
  }

  DEVHANDLE Connect(const char *name = kSerial) {
    DEVHANDLE h = nullptr;
    EXPECT_EQ(skf.SKF_ConnectDev(S(name), &h), SAR_OK);
    return h;
  }
  HAPPLICATION OpenApp(DEVHANDLE dev, const char *name, const char *user_pin = nullptr) {
    HAPPLICATION h = nullptr;
    EXPECT_EQ(skf.SKF_OpenApplication(dev, S(name), &h), SAR_OK);
    ULONG retry = 0;
    if (user_pin != nullptr) {
      EXPECT_EQ(skf.SKF_VerifyPIN(h, USER_TYPE, S(user_pin), &retry), SAR_OK);
    }
    return h;
  }
  HCONTAINER OpenCon(HAPPLICATION app, const char *name) {
    HCONTAINER h = nullptr;
    EXPECT_EQ(skf.SKF_OpenContainer(app, S(name), &h), SAR_OK);
    return h;
  }

  // Through a new connection to VorliEcc: a PIN check, the PIN's remaining
  // tries, and a signature with container ECC after the user PIN.
  ULONG Verify(ULONG type, const char *pin) {
    HAPPLICATION app = OpenApp(Connect(), "VorliEcc");
    ULONG retry = 0;
    return skf.SKF_VerifyPIN(app, type, S(pin), &retry);
  }
  ULONG Remain(ULONG type) {
    ULONG max = 0, rem = 99;
    BOOL is_default = FALSE;
    EXPECT_EQ(skf.SKF_GetPINInfo(OpenApp(Connect(), "VorliEcc"), type, &max, &rem, &is_default), SAR_OK);
    return rem;
  }
  ULONG Sign(const char *user_pin, const char *serial = kSerial) {
    HAPPLICATION app = nullptr;
    ULONG retry = 0;
    if (const ULONG rv = skf.SKF_OpenApplication(Connect(serial), S("VorliEcc"), &app); rv != SAR_OK) return rv;
    if (const ULONG rv = skf.SKF_VerifyPIN(app, USER_TYPE, S(user_pin), &retry); rv != SAR_OK) return rv;
    HCONTAINER con = nullptr;
    if (const ULONG rv = skf.SKF_OpenContainer(app, S("ECC"), &con); rv != SAR_OK) return rv;
    uint8_t digest[32] = {7};
    ECCSIGNATUREBLOB sig;
    return skf.SKF_ECCSignData(con, digest, 32, &sig);
  }
  // Device authentication: the challenge SM4-ECB-encrypted under the key.
  ULONG DevAuth(DEVHANDLE dev, const char *key = kAuthKey) {
    Bytes block(16);
    if (const ULONG rv = skf.SKF_GenRandom(dev, block.data(), 8); rv != SAR_OK) return rv;
    Bytes answer = Sm4(SGD_SM4_ECB, false, key, {}, block);
    return skf.SKF_DevAuth(dev, answer.data(), 16);
  }
};

}  // namespace sk_test
