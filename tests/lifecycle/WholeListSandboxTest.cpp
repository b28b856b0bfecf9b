#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <sstream>

#include "tests/lifecycle/LiveHost.h"
#include "tests/lifecycle/WeightedProgress.h"
#include "tests/lifecycle/WholeListTest.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SandboxedTest.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/TempDir.h"

namespace {

using lifecycle::ExpectedPercentages;
using lifecycle::LiveHost;
using lifecycle::WholeListTest;
using support::RecordedLog;
using support::Shell;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;
using testing::Not;

/** Seconds, of any beginning, and of this process without its children. */
struct Usage {
  double wall = 0;
  double processor = 0;
};

double Seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

Usage UsageNow() {
  return {Seconds(CLOCK_MONOTONIC), Seconds(CLOCK_PROCESS_CPUTIME_ID)};
}

const std::vector<unsigned> kWeights = {60, 25, 10, 3, 2};

/** How often a loader has been told to install. */
std::ptrdiff_t Installs(const std::string& loader) {
  const auto& lines = RecordedLog::Instance().Lines();
  return std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
    return line.function == "virtual void " + loader + "::Install()";
  });
}

/**
 * Do something with the first event that is delivered while the image is copied. It is the last one
 * of the archive, but not always the first of 60 %: the percentage is rounded.
 */
void OnceTheImageCopies(LiveHost& host, const std::function<void()>& action) {
  host.On("205 60", [&host, action] {
    if (Installs("CImageLoader") > 0) {
      action();
    } else {
      OnceTheImageCopies(host, action);
    }
  });
}

TEST_F(WholeListTest, InstallsEveryItemAndReportsWeightedProgress) {
  LiveHost host(properties_);
  host.StartInstall();
  host.ServeUntil("204");

  EXPECT_THAT(host.Results(), ElementsAre("200", "202 1", "204 1"));
  EXPECT_EQ("204 1", host.Events().back());
  EXPECT_EQ(ExpectedPercentages(Log(), kWeights), host.Percentages());
  EXPECT_THAT(host.Percentages(), AllOf(Each(Le(100U)), Contains(60U), Contains(98U)));
  const auto percentages = host.Percentages();
  EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
  ExpectEverythingWritten();
}

TEST_F(WholeListTest, ASecondRunReportsTheFinishedArchiveAsFailedAndThenInstallsTheRest) {
  {
    LiveHost host(properties_);
    host.On("204 1", [&] { host.StartInstall(); });
    host.StartInstall();
    host.ServeUntil("204 1", 2);

    // The check of the first run is still subscribed: prepared again, it fails until it is started.
    EXPECT_THAT(host.ResultsOnce(),
                ElementsAre("200", "202 1", "204 1", "202 1", "204 0", "204 1"));
    // 98 % of the first run are still counted, and then the archive's 60.
    EXPECT_EQ(ExpectedPercentages(Log(), kWeights), host.Percentages());
    EXPECT_EQ(198U, host.Percentages().back());
  }
  ExpectEverythingWritten();
  // The check's first decompressor is not waited for when it is started a second time.
  AcceptWhatIsLeft();
}

TEST_F(WholeListTest, AnInstallWithoutAnotherPrepareStopsAtTheCheckWhichHasNothingLeftToCompare) {
  {
    LiveHost host(properties_);
    host.On("204 1", [&] { host.Post(EUserEventControllerInstall); });
    host.StartInstall();
    // The failure is that of the archive, at once; the items behind it go on.
    host.ServeUntil([] { return Installs("CImageChecker") == 2; }, "second check");

    EXPECT_THAT(host.Results(), ElementsAre("200", "202 1", "204 1", "204 0"));
    EXPECT_EQ(ExpectedPercentages(Log(), kWeights), host.Percentages());
  }
  // As above.
  AcceptWhatIsLeft();
}

TEST_F(WholeListTest, APrepareDuringTheImageStopsItsCopy) {
  SlowImage();
  LiveHost host(properties_);
  OnceTheImageCopies(host, [&] { host.Post(EUserEventControllerPrepare); });
  host.StartInstall();
  host.ServeUntil("204");

  EXPECT_THAT(host.Results(), ElementsAre("200", "202 1", "202 1", "204 0"));
  EXPECT_THAT(support::Children(), IsEmpty());
}

