#include "featurehost/src/Module.h"

#include <array>
#include <climits>
#include <dlfcn.h>
#include <unistd.h>

#include "featurehost/src/HostError.h"
#include "featurehost/src/ProcessGuard.h"
#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

constexpr const char* kStandardModule = "libmaincpuloader.so";

std::string ExecutableFolder() {
  std::array<char, PATH_MAX> path{};
  if (readlink("/proc/self/exe", path.data(), path.size() - 1) <= 0) {
    return ".";
  }
  const std::string executable(path.data());
  return executable.substr(0, executable.rfind('/'));
}

std::string StandardModule() {
  const std::string folder = ExecutableFolder() + "/";
  for (const std::string& place : {folder, folder + MODULES_FROM_HOST "/"}) {
    if (access((place + kStandardModule).c_str(), F_OK) == 0) {
      return place + kStandardModule;
    }
  }
  return kStandardModule;
}

// A name without a folder means a file here, not a library on the library path.
std::string AsFile(const std::string& path) {
  return path.find('/') == std::string::npos ? "./" + path : path;
}

[[noreturn]] void Refuse(const std::string& line) {
  throw HostError(ExitCode::kModuleNotLoaded, OneLine(line));
}

}  // namespace

Module::Module(const std::string& path) : name_(path.empty() ? StandardModule() : AsFile(path)) {
  // All names are resolved now: a module that lacks one must fail here, not during an update.
  library_.reset(dlopen(name_.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (library_ == nullptr) {
    const char* reason = dlerror();  // NOLINT(concurrency-mt-unsafe): there is one thread
    Refuse("cannot load the module: " + std::string(reason) + "; name one with --module");
  }
  type_ = reinterpret_cast<decltype(type_)>(Entry("FeatureType"));
  create_ = reinterpret_cast<decltype(create_)>(Entry("FeatureCreate2"));
}

std::unique_ptr<IFeatureModule2> Module::Create(const TFeatureId& featureId,
                                                IInterfaceBroker& interfaceBroker,
                                                IEventBroker& eventBroker,
                                                const IFeatureProperties& properties) const {
  std::unique_ptr<IFeatureModule2> feature(
      create_(featureId, interfaceBroker, eventBroker, properties));
  EndClone();
  if (feature == nullptr) {
    Refuse(name_ + ": the module created no feature '" + featureId + "'");
  }
  return feature;
}

void Module::Unloader::operator()(void* library) const {
  dlclose(library);
}

void* Module::Entry(const char* name) const {
  void* entry = dlsym(library_.get(), name);
  if (entry == nullptr) {
    Refuse(name_ + ": not a feature module: it has no entry " + name);
  }
  return entry;
}

}  // namespace featurehost
