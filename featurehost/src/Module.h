#pragma once

#include <memory>
#include <string>

#include "host/FeatureModule.h"

namespace featurehost {

/**
 * A loaded feature module: its two entries. The library stays loaded as long as the object;
 * whatever the entries have created must be destroyed before it.
 */
class Module {
 public:
  /**
   * Load a library. An empty path means the module beside this executable, or without one there
   * the installed one, or else the one on the library path. Throws HostError when it cannot be
   * loaded or lacks an entry.
   */
  explicit Module(const std::string& path);

  const char* Type() const { return type_(); }
  /** As FeatureCreate2. Throws HostError when the module creates nothing. */
  std::unique_ptr<IFeatureModule2> Create(const TFeatureId& featureId,
                                          IInterfaceBroker& interfaceBroker,
                                          IEventBroker& eventBroker,
                                          const IFeatureProperties& properties) const;

 private:
  struct Unloader {
    void operator()(void* library) const;
  };

  void* Entry(const char* name) const;

  std::string name_;
  std::unique_ptr<void, Unloader> library_;
  decltype(&FeatureType) type_ = nullptr;
  decltype(&FeatureCreate2) create_ = nullptr;
};

}  // namespace featurehost
