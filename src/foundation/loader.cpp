// LoadLibraryA / GetProcAddress / FreeLibrary over the POSIX loader, so that
// the device layer loads vendor SKF libraries by file name.
#include <atomic>
#include <cstdio>

#include <dlfcn.h>

#include "foundation/helpers.hpp"
#include "zeph_c_utils.h"

namespace {

// Counts the unloads, so that what was looked up in a library is not trusted
// once the loader may have put another library at the same handle.
std::atomic<uint64_t> g_unloads{0};

}  // namespace

namespace zeph {

uint64_t LibraryUnloads() { return g_unloads.load(std::memory_order_acquire); }

}  // namespace zeph

extern "C" {

ZEPH_API void *LoadLibraryA(const char *file_name) {
  if (file_name == nullptr) return nullptr;
  void *module = dlopen(file_name, RTLD_LAZY);
  if (module == nullptr) {
    const char *why = dlerror();
    std::printf("Dll %s open error:%s.\n", file_name, why != nullptr ? why : "");
    std::fflush(stdout);
  }
  return module;
}

ZEPH_API int FreeLibrary(void *module) {
  if (module == nullptr) return 0;
  const int rv = dlclose(module);
  g_unloads.fetch_add(1, std::memory_order_acq_rel);
  return rv;
}

ZEPH_API void *GetProcAddress(void *module, const char *name) {
  if (module == nullptr || name == nullptr) return nullptr;
  return dlsym(module, name);
}

}  // extern "C"
