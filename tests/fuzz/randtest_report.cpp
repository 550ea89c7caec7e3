// The report of a run over arbitrary bytes with arbitrary capacities: no
// write past the capacity, the length protocol holds, and the text is JSON.

#include <cjson/cJSON.h>

#include "check.hpp"
#include "zeph_c_randtest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  ZEPH_RANDTEST_CTX *ctx = ZEPH_C_RandTest_New();
  if (ctx == nullptr) return 0;
  ZEPH_C_RandTest_Run(ctx, data[0] % 3, data + 2, size - 2);  // suite 2 is unknown: an empty report
  uint64_t need = 0;
  fuzz::Check(ZEPH_C_RandTest_Report(ctx, nullptr, &need) == 0 && need != 0);
  fuzz::Guarded out(data[1] * need / 255);
  uint64_t len = out.capacity;
  const uint32_t rv = ZEPH_C_RandTest_Report(ctx, out.text(), &len);
  fuzz::Check(out.Intact());
  if (out.capacity < need) {
    fuzz::Check(rv == ERR_BUFFER_TOO_SMALL && len == need && out.bytes[0] == fuzz::Guarded::kGuard);
  } else {
    fuzz::Check(rv == 0 && len == need - 1 && std::strlen(out.text()) == len);
    cJSON *doc = cJSON_Parse(out.text());
    fuzz::Check(doc != nullptr);
    cJSON_Delete(doc);
  }
  ZEPH_C_RandTest_Free(ctx);
  return 0;
}
