#include "tests/lifecycle/LiveHost.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <utility>

namespace lifecycle {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLook{20};
constexpr std::chrono::milliseconds kAfterwards{300};
constexpr std::chrono::seconds kLimit{60};

const std::string kFeature = "feature";  // as support::FakeProperties has it

bool BeginsWith(const std::string& text, const std::string& beginning) {
  return text.rfind(beginning, 0) == 0;
}

std::string Describe(const TEvent& event) {
  const std::string code = std::to_string(event.iCode);
  if (event.iSize == sizeof(TFeatureResultPayload)) {
    TFeatureResultPayload payload{};
    std::memcpy(&payload, event.iData, sizeof payload);
    EXPECT_STREQ(kFeature.c_str(), payload.iFeatureId);
    return code + " " + std::to_string(payload.iResult);
  }
  if (event.iSize == sizeof(TFeatureProgressPayload)) {
    TFeatureProgressPayload payload{};
    std::memcpy(&payload, event.iData, sizeof payload);
    EXPECT_STREQ(kFeature.c_str(), payload.iFeatureId);
    return code + " " + std::to_string(payload.iPercentage);
  }
  return code;
}

}  // namespace

LiveHost::LiveHost(const support::FakeProperties& properties) : module_(MODULE_PATH) {
  for (const TUint32 code :
       {EUserEventFeatureCreated, EUserEventPrepareResult, EUserEventInstallResult,
        EUserEventInstallProgress, EUserEventAbortResult}) {
    filters_.push_back({EEventUser, code, 0, nullptr});
  }
  for (const TEvent& filter : filters_) {
    broker_.Subscribe(filter, this);
  }
  feature_ = module_.Create(kFeature, interfaces_, broker_, properties);
}

LiveHost::~LiveHost() {
  feature_.reset();
  for (const TEvent& filter : filters_) {
    broker_.Unsubscribe(filter, this);
  }
  EXPECT_EQ(0U, broker_.SubscriptionCount()) << "subscriptions that the module left";
}

void LiveHost::Post(TUint32 code) {
  broker_.PostEvent({EEventUser, code, static_cast<TUint32>(kFeature.length()), kFeature.data()});
}

void LiveHost::On(const std::string& event, std::function<void()> action) {
  reactions_.push_back({event, std::move(action)});
}

void LiveHost::StartInstall() {
  On("202 1", [this] { Post(EUserEventControllerInstall); });
  Post(EUserEventControllerPrepare);
}

void LiveHost::ServeUntil(const std::string& event, std::size_t count) {
  ServeUntil([&] { return Count(event) >= count; }, std::to_string(count) + " x \"" + event + "\"");
}

void LiveHost::ServeUntil(const std::function<bool()>& holds, const std::string& what) {
  auto end = Clock::now() + kLimit;
  bool came = false;
  loop_.Every(kLook, [&] {
    if (destroySoon_) {
      feature_.reset();
    }
    if (!came && holds()) {
      came = true;
      end = Clock::now() + kAfterwards;
    }
    if (Clock::now() >= end) {
      loop_.Stop();
    }
  });
  loop_.Run();
  EXPECT_TRUE(came) << "no " << what << " within the limit";
}

std::vector<std::string> LiveHost::Results() const {
  std::vector<std::string> results;
  std::copy_if(events_.begin(), events_.end(), std::back_inserter(results),
               [](const std::string& event) { return !BeginsWith(event, "205"); });
  return results;
}

std::vector<std::string> LiveHost::ResultsOnce() const {
  auto results = Results();
  results.erase(std::unique(results.begin(), results.end()), results.end());
  return results;
}

std::vector<unsigned> LiveHost::Percentages() const {
  std::vector<unsigned> percentages;
  for (const std::string& event : events_) {
    if (BeginsWith(event, "205 ")) {
      percentages.push_back(static_cast<unsigned>(std::stoul(event.substr(4))));
    }
  }
  return percentages;
}

std::size_t LiveHost::Count(const std::string& event) const {
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [&](const std::string& text) { return BeginsWith(text, event); }));
}

void LiveHost::OnEvent(const TEvent& event) {
  const std::string text = Describe(event);
  events_.push_back(text);
  const auto reaction = std::find_if(reactions_.begin(), reactions_.end(),
                                     [&](const Reaction& r) { return BeginsWith(text, r.event); });
  if (reaction != reactions_.end()) {
    const auto action = reaction->action;
    reactions_.erase(reaction);
    action();
  }
}

}  // namespace lifecycle
