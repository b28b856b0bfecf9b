#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "MainCPULoader/src/LoaderFactory.h"
#include "MainCPULoader/src/MainCPULoader.h"
#include "tests/support/Answers.h"
#include "tests/support/CleanTest.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/RecordedLog.h"

namespace staged {

/** What one loader of the staged list does. Its callback is the stage's. */
struct Item {
  int weight = 0;
  TBool ready = ETrue;
  std::function<void()> onPrepare;
  std::function<void()> onInstall;
  std::function<void()> onAbort;
  std::function<void()> onDelete;
  bool missing = false;  // a null entry in the list
};

/** What the factory was called with. */
struct CreateCall {
  std::string updateList;
  std::string progressList;
  std::size_t loadersBefore;
  std::string featureId;
  const IEventBroker* eventBroker;
  const IFeatureProperties* properties;
};

/** The plan of a test and the journal of what happened: "install 0", "delete factory" and so on. */
struct Stage {
  std::vector<Item> items;
  std::vector<CreateCall> creates;
  ILoaderCallback* callback = nullptr;
  std::vector<std::string> journal;
  bool journalling = true;

  void Note(const std::string& entry) {
    if (journalling) {
      journal.push_back(entry);
    }
  }
};

class StagedLoader : public ILoader {
 public:
  StagedLoader(Stage& stage, std::size_t index) : stage_(stage), index_(index) {}
  ~StagedLoader() override { Do("delete", stage_.items[index_].onDelete); }

  TBool Prepare() override {
    Do("prepare", stage_.items[index_].onPrepare);
    return stage_.items[index_].ready;
  }
  void Install() override { Do("install", stage_.items[index_].onInstall); }
  void Abort() override { Do("abort", stage_.items[index_].onAbort); }

 private:
  void Do(const char* what, const std::function<void()>& action) {
    stage_.Note(std::string(what) + " " + std::to_string(index_));
    if (action) {
      action();
    }
  }

  Stage& stage_;
  std::size_t index_;
};

class StagedFactory : public CLoaderFactory {
 public:
  explicit StagedFactory(Stage& stage) : stage_(stage) {}
  ~StagedFactory() override { stage_.Note("delete factory"); }

  void Create(const std::string& updateList, const std::string& progressList,
              std::vector<std::pair<ILoader*, int>>& loaders, std::string& featureId,
              IEventBroker& eventBroker, const IFeatureProperties& properties,
              ILoaderCallback& callback) override {
    stage_.creates.push_back(
        {updateList, progressList, loaders.size(), featureId, &eventBroker, &properties});
    stage_.callback = &callback;
    for (std::size_t index = 0; index < stage_.items.size(); ++index) {
      const Item& item = stage_.items[index];
      loaders.emplace_back(item.missing ? nullptr : new StagedLoader(stage_, index), item.weight);
    }
  }

 private:
  Stage& stage_;
};

/** A controller whose loaders are staged. Items are added before the first prepare. */
class ControllerTest : public support::CleanTest {
 protected:
  ControllerTest() { UseId("feature"); }

  /** The feature's id; before Create. */
  void UseId(const std::string& featureId) {
    featureId_ = featureId;
    properties_ = support::FakeProperties(featureId);
    properties_.values = {{"updatelist", "a;b"}, {"updateprogresslist", "1;2"}};
  }

  void Create() {
    controller_ = std::make_unique<CMainCPULoader>(featureId_, interfaceBroker_, broker_,
                                                   properties_, new StagedFactory(stage_));
  }

  /** Create, with loaders of these weights that wait for the test, prepared; then forget all. */
  void CreatePrepared(const std::vector<int>& weights) {
    for (const int weight : weights) {
      stage_.items.push_back({});
      stage_.items.back().weight = weight;
    }
    Create();
    Prepare();
    Forget();
  }

  void Forget() {
    broker_.Forget();
    stage_.journal.clear();
    support::RecordedLog::Instance().Clear();
  }

  void Prepare() { broker_.DeliverUser(EUserEventControllerPrepare, featureId_); }
  void Install() { broker_.DeliverUser(EUserEventControllerInstall, featureId_); }
  void Abort() { broker_.DeliverUser(EUserEventControllerAbort, featureId_); }
  ILoaderCallback& Callback() { return *stage_.callback; }

  std::vector<std::string> Answers() const { return support::Answers(broker_, featureId_); }

  void TearDown() override {
    controller_.reset();
    CleanTest::TearDown();
  }

  std::string featureId_;
  IInterfaceBroker interfaceBroker_;
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  Stage stage_;
  std::unique_ptr<CMainCPULoader> controller_;
};

}  // namespace staged
