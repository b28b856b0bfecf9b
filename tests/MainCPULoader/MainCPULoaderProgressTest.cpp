#include <gmock/gmock.h>

#include "tests/MainCPULoader/StagedFactory.h"

namespace {

using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KController(logging::MainCPULoader, "MainCPULoader/src/MainCPULoader");
constexpr const char* KProgress = "virtual void CMainCPULoader::Progress(TUint32, TUint32)";

class MainCPULoaderProgressTest : public staged::ControllerTest {
 protected:
  /** Report a percentage from 0 to 100 and give the overall one that was posted. */
  int Overall(TUint32 percentage) { return OverallOf(100 - percentage, 100); }

  int OverallOf(TUint32 remaining, TUint32 total) {
    broker_.Forget();
    Callback().Progress(remaining, total);
    EXPECT_EQ(1U, broker_.Posts().size());
    const auto& post = broker_.Posts().back();
    const auto overall = static_cast<TUint8>(post.payload.back());
    EXPECT_EQ(EUserEventInstallProgress, post.code);
    EXPECT_EQ(support::ProgressBytes(featureId_, overall), post.payload);
    return overall;
  }

  /** One run of all loaders, each reporting 100 % before it completes. */
  std::vector<int> PercentagesOfARun() {
    std::vector<int> percentages;
    Install();
    for (std::size_t index = 0; index < stage_.items.size(); ++index) {
      percentages.push_back(Overall(100));
      Callback().Completed(ETrue);
    }
    return percentages;
  }
};

// A loader's report becomes its percentage

class LoaderPercentageTest : public MainCPULoaderProgressTest {
 protected:
  /** What one loader that carries all the weight makes of a report. */
  int Percentage(TUint32 remaining, TUint32 total) {
    if (!controller_) {
      CreatePrepared({100});
      Install();
    }
    return OverallOf(remaining, total);
  }
};

TEST_F(LoaderPercentageTest, IsTheDoneShareRoundedToTheNearestPercent) {
  EXPECT_EQ(0, Percentage(1000, 1000));
  EXPECT_EQ(100, Percentage(0, 1000));
  EXPECT_EQ(67, Percentage(333, 1000));
  EXPECT_EQ(1, Percentage(995, 1000));
  EXPECT_EQ(0, Percentage(996, 1000));
  EXPECT_EQ(100, Percentage(0, 4294967295));
  EXPECT_EQ(50, Percentage(2147483648, 4294967295));
  EXPECT_EQ(100, Percentage(1, 4294967295));
  EXPECT_EQ(0, Percentage(4294967295, 4294967295));
}

TEST_F(LoaderPercentageTest, OfATotalOfZeroIs100) {
  EXPECT_EQ(100, Percentage(0, 0));
  EXPECT_EQ(100, Percentage(5, 0));
}

TEST_F(LoaderPercentageTest, WrapsWhenMoreRemainsThanTheTotal) {
  // 429496730, 860714889 and 200, cut to 8 bits.
  EXPECT_EQ(154, Percentage(1001, 1000));
  EXPECT_EQ(137, Percentage(500, 499));
  EXPECT_EQ(200, Percentage(4294967295, 1));
}

TEST_F(LoaderPercentageTest, SaturatesBeforeItIsCutToEightBits) {
  EXPECT_EQ(255, Percentage(2, 1));
  EXPECT_EQ(255, Percentage(101, 100));
  EXPECT_EQ(255, Percentage(4000000000, 2));
}

// Weights

TEST_F(MainCPULoaderProgressTest, WeighsTheRunningLoaderAndCountsTheCompletedOnes) {
  CreatePrepared({20, 30, 50});
  Install();
  EXPECT_EQ(0, Overall(0));
  EXPECT_EQ(10, Overall(50));
  EXPECT_EQ(20, Overall(100));
  Callback().Completed(ETrue);
  EXPECT_EQ(20, Overall(0));
  EXPECT_EQ(35, Overall(50));
  Callback().Completed(ETrue);
  EXPECT_EQ(50, Overall(0));
  EXPECT_EQ(100, Overall(100));
}

TEST_F(MainCPULoaderProgressTest, CountsACompletedLoaderInFullWhateverItReported) {
  CreatePrepared({20, 10, 30, 40});
  Install();
  Callback().Completed(ETrue);
  Callback().Completed(ETrue);
  EXPECT_EQ(45, Overall(50));
}

TEST_F(MainCPULoaderProgressTest, TruncatesAndNeedsNoTotalOf100) {
  CreatePrepared({1, 2});
  Install();
  EXPECT_EQ(33, Overall(100));
  Callback().Completed(ETrue);
  EXPECT_EQ(66, Overall(50));
  EXPECT_EQ(99, Overall(99));
}

TEST_F(MainCPULoaderProgressTest, ATotalWeightOfZeroGivesZero) {
  CreatePrepared({0, 0});
  Install();
  EXPECT_EQ(0, Overall(100));
}

TEST_F(MainCPULoaderProgressTest, WeightsThatCancelOutGiveZero) {
  CreatePrepared({-7, 7});
  Install();
  EXPECT_EQ(0, Overall(100));
}

TEST_F(MainCPULoaderProgressTest, WeightsWhoseSumWrapsToZeroGiveZero) {
  CreatePrepared({2147483647, 2147483647, 2});
  Install();
  EXPECT_EQ(0, Overall(100));
}

TEST_F(MainCPULoaderProgressTest, WeightsWhoseSumWrapsAreComputedWithTheWrappedSum) {
  CreatePrepared({2147483647, 2147483647, 3});
  Install();
  // (2147483647 * 100 mod 2^32) / 1, cut to 8 bits.
  EXPECT_EQ(156, Overall(100));
}

TEST_F(MainCPULoaderProgressTest, ANegativeWeightIsALargeUnsignedOne) {
  CreatePrepared({-5, 105});
  Install();
  // (2^32 - 250) / 100 and (2^32 - 500) / 100, cut to 8 bits.
  EXPECT_EQ(38, Overall(50));
  EXPECT_EQ(35, Overall(100));
}

TEST_F(MainCPULoaderProgressTest, ANegativeTotalIsALargeUnsignedOne) {
  CreatePrepared({-1});
  Install();
  EXPECT_EQ(1, Overall(1));
  EXPECT_EQ(0, Overall(50));
}

TEST_F(MainCPULoaderProgressTest, AWeightedShareThatOverflowsWraps) {
  CreatePrepared({100000000});
  Install();
  // (10^10 mod 2^32) / 10^8.
  EXPECT_EQ(14, Overall(100));
}

// Runs

TEST_F(MainCPULoaderProgressTest, LaterRunsStartHighAndWrap) {
  CreatePrepared({20, 30, 50});
  EXPECT_THAT(PercentagesOfARun(), ElementsAre(20, 50, 100));
  EXPECT_THAT(PercentagesOfARun(), ElementsAre(70, 100, 150));
  EXPECT_THAT(PercentagesOfARun(), ElementsAre(120, 150, 200));
  EXPECT_THAT(PercentagesOfARun(), ElementsAre(170, 200, 250));
  EXPECT_THAT(PercentagesOfARun(), ElementsAre(220, 250, 44));
}

TEST_F(MainCPULoaderProgressTest, APrepareBetweenTwoRunsDoesNotResetThePercentage) {
  CreatePrepared({20, 80});
  PercentagesOfARun();
  Prepare();
  EXPECT_THAT(PercentagesOfARun(), ElementsAre(40, 120));
}

TEST_F(MainCPULoaderProgressTest, ARunThatIsStartedAgainKeepsWhatHadCompleted) {
  CreatePrepared({20, 30, 50});
  Install();
  Callback().Completed(ETrue);
  Install();
  EXPECT_EQ(30, Overall(50));
}

TEST_F(MainCPULoaderProgressTest, AFailedLoaderDoesNotCountAsCompleted) {
  CreatePrepared({20, 80});
  Install();
  Callback().Completed(EFalse);
  Install();
  EXPECT_EQ(0, Overall(0));
}

TEST_F(MainCPULoaderProgressTest, BeforeAnyInstallIsZero) {
  CreatePrepared({100});
  EXPECT_EQ(0, Overall(100));
}

TEST_F(MainCPULoaderProgressTest, WithoutLoadersPostsNothing) {
  Create();
  Forget();

  controller_->Progress(0, 100);

  EXPECT_THAT(broker_.Posts(), IsEmpty());
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KController.Interface(KProgress, "RemainingSize: 0, TotalSize: 100"),
                          KController.Info("HandleLoaderProgress")));
}

