#include "featurehost/src/Broker.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "featurehost/src/ProcessGuard.h"

namespace featurehost {

Broker::Broker(EventLoop& loop) : loop_(loop) {
  deliverSoon_ = loop_.NewTimer(
      false, [](int, short, void* broker) { static_cast<Broker*>(broker)->DeliverQueue(); }, this);
}

Broker::~Broker() = default;

void Broker::Subscribe(const TEvent& filter, IEventObserver* observer) {
  EndClone();
  const Serial serial = ++lastSerial_;
  auto& subscription =
      subscriptions_
          .emplace(serial, Subscription{this, serial, &filter, observer, filter.iType, filter.iCode,
                                        nullptr, nullptr})
          .first->second;
  AddSource(subscription, filter);
}

void Broker::Unsubscribe(const TEvent& filter, IEventObserver* observer) {
  EndClone();
  for (auto entry = subscriptions_.begin(); entry != subscriptions_.end();) {
    const bool wanted = entry->second.record == &filter && entry->second.observer == observer;
    entry = wanted ? subscriptions_.erase(entry) : std::next(entry);
  }
}

void Broker::PostEvent(const TEvent& event) {
  EndClone();
  Posted posted{event.iType, event.iCode, ""};
  if (event.iSize > 0 && event.iData != nullptr) {
    posted.payload.assign(static_cast<const char*>(event.iData), event.iSize);
  }
  queue_.push_back(std::move(posted));
  DeliverSoon();
}

void Broker::DeliverQueue() {
  for (std::size_t left = queue_.size(); left > 0 && !loop_.Stopped(); --left) {
    const Posted posted = std::move(queue_.front());
    queue_.pop_front();
    Deliver(posted);
  }
  if (!queue_.empty()) {
    DeliverSoon();
  }
}

void Broker::DeliverSoon() {
  // Starting it again would take back its turn: whoever posts in every turn would put it off for
  // ever.
  if (!EventLoop::IsStarted(deliverSoon_)) {
    EventLoop::Start(deliverSoon_, std::chrono::milliseconds{0});
  }
}

void Broker::AddSource(Subscription& subscription, const TEvent& filter) {
  if (filter.iType == EEventTimer) {
    const bool repeating = filter.iData != nullptr;
    subscription.timer = loop_.NewTimer(
        repeating,
        [](int, short, void* argument) {
          const auto& due = *static_cast<Subscription*>(argument);
          due.broker->DeliverTo(due.serial, {due.type, due.code, 0, nullptr});
        },
        &subscription);
    EventLoop::Start(subscription.timer,
                     std::chrono::milliseconds{std::max<TUint32>(filter.iSize, 1)});
  } else if (filter.iType == EEventDescriptor) {
    const Serial serial = subscription.serial;
    subscription.watch = std::make_unique<DescriptorWatch>(
        loop_, static_cast<int>(filter.iCode), [this, serial] { DescriptorReady(serial); });
  }
}

void Broker::Deliver(const Posted& posted) {
  const auto size = static_cast<TUint32>(posted.payload.size());
  const TEvent event{posted.type, posted.code, size, size == 0 ? nullptr : posted.payload.data()};
  std::vector<Serial> subscribers;
  for (const auto& [serial, subscription] : subscriptions_) {
    if (subscription.type == posted.type && subscription.code == posted.code) {
      subscribers.push_back(serial);
    }
  }
  for (const Serial serial : subscribers) {
    DeliverTo(serial, event);
  }
}

bool Broker::DeliverTo(Serial serial, const TEvent& event) {
  const auto subscription = subscriptions_.find(serial);
  if (subscription == subscriptions_.end()) {
    return false;
  }
  subscription->second.observer->OnEvent(event);
  EndClone();
  LookAgainAtSources();
  return subscriptions_.count(serial) > 0;
}

void Broker::DescriptorReady(Serial serial) {
  const TEvent event{EEventDescriptor, subscriptions_.at(serial).code, 0, nullptr};
  if (DeliverTo(serial, event)) {
    subscriptions_.at(serial).watch->TurnIsOver();
  }
}

void Broker::LookAgainAtSources() {
  for (const auto& entry : subscriptions_) {
    if (entry.second.watch != nullptr) {
      entry.second.watch->LookAgain();
    }
  }
}

}  // namespace featurehost
