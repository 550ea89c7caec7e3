// The handle and base64 pieces of the device-backed handlers.
#include "ci/ci_device.hpp"

#include <algorithm>
#include <cstring>

#include "zeph_c_api.h"
#include "zeph_c_p7.h"
#include "zeph_c_status.h"
#include "zeph_c_utils.h"

namespace zeph::ci {

uint32_t DecodeBase64(const char *text, SecureBytes *out) {
  *out = SecureBytes();
  if (text == nullptr || text[0] == '\0') return 0;
  uint32_t n = 0;
  ZEPH_TRY(zeph_c_utils_b64tohex2(text, nullptr, &n));
  SecureBytes bytes(n);
  ZEPH_TRY(zeph_c_utils_b64tohex2(text, bytes.data(), &n));
  bytes.resize(n);
  *out = std::move(bytes);
  return 0;
}

uint32_t SignedBytes(const ZEPH_REQ_PARAM &req, SecureBytes *out) {
  switch (req.selector) {
    case 0:
      *out = SecureBytes(reinterpret_cast<const uint8_t *>(req.signData.s), std::strlen(req.signData.s));
      return 0;
    case 1:
      return DecodeBase64(req.signData.s, out);
    default:
      return ERR_INVALID_PARAMETER;
  }
}

uint32_t SetBase64Data(ZEPH_RES_PARAM *res, const uint8_t *data, size_t n) {
  if (n == 0) return SetData(res, "");
  if (n > UINT32_MAX / 2) return ERR_INVALID_PARAMETER;
  char *text = nullptr;
  ZEPH_TRY(ZEPH_C_Dohex2b64(data, static_cast<uint32_t>(n), &text));
  const uint32_t rv = SetData(res, text);
  ZEPH_C_MALLOC_FREE(text);
  return rv;
}

uint32_t EncodeEnveloper(const ZEPH_REQ_PARAM &req, ZEPH_RES_PARAM *res) {
  ZEPH_ENSURE(req.cert != nullptr && req.value != nullptr, ERR_INVALID_PARAMETER);
  SecureBytes cert, data;
  ZEPH_TRY(DecodeBase64(req.cert, &cert));
  ZEPH_TRY(DecodeBase64(req.value, &data));
  return SetBase64Output(res, EnvelopeCapacity(cert.size(), data.size()), [&](uint8_t *out, uint32_t *out_len) {
    return ZEPH_C_EncodeEnveloperWithCert(cert.data(), static_cast<uint32_t>(cert.size()), data.data(),
                                          static_cast<uint32_t>(data.size()), req.selector, out, out_len);
  });
}

}  // namespace zeph::ci