TEST_F(MainCPULoaderProgressTest, PostsEveryReportAlsoRepeatedAndFallingOnes) {
  CreatePrepared({100});
  Install();
  Forget();

  for (const TUint32 remaining : {50U, 50U, 90U, 0U, 0U}) {
    Callback().Progress(remaining, 100);
  }

  EXPECT_THAT(Answers(), ElementsAre("progress 50", "progress 50", "progress 10", "progress 100",
                                     "progress 100"));
}

TEST_F(MainCPULoaderProgressTest, LogsTheReportAndBothPercentages) {
  CreatePrepared({20, 30, 50});
  Install();
  Callback().Completed(ETrue);
  Forget();

  Callback().Progress(2147483648, 4294967295);

  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KController.Interface(KProgress,
                                                "RemainingSize: 2147483648, TotalSize: 4294967295"),
                          KController.Info("HandleLoaderProgress"),
                          KController.Info("HandleLoaderProgress",
                                           "Calculated progress: 35. Received progress: 50")));
}

// Payload bytes and log control

class MainCPULoaderIdTest : public MainCPULoaderProgressTest {
 protected:
  /** Everything that a feature with this id posts in its life. */
  std::vector<support::PostedEvent> PostsOfAWholeLife(const std::string& featureId) {
    UseId(featureId);
    stage_.items = std::vector<staged::Item>(1);
    stage_.items[0].weight = 100;
    Create();
    Prepare();
    Install();
    Callback().Progress(1, 4);
    Callback().Completed(ETrue);
    Callback().Aborted();
    return broker_.Posts();
  }

