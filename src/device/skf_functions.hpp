// The vendor SKF entry points, resolved by name from a loaded vendor library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/status_flow.hpp"
#include "zeph_skf.h"

namespace zeph::device {

// The 57 names in the order they are looked up.
// clang-format off
#define ZEPH_SKF_LOOKUP_ORDER(X)                                                                          \
  X(SKF_ConnectDev) X(SKF_OpenApplication) X(SKF_CloseApplication) X(SKF_OpenContainer)                 \
  X(SKF_CloseContainer) X(SKF_VerifyPIN) X(SKF_GetPINInfo) X(SKF_RSASignData) X(SKF_ECCSignData)        \
  X(SKF_ExportPublicKey) X(SKF_DigestInit) X(SKF_DigestUpdate) X(SKF_DigestFinal) X(SKF_CloseHandle)    \
  X(SKF_ExportCertificate) X(SKF_RSADecrypt) X(SKF_ECCDecrypt) X(SKF_GetFileInfo) X(SKF_ReadFile)       \
  X(SKF_EnumDev) X(SKF_EnumApplication) X(SKF_EnumContainer) X(SKF_EnumFiles) X(SKF_GenRandom)          \
  X(SKF_SetSymmKey) X(SKF_EncryptInit) X(SKF_Encrypt) X(SKF_EncryptUpdate) X(SKF_EncryptFinal)          \
  X(SKF_DecryptInit) X(SKF_DecryptUpdate) X(SKF_DecryptFinal) X(SKF_Decrypt) X(SKF_DevAuth)             \
  X(SKF_UnblockPIN) X(SKF_GetDevInfo) X(SKF_ChangeDevAuthKey) X(SKF_ImportCertificate)                  \
  X(SKF_ImportECCKeyPair) X(SKF_ImportRSAKeyPair) X(SKF_GenRSAKeyPair) X(SKF_GenECCKeyPair)             \
  X(SKF_ImportSessionKey) X(SKF_Ex_GenRSAKeyPair) X(SKF_Ex_RSASignData) X(SKF_ChangePIN)                \
  X(SKF_CreateFile) X(SKF_DeleteFile) X(SKF_WriteFile) X(SKF_CreateApplication)                         \
  X(SKF_DeleteApplication) X(SKF_CreateContainer) X(SKF_DeleteContainer) X(SKF_GetConProperty)          \
  X(SKF_DisConnectDev) X(SKF_Eu_ECCSignData) X(SKF_Eu_RSASignData)
// clang-format on

// One member per entry point; null where the library lacks it.
struct SkfFunctions {
#define ZEPH_SKF_MEMBER(name) PFN_##name name = nullptr;
  ZEPH_SKF_LOOKUP_ORDER(ZEPH_SKF_MEMBER)
#undef ZEPH_SKF_MEMBER
};

// Looks up every entry point of `module` (a null module leaves all null).
SkfFunctions ResolveSkf(void *module);
// The same, looked up once per loaded library and kept for the process: the
// 57 lookups cost more than a key's answer to a whole command. A library
// unloaded since (FreeLibrary) is looked up afresh, as the loader may have
// put another one at the same handle. Safe from any thread.
SkfFunctions CachedSkf(void *module);

// Calls a vendor entry point, or yields `missing` when the library lacks it.
template <class Fn, class... Args>
inline uint32_t CallSkf(Fn fn, uint32_t missing, Args... args) {
  if (fn == nullptr) return missing;
  return static_cast<uint32_t>(fn(args...));
}

// Splits a vendor name list (names ended by NUL, the list by an empty name)
// that may be cut short: never reads past `size` bytes; an unterminated tail
// is dropped.
std::vector<std::string> SplitNames(const char *list, uint32_t size);

// A vendor name list of any length (devices, applications, containers,
// files): a size query, then the list at that size; once more when it grew
// in between, as a device list does when a key arrives. `owner` is the
// handle, or the present-only flag of SKF_EnumDev.
template <class EnumFn, class Owner>
uint32_t EnumNames(EnumFn fn, Owner owner, uint32_t missing, std::vector<std::string> *out) {
  uint32_t rv = SAR_BUFFER_TOO_SMALL;
  for (int attempt = 0; attempt < 2 && rv == SAR_BUFFER_TOO_SMALL; ++attempt) {
    ULONG size = 0;
    ZEPH_TRY(CallSkf(fn, missing, owner, nullptr, &size));
    std::vector<char> list(static_cast<size_t>(size) + 2, '\0');
    size = static_cast<ULONG>(std::min<size_t>(list.size(), UINT32_MAX));
    rv = CallSkf(fn, missing, owner, list.data(), &size);
    if (rv == 0) *out = SplitNames(list.data(), std::min(size, static_cast<ULONG>(list.size())));
  }
  return rv;
}

}  // namespace zeph::device
