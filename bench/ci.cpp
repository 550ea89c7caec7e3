// Requests per second through ZEPH_C_CI, single thread: command 102 (no
// device), and command 100 with one software key plugged in, each against a
// bare cJSON round trip of the same texts measured in the same loop.
#include <cstdio>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "zeph_c_ci.h"
#include "zeph_c_device.h"

namespace {

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

// ZEPH_C_CI against the reference, interleaved. "ratio" is its rate over
// the reference's (1.0 = no cost beyond parsing and printing the JSON).
void Measure(benchmark::State &state, const char *request) {
  std::vector<char> out(1 << 16), ref(1 << 16);
  ZEPH_C_CI(request, out.data());
  const std::string data = DataOf(out.data());
  const zeph_bench::SideSeconds s = zeph_bench::Interleaved(
      state,
      [&] {
        ZEPH_C_CI(request, out.data());
        benchmark::DoNotOptimize(out.data());
      },
      [&] {
        CjsonRoundTrip(request, data.c_str(), &ref);
        benchmark::DoNotOptimize(ref.data());
      });
  const double n = static_cast<double>(state.iterations());
  state.counters["requests/s"] = n / s.ours;
  state.counters["cjson_requests/s"] = n / s.reference;
  state.counters["ratio"] = s.reference / s.ours;
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

// One software key in a folder of its own, served by the software key
// library through the device configuration.
bool ServeOneSoftKey(const zeph_bench::BenchSoftkey &key) {
  const std::string cfg = std::string(R"([{"type":0,"vid":"SK","skfLib":")") + ZEPH_SOFTKEY_LIB + "\"}]";
  return key.Tool("create-device --serial BENCH0001") && ZEPH_C_SetConfigInfo(cfg.c_str()) == 0;
}

void BM_Ci100ListOneSoftKey(benchmark::State &state) {
  static const zeph_bench::BenchSoftkey key;
  static const bool ready = ServeOneSoftKey(key);
  std::vector<char> out(1 << 16);
  ZEPH_C_CI(kListRequest, out.data());
  if (!ready || std::string(out.data()).find("SK_BENCH0001") == std::string::npos) {
    state.SkipWithError(("no software key listed: " + std::string(out.data())).c_str());
    return;
  }
  Measure(state, kListRequest);
}
BENCHMARK(BM_Ci100ListOneSoftKey)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
