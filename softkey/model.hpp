// What a software key holds: a device record with its applications, each with
// two PINs, files and containers of key pairs. Plain values; the store keeps
// them on disk and the SKF entry points read and change them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zeph_skf.h"

namespace softkey {

using Bytes = std::vector<uint8_t>;

// Limits of names and objects (names exclude their terminator).
constexpr size_t kMaxDeviceName = 31;  // DEVINFO.SerialNumber keeps a terminator
constexpr size_t kMaxAppName = 16;
constexpr size_t kMaxContainerName = 64;
constexpr size_t kMaxFileName = 31;  // FILEATTRIBUTE.FileName keeps a terminator
constexpr size_t kMaxApps = 32;
constexpr size_t kMaxContainers = 32;
constexpr size_t kMaxFiles = 64;
constexpr uint32_t kDefaultTotalSpace = 1u << 20;

// Roles as access-right bits: a right grants access when it contains the
// caller's role bit (0xFF contains every role, also the anonymous one).
constexpr uint32_t kRoleNone = 0x00;
constexpr uint32_t kRoleAdmin = SECURE_ADM_ACCOUNT;
constexpr uint32_t kRoleUser = SECURE_USER_ACCOUNT;
inline bool Allows(uint32_t rights, uint32_t role) {
  return rights == SECURE_EVERYONE_ACCOUNT || (role != kRoleNone && (rights & role) != 0);
}

struct Pin {
  uint32_t max_retry = 0;
  uint32_t remain = 0;
  bool is_default = true;
  uint32_t iterations = 0;  // PBKDF2-HMAC-SM3 rounds for this PIN
  Bytes salt;
  Bytes wrapped;  // the application's master key wrapped under the PIN-derived key
};

// One key pair: the public half in clear, the private half wrapped under the
// application's master key.
struct KeyPair {
  uint32_t alg = 0;   // SGD_SM2_1 or SGD_RSA
  uint32_t bits = 0;  // 256, 1024 or 2048
  Bytes pub;          // SM2: 65-byte point; RSA: DER RSAPublicKey
  Bytes wrapped;      // SM2: 32-byte scalar; RSA: DER RSAPrivateKey
};

struct Container {
  std::string name;
  std::string id;  // random, so a handle never reaches a re-created namesake
  std::optional<KeyPair> sign, enc;
  Bytes sign_cert, enc_cert;
  ULONG Type() const {
    const KeyPair *k = sign ? &*sign : enc ? &*enc : nullptr;
    if (k == nullptr) return CONTAINER_TYPE_EMPTY;
    return k->alg == SGD_RSA ? CONTAINER_TYPE_RSA : CONTAINER_TYPE_ECC;
  }
};

struct File {
  std::string name;
  uint32_t read_rights = SECURE_EVERYONE_ACCOUNT;
  uint32_t write_rights = SECURE_USER_ACCOUNT;
  Bytes data;
};

struct Application {
  std::string name;
  std::string id;
  uint32_t create_file_rights = SECURE_USER_ACCOUNT;
  Pin admin, user;
  std::vector<File> files;
  std::vector<Container> containers;

  File *FindFile(std::string_view n);
  const File *FindFile(std::string_view n) const;
  Container *FindContainer(std::string_view n);
  const Container *FindContainer(std::string_view n) const;
  Container *ContainerById(std::string_view i);
  const Container *ContainerById(std::string_view i) const;
};

struct Device {
  std::string serial, label, manufacturer, issuer;
  Bytes auth_key;  // 16 bytes, SM4
  uint32_t total_space = kDefaultTotalSpace;
  std::vector<Application> apps;

  Application *FindApp(std::string_view n);
  const Application *FindApp(std::string_view n) const;
  Application *AppById(std::string_view i);
  const Application *AppById(std::string_view i) const;
  uint64_t UsedSpace() const;
};

// 16 random hex digits: the identity of a new application or container.
std::string RandomId();

}  // namespace softkey
