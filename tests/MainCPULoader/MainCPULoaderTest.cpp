#include <cstdint>
#include <gmock/gmock.h>

#include "MainCPULoader/src/MainCPULoader.h"
#include "tests/MainCPULoader/StagedFactory.h"
#include "tests/support/VirtualSlot.h"

namespace {

using staged::Item;
using support::LogLine;
using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const support::LogSource KController(logging::MainCPULoader, "MainCPULoader/src/MainCPULoader");

constexpr const char* KConstructor =
    "CMainCPULoader::CMainCPULoader(const TFeatureId&, IInterfaceBroker&, IEventBroker&, "
    "const IFeatureProperties&, CLoaderFactory*)";
constexpr const char* KDestructor = "virtual CMainCPULoader::~CMainCPULoader()";
constexpr const char* KOnEvent = "virtual void CMainCPULoader::OnEvent(const TEvent&)";
constexpr const char* KCompleted = "virtual void CMainCPULoader::Completed(TBool)";
constexpr const char* KAborted = "virtual void CMainCPULoader::Aborted()";

/** The log of a user event: the two lines that each begins with, then these. */
template <typename... TLines>
std::vector<LogLine> UserEvent(TUint32 code, const TLines&... lines) {
  return {KController.Interface(KOnEvent, "Event: 3"),
          KController.Interface(KOnEvent, "UserEvent: " + std::to_string(code)), lines...};
}

const std::vector<LogLine>& Log() {
  return RecordedLog::Instance().Lines();
}

class MainCPULoaderTest : public staged::ControllerTest {
 protected:
  static bool IsDelivered(const support::BrokerCall& call, support::BrokerCall::Kind kind,
                          TUint32 code) {
    return call.kind == kind && call.event.iType == EEventUser && call.event.iCode == code;
  }
};

// Layout

TEST_F(MainCPULoaderTest, IsAModuleThenACallbackThenAnObserver) {
  Create();

  const auto address = [](const void* part) { return reinterpret_cast<std::uintptr_t>(part); };
  const std::uintptr_t whole = address(controller_.get());
  EXPECT_EQ(whole, address(static_cast<IFeatureModule2*>(controller_.get())));
  EXPECT_EQ(whole + sizeof(void*), address(static_cast<ILoaderCallback*>(controller_.get())));
  EXPECT_EQ(whole + 2 * sizeof(void*), address(static_cast<IEventObserver*>(controller_.get())));
}

TEST_F(MainCPULoaderTest, LoaderAndCallbackOperationsKeepTheirSlots) {
  using support::KFirstSlot;
  EXPECT_EQ(KFirstSlot, support::VirtualSlot(&ILoader::Prepare));
  EXPECT_EQ(KFirstSlot + 1, support::VirtualSlot(&ILoader::Install));
  EXPECT_EQ(KFirstSlot + 2, support::VirtualSlot(&ILoader::Abort));

  EXPECT_EQ(KFirstSlot, support::VirtualSlot(&ILoaderCallback::Progress));
  EXPECT_EQ(KFirstSlot + 1, support::VirtualSlot(&ILoaderCallback::Completed));
  EXPECT_EQ(KFirstSlot + 2, support::VirtualSlot(&ILoaderCallback::Aborted));
}

// Creation and destruction

TEST_F(MainCPULoaderTest, CreationSubscribesPrepareInstallAbortAndThenAnnouncesTheFeature) {
  Create();

  const auto& calls = broker_.Calls();
  ASSERT_THAT(calls, SizeIs(4));
  EXPECT_TRUE(IsDelivered(calls[0], support::BrokerCall::KSubscribe, 201));
  EXPECT_TRUE(IsDelivered(calls[1], support::BrokerCall::KSubscribe, 203));
  EXPECT_TRUE(IsDelivered(calls[2], support::BrokerCall::KSubscribe, 206));
  EXPECT_TRUE(IsDelivered(calls[3], support::BrokerCall::KPost, 200));
  for (std::size_t index = 0; index < 3; ++index) {
    EXPECT_EQ(0U, calls[index].event.iSize);
    EXPECT_EQ(static_cast<IEventObserver*>(controller_.get()), calls[index].observer);
  }
  EXPECT_EQ("feature", broker_.Posts().at(0).payload);
  EXPECT_EQ(7U, calls[3].event.iSize);
}

TEST_F(MainCPULoaderTest, CreationReadsNoPropertyAndCreatesNoLoader) {
  Create();

  EXPECT_THAT(properties_.Lookups(), IsEmpty());
  EXPECT_THAT(stage_.creates, IsEmpty());
}

TEST_F(MainCPULoaderTest, CreationLogsItsSignatureAndTheSubscription) {
  Create();

  EXPECT_THAT(
      Log(), ElementsAre(KController.Interface(KConstructor), KController.Info("SubscribeEvents")));
}

TEST_F(MainCPULoaderTest, DestructionUnsubscribesTheSameUnchangedRecordsInTheSameOrder) {
  Create();
  const auto subscribed = broker_.Calls();
  broker_.Forget();
  const IEventObserver* observer = controller_.get();

  controller_.reset();

  const auto& calls = broker_.Calls();
  ASSERT_THAT(calls, SizeIs(3));
  for (std::size_t index = 0; index < 3; ++index) {
    EXPECT_EQ(support::BrokerCall::KUnsubscribe, calls[index].kind);
    EXPECT_EQ(subscribed[index].record, calls[index].record);
    EXPECT_EQ(subscribed[index].event.iType, calls[index].event.iType);
    EXPECT_EQ(subscribed[index].event.iCode, calls[index].event.iCode);
    EXPECT_EQ(0U, calls[index].event.iSize);
    EXPECT_EQ(observer, calls[index].observer);
  }
}

TEST_F(MainCPULoaderTest, DestructionDeletesLoadersFrontToBackThenTheFactoryAfterUnsubscribing) {
  std::size_t subscriptionsAtFirstDelete = 99;
  CreatePrepared({1, 2, 3});
  stage_.items[0].onDelete = [&] { subscriptionsAtFirstDelete = broker_.Subscriptions().size(); };

  controller_.reset();

  EXPECT_THAT(stage_.journal, ElementsAre("delete 0", "delete 1", "delete 2", "delete factory"));
  EXPECT_EQ(0U, subscriptionsAtFirstDelete);
}

TEST_F(MainCPULoaderTest, DestructionPassesOverMissingLoaders) {
  stage_.items = std::vector<Item>(3);
  stage_.items[0].ready = EFalse;
  stage_.items[1].missing = true;
  Create();
  Prepare();
  Forget();

  controller_.reset();

  EXPECT_THAT(stage_.journal, ElementsAre("delete 0", "delete 2", "delete factory"));
}

TEST_F(MainCPULoaderTest, DestructionDoesNotAbortTheRunningLoader) {
  CreatePrepared({1});
  Install();
  Forget();

  controller_.reset();

  EXPECT_THAT(stage_.journal, ElementsAre("delete 0", "delete factory"));
  EXPECT_THAT(broker_.Posts(), IsEmpty());
}

TEST_F(MainCPULoaderTest, DestructionLogsItsSignatureAndTheUnsubscription) {
  Create();
  Forget();

  controller_.reset();

  EXPECT_THAT(Log(), ElementsAre(KController.Interface(KDestructor),
                                 KController.Info("UnsubscribeEvents")));
}

// Dispatch

TEST_F(MainCPULoaderTest, EventsOfOtherTypesAreLoggedAndIgnored) {
  CreatePrepared({1});

  for (const TUint32 type : {0U, 1U, 2U, 4U, 4294967295U}) {
    Forget();
    controller_->OnEvent({type, EUserEventControllerAbort, 0, nullptr});

    const std::string number = std::to_string(type);
    EXPECT_THAT(Log(), ElementsAre(KController.Interface(KOnEvent, "Event: " + number),
                                   KController.Error("OnEvent", "Unexpected event: " + number)));
    EXPECT_THAT(broker_.Calls(), IsEmpty());
    EXPECT_THAT(stage_.journal, IsEmpty());
  }
}

TEST_F(MainCPULoaderTest, OtherUserEventsAreLoggedAndIgnored) {
  CreatePrepared({1});

  for (const TUint32 code : {0U, 199U, 200U, 202U, 204U, 205U, 207U, 208U, 4294967295U}) {
    Forget();
    controller_->OnEvent({EEventUser, code, 7, "feature"});

    EXPECT_EQ(Log(),
              UserEvent(code, KController.Error("OnEvent", "Unexpected user event received: " +
                                                               std::to_string(code))));
    EXPECT_THAT(broker_.Calls(), IsEmpty());
    EXPECT_THAT(stage_.journal, IsEmpty());
  }
}

TEST_F(MainCPULoaderTest, PrepareAndInstallForAnotherFeatureAreIgnoredInSilence) {
  using namespace std::string_literals;
  CreatePrepared({1});

  for (const TUint32 code : {EUserEventControllerPrepare, EUserEventControllerInstall}) {
    for (const std::string& other : {"feature\0"s, "featur"s, "features"s, "Feature"s, "gfeature"s,
                                     "featurf"s, " feature"s, ""s}) {
      Forget();
      broker_.DeliverUser(code, other);

      EXPECT_EQ(Log(), UserEvent(code)) << other;
      EXPECT_THAT(broker_.Posts(), IsEmpty()) << other;
      EXPECT_THAT(stage_.journal, IsEmpty()) << other;
    }
  }
}

TEST_F(MainCPULoaderTest, AnAddressWithoutBytesIsNoAddress) {
  CreatePrepared({1});

  for (const TUint32 size : {0U, 7U}) {
    broker_.Deliver({EEventUser, EUserEventControllerInstall, size, nullptr});
    EXPECT_THAT(stage_.journal, IsEmpty()) << size;
  }
}

TEST_F(MainCPULoaderTest, AnEmptyIdIsAddressedByNoBytesOnly) {
  UseId("");
  CreatePrepared({1});

  broker_.Deliver({EEventUser, EUserEventControllerInstall, 1, nullptr});
  EXPECT_THAT(stage_.journal, IsEmpty());

  broker_.Deliver({EEventUser, EUserEventControllerInstall, 0, nullptr});
  EXPECT_THAT(stage_.journal, ElementsAre("install 0"));
}

TEST_F(MainCPULoaderTest, IdsAreComparedOverAllTheirBytes) {
  UseId(std::string("a\0b", 3));
  CreatePrepared({1});

  broker_.DeliverUser(EUserEventControllerInstall, std::string("a\0c", 3));
  EXPECT_THAT(stage_.journal, IsEmpty());

  broker_.DeliverUser(EUserEventControllerInstall, std::string("a\0b", 3));
  EXPECT_THAT(stage_.journal, ElementsAre("install 0"));
}

TEST_F(MainCPULoaderTest, AbortIsObeyedWhateverItsPayload) {
  CreatePrepared({1});
  Install();
  for (const char* payload : {"", "another", "feature"}) {
    Forget();
    broker_.DeliverUser(EUserEventControllerAbort, payload);
    EXPECT_THAT(stage_.journal, ElementsAre("abort 0")) << payload;
  }
  Forget();
  broker_.Deliver({EEventUser, EUserEventControllerAbort, 0, nullptr});
  EXPECT_THAT(stage_.journal, ElementsAre("abort 0"));
}

// Prepare

TEST_F(MainCPULoaderTest, PrepareReadsBothListsAndHandsThemToTheFactory) {
  properties_.values = {{"updatelist", "userfs;boot"}, {"updateprogresslist", "60;40"}};
  Create();

  Prepare();

  EXPECT_THAT(properties_.Lookups(), ElementsAre("updatelist", "updateprogresslist"));
  ASSERT_THAT(stage_.creates, SizeIs(1));
  EXPECT_EQ("userfs;boot", stage_.creates[0].updateList);
  EXPECT_EQ("60;40", stage_.creates[0].progressList);
  EXPECT_EQ(0U, stage_.creates[0].loadersBefore);
  EXPECT_EQ("feature", stage_.creates[0].featureId);
  EXPECT_EQ(&broker_, stage_.creates[0].eventBroker);
  EXPECT_EQ(&properties_, stage_.creates[0].properties);
  EXPECT_EQ(static_cast<ILoaderCallback*>(controller_.get()), stage_.callback);
}

TEST_F(MainCPULoaderTest, PrepareLogsEveryStep) {
  stage_.items = std::vector<Item>(1);
  Create();
  Forget();

  Prepare();

  EXPECT_EQ(Log(),
            UserEvent(201, KController.Info("HandleControllerPrepare"),
                      KController.Info("ParseProperties"),
                      KController.Info("ParseProperties", "updatelist: a;b, progresslist: 1;2")));
}

TEST_F(MainCPULoaderTest, PrepareCallsEveryLoaderInOrderAndThenPostsTheResult) {
  stage_.items = std::vector<Item>(3);
  std::size_t postsAtTheLast = 99;
  stage_.items[2].onPrepare = [&] { postsAtTheLast = broker_.Posts().size(); };
  Create();
  Forget();

  Prepare();

  EXPECT_THAT(stage_.journal, ElementsAre("prepare 0", "prepare 1", "prepare 2"));
  EXPECT_EQ(0U, postsAtTheLast);
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
}

TEST_F(MainCPULoaderTest, PrepareStopsAtTheFirstLoaderThatIsNotReady) {
  stage_.items = std::vector<Item>(3);
  stage_.items[1].ready = EFalse;
  Create();
  Forget();

  Prepare();

  EXPECT_THAT(stage_.journal, ElementsAre("prepare 0", "prepare 1"));
  EXPECT_THAT(Answers(), ElementsAre("prepared 0"));
}

TEST_F(MainCPULoaderTest, AnyReadinessOtherThanZeroCounts) {
  stage_.items = std::vector<Item>(2);
  stage_.items[0].ready = 2;
  Create();
  Forget();

  Prepare();

  EXPECT_THAT(stage_.journal, ElementsAre("prepare 0", "prepare 1"));
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
}

TEST_F(MainCPULoaderTest, AMissingUpdateListFailsThePrepareAndTheProgressListIsNotLookedUp) {
  properties_.values.erase("updatelist");
  stage_.items = std::vector<Item>(1);
  Create();
  Forget();

  Prepare();

  EXPECT_THAT(properties_.Lookups(), ElementsAre("updatelist"));
  EXPECT_THAT(stage_.creates, IsEmpty());
  EXPECT_THAT(Answers(), ElementsAre("prepared 0"));
  EXPECT_EQ(Log(), UserEvent(201, KController.Info("HandleControllerPrepare"),
                             KController.Info("ParseProperties"),
                             KController.Error("ParseProperties",
                                               "Failed to retrieve 'updatelist' property")));
}

TEST_F(MainCPULoaderTest, AMissingProgressListFailsThePrepareWithTheWordsForTheUpdateList) {
  properties_.values.erase("updateprogresslist");
  Create();
  Forget();

  Prepare();

  EXPECT_THAT(properties_.Lookups(), ElementsAre("updatelist", "updateprogresslist"));
  EXPECT_THAT(stage_.creates, IsEmpty());
  EXPECT_THAT(Answers(), ElementsAre("prepared 0"));
  EXPECT_THAT(RecordedLog::Instance().Errors(),
              ElementsAre(KController.Error("ParseProperties",
                                            "Failed to retrieve 'updatelist' property")));
}

TEST_F(MainCPULoaderTest, APrepareAfterAFailedLookupTriesAgain) {
  properties_.values.erase("updatelist");
  stage_.items = std::vector<Item>(1);
  Create();
  Prepare();
  Forget();
  properties_.values["updatelist"] = "a";

  Prepare();

  EXPECT_THAT(stage_.journal, ElementsAre("prepare 0"));
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
}

TEST_F(MainCPULoaderTest, APrepareWithoutUsableItemsSucceedsAndItsInstallEndsAtOnce) {
  Create();
  Forget();

  Prepare();
  Install();

  EXPECT_THAT(Answers(), ElementsAre("prepared 1", "installed 1"));
  EXPECT_THAT(stage_.journal, IsEmpty());
}

TEST_F(MainCPULoaderTest, APrepareAfterOneWithoutUsableItemsReadsTheListsAgain) {
  Create();
  Prepare();

  Prepare();

  EXPECT_THAT(properties_.Lookups(), SizeIs(4));
  EXPECT_THAT(stage_.creates, SizeIs(2));
}

TEST_F(MainCPULoaderTest, ASecondPrepareKeepsTheLoadersAndReadsNoProperties) {
  stage_.items = std::vector<Item>(2);
  Create();
  Prepare();
  const auto lookups = properties_.Lookups();
  Forget();
  properties_.values.clear();

  Prepare();

  EXPECT_EQ(lookups, properties_.Lookups());
  EXPECT_THAT(stage_.creates, SizeIs(1));
  EXPECT_THAT(stage_.journal, ElementsAre("prepare 0", "prepare 1"));
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
  EXPECT_EQ(Log(), UserEvent(201, KController.Info("HandleControllerPrepare"),
                             KController.Info("ParseProperties")));
}

TEST_F(MainCPULoaderTest, LoadersThatWereNotReadyAreAskedAgainByALaterPrepare) {
  stage_.items = std::vector<Item>(2);
  stage_.items[0].ready = EFalse;
  Create();
  Prepare();
  Forget();
  stage_.items[0].ready = ETrue;

  Prepare();

  EXPECT_THAT(stage_.journal, ElementsAre("prepare 0", "prepare 1"));
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
}

TEST_F(MainCPULoaderTest, APrepareWhileALoaderRunsPreparesAllAndTheRunGoesOn) {
  CreatePrepared({1, 1});
  Install();
  Forget();

  Prepare();
  Callback().Completed(ETrue);

  EXPECT_THAT(stage_.journal, ElementsAre("prepare 0", "prepare 1", "install 1"));
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
}

// Install

TEST_F(MainCPULoaderTest, AnInstallBeforeAnyPrepareSucceedsAtOnce) {
  stage_.items = std::vector<Item>(1);
  Create();
  Forget();

  Install();

  EXPECT_THAT(Answers(), ElementsAre("installed 1"));
  EXPECT_THAT(stage_.journal, IsEmpty());
  EXPECT_EQ(Log(), UserEvent(203, KController.Info("HandleControllerInstall")));
}

TEST_F(MainCPULoaderTest, AnInstallAfterAPrepareThatFoundALoaderNotReadyStartsTheFirst) {
  stage_.items = std::vector<Item>(2);
  stage_.items[1].ready = EFalse;
  Create();
  Prepare();
  Forget();

  Install();

  EXPECT_THAT(stage_.journal, ElementsAre("install 0"));
}

TEST_F(MainCPULoaderTest, InstallStartsTheFirstLoaderAndWaitsForIt) {
  CreatePrepared({1, 2});

  Install();

  EXPECT_THAT(stage_.journal, ElementsAre("install 0"));
  EXPECT_THAT(broker_.Posts(), IsEmpty());
  EXPECT_EQ(Log(), UserEvent(203, KController.Info("HandleControllerInstall")));
}

TEST_F(MainCPULoaderTest, CompletionStartsTheNextLoader) {
  CreatePrepared({1, 2, 3});
  Install();
  Forget();

  Callback().Completed(ETrue);

  EXPECT_THAT(stage_.journal, ElementsAre("install 1"));
  EXPECT_THAT(broker_.Posts(), IsEmpty());
  EXPECT_THAT(Log(), ElementsAre(KController.Interface(KCompleted, "Successful: ETrue"),
                                 KController.Info("HandleLoaderCompleted")));
}

TEST_F(MainCPULoaderTest, CompletionOfTheLastLoaderPostsOneResultAndWritesOneAlwaysLine) {
  CreatePrepared({1, 2});
  Install();
  Callback().Completed(ETrue);
  Forget();
  std::size_t linesAtPost = 99;
  broker_.onPost = [&](const support::PostedEvent&) { linesAtPost = Log().size(); };

  Callback().Completed(ETrue);

  EXPECT_THAT(Answers(), ElementsAre("installed 1"));
  EXPECT_THAT(Log(), ElementsAre(KController.Interface(KCompleted, "Successful: ETrue"),
                                 KController.Info("HandleLoaderCompleted"),
                                 KController.Always("HandleLoaderCompleted",
                                                    "SWL: Finished upload in MainCPULoader")));
  EXPECT_EQ(2U, linesAtPost) << "the result goes out before the last line";
  EXPECT_THAT(stage_.journal, IsEmpty());
}

TEST_F(MainCPULoaderTest, AFailedLoaderEndsTheRunAndTheRestIsNotStarted) {
  CreatePrepared({1, 2, 3});
  Install();
  Callback().Completed(ETrue);
  Forget();

  Callback().Completed(EFalse);

  EXPECT_THAT(Answers(), ElementsAre("installed 0"));
  EXPECT_THAT(stage_.journal, IsEmpty());
  EXPECT_THAT(Log(), ElementsAre(KController.Interface(KCompleted, "Successful: EFalse"),
                                 KController.Info("HandleLoaderFailed")));
}

TEST_F(MainCPULoaderTest, AnySuccessOtherThanZeroCounts) {
  CreatePrepared({1, 1});
  Install();
  Forget();

  Callback().Completed(-1);

  EXPECT_THAT(stage_.journal, ElementsAre("install 1"));
  EXPECT_EQ(KController.Interface(KCompleted, "Successful: ETrue"), Log().at(0));
}

TEST_F(MainCPULoaderTest, SynchronousLoadersNestOneInTheOther) {
  CreatePrepared({1, 1, 1});
  for (std::size_t index = 0; index < 3; ++index) {
    stage_.items[index].onInstall = [this, index] {
      Callback().Completed(ETrue);
      stage_.Note("leave " + std::to_string(index));
    };
  }

  Install();

  EXPECT_THAT(stage_.journal,
              ElementsAre("install 0", "install 1", "install 2", "leave 2", "leave 1", "leave 0"));
  EXPECT_THAT(Answers(), ElementsAre("installed 1"));
}

TEST_F(MainCPULoaderTest, AnInstallWhileALoaderRunsStartsAgainWithTheFirst) {
  CreatePrepared({1, 1, 1});
  Install();
  Callback().Completed(ETrue);
  Forget();

  Install();
  Callback().Completed(ETrue);

  EXPECT_THAT(stage_.journal, ElementsAre("install 0", "install 1"));
  EXPECT_THAT(broker_.Posts(), IsEmpty());
}

TEST_F(MainCPULoaderTest, AnInstallAfterTheEndRunsAllLoadersAgain) {
  CreatePrepared({1, 1});
  for (auto& item : stage_.items) {
    item.onInstall = [this] { Callback().Completed(ETrue); };
  }

  Install();
  Install();

  EXPECT_THAT(stage_.journal, ElementsAre("install 0", "install 1", "install 0", "install 1"));
  EXPECT_THAT(Answers(), ElementsAre("installed 1", "installed 1"));
}

TEST_F(MainCPULoaderTest, AnInstallAfterAFailureStartsAgainWithTheFirst) {
  CreatePrepared({1, 1});
  Install();
  Callback().Completed(ETrue);
  Callback().Completed(EFalse);
  Forget();

  Install();

  EXPECT_THAT(stage_.journal, ElementsAre("install 0"));
}

TEST_F(MainCPULoaderTest, WorksWithABrokerThatDeliversWhileItIsPostedTo) {
  stage_.items = std::vector<Item>(2);
  for (auto& item : stage_.items) {
    item.onInstall = [this] { Callback().Completed(ETrue); };
  }
  broker_.onPost = [this](const support::PostedEvent& post) {
    if (post.code == EUserEventFeatureCreated) {
      Prepare();
    } else if (post.code == EUserEventPrepareResult) {
      Install();
    } else if (post.code == EUserEventInstallResult) {
      Abort();
    }
  };
  stage_.items[1].onAbort = [this] { Callback().Aborted(); };

  Create();

  EXPECT_THAT(Answers(), ElementsAre("created feature", "prepared 1", "installed 1", "aborted 1"));
}

// Abort

TEST_F(MainCPULoaderTest, AnAbortBeforeAnythingStartedIsAcknowledgedAtOnce) {
  Create();
  Forget();

  Abort();

  EXPECT_THAT(Answers(), ElementsAre("aborted 1"));
  EXPECT_EQ(Log(), UserEvent(206, KController.Info("HandleControllerAbort"),
                             KController.Info("HandleLoaderAborted")));
}

TEST_F(MainCPULoaderTest, AnAbortBetweenPrepareAndInstallIsAcknowledgedAtOnce) {
  CreatePrepared({1});

  Abort();

  EXPECT_THAT(Answers(), ElementsAre("aborted 1"));
  EXPECT_THAT(stage_.journal, IsEmpty());
}

TEST_F(MainCPULoaderTest, AnAbortDuringARunIsAcknowledgedOnlyWhenTheLoaderHasStopped) {
  CreatePrepared({1, 1});
  Install();
  Callback().Completed(ETrue);
  Forget();

  Abort();

  EXPECT_THAT(stage_.journal, ElementsAre("abort 1"));
  EXPECT_THAT(broker_.Posts(), IsEmpty());
  EXPECT_EQ(Log(), UserEvent(206, KController.Info("HandleControllerAbort")));
  Forget();

  Callback().Aborted();

  EXPECT_THAT(Answers(), ElementsAre("aborted 1"));
  EXPECT_THAT(
      Log(), ElementsAre(KController.Interface(KAborted), KController.Info("HandleLoaderAborted")));
}

TEST_F(MainCPULoaderTest, AnAbortAfterTheEndGoesToTheLastStartedLoader) {
  CreatePrepared({1, 1});
  Install();
  Callback().Completed(ETrue);
  Callback().Completed(ETrue);
  Forget();

  Abort();

  EXPECT_THAT(stage_.journal, ElementsAre("abort 1"));
  EXPECT_THAT(broker_.Posts(), IsEmpty());
}

TEST_F(MainCPULoaderTest, AnAbortAfterAFailureGoesToTheLoaderThatFailed) {
  CreatePrepared({1, 1, 1});
  Install();
  Callback().Completed(ETrue);
  Callback().Completed(EFalse);
  Forget();

  Abort();

  EXPECT_THAT(stage_.journal, ElementsAre("abort 1"));
}

TEST_F(MainCPULoaderTest, AnInstallAfterAnAbortStartsAgainWithTheFirst) {
  CreatePrepared({1, 1});
  Install();
  Callback().Completed(ETrue);
  Abort();
  Callback().Aborted();
  Forget();

  Install();

  EXPECT_THAT(stage_.journal, ElementsAre("install 0"));
}

// Long lists

class LongListTest : public staged::ControllerTest {
 protected:
  /** How many loaders a run of a list of this length starts; all finish inside their Install. */
  std::size_t LoadersRun(std::size_t count) {
    stage_.items = std::vector<Item>(count);
    stage_.journalling = false;
    std::size_t started = 0;
    for (auto& item : stage_.items) {
      item.onInstall = [this, &started] {
        ++started;
        Callback().Completed(ETrue);
      };
    }
    Create();
    Prepare();
    broker_.Forget();
    Install();
    EXPECT_THAT(Answers(), ElementsAre("installed 1"));
    return started;
  }
};

TEST_F(LongListTest, TheNumberOfLoadersIsTakenModulo65536) {
  EXPECT_EQ(4464U, LoadersRun(70000));
}

TEST_F(LongListTest, OfALongListWhoseCountWrapsToZeroOnlyTheFirstLoaderRuns) {
  EXPECT_EQ(1U, LoadersRun(65536));
}

TEST_F(LongListTest, AllOfManyLoadersRun) {
  EXPECT_EQ(300U, LoadersRun(300));
}

}  // namespace
