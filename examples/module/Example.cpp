// A feature module that installs nothing: it answers the host as every module must, and reports
// progress from a timer of the host's.
#include <string>
#include <utility>

#include "host/FeatureModule.h"
#include "host/Platform.h"

namespace {

class Example : public IFeatureModule2, public IEventObserver {
 public:
  Example(TFeatureId id, IEventBroker& broker) : id_(std::move(id)), broker_(broker) {
    for (const TEvent& filter : commands_) broker_.Subscribe(filter, this);
    Post(EUserEventFeatureCreated, id_.data(), id_.size());
  }
  ~Example() override {
    Stop();
    for (const TEvent& filter : commands_) broker_.Unsubscribe(filter, this);
  }

  void OnEvent(const TEvent& event) override {
    if (event.iType == EEventTimer) return Step();
    if (event.iCode == EUserEventControllerAbort) {
      Stop();
      return PostResult(EUserEventAbortResult);
    }
    if (id_ != std::string(static_cast<const char*>(event.iData), event.iSize)) return;
    if (event.iCode == EUserEventControllerPrepare) return PostResult(EUserEventPrepareResult);
    Stop();
    percentage_ = 0;
    broker_.Subscribe(timer_, this);
    running_ = true;
  }

 private:
  void Step() {
    percentage_ = static_cast<TUint8>(percentage_ + 25);
    TFeatureProgressPayload payload{};
    platSafecopy(payload.iFeatureId, id_.c_str(), sizeof payload.iFeatureId);
    payload.iPercentage = percentage_;
    Post(EUserEventInstallProgress, &payload, sizeof payload);
    if (percentage_ == 100) {
      Stop();
      PostResult(EUserEventInstallResult);
    }
  }

  void Stop() {
    if (running_) broker_.Unsubscribe(timer_, this);
    running_ = false;
  }

  void PostResult(TUint32 code) {
    TFeatureResultPayload payload{};
    platSafecopy(payload.iFeatureId, id_.c_str(), sizeof payload.iFeatureId);
    payload.iResult = ETrue;
    Post(code, &payload, sizeof payload);
  }

  void Post(TUint32 code, const void* payload, std::size_t size) {
    broker_.PostEvent({EEventUser, code, static_cast<TUint32>(size), payload});
  }

  TFeatureId id_;
  IEventBroker& broker_;
  // Subscriptions are known by their records: these stay where they are as long as they are used.
  const TEvent commands_[3] = {{EEventUser, EUserEventControllerPrepare, 0, nullptr},
                               {EEventUser, EUserEventControllerInstall, 0, nullptr},
                               {EEventUser, EUserEventControllerAbort, 0, nullptr}};
  const TEvent timer_ = {EEventTimer, 0, 10, "repeating"};
  bool running_ = false;
  TUint8 percentage_ = 0;
};

}  // namespace

const char* FeatureType() { return "example"; }

IFeatureModule2* FeatureCreate2(const TFeatureId& featureId, IInterfaceBroker& /*interfaceBroker*/,
                                IEventBroker& eventBroker,
                                const IFeatureProperties& /*properties*/) {
  return new Example(featureId, eventBroker);
}
