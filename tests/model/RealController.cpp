#include "tests/model/RealController.h"

#include <cstring>

namespace model {

class RealController::Loader : public ILoader {
 public:
  Loader(Surroundings& surroundings, std::size_t index)
      : surroundings_(surroundings), index_(index) {}
  ~Loader() override { surroundings_.Delete(index_); }

  TBool Prepare() override { return surroundings_.Prepare(index_); }
  void Install() override { surroundings_.Install(index_); }
  void Abort() override { surroundings_.Abort(index_); }

 private:
  Surroundings& surroundings_;
  std::size_t index_;
};

class RealController::Factory : public CLoaderFactory {
 public:
  explicit Factory(RealController& real) : real_(real) {}
  ~Factory() override { real_.surroundings_.DeleteFactory(); }

  void Create(const std::string& updateList, const std::string& progressList,
              std::vector<std::pair<ILoader*, int>>& loaders, std::string& /*featureId*/,
              IEventBroker& /*eventBroker*/, const IFeatureProperties& /*properties*/,
              ILoaderCallback& callback) override {
    real_.callback_ = &callback;
    for (const auto weight : real_.surroundings_.CreateLoaders(updateList, progressList)) {
      loaders.emplace_back(new Loader(real_.surroundings_, loaders.size()), weight);
    }
  }

 private:
  RealController& real_;
};

RealController::RealController(Surroundings& surroundings, const std::string& featureId)
    : surroundings_(surroundings),
      featureId_(featureId),
      controller_(std::make_unique<CMainCPULoader>(featureId, interfaceBroker_, *this, *this,
                                                   new Factory(*this))) {}

RealController::~RealController() {
  controller_.reset();
}

void RealController::OnEvent(const Delivery& event) {
  // A copy of exactly the payload's length, so that a sanitizer sees who reads on.
  const auto bytes = std::make_unique<char[]>(event.payload.size());
  std::memcpy(bytes.get(), event.payload.data(), event.payload.size());
  subscriptions_.at(0).observer->OnEvent({event.type, event.code,
                                          static_cast<TUint32>(event.payload.size()),
                                          event.withoutBytes ? nullptr : bytes.get()});
}

void RealController::Progress(std::uint32_t remaining, std::uint32_t total) {
  callback_->Progress(remaining, total);
}

void RealController::Completed(std::int32_t successful) {
  callback_->Completed(successful);
}

void RealController::Aborted() {
  callback_->Aborted();
}

void RealController::Subscribe(const TEvent& filter, IEventObserver* observer) {
  surroundings_.Subscribe(subscriptions_.size(), filter.iType, filter.iCode, filter.iSize);
  subscriptions_.push_back({&filter, observer});
}

void RealController::Unsubscribe(const TEvent& filter, IEventObserver* observer) {
  // One that was never subscribed gets a number that none has.
  std::size_t number = 0;
  while (number < subscriptions_.size() && (subscriptions_[number].record != &filter ||
                                            subscriptions_[number].observer != observer)) {
    ++number;
  }
  surroundings_.Unsubscribe(number, filter.iType, filter.iCode, filter.iSize);
}

void RealController::PostEvent(const TEvent& event) {
  const auto* bytes = static_cast<const char*>(event.iData);
  surroundings_.Post(event.iType, event.iCode,
                     event.iSize == 0 ? "" : std::string(bytes, event.iSize));
}

TBool RealController::GetProperty(const TFeatureId& featureId, const std::string& key,
                                  std::string& value) const {
  const auto found = surroundings_.Property(featureId == featureId_ ? key : "of another feature");
  if (!found.has_value()) {
    return EFalse;
  }
  value = *found;
  return ETrue;
}

}  // namespace model
