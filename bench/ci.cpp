// Requests per second through ZEPH_C_CI, single thread: command 102 (no
// device), and command 100 with one software key plugged in, each against a
// bare cJSON round trip of the same texts measured in the same loop.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include <benchmark/benchmark.h>

#include "zeph_c_ci.h"
#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_TOOL)
#include "zeph_c_device.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kVersionRequest = R"({"type":102})";
constexpr const char *kListRequest = R"({"type":100})";

// The reference: parse the request, print a response carrying the same
// data text, copy it out.
void CjsonRoundTrip(const char *request, const char *data, std::vector<char> *out) {
  cJSON *req = cJSON_Parse(request);
  cJSON *res = cJSON_CreateObject();
  cJSON_AddNumberToObject(res, "type", cJSON_GetObjectItemCaseSensitive(req, "type")->valueint);
  cJSON_AddNumberToObject(res, "code", 0);
  cJSON_AddStringToObject(res, "data", data);
  char *text = cJSON_PrintUnformatted(res);
  std::snprintf(out->data(), out->size(), "%s", text);
  cJSON_free(text);
  cJSON_Delete(res);
  cJSON_Delete(req);
}

// The data text of a reply, for the reference to print the same amount.
std::string DataOf(const char *response) {
  cJSON *doc = cJSON_Parse(response);
  const char *data = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(doc, "data"));
  std::string out = data != nullptr ? data : "";
  cJSON_Delete(doc);
  return out;
}

// Both sides in each iteration, their order swapped every time. The
// benchmark's own time is ZEPH_C_CI's; "ratio" is its rate over the
// reference's (1.0 = no cost beyond parsing and printing the JSON).
void Measure(benchmark::State &state, const char *request) {
  std::vector<char> out(1 << 16), ref(1 << 16);
  ZEPH_C_CI(request, out.data());
  const std::string data = DataOf(out.data());
  double zeph_s = 0, ref_s = 0;
  bool flip = false;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    if (flip)
      CjsonRoundTrip(request, data.c_str(), &ref);
    else
      ZEPH_C_CI(request, out.data());
    const auto t1 = Clock::now();
    if (flip)
      ZEPH_C_CI(request, out.data());
    else
      CjsonRoundTrip(request, data.c_str(), &ref);
    const auto t2 = Clock::now();
    const double first = std::chrono::duration<double>(t1 - t0).count();
    const double second = std::chrono::duration<double>(t2 - t1).count();
    const double z = flip ? second : first;
    zeph_s += z;
    ref_s += flip ? first : second;
    flip = !flip;
    state.SetIterationTime(z);
    benchmark::DoNotOptimize(out.data());
    benchmark::DoNotOptimize(ref.data());
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["requests/s"] = n / zeph_s;
  state.counters["cjson_requests/s"] = n / ref_s;
  state.counters["ratio"] = ref_s / zeph_s;
}

void BM_Ci102Version(benchmark::State &state) {
  std::vector<char> out(4096);
  ZEPH_C_CI(kVersionRequest, out.data());
  if (std::string(out.data()) != R"({"type":102,"code":0,"data":"95560"})") {
    state.SkipWithError(("unexpected reply " + std::string(out.data())).c_str());
    return;
  }
  Measure(state, kVersionRequest);
}
BENCHMARK(BM_Ci102Version)->UseManualTime();

#if defined(ZEPH_SOFTKEY_LIB) && defined(ZEPH_SOFTKEY_TOOL)
// One software key in a folder of its own, served by the software key
// library through the device configuration.
class OneSoftKey {
 public:
  OneSoftKey() {
    char tmpl[] = "/tmp/zeph-bench-ci-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    root_ = tmpl;
    setenv("ZEPH_SOFTKEY_ROOT", root_.c_str(), 1);
    const std::string cmd = std::string(ZEPH_SOFTKEY_TOOL) + " create-device --serial BENCH0001 >/dev/null";
    if (std::system(cmd.c_str()) != 0) return;
    const std::string cfg = std::string(R"([{"type":0,"vid":"SK","skfLib":")") + ZEPH_SOFTKEY_LIB + "\"}]";
    ready_ = ZEPH_C_SetConfigInfo(cfg.c_str()) == 0;
  }
  ~OneSoftKey() {
    std::error_code ec;
    if (!root_.empty()) std::filesystem::remove_all(root_, ec);
  }
  bool ready() const { return ready_; }

 private:
  std::string root_;
  bool ready_ = false;
};

void BM_Ci100ListOneSoftKey(benchmark::State &state) {
  static OneSoftKey key;
  std::vector<char> out(1 << 16);
  ZEPH_C_CI(kListRequest, out.data());
  if (!key.ready() || std::string(out.data()).find("SK_BENCH0001") == std::string::npos) {
    state.SkipWithError(("no software key listed: " + std::string(out.data())).c_str());
    return;
  }
  Measure(state, kListRequest);
}
BENCHMARK(BM_Ci100ListOneSoftKey)->UseManualTime();
#endif

}  // namespace

BENCHMARK_MAIN();