  void ExpectPayloads(const std::string& featureId, const std::string& field) {
    ASSERT_EQ(64U, field.length());
    const auto posts = PostsOfAWholeLife(featureId);
    const TBool yes = ETrue;
    const std::string result = field + std::string(reinterpret_cast<const char*>(&yes), 4);
    ASSERT_EQ(5U, posts.size());
    for (const auto& post : posts) {
      EXPECT_EQ(3U, post.type);
    }
    EXPECT_EQ(200U, posts[0].code);
    EXPECT_EQ(featureId, posts[0].payload);
    EXPECT_EQ(202U, posts[1].code);
    EXPECT_EQ(result, posts[1].payload);
    EXPECT_EQ(205U, posts[2].code);
    EXPECT_EQ(field + "\x4b", posts[2].payload);
    EXPECT_EQ(204U, posts[3].code);
    EXPECT_EQ(result, posts[3].payload);
    EXPECT_EQ(207U, posts[4].code);
    EXPECT_EQ(result, posts[4].payload);
  }
};

TEST_F(MainCPULoaderIdTest, OfNoBytesIsAnEmptyField) {
  ExpectPayloads("", std::string(64, '\0'));
}

TEST_F(MainCPULoaderIdTest, OfOneByteIsFollowedByZeros) {
  ExpectPayloads("x", "x" + std::string(63, '\0'));
}

TEST_F(MainCPULoaderIdTest, Of63BytesFillsTheFieldUpToItsTerminator) {
  const std::string featureId = std::string(63, 'i');
  ExpectPayloads(featureId, featureId + std::string(1, '\0'));
}

TEST_F(MainCPULoaderIdTest, Of64BytesIsCutTo63) {
  ExpectPayloads(std::string(63, 'i') + "j", std::string(63, 'i') + std::string(1, '\0'));
}

TEST_F(MainCPULoaderIdTest, Of200BytesIsCutTo63) {
  ExpectPayloads(std::string(63, 'i') + std::string(137, 'j'),
                 std::string(63, 'i') + std::string(1, '\0'));
}

TEST_F(MainCPULoaderIdTest, ALongIdIsAddressedByAllItsBytes) {
  UseId(std::string(200, 'i'));
  CreatePrepared({1});

  broker_.DeliverUser(EUserEventControllerInstall, std::string(63, 'i'));
  EXPECT_THAT(stage_.journal, IsEmpty());

  broker_.DeliverUser(EUserEventControllerInstall, std::string(200, 'i'));
  EXPECT_THAT(stage_.journal, ElementsAre("install 0"));
}

TEST_F(MainCPULoaderIdTest, TheIdIsCopiedAtCreation) {
  Create();
  broker_.Forget();
  featureId_[0] = 'X';

  broker_.DeliverUser(EUserEventControllerPrepare, "feature");

  EXPECT_EQ(1U, broker_.PostsOf(EUserEventPrepareResult).size());
}

TEST_F(MainCPULoaderIdTest, TheControlIsAskedBeforeEveryLineThatIsNotAlways) {
  PostsOfAWholeLife("feature");
  controller_->OnEvent({EEventTimer, 0, 0, nullptr});
  controller_.reset();

  const auto& log = RecordedLog::Instance();
  std::vector<std::pair<std::string, std::string>> asked;
  std::size_t always = 0;
  ASSERT_EQ(log.Lines().size(), log.Openings().size());
  for (std::size_t index = 0; index < log.Lines().size(); ++index) {
    const auto& line = log.Lines()[index];
    if (line.category == logging::categories::Always) {
      ++always;
    } else {
      asked.emplace_back(line.module, line.category);
    }
    EXPECT_EQ(asked.size(), log.Openings()[index].questionsBefore) << line;
  }
  EXPECT_EQ(asked, log.Questions());
  EXPECT_EQ(1U, always);
}

TEST_F(MainCPULoaderIdTest, WithEveryCategoryDisabledOnlyTheAlwaysLineIsWritten) {
  for (const char* category :
       {logging::categories::Error, logging::categories::Warning, logging::categories::Info,
        logging::categories::Interface, logging::categories::Always}) {
    RecordedLog::Instance().Disable(category);
  }

  const auto posts = PostsOfAWholeLife("feature");
  controller_->OnEvent({EEventTimer, 0, 0, nullptr});
  controller_.reset();

  EXPECT_EQ(5U, posts.size()) << "the log does not decide what happens";
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KController.Always("HandleLoaderCompleted",
                                             "SWL: Finished upload in MainCPULoader")));
}

}  // namespace
