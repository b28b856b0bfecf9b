#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/blackbox/LoadedModule.h"
#include "tests/support/Answers.h"
#include "tests/support/CleanTest.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/TempDir.h"

namespace {

using blackbox::LoadedModule;
using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/** A host that knows nothing of the module but its two entries and the events. */
class ExchangeTest : public support::CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    data_ = support::RandomBytes(5000);
    support::WriteFile(directory_ / "factory.bin", data_);
    properties_.values = {{"updatelist", "factorydata"},
                          {"updateprogresslist", "100"},
                          {"factorydatasource", directory_ / "factory.bin"},
                          {"factorydatatarget", directory_ / "device"},
                          {"factorydataoffset", "1001"},
                          {"factorydatasize", "777"}};
  }

  void Create(const std::string& featureId = "feature") {
    featureId_ = featureId;
    feature_ = module_.Create(featureId, broker_, properties_);
    broker_.Forget();
  }

  void Send(TUint32 code) { broker_.DeliverUser(code, featureId_); }

  std::vector<std::string> Answers() const { return support::Answers(broker_, featureId_); }

  void TearDown() override {
    feature_.reset();
    CleanTest::TearDown();
  }

  support::TempDir directory_;
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  LoadedModule module_;
  std::string featureId_;
  std::unique_ptr<IFeatureModule2> feature_;
  std::string data_;
};

// Entries

