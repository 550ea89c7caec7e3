// LoadLibraryA / GetProcAddress / FreeLibrary over the POSIX loader, so that
// the device layer loads vendor SKF libraries by file name.
#include <cstdio>

#include <dlfcn.h>

#include "zeph_c_utils.h"

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
  return dlclose(module);
}

ZEPH_API void *GetProcAddress(void *module, const char *name) {
  if (module == nullptr || name == nullptr) return nullptr;
  return dlsym(module, name);
}

}  // extern "C"
