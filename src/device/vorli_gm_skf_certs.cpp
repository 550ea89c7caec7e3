// Certificates of the session's container, as the vendor library holds them.
#include <vector>

#include "device/vorli_gm_skf.hpp"
#include "foundation/output.hpp"
#include "foundation/status_flow.hpp"
#include "zeph_c_device.h"

using zeph::device::CallSkf;
using zeph::device::HasContainer;

extern "C" {

ZEPH_API uint32_t GM_SKF_CTX_ExportCertificate(GM_SKF_CTX *ctx, uint32_t sign_flag, unsigned char *out,
                                               uint32_t *in_out_len) {
  if (!HasContainer(ctx)) return ERR_GET_CERT_FAILED;
  if (in_out_len == nullptr) return ERR_INVALID_PARAMETER;
  return zeph::Guarded([&]() -> uint32_t {
    const BOOL sign = sign_flag != 0 ? TRUE : FALSE;
    ULONG len = 0;
    ZEPH_TRY(CallSkf(ctx->skf.SKF_ExportCertificate, ERR_GET_CERT_FAILED, ctx->container, sign, nullptr, &len));
    // Read the whole certificate even when the caller only asks for its
    // length: some libraries report a size query larger than the DER.
    std::vector<BYTE> der(len != 0 ? len : 1);
    ZEPH_TRY(CallSkf(ctx->skf.SKF_ExportCertificate, ERR_GET_CERT_FAILED, ctx->container, sign, der.data(), &len));
    if (len == 0 || len > der.size()) return ERR_GET_CERT_FAILED;
    return zeph::PutOutput({der.data(), len}, out, in_out_len);
  });
}

}  // extern "C"
