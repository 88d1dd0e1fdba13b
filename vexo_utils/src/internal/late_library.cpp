#include "internal/late_library.h"

#include <dlfcn.h>

#include "internal/log.h"

namespace vexo::utils::internal {

LateLibrary::LateLibrary(const char* soname)
    : handle_(dlopen(soname, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)),
      complete_(handle_ != nullptr) {
  if (!complete_) VEXO_LOG_ERROR("Failed to load library: %s", dlerror());
}

// RTLD_NODELETE: only the count of users goes.
LateLibrary::~LateLibrary() {
  if (handle_ != nullptr) dlclose(handle_);
}

LateLibrary::AnyFunction LateLibrary::findAny(const char* name) {
  if (!complete_) return nullptr;
  void* const address = dlsym(handle_, name);
  if (address == nullptr) {
    VEXO_LOG_ERROR("Failed to load library: %s", dlerror());
    complete_ = false;
  }
  return reinterpret_cast<AnyFunction>(address);
}

}  // namespace vexo::utils::internal
