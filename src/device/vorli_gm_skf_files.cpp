// Whole files in the open application of a key, and the seal-area
// shortcuts that name those files by area or slot number.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "device/vendor_quirks.hpp"
#include "device/vorli_gm_skf.hpp"
#include "foundation/log.hpp"
#include "foundation/secure_bytes.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

using zeph::device::CallSkf;
using zeph::device::EnumNames;
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

// What a device file held before a rewrite, kept to put it back when the
// rewrite fails. Hosts store certificates and seals there, but also keys.
struct StoredFile {
  bool exists = false;
  FILEATTRIBUTE attr{};
  zeph::SecureBytes content;
};

// Reads the file whole, or finds that there is none. A vendor that answers
// SKF_GetFileInfo on a missing file with some other status is asked for the
// file list.
uint32_t ReadStored(GM_SKF_CTX *ctx, char *name, StoredFile *out) {
  const auto &skf = ctx->skf;
  const uint32_t info_rv =
      CallSkf(skf.SKF_GetFileInfo, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, name, &out->attr);
  if (info_rv == SAR_FILE_NOT_EXIST) return 0;
  if (info_rv != 0) {
    std::vector<std::string> files;
    if (EnumNames(skf.SKF_EnumFiles, ctx->application, ERR_DEVICE_FILE_WRITE_FAILED, &files) != 0) return info_rv;
    return std::find(files.begin(), files.end(), name) != files.end() ? info_rv : 0;
  }
  const ULONG size = out->attr.FileSize;
  zeph::SecureBytes content(static_cast<size_t>(size) + 1);
  ULONG len = size;
  ZEPH_TRY(
      CallSkf(skf.SKF_ReadFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, name, 0u, size, content.data(), &len));
  // Content that came back short could not be put back.
  ZEPH_ENSURE(len == size, ERR_DEVICE_FILE_WRITE_FAILED);
  content.resize(size);
  out->content = std::move(content);
  out->exists = true;
  return 0;
}

// SAR_NO_ROOM when the new content cannot fit in the free space plus what
// the old file frees. A key that reports no total space is not judged.
uint32_t CheckRoom(GM_SKF_CTX *ctx, uint32_t need, uint32_t freed) {
  DEVINFO info{};
  ZEPH_TRY(CallSkf(ctx->skf.SKF_GetDevInfo, ERR_DEVICE_FILE_WRITE_FAILED, ctx->device, &info));
  if (info.TotalSpace == 0) return 0;
  ZEPH_ENSURE(uint64_t{need} <= uint64_t{info.FreeSpace} + freed, SAR_NO_ROOM);
  return 0;
}

// The vendor takes mutable bytes: they are copied (one more byte, so that
// data() is a real pointer) and the copy is wiped.
uint32_t WriteWhole(GM_SKF_CTX *ctx, char *name, const unsigned char *data, uint32_t data_len) {
  zeph::SecureBytes bytes(static_cast<size_t>(data_len) + 1);
  if (data_len != 0) std::memcpy(bytes.data(), data, data_len);
  return CallSkf(ctx->skf.SKF_WriteFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, name, 0u, bytes.data(),
                 data_len);
}

// Best effort: the rewrite's own status is what the caller hears.
void RestoreWrite(GM_SKF_CTX *ctx, char *name, const StoredFile &old) {
  const uint32_t rv = WriteWhole(ctx, name, old.content.data(), static_cast<uint32_t>(old.content.size()));
  ZEPH_LOG("GM_SKF_CTX_SetFileIntoCryptoDevice restore:", rv);
}

void RestoreFile(GM_SKF_CTX *ctx, char *name, const StoredFile &old) {
  uint32_t rv = CallSkf(ctx->skf.SKF_CreateFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, name,
                        old.attr.FileSize, old.attr.ReadRights, old.attr.WriteRights);
  if (rv == 0) {
    RestoreWrite(ctx, name, old);
  } else {
    ZEPH_LOG("GM_SKF_CTX_SetFileIntoCryptoDevice restore:", rv);
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
    ZEPH_LOG("GM_SKF_CTX_SetFileIntoCryptoDevice:", 0);
    // Nothing is deleted that could not be read first: a failed rewrite puts
    // the old content back.
    StoredFile old;
    ZEPH_TRY(ReadStored(ctx, file.data(), &old));
    if (old.exists && old.attr.FileSize == data_len) {
      // The same size: one write in place, nothing deleted.
      const uint32_t rv = WriteWhole(ctx, file.data(), data, data_len);
      ZEPH_LOG("SKF_WriteFileProc end:", rv);
      if (rv != 0) RestoreWrite(ctx, file.data(), old);
      return rv;
    }
    if (old.exists) ZEPH_TRY(CheckRoom(ctx, data_len, old.attr.FileSize));

    uint32_t rv = CallSkf(skf.SKF_DeleteFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, file.data());
    ZEPH_LOG("SKF_DeleteFileProc end:", rv);
    // A missing file is the normal case; a file that stays is left as it is.
    if (old.exists && rv != 0) return rv;
    rv = CallSkf(skf.SKF_CreateFile, ERR_DEVICE_FILE_WRITE_FAILED, ctx->application, file.data(), data_len,
                 SECURE_EVERYONE_ACCOUNT, SECURE_USER_ACCOUNT);
    ZEPH_LOG("SKF_CreateFileProc end:", rv);
    if (rv == 0) {
      rv = WriteWhole(ctx, file.data(), data, data_len);
      ZEPH_LOG("SKF_WriteFileProc end:", rv);
      // A file created but not written holds zeros, which nobody stored.
      if (rv != 0) CallSkf(skf.SKF_DeleteFile, 0, ctx->application, file.data());
    }
    if (rv != 0 && old.exists) RestoreFile(ctx, file.data(), old);
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
