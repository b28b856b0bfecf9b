#pragma once

#include <memory>
#include <string>
#include <vector>

#include "MainCPULoader/src/LoaderFactory.h"
#include "MainCPULoader/src/MainCPULoader.h"
#include "host/EventBroker.h"
#include "host/FeatureProperties.h"
#include "tests/model/Subject.h"
#include "tests/model/Surroundings.h"

namespace model {

/** The real controller in the model's surroundings. */
class RealController : public Subject, public IEventBroker, public IFeatureProperties {
 public:
  RealController(Surroundings& surroundings, const std::string& featureId);
  ~RealController() override;

  RealController(const RealController&) = delete;
  RealController& operator=(const RealController&) = delete;

  void OnEvent(const Delivery& event) override;
  void Progress(std::uint32_t remaining, std::uint32_t total) override;
  void Completed(std::int32_t successful) override;
  void Aborted() override;

 private:
  class Factory;
  class Loader;

  void Subscribe(const TEvent& filter, IEventObserver* observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver* observer) override;
  void PostEvent(const TEvent& event) override;
  TBool GetProperty(const TFeatureId& featureId, const std::string& key,
                    std::string& value) const override;

  struct Subscription {
    const TEvent* record;
    IEventObserver* observer;
  };

  Surroundings& surroundings_;
  std::string featureId_;
  std::vector<Subscription> subscriptions_;
  ILoaderCallback* callback_ = nullptr;
  IInterfaceBroker interfaceBroker_;
  std::unique_ptr<IFeatureModule2> controller_;
};

}  // namespace model