TEST_F(ExchangeTest, TheFeatureTypeIsKnownBeforeAnyCreation) {
  EXPECT_EQ("maincpuloader", module_.Type());
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(ExchangeTest, CreationSubscribesToThreeEventsAndPostsExactlyOne) {
  feature_ = module_.Create("feature", broker_, properties_);

  ASSERT_NE(nullptr, feature_);
  ASSERT_THAT(broker_.Subscriptions(), SizeIs(3));
  EXPECT_EQ(201U, broker_.Subscriptions()[0].filter.iCode);
  EXPECT_EQ(203U, broker_.Subscriptions()[1].filter.iCode);
  EXPECT_EQ(206U, broker_.Subscriptions()[2].filter.iCode);
  ASSERT_THAT(broker_.Posts(), SizeIs(1));
  EXPECT_EQ(3U, broker_.Posts()[0].type);
  EXPECT_EQ(200U, broker_.Posts()[0].code);
  EXPECT_EQ("feature", broker_.Posts()[0].payload);
}

// The whole exchange

TEST_F(ExchangeTest, AFactoryDataItemIsRestored) {
  Create();

  Send(EUserEventControllerPrepare);
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
  Send(EUserEventControllerInstall);

  EXPECT_THAT(Answers(), ElementsAre("prepared 1", "progress 100", "installed 1"));
  EXPECT_EQ(data_.substr(1001, 777), support::ReadFile(directory_ / "device"));
  EXPECT_THAT(RecordedLog::Instance().Errors(), IsEmpty());
  EXPECT_EQ(1U, RecordedLog::Instance().LinesOf({logging::categories::Always}).size());
}

TEST_F(ExchangeTest, ItemsRunOneAfterAnotherWithWeightedProgress) {
  properties_.values["updatelist"] = "factorydata;factorydata;factorydata";
  properties_.values["updateprogresslist"] = "20;30;50";
  Create();

  Send(EUserEventControllerPrepare);
  Send(EUserEventControllerInstall);

  EXPECT_THAT(Answers(), ElementsAre("prepared 1", "progress 20", "progress 50", "progress 100",
                                     "installed 1"));
}

TEST_F(ExchangeTest, ASecondInstallRestoresAgainAndItsProgressStartsHigh) {
  properties_.values["updatelist"] = "factorydata;factorydata";
  properties_.values["updateprogresslist"] = "60;40";
  Create();
  Send(EUserEventControllerPrepare);
  Send(EUserEventControllerInstall);
  broker_.Forget();
  support::WriteFile(directory_ / "device", "");

  Send(EUserEventControllerInstall);

  EXPECT_THAT(Answers(), ElementsAre("progress 120", "progress 160", "installed 1"));
  EXPECT_EQ(data_.substr(1001, 777), support::ReadFile(directory_ / "device"));
}

TEST_F(ExchangeTest, AnItemThatFailsEndsTheInstall) {
  properties_.values["updatelist"] = "factorydata;factorydata";
  properties_.values["updateprogresslist"] = "1;1";
  properties_.values["factorydatasource"] = directory_ / "missing";
  Create();

  Send(EUserEventControllerPrepare);
  Send(EUserEventControllerInstall);

  EXPECT_THAT(Answers(), ElementsAre("prepared 1", "installed 0"));
}

TEST_F(ExchangeTest, AnItemThatLacksAPropertyFailsThePrepare) {
  properties_.values.erase("factorydatasize");
  Create();

  Send(EUserEventControllerPrepare);

  EXPECT_THAT(Answers(), ElementsAre("prepared 0"));
}

TEST_F(ExchangeTest, MissingListsFailThePrepare) {
  properties_.values.erase("updateprogresslist");
  Create();

  Send(EUserEventControllerPrepare);

  EXPECT_THAT(Answers(), ElementsAre("prepared 0"));
}

TEST_F(ExchangeTest, AnInstallBeforeAnyPrepareSucceedsAndWritesNothing) {
  Create();

  Send(EUserEventControllerInstall);

  EXPECT_THAT(Answers(), ElementsAre("installed 1"));
  EXPECT_NE(0, access((directory_ / "device").c_str(), F_OK));
}

// Addressing

TEST_F(ExchangeTest, APayloadWithATerminatorAddressesNobody) {
  Create();

  broker_.DeliverUser(EUserEventControllerPrepare, std::string("feature\0", 8));
  broker_.DeliverUser(EUserEventControllerInstall, std::string("feature\0", 8));
  EXPECT_THAT(broker_.Posts(), IsEmpty());

  broker_.DeliverUser(EUserEventControllerPrepare, "feature");
  EXPECT_THAT(Answers(), ElementsAre("prepared 1"));
}

TEST_F(ExchangeTest, AnAbortIsObeyedWhateverItsPayload) {
  Create();

  broker_.DeliverUser(EUserEventControllerAbort, "");
  broker_.DeliverUser(EUserEventControllerAbort, "another feature");
  broker_.DeliverUser(EUserEventControllerAbort, "feature");

  EXPECT_THAT(Answers(), ElementsAre("aborted 1", "aborted 1", "aborted 1"));
}

TEST_F(ExchangeTest, AnAbortAfterTheEndIsAnsweredByTheLastItem) {
  Create();
  Send(EUserEventControllerPrepare);
  Send(EUserEventControllerInstall);
  broker_.Forget();

  Send(EUserEventControllerAbort);

  EXPECT_THAT(Answers(), ElementsAre("aborted 1"));
  EXPECT_EQ("(FactoryDataLoader)\n",
            RecordedLog::Instance().Lines().at(RecordedLog::Instance().Lines().size() - 3).message);
}

TEST_F(ExchangeTest, OfTwoFeaturesOnlyTheAddressedOnePreparesButBothAbort) {
  Create("first");
  const support::FakeProperties none("second");
  auto second = module_.Create("second", broker_, none);
  broker_.Forget();

  broker_.DeliverUser(EUserEventControllerPrepare, "second");
  ASSERT_THAT(broker_.Posts(), SizeIs(1));
  EXPECT_EQ(support::ResultBytes("second", EFalse), broker_.Posts()[0].payload);
  broker_.Forget();

  broker_.DeliverUser(EUserEventControllerAbort, "second");
  ASSERT_THAT(broker_.Posts(), SizeIs(2));
  EXPECT_EQ(support::ResultBytes("first", ETrue), broker_.Posts()[0].payload);
  EXPECT_EQ(support::ResultBytes("second", ETrue), broker_.Posts()[1].payload);
}

TEST_F(ExchangeTest, AnIdOf63BytesFitsItsField) {
  const std::string featureId(63, 'i');
  properties_ = support::FakeProperties(featureId);
  Create(featureId);

  Send(EUserEventControllerPrepare);

  ASSERT_THAT(broker_.Posts(), SizeIs(1));
  EXPECT_EQ(featureId + std::string(5, '\0'), broker_.Posts()[0].payload);
}

TEST_F(ExchangeTest, AShortIdIsFollowedByZeros) {
  Create("x");

  Send(EUserEventControllerAbort);

  ASSERT_THAT(broker_.Posts(), SizeIs(1));
  EXPECT_EQ("x" + std::string(63, '\0'), broker_.Posts()[0].payload.substr(0, 64));
}

TEST_F(ExchangeTest, EventsThatAreNotOursAreLoggedAndIgnored) {
  Create();
  IEventObserver* observer = const_cast<IEventObserver*>(broker_.Subscriptions().at(0).observer);

  observer->OnEvent({EEventTimer, 0, 0, nullptr});
  observer->OnEvent({EEventUser, 208, 0, nullptr});

  EXPECT_THAT(broker_.Posts(), IsEmpty());
  const auto errors = RecordedLog::Instance().Errors();
  ASSERT_THAT(errors, SizeIs(2));
  EXPECT_EQ("(Unexpected event: 0)\n", errors[0].message);
  EXPECT_EQ("(Unexpected user event received: 208)\n", errors[1].message);
}

// The end

TEST_F(ExchangeTest, DestructionUnsubscribesInTheOrderOfSubscription) {
  Create();
  const auto subscriptions = broker_.Subscriptions();

  feature_.reset();

  ASSERT_THAT(broker_.Calls(), SizeIs(3));
  for (std::size_t index = 0; index < 3; ++index) {
    EXPECT_EQ(support::BrokerCall::KUnsubscribe, broker_.Calls()[index].kind);
    EXPECT_EQ(subscriptions[index].record, broker_.Calls()[index].record);
  }
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
}

TEST(ModuleLifeTest, TheModuleCanBeUnloadedAndLoadedAgain) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a module with AddressSanitizer stays in memory, for the names in leak reports";
#endif
  for (int round = 0; round < 3; ++round) {
    {
      support::FakeBroker broker;
      support::FakeProperties properties;
      properties.values = {{"updatelist", "a;checkb;userfs;factorydata;eolsettings"},
                           {"updateprogresslist", "1;1;1;1;1"}};
      LoadedModule module;
      EXPECT_TRUE(LoadedModule::IsInMemory());
      EXPECT_EQ("maincpuloader", module.Type());
      auto feature = module.Create("feature", broker, properties);
      broker.DeliverUser(EUserEventControllerPrepare, "feature");
      EXPECT_THAT(broker.Posts(), SizeIs(2));
      feature.reset();
    }
    EXPECT_FALSE(LoadedModule::IsInMemory()) << "round " << round;
  }
}

}  // namespace
