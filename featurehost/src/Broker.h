#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "featurehost/src/DescriptorWatch.h"
#include "featurehost/src/EventLoop.h"
#include "host/EventBroker.h"

namespace featurehost {

/**
 * The event exchange of the contract, over the loop.
 *
 * Posted events wait in a queue and are delivered from the loop, in the order of posting, each to
 * its subscribers in the order of subscribing. A timer or descriptor subscription has a source of
 * its own and only that subscription is told. Each subscription is looked up again before its
 * observer is called: whoever has unsubscribed is not called any more.
 */
class Broker : public IEventBroker {
 public:
  explicit Broker(EventLoop& loop);
  ~Broker() override;

  void Subscribe(const TEvent& filter, IEventObserver* observer) override;
  void Unsubscribe(const TEvent& filter, IEventObserver* observer) override;
  void PostEvent(const TEvent& event) override;

  /** Deliver what is in the queue now; what that posts waits for the next turn of the loop. */
  void DeliverQueue();

  std::size_t SubscriptionCount() const { return subscriptions_.size(); }

 private:
  using Serial = std::uint64_t;

  struct Subscription {
    Broker* broker;
    Serial serial;
    const TEvent* record;  // its address is the subscription's name; never read again
    IEventObserver* observer;
    TUint32 type;
    TUint32 code;
    EventHandle timer;                       // of timer subscriptions
    std::unique_ptr<DescriptorWatch> watch;  // of descriptor subscriptions
  };

  struct Posted {
    TUint32 type;
    TUint32 code;
    std::string payload;
  };

  void DeliverSoon();
  void AddSource(Subscription& subscription, const TEvent& filter);
  void Deliver(const Posted& posted);
  /** @return whether the subscription still exists after its observer has been called. */
  bool DeliverTo(Serial serial, const TEvent& event);
  void DescriptorReady(Serial serial);
  void LookAgainAtSources();

  EventLoop& loop_;
  std::map<Serial, Subscription> subscriptions_;
  Serial lastSerial_ = 0;
  std::deque<Posted> queue_;
  EventHandle deliverSoon_;
};

}  // namespace featurehost
