// Devices: listing, connecting, device information, random bytes and device
// authentication.
#include <climits>
#include <cstring>

#include <openssl/rand.h>

#include "entry.hpp"

using namespace softkey;

namespace {

constexpr ULONG kAlgSymCap = SGD_SM4_ECB | SGD_SM4_CBC | SGD_SM4_CFB | SGD_SM4_OFB;
constexpr ULONG kAlgAsymCap = SGD_RSA | SGD_SM2_1 | SGD_SM2_3;
constexpr ULONG kAlgHashCap = SGD_SM3 | SGD_SHA1 | SGD_SHA256;
constexpr ULONG kMaxEccBuffer = 65536;
constexpr ULONG kMaxBuffer = 65536;

void CopyText(CHAR *field, size_t size, const std::string &s) {
  std::memset(field, 0, size);
  std::memcpy(field, s.data(), std::min(s.size(), size - 1));
}

}  // namespace

extern "C" {

ULONG SKF_EnumDev(BOOL bPresent, LPSTR szNameList, ULONG *pulSize) {
  return Call("SKF_EnumDev", kNoHandle, nullptr, [&]() -> ULONG {
    ZEPH_ENSURE(pulSize != nullptr, SAR_INVALIDPARAMERR);
    return PutNameList(ListDevices(RootDir(), bPresent != FALSE), szNameList, pulSize);
  });
}

ULONG SKF_ConnectDev(LPSTR szName, DEVHANDLE *phDev) {
  return Call("SKF_ConnectDev", kNoHandle, phDev, [&]() -> ULONG {
    std::string_view name;
    ZEPH_ENSURE(phDev != nullptr && ReadText(szName, kMaxDeviceName, name) == Text::kOk && IsDeviceName(name),
                SAR_INVALIDPARAMERR);
    auto obj = std::make_unique<DeviceObj>();
    obj->dir = DeviceDir(RootDir(), std::string(name));
    std::shared_ptr<const Device> dev;
    ZEPH_TRY(LoadDevice(obj->dir, dev));
    *phDev = Handles().Add(std::move(obj), nullptr);
    return SAR_OK;
  });
}

ULONG SKF_DisConnectDev(DEVHANDLE hDev) {
  return Call("SKF_DisConnectDev", H(hDev), nullptr, [&] { return CloseAs<DeviceObj>(hDev); });
}

ULONG SKF_GetDevInfo(DEVHANDLE hDev, DEVINFO *pDevInfo) {
  return Call("SKF_GetDevInfo", H(hDev), nullptr, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(pDevInfo != nullptr, SAR_INVALIDPARAMERR);
    DEVINFO info;
    std::memset(&info, 0, sizeof info);
    info.Version = {1, 0};
    CopyText(info.Manufacturer, sizeof info.Manufacturer, d.dev->manufacturer);
    CopyText(info.Issuer, sizeof info.Issuer, d.dev->issuer);
    CopyText(info.Label, sizeof info.Label, d.dev->label);
    CopyText(info.SerialNumber, sizeof info.SerialNumber, d.dev->serial);
    info.HWVersion = {1, 0};
    info.FirmwareVersion = {1, 0};
    info.AlgSymCap = kAlgSymCap;
    info.AlgAsymCap = kAlgAsymCap;
    info.AlgHashCap = kAlgHashCap;
    info.DevAuthAlgId = SGD_SM4_ECB;
    info.TotalSpace = d.dev->total_space;
    const uint64_t used = d.dev->UsedSpace();
    info.FreeSpace = used >= d.dev->total_space ? 0 : static_cast<ULONG>(d.dev->total_space - used);
    info.MaxECCBufferSize = kMaxEccBuffer;
    info.MaxBufferSize = kMaxBuffer;
    std::memcpy(pDevInfo, &info, sizeof info);
    return SAR_OK;
  });
}

ULONG SKF_GenRandom(DEVHANDLE hDev, BYTE *pbRandom, ULONG ulRandomLen) {
  return Call("SKF_GenRandom", H(hDev), nullptr, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(pbRandom != nullptr || ulRandomLen == 0, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(ulRandomLen <= INT_MAX, SAR_INDATALENERR);
    if (ulRandomLen != 0 && RAND_bytes(pbRandom, static_cast<int>(ulRandomLen)) != 1) return SAR_GENRANDERR;
    // The first 8 bytes are the challenge of the next device authentication.
    d.obj->challenge.reset();
    if (ulRandomLen >= 8) {
      std::array<uint8_t, 8> c;
      std::memcpy(c.data(), pbRandom, 8);
      d.obj->challenge = c;
    }
    return SAR_OK;
  });
}

ULONG SKF_DevAuth(DEVHANDLE hDev, BYTE *pbAuthData, ULONG ulLen) {
  return Call("SKF_DevAuth", H(hDev), nullptr, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(pbAuthData != nullptr && ulLen == 16, SAR_INVALIDPARAMERR);
    // A challenge answers one attempt only.
    const auto challenge = d.obj->challenge;
    d.obj->challenge.reset();
    d.obj->authenticated = false;
    ZEPH_ENSURE(challenge.has_value(), SAR_FAIL);
    uint8_t block[16] = {}, expected[16];
    std::memcpy(block, challenge->data(), 8);
    ZEPH_ENSURE(Sm4EcbUnpadded(true, d.dev->auth_key, block, expected), SAR_FAIL);
    ZEPH_ENSURE(CRYPTO_memcmp(expected, pbAuthData, 16) == 0, SAR_FAIL);
    d.obj->authenticated = true;
    return SAR_OK;
  });
}

ULONG SKF_ChangeDevAuthKey(DEVHANDLE hDev, BYTE *pbKeyValue, ULONG ulKeyLen) {
  return Call("SKF_ChangeDevAuthKey", H(hDev), nullptr, [&]() -> ULONG {
    DevRef d;
    ZEPH_TRY(ResolveDevice(hDev, d));
    ZEPH_ENSURE(pbKeyValue != nullptr && ulKeyLen == 16, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(d.obj->authenticated, SAR_USER_NOT_LOGGED_IN);
    const Bytes key(pbKeyValue, pbKeyValue + 16);
    return Change(d.obj->dir, [&](Device &dev) -> ULONG {
      dev.auth_key = key;
      return SAR_OK;
    });
  });
}

}  // extern "C"
