#include <cstring>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <memory>

#include "featurehost/src/HostError.h"
#include "featurehost/src/UpdateController.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/** Records the events that are shown. */
class RecordingReport : public RunReport {
 public:
  void Event(const RunEvent& event) override {
    std::string text = std::to_string(event.code) + " " + event.feature;
    text += event.percent.has_value() ? " " + std::to_string(*event.percent) + " %" : "";
    text += event.success.has_value() ? (*event.success ? " yes" : " no") : "";
    events.push_back(text);
  }
  std::vector<std::string> events;
};

/** A feature that does what the test says on each event of the update control. */
class Feature : public IEventObserver {
 public:
  explicit Feature(Broker& broker) : broker_(broker) {
    broker_.Subscribe(prepare_, this);
    broker_.Subscribe(install_, this);
    broker_.Subscribe(abort_, this);
  }
  ~Feature() override {
    broker_.Unsubscribe(prepare_, this);
    broker_.Unsubscribe(install_, this);
    broker_.Unsubscribe(abort_, this);
  }

  Feature(const Feature&) = delete;
  Feature& operator=(const Feature&) = delete;

  void OnEvent(const TEvent& event) override {
    received.push_back(std::to_string(event.iCode) + " " +
                       std::string(static_cast<const char*>(event.iData), event.iSize));
    if (on[event.iCode]) {
      on[event.iCode]();
    }
  }

  void PostId(TUint32 code, const std::string& id = "feature") {
    broker_.PostEvent({EEventUser, code, static_cast<TUint32>(id.size()), id.data()});
  }
  void PostResult(TUint32 code, TBool result, const std::string& id = "feature") {
    TFeatureResultPayload payload{};
    std::memcpy(payload.iFeatureId, id.data(), id.size());
    payload.iResult = result;
    broker_.PostEvent({EEventUser, code, sizeof payload, &payload});
  }
  void PostProgress(TUint8 percentage) {
    TFeatureProgressPayload payload{};
    std::memcpy(payload.iFeatureId, "feature", 7);
    payload.iPercentage = percentage;
    broker_.PostEvent({EEventUser, EUserEventInstallProgress, sizeof payload, &payload});
  }

  std::map<TUint32, std::function<void()>> on;
  std::vector<std::string> received;

 private:
  Broker& broker_;
  const TEvent prepare_{EEventUser, EUserEventControllerPrepare, 0, nullptr};
  const TEvent install_{EEventUser, EUserEventControllerInstall, 0, nullptr};
  const TEvent abort_{EEventUser, EUserEventControllerAbort, 0, nullptr};
};

class UpdateControllerTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    Make(Goal::kInstall);
    feature_->on[201] = [this] { feature_->PostResult(202, ETrue); };
    feature_->on[203] = [this] { feature_->PostResult(204, ETrue); };
    feature_->on[206] = [this] { feature_->PostResult(207, ETrue); };
    feature_->PostId(200);
  }

  void TearDown() override {
    End();
    HostTest::TearDown();
  }

  void Make(Goal goal) {
    End();
    loop_ = std::make_unique<EventLoop>();
    broker_ = std::make_unique<Broker>(*loop_);
    controller_ = std::make_unique<UpdateController>(*loop_, *broker_, "feature", goal, report_);
    feature_ = std::make_unique<Feature>(*broker_);
  }

  void End() {
    feature_.reset();
    controller_.reset();
    broker_.reset();
    loop_.reset();
  }

  RecordingReport report_;
  std::unique_ptr<EventLoop> loop_;
  std::unique_ptr<Broker> broker_;
  std::unique_ptr<UpdateController> controller_;
  std::unique_ptr<Feature> feature_;
};

TEST_F(UpdateControllerTest, AnnouncedFeatureIsPreparedAndInstalled) {
  feature_->on[203] = [this] {
    feature_->PostProgress(0);
    feature_->PostProgress(100);
    feature_->PostResult(204, ETrue);
    feature_->PostProgress(7);
  };
  const Outcome outcome = controller_->Run();

  EXPECT_THAT(feature_->received, ElementsAre("201 feature", "203 feature"));
  EXPECT_THAT(report_.events, ElementsAre("200 feature", "201 feature", "202 feature yes",
                                          "203 feature", "205 feature 0 %", "205 feature 100 %"))
      << "the last event is for the outcome, and nothing counts after it";
  EXPECT_EQ(ExitCode::kSuccess, outcome.code);
  EXPECT_THAT(outcome.text, StartsWith("installed feature in "));
  ASSERT_TRUE(outcome.last.has_value());
  EXPECT_EQ(204U, outcome.last->code);
  EXPECT_EQ(true, outcome.last->success);
}

