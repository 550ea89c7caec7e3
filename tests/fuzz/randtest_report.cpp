// The report of a run over arbitrary bytes with arbitrary capacities: no
// write past the capacity, the length protocol holds, and the text is JSON.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <cjson/cJSON.h>

#include "zeph_c_randtest.h"
#include "zeph_c_status.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  ZEPH_RANDTEST_CTX *ctx = ZEPH_C_RandTest_New();
  if (ctx == nullptr) return 0;
  ZEPH_C_RandTest_Run(ctx, data[0] % 3, data + 2, size - 2);  // suite 2 is unknown: an empty report
  uint64_t need = 0;
  if (ZEPH_C_RandTest_Report(ctx, nullptr, &need) != 0 || need == 0) std::abort();
  const uint64_t capacity = data[1] * need / 255;
  std::vector<char> out(capacity + 64, '\x5a');
  uint64_t len = capacity;
  const uint32_t rv = ZEPH_C_RandTest_Report(ctx, out.data(), &len);
  for (size_t i = capacity; i < out.size(); ++i) {
    if (out[i] != '\x5a') std::abort();
  }
  if (capacity < need) {
    if (rv != ERR_BUFFER_TOO_SMALL || len != need || out[0] != '\x5a') std::abort();
  } else {
    if (rv != 0 || len != need - 1 || std::strlen(out.data()) != len) std::abort();
    cJSON *doc = cJSON_Parse(out.data());
    if (doc == nullptr) std::abort();
    cJSON_Delete(doc);
  }
  ZEPH_C_RandTest_Free(ctx);
  return 0;
}
