#include "tests/support/SystemHook.h"

#include <cstdlib>
#include <dlfcn.h>
#include <utility>

namespace {

std::function<int(const std::string&)>& Hook() {
  static std::function<int(const std::string&)> hook;
  return hook;
}

}  // namespace

/** Stands before the C library's in every test binary. */
extern "C" int system(const char* command) {
  if (Hook()) {
    return Hook()(command);
  }
  using TSystem = int (*)(const char*);
  static const auto real = reinterpret_cast<TSystem>(dlsym(RTLD_NEXT, "system"));
  return real(command);
}

namespace support {

SystemHook::SystemHook(std::function<int(const std::string& command)> hook) {
  Hook() = std::move(hook);
}

SystemHook::~SystemHook() {
  Hook() = nullptr;
}

}  // namespace support
