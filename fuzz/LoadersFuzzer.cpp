// Any order of events against the controller with the real loaders, on tools and files that do what
// the input says.

#include <fuzzer/FuzzedDataProvider.h>

#include "MainCPULoader/src/ArchiveLoader.h"
#include "MainCPULoader/src/LoaderFactory.h"
#include "MainCPULoader/src/MainCPULoader.h"
#include "fuzz/support/FakeSystem.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeProperties.h"

namespace {

constexpr int kMostEvents = 48;
constexpr int kMostPosts = 2000;
const std::string kId = "feature";

/** The real factory; remembers the loaders, to reach those that asked for nothing. */
class WatchedFactory : public CLoaderFactory {
 public:
  explicit WatchedFactory(std::vector<ILoader*>& made) : made_(made) {}

  void Create(const std::string& updateList, const std::string& progressList,
              std::vector<std::pair<ILoader*, int>>& loaders, std::string& featureId,
              IEventBroker& eventBroker, const IFeatureProperties& properties,
              ILoaderCallback& callback) override {
    CLoaderFactory::Create(updateList, progressList, loaders, featureId, eventBroker, properties,
                           callback);
    for (const auto& entry : loaders) {
      made_.push_back(entry.first);
    }
  }

 private:
  std::vector<ILoader*>& made_;
};

std::string AnyList(FuzzedDataProvider& input, std::vector<std::string>& items) {
  const char* const names[] = {"userfs",      "boot", "factorydata", "eolsettings",
                               "checkrootfs", "",     "check",       "rootfs"};
  std::string list;
  for (int count = input.ConsumeIntegralInRange<int>(0, 4); count >= 0; --count) {
    items.emplace_back(input.PickValueInArray(names));
    list += (list.empty() ? "" : ";") + items.back();
  }
  return list;
}

void AnyProperties(FuzzedDataProvider& input, support::FakeProperties& properties) {
  std::vector<std::string> items;
  properties.values["updatelist"] = AnyList(input, items);
  properties.values["updateprogresslist"] =
      input.ConsumeBool() ? "10;20;30;40;50" : input.ConsumeRandomLengthString(20);
  for (const auto& item : items) {
    const std::string name = item.rfind("check", 0) == 0 ? item.substr(5) : item;
    for (const char* suffix : {"source", "target", "mountpoint", "filesystem", "checksum",
                               "targetfilename", "altsource", "blocksize"}) {
      if (input.ConsumeIntegralInRange<int>(0, 15) != 15) {
        const char* const texts[] = {"/dev/mmcblk1p1", "settings/a", "FAT", "4k", ""};
        properties.values[name + suffix] = input.PickValueInArray(texts);
      }
    }
    for (const char* suffix : {"targetsize", "offset", "size"}) {
      properties.values[name + suffix] =
          input.ConsumeBool() ? std::to_string(input.ConsumeIntegralInRange<int>(0, 3 << 20))
                              : input.ConsumeRandomLengthString(12);
    }
  }
}

class Host {
 public:
  explicit Host(FuzzedDataProvider& input) : input_(input), properties_(kId) {
    AnyProperties(input, properties_);
    broker_.onPost = [this](const support::PostedEvent& event) { CheckPost(event); };
    controller_ = std::make_unique<CMainCPULoader>(kId, interfaceBroker_, broker_, properties_,
                                                   new WatchedFactory(loaders_));
  }

  void Run() {
    for (int count = 0; count < kMostEvents && input_.remaining_bytes() > 0; ++count) {
      OneEvent();
    }
    // One that is destroyed at work keeps its pipes, on purpose; end it so that no leak hides
    // another.
    for (auto* loader : loaders_) {
      if (auto* archive = dynamic_cast<CArchiveLoader*>(loader)) {
        archive->FinalizeLoading(EFalse);
      }
    }
    controller_.reset();
    for (const auto& left : broker_.Subscriptions()) {
      fuzz::Fail("a subscription is left: type " + std::to_string(left.filter.iType) + ", code " +
                 std::to_string(left.filter.iCode));
    }
  }

 private:
  void CheckPost(const support::PostedEvent& event) {
    fuzz::Require(event.type == EEventUser,
                  "posted an event of type " + std::to_string(event.type));
    fuzz::Require(++posts_ < kMostPosts, "posts without end");
    const std::size_t size = event.payload.size();
    switch (event.code) {
      case EUserEventFeatureCreated:
        return fuzz::Require(event.payload == kId, "created: wrong id");
      case EUserEventInstallProgress:
        return fuzz::Require(size == 65, "progress: wrong size");
      case EUserEventPrepareResult:
      case EUserEventInstallResult:
      case EUserEventAbortResult:
        return fuzz::Require(size == 68, "result: wrong size");
      default:
        fuzz::Fail("posted user event " + std::to_string(event.code));
    }
  }

  void OneEvent() {
    switch (input_.ConsumeIntegralInRange<int>(0, 9)) {
      case 0:
        return broker_.DeliverUser(EUserEventControllerPrepare, kId);
      case 1:
        return broker_.DeliverUser(EUserEventControllerInstall, kId);
      case 2:
        return broker_.DeliverUser(EUserEventControllerAbort, "");
      case 3:
        return controller_->OnEvent({input_.ConsumeIntegralInRange<TUint32>(0, 4),
                                     input_.ConsumeIntegralInRange<TUint32>(199, 208), 4, "feat"});
      case 4:
        return Unasked();
      case 5:
      case 6:
        return broker_.Tick();
      default:
        return DescriptorsReady();
    }
  }

  void DescriptorsReady() {
    const auto subscriptions = broker_.Subscriptions();
    for (const auto& subscription : subscriptions) {
      if (subscription.filter.iType == EEventDescriptor) {
        broker_.DescriptorReady(static_cast<int>(subscription.filter.iCode));
      }
    }
  }

  /** An event for a loader that did not ask for it. */
  void Unasked() {
    if (loaders_.empty()) {
      return;
    }
    auto* loader = loaders_[input_.ConsumeIntegralInRange<std::size_t>(0, loaders_.size() - 1)];
    if (auto* observer = dynamic_cast<IEventObserver*>(loader)) {
      observer->OnEvent({input_.ConsumeIntegralInRange<TUint32>(0, 4), 0, 0, nullptr});
    }
  }

  FuzzedDataProvider& input_;
  support::FakeProperties properties_;
  support::FakeBroker broker_;
  IInterfaceBroker interfaceBroker_;
  std::vector<ILoader*> loaders_;
  int posts_ = 0;
  std::unique_ptr<CMainCPULoader> controller_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  fuzz::FakeSystem system(input);
  if (input.ConsumeBool()) {
    system.WriteSteadily(input.ConsumeIntegralInRange<std::size_t>(0, 4 << 20));
  }
  Host(input).Run();
  return 0;
}
