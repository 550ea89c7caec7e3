// The co-signing client as the tests drive it: a context that finalizes
// itself, key creation after a length query, and signing into a buffer
// that shows whether anything was written.
#pragma once

#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "bivo_reference.hpp"
#include "zeph_c_bivo.h"

namespace bivo_test {

constexpr char kDevice[] = R"({"DeviceNumber":"DEV-0001"})";
inline const Bytes kPin = {'1', '2', '3', '4', '5', '6'};

struct CtxDeleter {
  void operator()(ZEPH_BIVO_CTX *c) const { ZEPH_C_BIVO_Finalize(c); }
};
using Ctx = std::unique_ptr<ZEPH_BIVO_CTX, CtxDeleter>;

inline uint32_t Open(const std::string &url, Ctx *ctx, const char *device = kDevice) {
  ZEPH_BIVO_CTX *raw = nullptr;
  const uint32_t rv = ZEPH_C_BIVO_Initialize(&raw, device, static_cast<uint32_t>(std::strlen(device)), url.c_str(),
                                             static_cast<uint32_t>(url.size()));
  ctx->reset(raw);
  return rv;
}

// A context for the service at url holding the key sealed in share.
inline Ctx OpenWithKey(const std::string &url, const Bytes &share) {
  Ctx ctx;
  EXPECT_EQ(Open(url, &ctx), 0u);
  EXPECT_EQ(ZEPH_C_BIVO_VerifyUserPin(ctx.get(), kPin.data(), Len(kPin), share.data(), Len(share)), 0u);
  return ctx;
}

struct Key {
  Bytes pub = Bytes(65), share;
  char id[65] = {};
};

inline uint32_t Create(ZEPH_BIVO_CTX *ctx, Key *key) {
  uint32_t pub_len = 65, share_len = 0;
  EXPECT_EQ(ZEPH_C_BIVO_CreateKeyPair(ctx, kPin.data(), 6, key->pub.data(), &pub_len, key->id, nullptr, &share_len),
            0u);
  key->share.assign(share_len, 0xEE);
  return ZEPH_C_BIVO_CreateKeyPair(ctx, kPin.data(), 6, key->pub.data(), &pub_len, key->id, key->share.data(),
                                   &share_len);
}

// The signature, or the 72 bytes of 0xEE it was written into when refused.
inline Bytes Sign(ZEPH_BIVO_CTX *ctx, const Bytes &msg, uint32_t *rv) {
  Bytes sig(72, 0xEE);
  uint32_t len = 72;
  *rv = ZEPH_C_BIVO_DoSignature(ctx, msg.data(), Len(msg), sig.data(), &len);
  sig.resize(*rv == 0 ? len : 72);
  return sig;
}

}  // namespace bivo_test
