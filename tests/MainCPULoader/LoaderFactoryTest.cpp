#include <gmock/gmock.h>
#include <memory>

#include "MainCPULoader/src/ArchiveLoader.h"
#include "MainCPULoader/src/EOLSettingsLoader.h"
#include "MainCPULoader/src/FactoryDataLoader.h"
#include "MainCPULoader/src/ImageChecker.h"
#include "MainCPULoader/src/ImageLoader.h"
#include "MainCPULoader/src/LoaderFactory.h"
#include "tests/support/CleanTest.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/VirtualSlot.h"

namespace {

using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KFactory(logging::MainCPULoader, "MainCPULoader/src/LoaderFactory");

/** The class of a loader, and only that class. */
std::string KindOf(const ILoader* loader) {
  std::string kind;
  const auto add = [&kind](const void* cast, const char* name) {
    kind += cast != nullptr ? name : "";
  };
  add(dynamic_cast<const CArchiveLoader*>(loader), "archive");
  add(dynamic_cast<const CFactoryDataLoader*>(loader), "factory data");
  add(dynamic_cast<const CEOLSettingsLoader*>(loader), "eol settings");
  add(dynamic_cast<const CImageChecker*>(loader), "checker");
  add(dynamic_cast<const CImageLoader*>(loader), "image");
  return kind;
}

class LoaderFactoryTest : public support::CleanTest {
 protected:
  /** Append the loaders of these lists. */
  void Create(const std::string& updateList, const std::string& progressList) {
    factory_.Create(updateList, progressList, loaders_, featureId_, broker_, properties_,
                    callback_);
  }

  std::vector<std::string> Kinds() const {
    std::vector<std::string> kinds;
    for (const auto& entry : loaders_) {
      kinds.push_back(KindOf(entry.first));
    }
    return kinds;
  }

  std::vector<int> Weights() const {
    std::vector<int> weights;
    for (const auto& entry : loaders_) {
      weights.push_back(entry.second);
    }
    return weights;
  }

  void TearDown() override {
    for (const auto& entry : loaders_) {
      delete entry.first;
    }
    loaders_.clear();
    CleanTest::TearDown();
  }