TEST_F(UpdateControllerTest, PrepareAloneEndsWithItsResult) {
  Make(Goal::kPrepare);
  feature_->on[201] = [this] { feature_->PostResult(202, 7); };
  feature_->PostId(200);
  const Outcome outcome = controller_->Run();

  EXPECT_THAT(feature_->received, ElementsAre("201 feature"));
  EXPECT_EQ(ExitCode::kSuccess, outcome.code) << "any value but zero is true";
  EXPECT_EQ("prepared feature", outcome.text);
}

TEST_F(UpdateControllerTest, FailedPrepareIsNotInstalled) {
  feature_->on[201] = [this] { feature_->PostResult(202, EFalse); };
  const Outcome outcome = controller_->Run();

  EXPECT_THAT(feature_->received, ElementsAre("201 feature"));
  EXPECT_EQ(ExitCode::kPrepareFailed, outcome.code);
  EXPECT_EQ(false, outcome.last->success);
}

TEST_F(UpdateControllerTest, FailedInstallEndsTheRun) {
  feature_->on[203] = [this] {
    feature_->PostResult(204, EFalse);
    feature_->PostResult(204, ETrue);
  };
  EXPECT_EQ(ExitCode::kInstallFailed, controller_->Run().code) << "the first result counts";
}

TEST_F(UpdateControllerTest, FeatureThatDoesNotAnnounceItselfIsNotRun) {
  Make(Goal::kInstall);
  feature_->PostId(200, "another");
  try {
    controller_->Run();
    FAIL() << "no error";
  } catch (const HostError& error) {
    EXPECT_EQ(ExitCode::kModuleNotLoaded, error.Code());
    EXPECT_STREQ("the module did not announce feature 'feature'", error.what());
  }
  EXPECT_THAT(feature_->received, IsEmpty());
}

TEST_F(UpdateControllerTest, EventsOfOtherFeaturesAndMalformedOnesAreIgnored) {
  feature_->on[201] = [this] {
    feature_->PostResult(202, EFalse, "another");
    feature_->PostId(202);
    feature_->PostId(205);
    feature_->PostResult(202, ETrue);
  };
  EXPECT_EQ(ExitCode::kSuccess, controller_->Run().code);
  EXPECT_THAT(LogText(), HasSubstr("event 202 with a payload of 7 bytes makes no sense; ignored"));
  EXPECT_THAT(LogText(), HasSubstr("event 205 with a payload of 7 bytes makes no sense; ignored"));
}

TEST_F(UpdateControllerTest, AbortIsPostedWithTheIdAndWaitsForTheAcknowledgement) {
  feature_->on[203] = [this] { controller_->Abort(); };
  const Outcome outcome = controller_->Run();

  EXPECT_THAT(feature_->received, ElementsAre("201 feature", "203 feature", "206 feature"));
  EXPECT_EQ(ExitCode::kAborted, outcome.code);
  EXPECT_EQ("aborted feature 'feature'", outcome.text);
  EXPECT_EQ(207U, outcome.last->code);
}

TEST_F(UpdateControllerTest, SecondAbortDoesNotWait) {
  feature_->on[203] = [this] { controller_->Abort(); };
  feature_->on[206] = [this] { controller_->Abort(); };
  const Outcome outcome = controller_->Run();

  EXPECT_EQ(ExitCode::kAborted, outcome.code);
  EXPECT_FALSE(outcome.last.has_value());
}

TEST_F(UpdateControllerTest, AbortDuringThePrepareKeepsTheInstallFromStarting) {
  feature_->on[201] = [this] {
    controller_->Abort();
    feature_->PostResult(202, ETrue);
  };
  EXPECT_EQ(ExitCode::kAborted, controller_->Run().code);
  EXPECT_THAT(feature_->received, ElementsAre("201 feature", "206 feature"));
}

TEST_F(UpdateControllerTest, ResultThatWasReachedBeforeTheAbortStands) {
  feature_->on[203] = [this] {
    feature_->PostResult(204, ETrue);  // the whole install ran inside this call
    controller_->Abort();
  };
  const Outcome outcome = controller_->Run();
  EXPECT_EQ(ExitCode::kSuccess, outcome.code);
  EXPECT_THAT(outcome.text, EndsWith("; the abort came too late"));
}

TEST_F(UpdateControllerTest, ResultThatAnswersTheAbortIsPartOfIt) {
  feature_->on[203] = [this] { controller_->Abort(); };
  feature_->on[206] = [this] {
    feature_->PostResult(204, EFalse);
    feature_->PostResult(207, ETrue);
  };
  EXPECT_EQ(ExitCode::kAborted, controller_->Run().code);
}

TEST_F(UpdateControllerTest, AcknowledgementThatNobodyAskedForIsIgnored) {
  feature_->on[201] = [this] {
    feature_->PostResult(207, ETrue);
    feature_->PostResult(202, ETrue);
  };
  EXPECT_EQ(ExitCode::kSuccess, controller_->Run().code);
}

}  // namespace
}  // namespace featurehost
