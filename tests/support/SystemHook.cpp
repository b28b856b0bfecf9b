#include "tests/support/SystemHook.h"

#include <cstdlib>
#include <dlfcn.h>
#include <utility>

#include "tests/support/SystemCalls.h"

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
  auto& calls = support::SystemCalls::Instance();
  if (calls.onCommand) {
    calls.onCommand(command);
  }
  if (calls.MustFail("system")) {
    return -1;
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
