#include "process/SharedObject.h"

#include <dlfcn.h>

namespace process {
namespace {

std::string LoaderError() {
  const char* error = ::dlerror();
  return error != nullptr ? error : "";
}

}  // namespace

void* OpenSharedObject(const std::string& path, std::string& error) {
  ::dlerror();
  void* handle = ::dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
  if (handle == nullptr) error = LoaderError();
  return handle;
}

// dlerror, not the returned pointer, says whether the lookup failed.
void* FindSymbol(void* handle, const char* symbol, std::string& error) {
  ::dlerror();
  void* address = ::dlsym(handle, symbol);
  if (const char* failure = ::dlerror(); failure != nullptr) {
    error = failure;
    return nullptr;
  }
  return address;
}

void CloseSharedObject(void* handle) { ::dlclose(handle); }

}  // namespace process
