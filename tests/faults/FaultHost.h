#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "featurehost/src/Broker.h"
#include "featurehost/src/EventLoop.h"
#include "host/EventBroker.h"
#include "host/FeatureModule.h"
#include "host/FeatureProperties.h"

namespace faults {

/**
 * The module in featurehost's event loop, with a look at what it does while it does it. Slow timers
 * (the image's, once a second) tick only when told to, so that moments can be met exactly.
 */
class FaultHost : public IEventBroker, public IEventObserver {
 public:
  explicit FaultHost(const IFeatureProperties& properties) : properties_(properties) {}
  ~FaultHost() override;

  FaultHost(const FaultHost&) = delete;
  FaultHost& operator=(const FaultHost&) = delete;

  /** Called inside the module's call, with "202 1", "205 33" and so on. */
  std::function<void(const std::string& event)> onPost;
  /** Called inside the module's call, when a loader has subscribed to its timer or descriptor. */
  std::function<void(TUint32 type)> onSubscribed;
  /** Called in every turn, some each millisecond, outside of any delivery. */
  std::function<void()> onTurn;

  /** Prepare, install, and serve until Stop is called or the limit is over. */
  void Run();
  void Stop() { loop_.Stop(); }
  void PostAbort();
  /** Deliver a tick of the slow timers. */
  void Tick();
  /** End the feature; not from inside a delivery. */
  void EndFeature();

  /** Every event that the module posted, in order. */
  const std::vector<std::string>& Events() const { return events_; }
  std::size_t Count(const std::string& beginning) const;
  /** The events behind the prepare result without progress; runs of equal ones as one. */
  std::vector<std::string> Results() const;
  /** Subscriptions that are left when the feature has ended. */
  std::size_t SubscriptionsLeft() const;

  void Subscribe(const TEvent& filter, IEventObserver* observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver* observer) override;
  void PostEvent(const TEvent& event) override;
  void OnEvent(const TEvent& event) override;

 private:
  struct SlowTimer {
    const TEvent* record;
    IEventObserver* observer;
  };
  class NoInterfaces : public IInterfaceBroker {};
  /** What was posted before a tick is delivered before it, so that an abort is in time. */
  struct QueueFirst : IEventObserver {
    QueueFirst(featurehost::Broker& theBroker, IEventObserver* theObserver)
        : broker(theBroker), observer(theObserver) {}
    void OnEvent(const TEvent& event) override;

    featurehost::Broker& broker;
    IEventObserver* observer;  // null: it has unsubscribed
  };

  void Post(TUint32 code);

  const IFeatureProperties& properties_;
  featurehost::EventLoop loop_;
  featurehost::Broker broker_{loop_};
  NoInterfaces interfaces_;
  std::vector<TEvent> filters_;
  std::vector<SlowTimer> slowTimers_;
  std::map<const TEvent*, std::unique_ptr<QueueFirst>> timers_;
  std::vector<std::string> events_;
  std::unique_ptr<IFeatureModule2> feature_;
};

}  // namespace faults
