// The vendor SKF entry points, resolved by name from a loaded vendor library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

}  // namespace zeph::device
