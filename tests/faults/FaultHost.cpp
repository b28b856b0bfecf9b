#include "tests/faults/FaultHost.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "tests/faults/Text.h"

namespace faults {

namespace {

constexpr std::chrono::milliseconds kTurn{1};
constexpr TUint32 kSlowPeriod = 1000;

const std::string kFeature = "feature";  // as support::FakeProperties has it

std::string Describe(const TEvent& event) {
  const std::string code = std::to_string(event.iCode);
  if (event.iSize == sizeof(TFeatureResultPayload)) {
    TFeatureResultPayload payload{};
    std::memcpy(&payload, event.iData, sizeof payload);
    return code + " " + std::to_string(payload.iResult);
  }
  if (event.iSize == sizeof(TFeatureProgressPayload)) {
    TFeatureProgressPayload payload{};
    std::memcpy(&payload, event.iData, sizeof payload);
    return code + " " + std::to_string(payload.iPercentage);
  }
  return code;
}

}  // namespace

FaultHost::~FaultHost() {
  EndFeature();
}

void FaultHost::Run() {
  const TEvent prepared{EEventUser, EUserEventPrepareResult, 0, nullptr};
  filters_ = {prepared};
  broker_.Subscribe(filters_.front(), this);
  feature_.reset(FeatureCreate2(kFeature, interfaces_, *this, properties_));
  loop_.Every(kTurn, [this] { onTurn(); });
  Post(EUserEventControllerPrepare);
  loop_.Run();
  broker_.Unsubscribe(filters_.front(), this);
}

void FaultHost::PostAbort() {
  Post(EUserEventControllerAbort);
}

void FaultHost::Tick() {
  for (const SlowTimer& timer : std::vector<SlowTimer>(slowTimers_)) {
    timer.observer->OnEvent({EEventTimer, timer.record->iCode, 0, nullptr});
  }
}

void FaultHost::EndFeature() {
  feature_.reset();
}

std::size_t FaultHost::Count(const std::string& beginning) const {
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [&](const std::string& text) { return BeginsWith(text, beginning); }));
}

std::vector<std::string> FaultHost::Results() const {
  std::vector<std::string> results;
  for (const std::string& event : events_) {
    if (!BeginsWith(event, "205") && (results.empty() || results.back() != event)) {
      results.push_back(event);
    }
  }
  return results;
}

std::size_t FaultHost::SubscriptionsLeft() const {
  return broker_.SubscriptionCount() + slowTimers_.size();
}

void FaultHost::Subscribe(const TEvent& filter, IEventObserver* observer) {
  if (filter.iType == EEventTimer && filter.iSize >= kSlowPeriod) {
    slowTimers_.push_back({&filter, observer});
  } else if (filter.iType == EEventTimer) {
    auto& proxy = timers_[&filter];
    proxy = std::make_unique<QueueFirst>(broker_, observer);
    broker_.Subscribe(filter, proxy.get());
  } else {
    broker_.Subscribe(filter, observer);
  }
  if (filter.iType != EEventUser) {
    onSubscribed(filter.iType);
  }
}

void FaultHost::Unsubscribe(const TEvent& filter, IEventObserver* observer) {
  slowTimers_.erase(std::remove_if(slowTimers_.begin(), slowTimers_.end(),
                                   [&](const SlowTimer& timer) {
                                     return timer.record == &filter && timer.observer == observer;
                                   }),
                    slowTimers_.end());
  const auto timer = timers_.find(&filter);
  if (timer == timers_.end()) {
    broker_.Unsubscribe(filter, observer);
  } else {
    // The proxy stays: this may be its turn.
    broker_.Unsubscribe(filter, timer->second.get());
    timer->second->observer = nullptr;
  }
}

void FaultHost::QueueFirst::OnEvent(const TEvent& event) {
  broker.DeliverQueue();
  if (observer != nullptr) {
    observer->OnEvent(event);
  }
}

void FaultHost::PostEvent(const TEvent& event) {
  broker_.PostEvent(event);
  events_.push_back(Describe(event));
  onPost(std::string(events_.back()));
}

void FaultHost::OnEvent(const TEvent& event) {
  if (Describe(event) == "202 1") {
    Post(EUserEventControllerInstall);
  }
}

void FaultHost::Post(TUint32 code) {
  broker_.PostEvent({EEventUser, code, static_cast<TUint32>(kFeature.length()), kFeature.data()});
}

}  // namespace faults
