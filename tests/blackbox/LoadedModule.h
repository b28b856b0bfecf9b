#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "host/FeatureModule.h"

namespace blackbox {

/** The built module, loaded as a host loads it. Features must be gone when it ends. */
class LoadedModule {
 public:
  LoadedModule() : library_(dlopen(MODULE_FILE, RTLD_NOW | RTLD_LOCAL)) {
    EXPECT_NE(nullptr, library_) << dlerror();
  }
  ~LoadedModule() {
    if (library_ != nullptr) {
      EXPECT_EQ(0, dlclose(library_)) << dlerror();
    }
  }

  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  void* Symbol(const char* name) const { return dlsym(library_, name); }

  std::string Type() const {
    const auto entry = reinterpret_cast<decltype(&FeatureType)>(Symbol("FeatureType"));
    return entry == nullptr ? "no FeatureType" : entry();
  }

  std::unique_ptr<IFeatureModule2> Create(const TFeatureId& featureId, IEventBroker& broker,
                                          const IFeatureProperties& properties) {
    const auto entry = reinterpret_cast<decltype(&FeatureCreate2)>(Symbol("FeatureCreate2"));
    if (entry == nullptr) {
      ADD_FAILURE() << "no FeatureCreate2";
      return nullptr;
    }
    return std::unique_ptr<IFeatureModule2>(entry(featureId, interfaceBroker_, broker, properties));
  }

  /** Whether the library is in this process, whoever loaded it. */
  static bool IsInMemory() {
    void* library = dlopen(MODULE_FILE, RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
      dlclose(library);
    }
    return library != nullptr;
  }

 private:
  void* library_;
  IInterfaceBroker interfaceBroker_;
};

}  // namespace blackbox
