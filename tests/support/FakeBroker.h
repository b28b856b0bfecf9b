#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "host/EventBroker.h"

namespace support {

/** A posted event with its own copy of the payload. */
struct PostedEvent {
  TUint32 type;
  TUint32 code;
  std::string payload;
};

/** What a broker was asked, in the order of the calls. */
struct BrokerCall {
  enum Kind { KSubscribe, KUnsubscribe, KPost } kind;
  TEvent event;  // the record as it was at the call; for posts without a payload pointer
  const TEvent* record;
  const IEventObserver* observer;
};

/**
 * A broker that records, and delivers only when the test says so. Live subscriptions of all
 * fake brokers are counted, for the fixture.
 */
class FakeBroker : public IEventBroker {
 public:
  ~FakeBroker() override { live_ -= subscriptions_.size(); }

  void Subscribe(const TEvent& filter, IEventObserver* observer) override {
    calls_.push_back({BrokerCall::KSubscribe, filter, &filter, observer});
    subscriptions_.push_back({&filter, filter, observer});
    ++live_;
  }

  void Unsubscribe(const TEvent& filter, IEventObserver* observer) override {
    calls_.push_back({BrokerCall::KUnsubscribe, filter, &filter, observer});
    for (auto entry = subscriptions_.begin(); entry != subscriptions_.end(); ++entry) {
      if (entry->record == &filter && entry->observer == observer) {
        subscriptions_.erase(entry);
        --live_;
        return;
      }
    }
  }

  void PostEvent(const TEvent& event) override {
    calls_.push_back({BrokerCall::KPost, event, &event, nullptr});
    calls_.back().event.iData = nullptr;
    PostedEvent posted{event.iType, event.iCode, ""};
    if (event.iSize > 0) {
      posted.payload.assign(static_cast<const char*>(event.iData), event.iSize);
    }
    posts_.push_back(posted);
    if (onPost) {
      onPost(posted);
    }
  }

  /** Deliver to every subscription whose type and code match, as of now. */
  void Deliver(const TEvent& event) {
    const auto snapshot = subscriptions_;
    for (const auto& entry : snapshot) {
      if (entry.filter.iType == event.iType && entry.filter.iCode == event.iCode && IsLive(entry)) {
        entry.observer->OnEvent(event);
      }
    }
  }

  void DeliverUser(TUint32 code, const std::string& payload) {
    Deliver({EEventUser, code, static_cast<TUint32>(payload.length()), payload.data()});
  }
  void Tick() { Deliver({EEventTimer, 0, 0, nullptr}); }
  void DescriptorReady(int descriptor) {
    Deliver({EEventDescriptor, static_cast<TUint32>(descriptor), 0, nullptr});
  }

  struct Subscription {
    const TEvent* record;
    TEvent filter;
    IEventObserver* observer;
  };
  const std::vector<Subscription>& Subscriptions() const { return subscriptions_; }
  const std::vector<BrokerCall>& Calls() const { return calls_; }
  const std::vector<PostedEvent>& Posts() const { return posts_; }
  std::vector<PostedEvent> PostsOf(TUint32 code) const {
    std::vector<PostedEvent> chosen;
    for (const auto& post : posts_) {
      if (post.code == code) {
        chosen.push_back(post);
      }
    }
    return chosen;
  }
  void Forget() {
    calls_.clear();
    posts_.clear();
  }

  /** Called inside PostEvent, as a broker that delivers at once would. */
  std::function<void(const PostedEvent&)> onPost;

  static std::size_t LiveSubscriptions() { return live_; }

 private:
  bool IsLive(const Subscription& wanted) const {
    for (const auto& entry : subscriptions_) {
      if (entry.record == wanted.record && entry.observer == wanted.observer) {
        return true;
      }
    }
    return false;
  }

  inline static std::size_t live_ = 0;
  std::vector<Subscription> subscriptions_;
  std::vector<BrokerCall> calls_;
  std::vector<PostedEvent> posts_;
};

}  // namespace support
