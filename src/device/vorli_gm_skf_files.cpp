// Whole files in the open application of a key, and the seal-area
// shortcuts that name those files by area or slot number.
#include <cstring>
#include <vector>

#include "device/vendor_quirks.hpp"
#include "device/vorli_gm_skf.hpp"
#include "foundation/log.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

using zeph::device::CallSkf;
using zeph::device::HasSession;

namespace {

// Vendor prototypes take mutable names; names are copied, never cast.
std::vector<char> NameCopy(const char *name) { return std::vector<char>(name, name + std::strlen(name) + 1); }

const char *SealAreaFile(uint32_t area) {
  switch (area) {
    case 2:
      return "Picture";
    case 3:
      return "CertChain";
    default:
      return "Cert";
  }
}

}  // namespace

extern "C" {

ZEPH_API uint32_t GM_SKF_CTX_SetFileIntoCryptoDevice(GM_SKF_CTX *ctx, const char *name, const unsigned char *data,
                                                     uint32_t data_len) {
  if (!HasSession(ctx)) return ERR_DEVICE_FILE_WRITE_FAILED;
  if (name == nullptr || (data == nullptr && data_len != 0)) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    const auto &skf = ctx->skf;
    std::vector<char> file = NameCopy(name);
    std::vector<BYTE> bytes(data, data + data_len);
    bytes.push_back(0);  // never an empty vector: data() must be a real pointer
    ZEPH_LOG("GM_SKF_CTX_SetFileIntoCryptoDevice:", 0);
    // A missing file is the normal case: the status is only logged.
    uint32_t rv = CallSkf(skf.SKF_DeleteFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, file.data());
    ZEPH_LOG("SKF_DeleteFileProc end:", rv);
    rv = CallSkf(skf.SKF_CreateFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, file.data(), data_len,
                 SECURE_EVERYONE_ACCOUNT, SECURE_USER_ACCOUNT);
    ZEPH_LOG("SKF_CreateFileProc end:", rv);
    if (rv != 0) return rv;
    rv = CallSkf(skf.SKF_WriteFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, file.data(), 0u, bytes.data(),
                 data_len);
    ZEPH_LOG("SKF_WriteFileProc end:", rv);
    return rv;
  });
}

ZEPH_API uint32_t GM_SKF_CTX_GetFileFromCryptoDevice(GM_SKF_CTX *ctx, const char *name, unsigned char *out,
                                                     uint32_t *in_out_len) {
  if (!HasSession(ctx)) return ERR_DEVICE_FILE_READ_FAILED;
  if (name == nullptr || in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    const auto &skf = ctx->skf;
    std::vector<char> file = NameCopy(name);
    FILEATTRIBUTE attr{};
    ZEPH_LOG("SKF_GetFileInfoProc start:", 0);
    uint32_t rv = CallSkf(skf.SKF_GetFileInfo, ERR_DEVICE_FILE_READ_FAILED, ctx->application, file.data(), &attr);
    ZEPH_LOG("SKF_GetFileInfoProc end:", rv);
    if (rv != 0) return rv;
    if (out == nullptr) {
      *in_out_len = attr.FileSize;
      return 0;
    }
    ULONG len = *in_out_len;
    ZEPH_LOG("SKF_ReadFileProc start:", 0);
    rv = CallSkf(skf.SKF_ReadFile, ERR_DEVICE_FILE_READ_FAILED, ctx->application, file.data(), 0u, attr.FileSize, out,
                 &len);
    ZEPH_LOG("SKF_ReadFileProc end:", rv);
    if (rv == 0) *in_out_len = len;
    return rv;
  });
}

ZEPH_API uint32_t GM_SKF_CTX_DeleteFile(GM_SKF_CTX *ctx, const char *name) {
  if (!HasSession(ctx)) return ERR_DEVICE_FILE_WRITE_FAILED;
  if (name == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    std::vector<char> file = NameCopy(name);
    // Compat: the writer's text, as the log has always read.
    ZEPH_LOG("GM_SKF_CTX_SetFileIntoCryptoDevice:", 0);
    const uint32_t rv = CallSkf(ctx->skf.SKF_DeleteFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, file.data());
    ZEPH_LOG("SKF_DeleteFileProc end:", rv);
    return rv;
  });
}

ZEPH_API uint32_t GM_SKF_CTX_SetSealInfo(GM_SKF_CTX *ctx, uint32_t area, const unsigned char *data, uint32_t data_len) {
  return GM_SKF_CTX_SetFileIntoCryptoDevice(ctx, SealAreaFile(area), data, data_len);
}

ZEPH_API uint32_t GM_SKF_CTX_GetSealInfo(GM_SKF_CTX *ctx, uint32_t area, unsigned char *out, uint32_t *in_out_len) {
  return GM_SKF_CTX_GetFileFromCryptoDevice(ctx, SealAreaFile(area), out, in_out_len);
}

ZEPH_API uint32_t GM_SKF_CTX_SetSealInfoEx(GM_SKF_CTX *ctx, uint32_t slot, const unsigned char *data,
                                           uint32_t data_len) {
  return GM_SKF_CTX_SetFileIntoCryptoDevice(ctx, zeph::device::PictureFile(slot).text, data, data_len);
}

ZEPH_API uint32_t GM_SKF_CTX_GetSealInfoEx(GM_SKF_CTX *ctx, uint32_t slot, unsigned char *out, uint32_t *in_out_len) {
  return GM_SKF_CTX_GetFileFromCryptoDevice(ctx, zeph::device::PictureFile(slot).text, out, in_out_len);
}

}  // extern "C"