TEST_F(WholeListTest, APrepareDuringTheArchiveChangesNothing) {
  LiveHost host(properties_);
  host.On("205", [&] { host.Post(EUserEventControllerPrepare); });
  host.StartInstall();
  host.ServeUntil("204");

  EXPECT_THAT(host.Results(), ElementsAre("200", "202 1", "202 1", "204 1"));
  ExpectEverythingWritten();
}

TEST_F(WholeListTest, APrepareDuringTheCheckMakesItCompareBeyondTheImageAndFail) {
  LiveHost host(properties_);
  host.On("205 86", [&] { host.Post(EUserEventControllerPrepare); });
  host.StartInstall();
  host.ServeUntil("204");

  // It stays subscribed and fails again and again.
  EXPECT_THAT(host.ResultsOnce(), ElementsAre("200", "202 1", "204 0"));
  EXPECT_EQ(2U, host.Count("202 1"));
}

TEST_F(WholeListTest, AnAbortDuringTheImageEndsItsChildrenBeforeItIsAnswered) {
  SlowImage();
  LiveHost host(properties_);
  std::size_t childrenAtAnswer = 99;
  OnceTheImageCopies(host, [&] { host.Post(EUserEventControllerAbort); });
  host.On("207", [&] { childrenAtAnswer = support::Children().size(); });
  host.StartInstall();
  host.ServeUntil("207");

  EXPECT_THAT(host.Results(), ElementsAre("200", "202 1", "207 1"));
  EXPECT_EQ(0U, childrenAtAnswer);
}

TEST_F(WholeListTest, AnAbortDuringTheCheckIsAnsweredAtOnceAndTheCheckGoesOnUntilTheFeatureEnds) {
  LiveHost host(properties_);
  host.On("205 86", [&] { host.Post(EUserEventControllerAbort); });
  host.On("207", [&] { host.DestroySoon(); });
  host.StartInstall();
  host.ServeUntil("207");

  EXPECT_THAT(host.Results(), Contains("207 1"));
  EXPECT_THAT(host.Results(), Not(Contains("204 0")));
}

TEST_F(WholeListTest, AnAbortDuringTheBlockingItemsIsAnsweredAfterTheRun) {
  LiveHost host(properties_);
  host.On("205 98", [&] { host.Post(EUserEventControllerAbort); });
  host.StartInstall();
  host.ServeUntil("207");

  EXPECT_THAT(host.Results(), ElementsAre("200", "202 1", "204 1", "207 1"));
  ExpectEverythingWritten();
}

TEST_F(WholeListTest, AFinishedCheckThatStaysSubscribedDoesNotKeepTheHostBusy) {
  properties_.values["updatelist"] = "rootfs;checkrootfs;boot";
  properties_.values["updateprogresslist"] = "40;20;40";
  for (const char* suffix : {"source", "targetsize", "blocksize", "checksum"}) {
    properties_.values[std::string("boot") + suffix] =
        properties_.values[std::string("rootfs") + suffix];
  }
  properties_.values["boottarget"] = "/dev/mmcblk1p3";
  SlowImage();
  LiveHost host(properties_);
  Usage atLastStepOfCheck;
  Usage atEnd;
  host.On("205 57", [&] { atLastStepOfCheck = UsageNow(); });
  host.On("204", [&] { atEnd = UsageNow(); });
  host.StartInstall();
  host.ServeUntil("204");

  EXPECT_THAT(host.Results(), ElementsAre("200", "202 1", "204 1"));
  const double wall = atEnd.wall - atLastStepOfCheck.wall;
  EXPECT_GT(wall, 3) << "the copy pauses for so long";
  EXPECT_LT((atEnd.processor - atLastStepOfCheck.processor) / wall, 0.05);
}

