#include "platform/library.h"

#include <dlfcn.h>

void* LoadLibrary(const char* path) {
  void* module = dlopen(path, RTLD_NOW);
  if (module == nullptr) dlerror();
  return module;
}

void FreeLibrary(void* module) {
  if (module != nullptr) dlclose(module);
}

void* GetProcAddress(void* module, const char* symbol) {
  if (module == nullptr) return nullptr;
  return dlsym(module, symbol);
}
