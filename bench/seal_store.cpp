// Seals on a software key through ZEPH_C_CI, measured alternately in one loop
// with the vendor calls the command makes, made directly on the same key;
// "ratio" is the direct calls' time over the command's (1.0 = no cost beyond
// the key's own):
//   801 reading the 17 KB GB sample from slot 1    (>= 0.9)
//   803 listing ten seals                          (reported)
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <dlfcn.h>
#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "zeph_c_ci.h"
#include "zeph_c_device.h"
#include "zeph_skf.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr char kSerial[] = "BSEAL001";
constexpr char kKeySn[] = "BS_BSEAL001";

Bytes Sample(const char *name) {
  std::ifstream in(std::string(ZEPH_SOURCE_DIR) + "/tests/data/seals/" + name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::string Base64(const Bytes &b) {
  std::string out(4 * ((b.size() + 2) / 3) + 1, '\0');
  out.resize(static_cast<size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()), b.data(), static_cast<int>(b.size()))));
  return out;
}

// A stamp application whose PIN is the keySN, the GB sample in the odd slots
// and the SES sample in the even ones, stored by command 800.
bool Setup(const zeph_bench::BenchSoftkey &key) {
  const std::string cfg = std::string(R"([{"type":0,"vid":"BS","skfLib":")") + ZEPH_SOFTKEY_LIB + "\"}]";
  if (!key.Tool(std::string("create-device --serial ") + kSerial) ||
      !key.Tool(std::string("create-app --serial ") + kSerial +
                " --app VorliStamp --admin-pin 12345678 --keysn-user-pin " + kKeySn) ||
      ZEPH_C_SetConfigInfo(cfg.c_str()) != 0) {
    return false;
  }
  const std::string gb = Base64(Sample("gb-v4-user.esl")), ses = Base64(Sample("ses-v1-user.esl"));
  std::vector<char> out(4096);
  for (int slot = 1; slot <= 10; ++slot) {
    const std::string req = std::string(R"({"type":800,"keySN":")") + kKeySn + R"(","idx":)" + std::to_string(slot) +
                            R"(,"sealData":")" + (slot % 2 != 0 ? gb : ses) + "\"}";
    if (ZEPH_C_CI(req.c_str(), out.data()) != 0 || std::strcmp(out.data(), R"({"type":800,"code":0})") != 0) {
      return false;
    }
  }
  return true;
}

// The software key's entry points, resolved from the library the device
// configuration names.
struct Vendor {
  Vendor() {
    void *lib = dlopen(ZEPH_SOFTKEY_LIB, RTLD_NOW);
    const auto get = [&](auto *fn, const char *name) {
      *fn = reinterpret_cast<std::remove_reference_t<decltype(*fn)>>(dlsym(lib, name));
    };
    get(&connect, "SKF_ConnectDev");
    get(&enum_apps, "SKF_EnumApplication");
    get(&open_app, "SKF_OpenApplication");
    get(&file_info, "SKF_GetFileInfo");
    get(&read_file, "SKF_ReadFile");
    get(&close_app, "SKF_CloseApplication");
    get(&disconnect, "SKF_DisConnectDev");
  }
  PFN_SKF_ConnectDev connect = nullptr;
  PFN_SKF_EnumApplication enum_apps = nullptr;
  PFN_SKF_OpenApplication open_app = nullptr;
  PFN_SKF_GetFileInfo file_info = nullptr;
  PFN_SKF_ReadFile read_file = nullptr;
  PFN_SKF_CloseApplication close_app = nullptr;
  PFN_SKF_DisConnectDev disconnect = nullptr;
};

// What one reading command asks of the key: connect, the layout probe, the
// seal application, then per slot the size of "Cert" (slot 1 only) and of the
// seal's file twice, and its bytes; close.
bool ReadDirectly(const Vendor &v, int slots, Bytes *buf) {
  char dev_name[] = "BSEAL001", app_name[] = "VorliStamp", cert[] = "Cert";
  char apps[1024];
  ULONG apps_len = sizeof apps;
  DEVHANDLE dev = nullptr;
  HAPPLICATION app = nullptr;
  bool ok = v.connect(dev_name, &dev) == 0;
  ok = ok && v.enum_apps(dev, apps, &apps_len) == 0 && v.open_app(dev, app_name, &app) == 0;
  FILEATTRIBUTE attr{};
  ok = ok && v.file_info(app, cert, &attr) == 0;
  for (int slot = 1; ok && slot <= slots; ++slot) {
    std::string file = slot == 1 ? "Picture" : "Picture" + std::to_string(slot);
    ok = v.file_info(app, file.data(), &attr) == 0 && v.file_info(app, file.data(), &attr) == 0;
    buf->resize(attr.FileSize);
    ULONG len = attr.FileSize;
    ok = ok && v.read_file(app, file.data(), 0, attr.FileSize, buf->data(), &len) == 0;
  }
  if (app != nullptr) v.close_app(app);
  if (dev != nullptr) v.disconnect(dev);
  return ok;
}

void Measure(benchmark::State &state, const std::string &request, int slots) {
  static const Vendor vendor;
  std::vector<char> out(1 << 21);
  ZEPH_C_CI(request.c_str(), out.data());
  const std::string success = request.substr(0, request.find(',') + 1) + R"("code":0,)";
  if (std::strncmp(out.data(), success.c_str(), success.size()) != 0) {
    state.SkipWithError(("unexpected reply " + std::string(out.data(), 120)).c_str());
    return;
  }
  Bytes buf;
  const zeph_bench::SideSeconds s = zeph_bench::Interleaved(
      state,
      [&] {
        ZEPH_C_CI(request.c_str(), out.data());
        benchmark::DoNotOptimize(out.data());
      },
      [&] {
        if (!ReadDirectly(vendor, slots, &buf)) state.SkipWithError("direct vendor calls failed");
        benchmark::DoNotOptimize(buf.data());
      },
      zeph_bench::Timer::kThreadCpu);
  const double n = static_cast<double>(state.iterations());
  state.counters["requests/s"] = n / s.ours;
  state.counters["direct/s"] = n / s.reference;
  state.counters["ratio"] = s.reference / s.ours;
}

void BM_Ci801ReadSlot1(benchmark::State &state) {
  Measure(state, std::string(R"({"type":801,"keySN":")") + kKeySn + R"(","idx":1})", 1);
}
BENCHMARK(BM_Ci801ReadSlot1)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_Ci803ListTenSeals(benchmark::State &state) {
  Measure(state, std::string(R"({"type":803,"keySN":")") + kKeySn + R"("})", 10);
}
BENCHMARK(BM_Ci803ListTenSeals)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char **argv) {
  const zeph_bench::BenchSoftkey key;
  if (!Setup(key)) {
    std::fprintf(stderr, "bench_seal_store: cannot set up the software key\n");
    return 1;
  }
  // The software key reads its state file again on every call while the
  // file is less than three seconds old (a rewrite within one timestamp tick
  // cannot be told otherwise); measured inside that window, both sides carry
  // that read and the ratio flatters the command. Measure the steady state.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
