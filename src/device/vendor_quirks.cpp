// Vendor behaviour by device type, and the seal-slot file names.
#include "device/vendor_quirks.hpp"

#include <cstdio>

#include "device/vorli_gm_skf.hpp"

namespace zeph::device {

bool SignsWholeMessage(const GM_SKF_CTX *ctx) { return ctx->device_type == kTypeHashesOnKey; }

bool UnpadsRsaItself(const GM_SKF_CTX *ctx) { return ctx->device_type == kTypeHashesOnKey; }

uint32_t RsaDecryptMode(const GM_SKF_CTX *ctx, uint32_t padding) {
  if (ctx->device_type == kTypeFallbackVendor) return 50;
  return padding != 0 ? 1 : 2;
}

SealFileName PictureFile(uint32_t slot) {
  SealFileName name;
  // Signed, as the slot has always been printed: a wrapped-around slot names "Picture-1".
  std::snprintf(name.text, sizeof name.text, "Picture%d", static_cast<int>(slot));
  return name;
}

SealFileName SealSlotFile(uint32_t slot) {
  if (slot != 1) return PictureFile(slot);
  SealFileName name;
  std::snprintf(name.text, sizeof name.text, "Picture");
  return name;
}

}  // namespace zeph::device
