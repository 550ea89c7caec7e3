// Shared fixture of the software key tests: the library is reached only
// through dlopen/dlsym, the way the device layer reaches a vendor library, and
// devices are set up with the zeph-softkey utility in a private root folder.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "test_support.hpp"
#include "zeph_skf.h"

namespace sk_test {

constexpr const char *kSerial = "0123ABCD";
constexpr const char *kAdminPin = "12345678";
constexpr const char *kUserPin = "87654321";
constexpr const char *kAuthKey = "1234567812345678";  // the utility's default
constexpr const char *kDefaultId = "1234567812345678";

// Every entry point the library offers; a missing one stays null.
struct Skf {
  void *lib = nullptr;
#define SK_MEMBER(name, args) PFN_##name name = nullptr;
  ZEPH_SKF_FUNCTIONS(SK_MEMBER)
#undef SK_MEMBER
};

inline Skf Load(const char *path) {
  Skf s;
  s.lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);  // kept loaded, as the device layer does
  if (s.lib == nullptr) return s;
#define SK_RESOLVE(name, args) s.name = reinterpret_cast<PFN_##name>(dlsym(s.lib, #name));
  ZEPH_SKF_FUNCTIONS(SK_RESOLVE)
#undef SK_RESOLVE
  return s;
}

inline const Skf &Lib() {
  static const Skf s = Load(ZEPH_SOFTKEY_LIB);
  return s;
}

inline std::vector<std::string> Names(const std::vector<char> &list) {
  std::vector<std::string> out;
  for (size_t i = 0; i < list.size() && list[i] != '\0'; i += out.back().size() + 1) out.emplace_back(&list[i]);
  return out;
}

// SM4-ECB of one block, independently of the library.
inline std::vector<uint8_t> Sm4Block(const uint8_t key[16], const uint8_t in[16]) {
  std::vector<uint8_t> out(32);
  int n = 0;
  EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex(c, EVP_sm4_ecb(), nullptr, key, nullptr);
  EVP_CIPHER_CTX_set_padding(c, 0);
  EVP_EncryptUpdate(c, out.data(), &n, in, 16);
  EVP_CIPHER_CTX_free(c);
  out.resize(16);
  return out;
}

class SoftkeyTest : public ::testing::Test {
 protected:
  const Skf &skf = Lib();

  void SetUp() override {
    ASSERT_NE(skf.lib, nullptr) << dlerror();
    setenv("ZEPH_SOFTKEY_ROOT", root.path().c_str(), 1);
    unsetenv("ZEPH_SOFTKEY_FAULT");
    unsetenv("ZEPH_SOFTKEY_TRACE");
  }
  void TearDown() override {
    unsetenv("ZEPH_SOFTKEY_FAULT");
    unsetenv("ZEPH_SOFTKEY_TRACE");
  }

  // Runs the utility on this test's root; returns its exit status, output in *out.
  int Tool(const std::string &args, std::string *out = nullptr) const {
    const std::string cmd = std::string(ZEPH_SOFTKEY_TOOL) + " --root '" + root.path().string() + "' " + args + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) return -1;
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) text.append(buf, n);
    const int rc = pclose(p);
    if (out != nullptr) *out = text;
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  }
  void MustTool(const std::string &args) const {
    std::string out;
    ASSERT_EQ(Tool(args, &out), 0) << args << "\n" << out;
  }

  // Device kSerial: VorliEcc with container ECC (SM2 sign and enc pairs with
  // certificates), VorliRsa with container RSA1 (RSA 1024), retries 3.
  void MakeStandardKey(bool with_rsa = false) {
    const std::string dev = std::string(" --serial ") + kSerial;
    MustTool("create-device" + dev);
    for (const char *app : {"VorliEcc", "VorliRsa"}) {
      MustTool("create-app" + dev + " --app " + app + " --admin-pin " + kAdminPin + " --user-pin " + kUserPin +
               " --admin-retry 3 --user-retry 3");
    }
    MustTool("gen-key" + dev + " --app VorliEcc --container ECC --alg sm2 --usage both --user-pin " + kUserPin);
    if (with_rsa) MustTool("gen-key" + dev + " --app VorliRsa --container RSA1 --alg rsa1024 --user-pin " + kUserPin);
  }

  DEVHANDLE Connect(const char *name = kSerial) {
    DEVHANDLE h = nullptr;
    EXPECT_EQ(skf.SKF_ConnectDev(const_cast<char *>(name), &h), SAR_OK);
    return h;
  }
  HAPPLICATION OpenApp(DEVHANDLE dev, const char *name, const char *user_pin = nullptr) {
    HAPPLICATION h = nullptr;
    EXPECT_EQ(skf.SKF_OpenApplication(dev, const_cast<char *>(name), &h), SAR_OK);
    ULONG retry = 0;
    if (user_pin != nullptr) {
      EXPECT_EQ(skf.SKF_VerifyPIN(h, USER_TYPE, const_cast<char *>(user_pin), &retry), SAR_OK);
    }
    return h;
  }
  HCONTAINER OpenCon(HAPPLICATION app, const char *name) {
    HCONTAINER h = nullptr;
    EXPECT_EQ(skf.SKF_OpenContainer(app, const_cast<char *>(name), &h), SAR_OK);
    return h;
  }

  // Device authentication as the device layer performs it: challenge, SM4-ECB
  // through the library's own symmetric functions, answer.
  ULONG DevAuth(DEVHANDLE dev, const char *key = kAuthKey) {
    uint8_t block[16] = {};
    ULONG rv = skf.SKF_GenRandom(dev, block, 8);
    HANDLE k = nullptr;
    if (rv == SAR_OK) rv = skf.SKF_SetSymmKey(dev, reinterpret_cast<BYTE *>(const_cast<char *>(key)), SGD_SM4_ECB, &k);
    BLOCKCIPHERPARAM param{};
    if (rv == SAR_OK) rv = skf.SKF_EncryptInit(k, param);
    BYTE cipher[32];
    ULONG len = sizeof cipher;
    if (rv == SAR_OK) rv = skf.SKF_Encrypt(k, block, 16, cipher, &len);
    if (k != nullptr) skf.SKF_CloseHandle(k);
    return rv != SAR_OK ? rv : skf.SKF_DevAuth(dev, cipher, len);
  }

  zeph_test::TempDir root;
};

}  // namespace sk_test