  CLoaderFactory factory_;
  std::vector<std::pair<ILoader*, int>> loaders_;
  std::string featureId_ = "feature";
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  support::FakeCallback callback_;
};

// Kinds

TEST_F(LoaderFactoryTest, ChoosesTheKindByTheItem) {
  Create("userfs;factorydata;eolsettings;checkboot;rootfs", "1;2;3;4;5");

  EXPECT_THAT(Kinds(), ElementsAre("archive", "factory data", "eol settings", "checker", "image"));
  EXPECT_THAT(Weights(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(LoaderFactoryTest, LogsEveryItemWithItsWeightAndWhatBecameOfIt) {
  Create("userfs;factorydata;eolsettings;checkboot;rootfs", "1;2;3;4;5");

  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KFactory.Info("Create", "Found loader: userfswith progress1"),
                          KFactory.Info("Create", "Added archive loader: userfs"),
                          KFactory.Info("Create", "Found loader: factorydatawith progress2"),
                          KFactory.Info("Create", "Added loader: factorydata"),
                          KFactory.Info("Create", "Found loader: eolsettingswith progress3"),
                          KFactory.Info("Create", "Added loader: eolsettings"),
                          KFactory.Info("Create", "Found loader: checkbootwith progress4"),
                          KFactory.Info("Create", "Added image checker: checkboot"),
                          KFactory.Info("Create", "Found loader: rootfswith progress5"),
                          KFactory.Info("Create", "Added image loader: rootfs")));
}

TEST_F(LoaderFactoryTest, ItemsThatOnlyResembleAKindAreImages) {
  Create("userf;userfs2;Userfs;factorydata ; eolsettings;Checkboot;chec;recheck;eolsetting",
         "1;1;1;1;1;1;1;1;1");

  EXPECT_THAT(Kinds(), testing::AllOf(testing::SizeIs(9), testing::Each("image")));
}

TEST_F(LoaderFactoryTest, AnythingThatBeginsWithCheckIsAChecker) {
  Create("check;checkuserfs;checkfactorydata;checkcheck;checks", "1;1;1;1;1");

  EXPECT_THAT(Kinds(), testing::AllOf(testing::SizeIs(5), testing::Each("checker")));
}

TEST_F(LoaderFactoryTest, ItemsThatRepeatBecomeLoadersOfTheirOwn) {
  Create("userfs;userfs", "1;2");

  EXPECT_THAT(Kinds(), ElementsAre("archive", "archive"));
  EXPECT_NE(loaders_[0].first, loaders_[1].first);
  EXPECT_THAT(Weights(), ElementsAre(1, 2));
}

// Names

class LoaderNameTest : public LoaderFactoryTest {
 protected:
  /** The first property that the loader of this item looks up when it is prepared. */
  std::string FirstLookup(const std::string& item) {
    Create(item, "1");
    loaders_.back().first->Prepare();
    return properties_.Lookups().empty() ? "" : properties_.Lookups().front();
  }
};

TEST_F(LoaderNameTest, AFactoryDataLoaderIsNamedAsItsItem) {
  EXPECT_EQ("factorydatasource", FirstLookup("factorydata"));
}

TEST_F(LoaderNameTest, AnArchiveLoaderIsNamedAsItsItem) {
  EXPECT_EQ("userfssource", FirstLookup("userfs"));
}

TEST_F(LoaderNameTest, AnEOLSettingsLoaderIsNamedAsItsItem) {
  EXPECT_EQ("eolsettingssource", FirstLookup("eolsettings"));
}

TEST_F(LoaderNameTest, ACheckerIsNamedAsItsItemWithoutThePrefix) {
  EXPECT_EQ("rootfssource", FirstLookup("checkrootfs"));
}

TEST_F(LoaderNameTest, OnlyTheFirstPrefixIsTakenOffACheckersItem) {
  EXPECT_EQ("checkrootfssource", FirstLookup("checkcheckrootfs"));
}

TEST_F(LoaderNameTest, ACheckerOfThePrefixAloneHasAnEmptyNameAndReadsNothing) {
  EXPECT_EQ("", FirstLookup("check"));
  EXPECT_THAT(Kinds(), ElementsAre("checker"));
}

TEST_F(LoaderNameTest, AnImageLoaderIsNamedAsItsItem) {
  EXPECT_EQ("rootfsversion", FirstLookup("rootfs"));
}

TEST_F(LoaderNameTest, ItemsAreTakenByteForByte) {
  EXPECT_EQ(" root fs version", FirstLookup(" root fs "));
}

TEST_F(LoaderNameTest, LoadersReportToTheCallbackTheyWereGiven) {
  Create("userfs;factorydata;eolsettings;checkboot;rootfs", "1;1;1;1;1");
  for (const auto& entry : loaders_) {
    entry.first->Abort();
  }
  EXPECT_THAT(callback_.Reports(),
              ElementsAre("Aborted", "Aborted", "Aborted", "Aborted", "Aborted"));
}

// Lists

TEST_F(LoaderFactoryTest, OneItemOfWeight100) {
  Create("userfs", "100");

  EXPECT_THAT(Kinds(), ElementsAre("archive"));
  EXPECT_THAT(Weights(), ElementsAre(100));
}

TEST_F(LoaderFactoryTest, ItemsBeyondTheLastWeightAreDroppedInSilence) {
  Create("a;b;c", "50;50");

  EXPECT_THAT(Kinds(), ElementsAre("image", "image"));
  EXPECT_THAT(Weights(), ElementsAre(50, 50));
  EXPECT_THAT(RecordedLog::Instance().Texts(),
              ElementsAre("Found loader: awith progress50", "Added image loader: a",
                          "Found loader: bwith progress50", "Added image loader: b"));
}

TEST_F(LoaderFactoryTest, SurplusWeightsAreIgnored) {
  Create("a", "1;2;3");

  EXPECT_THAT(Weights(), ElementsAre(1));
}

TEST_F(LoaderFactoryTest, AnEmptyUpdateListGivesNothingAndLogsNothing) {
  Create("", "1;2");

  EXPECT_THAT(loaders_, IsEmpty());
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(LoaderFactoryTest, AnEmptyProgressListGivesNothingAndLogsNothing) {
  Create("a;b", "");

  EXPECT_THAT(loaders_, IsEmpty());
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(LoaderFactoryTest, TrailingSeparatorsAddNothing) {
  Create("x;", "7;");

  EXPECT_THAT(Kinds(), ElementsAre("image"));
  EXPECT_THAT(Weights(), ElementsAre(7));
  EXPECT_TRUE(RecordedLog::Instance().HasText("Added image loader: x"));
}

TEST_F(LoaderFactoryTest, AnEmptyItemIsAnImageWithoutAName) {
  Create(";x", "1;2");

  EXPECT_THAT(Kinds(), ElementsAre("image", "image"));
  EXPECT_THAT(Weights(), ElementsAre(1, 2));
  EXPECT_THAT(RecordedLog::Instance().Texts(),
              ElementsAre("Found loader: with progress1", "Added image loader: ",
                          "Found loader: xwith progress2", "Added image loader: x"));
}

TEST_F(LoaderFactoryTest, AnEmptyWeightIsZero) {
  Create("a;b;c", ";2;;");

  EXPECT_THAT(Weights(), ElementsAre(0, 2, 0));
}

TEST_F(LoaderFactoryTest, WeightsAreTheLeadingDecimalNumbers) {
  Create("a;b;c;d;e;f;g", "12abc;abc;-5; 8;+3;0x10;1.9");

  EXPECT_THAT(Weights(), ElementsAre(12, 0, -5, 8, 3, 0, 1));
}

TEST_F(LoaderFactoryTest, WeightsOutOfRangeSaturate) {
  Create("a;b;c;d", "2147483647;2147483648;-2147483649;99999999999999999999");

  EXPECT_THAT(Weights(), ElementsAre(2147483647, 2147483647, -2147483647 - 1, 2147483647));
}

TEST_F(LoaderFactoryTest, TheLogShowsTheWeightAsItWasWritten) {
  Create("a", " 12abc");

  EXPECT_TRUE(RecordedLog::Instance().HasText("Found loader: awith progress 12abc"));
}

TEST_F(LoaderFactoryTest, AppendsToWhatIsInTheList) {
  Create("userfs", "1");
  Create("rootfs", "2");

  EXPECT_THAT(Kinds(), ElementsAre("archive", "image"));
  EXPECT_THAT(Weights(), ElementsAre(1, 2));
}

TEST_F(LoaderFactoryTest, LooksNothingUpAndSubscribesToNothing) {
  Create("userfs;factorydata;eolsettings;checkboot;rootfs", "1;2;3;4;5");

  EXPECT_THAT(properties_.Lookups(), IsEmpty());
  EXPECT_THAT(broker_.Calls(), IsEmpty());
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

TEST_F(LoaderFactoryTest, CreateIsTheOnlyOperationBesidesTheDestructor) {
  EXPECT_EQ(support::KFirstSlot, support::VirtualSlot(&CLoaderFactory::Create));
  EXPECT_EQ(sizeof(void*), sizeof(CLoaderFactory)) << "it holds no data";
}

}  // namespace
