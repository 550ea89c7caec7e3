// No copy of a PIN is freed without being wiped: every block this test
// program frees through operator delete or cJSON is searched for the PIN
// while a logged PIN check runs. The blocks are searched before they are
// freed, so the sanitizers see no use after free.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <cjson/cJSON.h>
#include <malloc.h>

#include <gtest/gtest.h>

#include "softkey_fixture.hpp"
#include "zeph_c_ci.h"
#include "zeph_c_device.h"
#include "zeph_c_utils.h"

namespace {

constexpr char kPin[] = "Pq7wZ3xK9m";
std::atomic<bool> g_armed{false};
std::atomic<int> g_freed_copies{0};

void Search(const void *p, size_t n) {
  if (p == nullptr || !g_armed.load(std::memory_order_relaxed)) return;
  if (memmem(p, n, kPin, sizeof kPin - 1) != nullptr) g_freed_copies.fetch_add(1, std::memory_order_relaxed);
}

void SearchAndFree(void *p) {
  Search(p, p != nullptr ? malloc_usable_size(p) : 0);
  std::free(p);
}

// Blocks start zeroed, so a PIN found when one is freed was written while it
// was allocated, not left in reused memory by an earlier owner.
void *ZeroedMalloc(size_t n) {
  void *p = std::malloc(n != 0 ? n : 1);
  if (p != nullptr) std::memset(p, 0, malloc_usable_size(p));
  return p;
}

}  // namespace

// The program's allocation functions, every form but the over-aligned ones
// (the library and the software key use them too; the sanitizers' own would
// not pair with these).
void *operator new(size_t n) {
  if (void *p = ZeroedMalloc(n)) return p;
  throw std::bad_alloc();
}
void *operator new[](size_t n) { return operator new(n); }
void *operator new(size_t n, const std::nothrow_t &) noexcept { return ZeroedMalloc(n); }
void *operator new[](size_t n, const std::nothrow_t &) noexcept { return ZeroedMalloc(n); }
void operator delete(void *p) noexcept { SearchAndFree(p); }
void operator delete[](void *p) noexcept { SearchAndFree(p); }
void operator delete(void *p, size_t) noexcept { SearchAndFree(p); }
void operator delete[](void *p, size_t) noexcept { SearchAndFree(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { SearchAndFree(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { SearchAndFree(p); }

namespace {

class PinCopies : public zeph_test::SoftkeyFixture {};

TEST_F(PinCopies, NoneIsFreedUnwipedByALoggedPinCheck) {
  MustTool("create-device --serial PC1");
  MustTool(std::string("create-app --serial PC1 --app VorliEcc --admin-pin 12345678 --user-pin ") + kPin);
  MustTool(std::string("gen-key --serial PC1 --app VorliEcc --container ECC --alg sm2 --no-cert --user-pin ") + kPin);
  const std::string config = std::string(R"([{"type":0,"vid":"ZS","skfLib":")") + ZEPH_SOFTKEY_LIB + "\"}]";
  ASSERT_EQ(ZEPH_C_SetConfigInfo(config.c_str()), 0u);

  static int logged_with_pin;
  logged_with_pin = 0;
  setLogCallback([](const char *record) { logged_with_pin += std::strstr(record, kPin) != nullptr; });
  cJSON_Hooks hooks = {ZeroedMalloc, SearchAndFree};
  cJSON_InitHooks(&hooks);
  const std::string request = std::string(R"({"type":101,"keySN":"ZS_PC1","asymid":2,"pin":")") + kPin + "\"}";
  std::vector<char> response(4096, '\0');
  g_armed = true;
  ZEPH_C_CI(request.c_str(), response.data());
  g_armed = false;
  cJSON_InitHooks(nullptr);
  setLogCallback(nullptr);

  EXPECT_STREQ(response.data(), R"({"type":101,"code":0,"data":"{\"retryCnt\":10}"})");
  EXPECT_EQ(logged_with_pin, 2);  // the request and the verification record
  EXPECT_EQ(g_freed_copies.load(), 0);
}

}  // namespace