TEST_F(WholeListTest, AnAbortBeforeTheInstallIsAnsweredAtOnce) {
  LiveHost host(properties_);
  host.Post(EUserEventControllerAbort);
  host.ServeUntil("207");

  EXPECT_THAT(host.Events(), ElementsAre("200", "207 1"));
}

/** One item made to fail: what is spoilt, and what the host hears. */
struct Failure {
  const char* name;
  const char* key;    // property that gets another value; null: the shell line does it
  const char* value;  // null: the property is removed
  const char* shell;
  std::vector<std::string> results;
};

void PrintTo(const Failure& failure, std::ostream* stream) {
  *stream << failure.name;
}

class FailingItemTest : public WholeListTest, public testing::WithParamInterface<Failure> {};

TEST_P(FailingItemTest, GivesExactlyTheEventsOfItsFailure) {
  const Failure& failure = GetParam();
  if (failure.key != nullptr && failure.value != nullptr) {
    properties_.values[failure.key] = failure.value;
  } else if (failure.key != nullptr) {
    properties_.values.erase(failure.key);
  }
  if (failure.shell != nullptr) {
    Shell("cd " + update_ + " && " + failure.shell);
  }
  LiveHost host(properties_);
  host.StartInstall();
  host.ServeUntil(failure.results.back());

  EXPECT_EQ(failure.results, host.ResultsOnce());
  EXPECT_EQ(ExpectedPercentages(Log(), kWeights), host.Percentages());
}

// An archive that fails before its first byte has equal counters, so its failure is followed by a
// success and the rest of the list runs.
const std::vector<std::string> kPrepareFails = {"200", "202 0"};
const std::vector<std::string> kInstallFails = {"200", "202 1", "204 0"};
const std::vector<std::string> kFailsAndGoesOn = {"200", "202 1", "204 0", "204 1"};

INSTANTIATE_TEST_SUITE_P(
    Items, FailingItemTest,
    testing::Values(
        Failure{"NoUpdateList", "updatelist", nullptr, nullptr, kPrepareFails},
        Failure{"NoWeights", "updateprogresslist", nullptr, nullptr, kPrepareFails},
        Failure{"ArchiveWithoutSource", "userfssource", nullptr, nullptr, kPrepareFails},
        Failure{"ImageWithoutChecksum", "rootfschecksum", nullptr, nullptr, kPrepareFails},
        Failure{"ImageWithABadSize", "rootfstargetsize", "6 MB", nullptr, kPrepareFails},
        Failure{"FactoryDataWithoutSize", "factorydatasize", nullptr, nullptr, kPrepareFails},
        Failure{"SettingsWithoutFileName", "eolsettingstargetfilename", nullptr, nullptr,
                kPrepareFails},
        Failure{"ArchiveOnAMissingDevice", "userfstarget", "/dev/mmcblk9p1", nullptr,
                kFailsAndGoesOn},
        Failure{"MissingArchive", "userfssource", "/nowhere/userfs.tar.gz", nullptr,
                kFailsAndGoesOn},
        Failure{"MissingImage", "rootfssource", "/nowhere/image.gz", nullptr, kInstallFails},
        Failure{"TruncatedImage", nullptr, nullptr, "truncate -s -100000 rootfs.img.gz",
                kInstallFails},
        Failure{"ImageOnADeviceThatIsTooSmall", "rootfstarget", "/dev/mmcblk1p2", nullptr,
                kInstallFails},
        Failure{"CheckOfMoreThanTheImage", "rootfstargetsize", "14680065", nullptr, kInstallFails},
        Failure{"FactoryDataFromAMissingFile", "factorydatasource", "/nowhere/factory.bin", nullptr,
                kInstallFails},
        Failure{"FactoryDataOntoAFullDevice", "factorydatatarget", "/dev/full", nullptr,
                kInstallFails},
        Failure{"SettingsOnADeviceWithoutAFileSystem", "eolsettingstarget", "/dev/mmcblk1p2",
                nullptr, kInstallFails},
        Failure{"SettingsWithALeftOverMountPoint", nullptr, nullptr, "mkdir /tmp/eolmountpoint",
                kInstallFails}),
    [](const auto& test) { return test.param.name; });

}  // namespace
