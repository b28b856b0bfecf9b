#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "MainCPULoader/src/ImageLoader.h"
#include "SWLInfra/src/DDWrapper.h"
#include "host/FeatureModule.h"
#include "tests/support/CleanTest.h"
#include "tests/support/DeliverDue.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/HostFakes.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/TempDir.h"
#include "tests/support/ToolFamily.h"

namespace {

using std::chrono::milliseconds;
using support::BrokerCall;
using support::Eventually;
using support::LogLine;
using support::ReadFile;
using support::RecordedLog;
using support::ToolFamily;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const support::LogSource KLoader(logging::MainCPULoader, "MainCPULoader/src/ImageLoader");
const support::LogSource KRunner(logging::SWLInfra, "SWLInfra/src/CmdHandler");

const std::string KInstall = "virtual void CImageLoader::Install()";
const std::string KAbort = "virtual void CImageLoader::Abort()";
const std::string KOnEvent = "virtual void CImageLoader::OnEvent(const TEvent&)";
const std::string KFill = "FillImageProperties";

/** What IDDWrapper::Create gives; the real thing when nothing is set. */
std::function<IDDWrapper*()> createWrapper;

}  // namespace

extern "C" {
IDDWrapper* __real__ZN10IDDWrapper6CreateEv();
IDDWrapper* __wrap__ZN10IDDWrapper6CreateEv() {
  return createWrapper ? createWrapper() : __real__ZN10IDDWrapper6CreateEv();
}
}

namespace {

/** What the wrappers were asked, and what they are to answer. */
struct TWrapperScript {
  std::vector<std::string> iCalls;
  TDDWrapperResult iStartResult = EDDCompleted;
  int iDescriptor = 77;
  unsigned iPeriod = 1000;
  std::deque<std::pair<TDDWrapperResult, unsigned>> iSteps;
  bool iHadUnsetResults = true;
};

class CScriptedWrapper : public IDDWrapper {
 public:
  explicit CScriptedWrapper(TWrapperScript& script) : iScript(script) {}

  TDDWrapperResult Start(unsigned char* source, unsigned char* target, unsigned char* blockSize,
                         int& descriptor, unsigned& period) override {
    std::ostringstream call;
    call << "Start " << source << " " << target << " '" << blockSize << "'";
    iScript.iCalls.push_back(call.str());
    iScript.iHadUnsetResults = iScript.iHadUnsetResults && descriptor == -1 && period == 0;
    descriptor = iScript.iDescriptor;
    period = iScript.iPeriod;
    return iScript.iStartResult;
  }
  TDDWrapperResult WaitForCompletion(TDDWrapperEvent event, unsigned& bytesProcessed) override {
    iScript.iCalls.push_back("Wait " + std::to_string(event));
    iScript.iHadUnsetResults = iScript.iHadUnsetResults && bytesProcessed == 0;
    if (iScript.iSteps.empty()) {
      bytesProcessed = 0;
      return EDDRunning;
    }
    const auto step = iScript.iSteps.front();
    iScript.iSteps.pop_front();
    bytesProcessed = step.second;
    return step.first;
  }
  TDDWrapperResult Abort() override {
    iScript.iCalls.emplace_back("Abort");
    return EDDAborted;
  }
  void Destroy() override {
    iScript.iCalls.emplace_back("Destroy");
    delete this;
  }

 private:
  TWrapperScript& iScript;
};

class ImageLoaderTest : public support::CleanTest {
 protected:
  ImageLoaderTest() {
    properties_.values = {{"imgversion", "1.2"},     {"imgsource", "/a/img.gz"},
                          {"imgtarget", "/dev/sdx"}, {"imgtargetsize", "10000"},
                          {"imgblocksize", "32k"},   {"imgchecksum", "abc"}};
    createWrapper = [this] { return new CScriptedWrapper(script_); };
    // Never the real ones: they know /dev/mmcblk1.
    tools_.Add("fdisk", "exit 0");
    tools_.Add("sleep", "exit 0");
  }
  ~ImageLoaderTest() override { createWrapper = nullptr; }

  void SetUp() override {
    CleanTest::SetUp();
    loader_.emplace("img", featureId_, broker_, properties_, callback_);
  }
  void TearDown() override {
    loader_.reset();
    CleanTest::TearDown();
  }

  void PrepareAndInstall() {
    ASSERT_EQ(ETrue, loader_->Prepare());
    loader_->Install();
    ASSERT_EQ(2U, broker_.Subscriptions().size());
    RecordedLog::Instance().Clear();
    script_.iCalls.clear();
    broker_.Forget();
  }
  /** One event, upon which the wrapper gives this answer. */
  void Step(TDDWrapperResult result, unsigned bytes = 0, bool tick = true) {
    script_.iSteps.emplace_back(result, bytes);
    if (tick) {
      broker_.Tick();
    } else {
      broker_.DescriptorReady(77);
    }
  }

  const std::vector<LogLine>& Lines() { return RecordedLog::Instance().Lines(); }

  std::string featureId_ = "feature";
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  support::ScriptedTools tools_;
  TWrapperScript script_;
  std::optional<CImageLoader> loader_;
};

// Prepare ----------------------------------------------------------------------------------------

TEST_F(ImageLoaderTest, TheConstructorOnlyStores) {
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(properties_.Lookups(), IsEmpty());
  EXPECT_THAT(broker_.Calls(), IsEmpty());
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

TEST_F(ImageLoaderTest, PrepareReadsItsPropertiesInOrderAndLogsEach) {
  EXPECT_EQ(ETrue, loader_->Prepare());

  EXPECT_THAT(properties_.Lookups(),
              ElementsAre("imgversion", "imgaltsource", "imgsource", "imgtarget", "imgtargetsize",
                          "imgblocksize", "imgchecksum"));
  EXPECT_THAT(Lines(), ElementsAre(KLoader.Info("Prepare", "ImageLoader"),
                                   KLoader.Info(KFill, "ImageLoader: img version: 1.2"),
                                   KLoader.Info(KFill, "ImageLoader: img source: /a/img.gz"),
                                   KLoader.Info(KFill, "ImageLoader: img target: /dev/sdx"),
                                   KLoader.Info(KFill, "ImageLoader: img target size: 10000"),
                                   KLoader.Info(KFill, "ImageLoader: img block size: 32k"),
                                   KLoader.Info(KFill, "ImageLoader: img checksum: abc")));
  EXPECT_THAT(script_.iCalls, IsEmpty()) << "nothing is started";
}

TEST_F(ImageLoaderTest, VersionAndBlockSizeMayBeMissingWithoutAWord) {
  properties_.values.erase("imgversion");
  properties_.values.erase("imgblocksize");

  EXPECT_EQ(ETrue, loader_->Prepare());
  EXPECT_THAT(Lines(), ElementsAre(KLoader.Info("Prepare", "ImageLoader"),
                                   KLoader.Info(KFill, "ImageLoader: img source: /a/img.gz"),
                                   KLoader.Info(KFill, "ImageLoader: img target: /dev/sdx"),
                                   KLoader.Info(KFill, "ImageLoader: img target size: 10000"),
                                   KLoader.Info(KFill, "ImageLoader: img checksum: abc")));
  loader_->Install();
  EXPECT_THAT(script_.iCalls, ElementsAre("Start /a/img.gz /dev/sdx ''"));
}

struct TMissingCase {
  const char* key;
  std::size_t lookups;
};

TEST_F(ImageLoaderTest, EveryRequiredPropertyIsMissedByName) {
  for (const auto& [key, lookups] : {TMissingCase{"source", 3}, TMissingCase{"target", 4},
                                     TMissingCase{"targetsize", 5}, TMissingCase{"checksum", 7}}) {
    SCOPED_TRACE(key);
    support::FakeProperties properties = properties_;
    properties.values.erase(std::string("img") + key);
    CImageLoader loader("img", featureId_, broker_, properties, callback_);
    RecordedLog::Instance().Clear();

    EXPECT_EQ(EFalse, loader.Prepare());
    EXPECT_THAT(properties.Lookups(), SizeIs(lookups));
    EXPECT_THAT(
        RecordedLog::Instance().Errors(),
        ElementsAre(KLoader.Error(KFill, std::string("ImageLoader: Failed to retrieve '") + key +
                                             "' property"),
                    KLoader.Error("Prepare", "ImageLoader: Failed to retrieve properties")));
  }
}

TEST_F(ImageLoaderTest, AnotherFeaturesPropertiesAreNotRead) {
  std::string other = "other";
  CImageLoader loader("img", other, broker_, properties_, callback_);

  EXPECT_EQ(EFalse, loader.Prepare());
}

TEST_F(ImageLoaderTest, WithoutANameNothingIsLookedUp) {
  CImageLoader loader("", featureId_, broker_, properties_, callback_);

  EXPECT_EQ(EFalse, loader.Prepare());
  EXPECT_THAT(properties_.Lookups(), IsEmpty());
  EXPECT_THAT(Lines(),
              ElementsAre(KLoader.Info("Prepare", "ImageLoader"),
                          KLoader.Error("Prepare", "ImageLoader: Failed to retrieve properties")));
}

TEST_F(ImageLoaderTest, TheDevelopmentOverrideReplacesTheSource) {
  support::TempDir dir;
  const std::string file = dir / "alternative.gz";
  support::WriteFile(file, "x");
  properties_.values["imgaltsource"] = file;
  properties_.values.erase("imgsource");

  EXPECT_EQ(ETrue, loader_->Prepare());
  EXPECT_THAT(properties_.Lookups(), ElementsAre("imgversion", "imgaltsource", "imgtarget",
                                                 "imgtargetsize", "imgblocksize", "imgchecksum"));
  ASSERT_GE(Lines().size(), 5U);
  EXPECT_EQ(KLoader.Info(KFill, "ImageLoader: img unchecked source: " + file), Lines()[2]);
  EXPECT_EQ(KLoader.Always(KFill, "ImageLoader: Using development override!"), Lines()[3]);
  EXPECT_EQ(KLoader.Info(KFill, "ImageLoader: img target: /dev/sdx"), Lines()[4]);
  loader_->Install();
  EXPECT_THAT(script_.iCalls, ElementsAre("Start " + file + " /dev/sdx '32k'"));
}

TEST_F(ImageLoaderTest, AnOverrideWithoutAFileIsPassedOverInSilence) {
  properties_.values["imgaltsource"] = "/there/is/no/such/file";

  EXPECT_EQ(ETrue, loader_->Prepare());
  ASSERT_GE(Lines().size(), 3U);
  EXPECT_EQ(KLoader.Info(KFill, "ImageLoader: img source: /a/img.gz"), Lines()[2]);
  EXPECT_FALSE(RecordedLog::Instance().HasText("ImageLoader: Using development override!"));
  loader_->Install();
  EXPECT_THAT(script_.iCalls, ElementsAre("Start /a/img.gz /dev/sdx '32k'"));
}

TEST_F(ImageLoaderTest, AnOverrideWithoutAFileDoesNotReplaceAMissingSource) {
  properties_.values["imgaltsource"] = "/there/is/no/such/file";
  properties_.values.erase("imgsource");

  EXPECT_EQ(EFalse, loader_->Prepare());
  EXPECT_THAT(RecordedLog::Instance().Errors(),
              ElementsAre(KLoader.Error(KFill, "ImageLoader: Failed to retrieve 'source' property"),
                          KLoader.Error("Prepare", "ImageLoader: Failed to retrieve properties")));
}

struct TSizeCase {
  const char* text;
  std::optional<TUint32> size;
};

TEST_F(ImageLoaderTest, TheTargetSizeIsAWholeDecimalNumberOfWhichThirtyTwoBitsCount) {
  for (const auto& [text, size] :
       {TSizeCase{"0", 0}, TSizeCase{"", 0}, TSizeCase{"512", 512}, TSizeCase{"  12", 12},
        TSizeCase{"+7", 7}, TSizeCase{"4294967295", 4294967295}, TSizeCase{"4294967296", 0},
        TSizeCase{"4294967301", 5}, TSizeCase{"-1", 4294967295},
        TSizeCase{"99999999999999999999", 4294967295}, TSizeCase{"-99999999999999999999", 0},
        TSizeCase{"100 ", {}}, TSizeCase{"1k", {}}, TSizeCase{"0x10", {}}, TSizeCase{"ten", {}},
        TSizeCase{" ", {}}}) {
    SCOPED_TRACE(text);
    support::FakeProperties properties = properties_;
    properties.values["imgtargetsize"] = text;
    CImageLoader loader("img", featureId_, broker_, properties, callback_);
    RecordedLog::Instance().Clear();

    EXPECT_EQ(size.has_value() ? ETrue : EFalse, loader.Prepare());
    if (size.has_value()) {
      EXPECT_TRUE(RecordedLog::Instance().HasText("ImageLoader: img target size: " +
                                                  std::to_string(*size)));
      EXPECT_THAT(RecordedLog::Instance().Errors(), IsEmpty());
    } else {
      EXPECT_THAT(
          RecordedLog::Instance().Errors(),
          ElementsAre(KLoader.Error(KFill, "ImageLoader: Failed to parse 'targetsize' property"),
                      KLoader.Error("Prepare", "ImageLoader: Failed to retrieve properties")));
    }
  }
}

TEST_F(ImageLoaderTest, WithoutAWrapperPrepareFails) {
  createWrapper = [] { return nullptr; };

  EXPECT_EQ(EFalse, loader_->Prepare());
  EXPECT_THAT(RecordedLog::Instance().Errors(),
              ElementsAre(KLoader.Error("Prepare", "ImageLoader: Failed to create dd wrapper")));
}

TEST_F(ImageLoaderTest, ASecondPrepareReplacesTheWrapper) {
  ASSERT_EQ(ETrue, loader_->Prepare());
  EXPECT_EQ(ETrue, loader_->Prepare());
  EXPECT_THAT(script_.iCalls, ElementsAre("Abort", "Destroy"));

  script_.iCalls.clear();
  loader_.reset();
  EXPECT_THAT(script_.iCalls, ElementsAre("Abort", "Destroy"));
}

TEST_F(ImageLoaderTest, ASecondPrepareThatFailsKeepsTheWrapper) {
  ASSERT_EQ(ETrue, loader_->Prepare());
  properties_.values.erase("imgchecksum");
  EXPECT_EQ(EFalse, loader_->Prepare());

  loader_->Install();
  EXPECT_THAT(script_.iCalls, ElementsAre("Start /a/img.gz /dev/sdx '32k'"));
}

TEST_F(ImageLoaderTest, APrepareDuringTheCopyEndsItAndTheNextTickReportsThat) {
  PrepareAndInstall();

  EXPECT_EQ(ETrue, loader_->Prepare());

  EXPECT_THAT(script_.iCalls, ElementsAre("Abort", "Destroy"));
  ASSERT_THAT(broker_.Subscriptions(), SizeIs(1)) << "the descriptor is gone";
  EXPECT_EQ(EEventTimer, broker_.Subscriptions()[0].filter.iType);
  Step(EDDFailed);
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
}

TEST_F(ImageLoaderTest, AnInstallAfterAPrepareDuringTheCopyHasOneTimerOnly) {
  PrepareAndInstall();
  ASSERT_EQ(ETrue, loader_->Prepare());

  loader_->Install();

  EXPECT_THAT(broker_.Subscriptions(), SizeIs(2)) << "the one of the first install is gone";
  loader_.reset();
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty()) << "an event would find no loader";
}

// Install ----------------------------------------------------------------------------------------

TEST_F(ImageLoaderTest, InstallStartsTheCopyAndSubscribesToDescriptorAndTimer) {
  ASSERT_EQ(ETrue, loader_->Prepare());
  RecordedLog::Instance().Clear();

  loader_->Install();

  EXPECT_THAT(script_.iCalls, ElementsAre("Start /a/img.gz /dev/sdx '32k'"));
  EXPECT_TRUE(script_.iHadUnsetResults);
  EXPECT_THAT(Lines(), ElementsAre(KLoader.Interface(KInstall, "ImageLoader")));
  EXPECT_THAT(callback_.Reports(), IsEmpty());
  const auto& calls = broker_.Calls();
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(BrokerCall::KSubscribe, calls[0].kind);
  EXPECT_EQ(EEventDescriptor, calls[0].event.iType);
  EXPECT_EQ(77U, calls[0].event.iCode);
  EXPECT_EQ(BrokerCall::KSubscribe, calls[1].kind);
  EXPECT_EQ(EEventTimer, calls[1].event.iType);
  EXPECT_EQ(0U, calls[1].event.iCode);
  EXPECT_EQ(1000U, calls[1].event.iSize);
  EXPECT_EQ(1U, reinterpret_cast<std::uintptr_t>(calls[1].event.iData));
  for (const auto& call : calls) {
    EXPECT_EQ(static_cast<IEventObserver*>(&*loader_), call.observer);
  }
}

TEST_F(ImageLoaderTest, WithoutADescriptorOrPeriodThereIsNoSuchSubscription) {
  ASSERT_EQ(ETrue, loader_->Prepare());
  script_.iDescriptor = -1;
  loader_->Install();
  ASSERT_THAT(broker_.Subscriptions(), SizeIs(1));
  EXPECT_EQ(EEventTimer, broker_.Subscriptions()[0].filter.iType);
  loader_->Cleanup();

  script_.iDescriptor = 77;
  script_.iPeriod = 0;
  loader_->Install();
  ASSERT_THAT(broker_.Subscriptions(), SizeIs(1));
  EXPECT_EQ(EEventDescriptor, broker_.Subscriptions()[0].filter.iType);
}

TEST_F(ImageLoaderTest, AFailedStartIsAFailedInstall) {
  ASSERT_EQ(ETrue, loader_->Prepare());
  RecordedLog::Instance().Clear();
  script_.iStartResult = EDDFailed;

  loader_->Install();

  EXPECT_THAT(
      Lines(),
      ElementsAre(KLoader.Interface(KInstall, "ImageLoader"),
                  KLoader.Error("Install", "ImageLoader: Could not start install of image: ")));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(broker_.Calls(), IsEmpty()) << "whatever descriptor and period came out";
}

TEST_F(ImageLoaderTest, AnInstallWithoutAPrepareFails) {
  loader_->Install();

  EXPECT_THAT(
      Lines(),
      ElementsAre(KLoader.Interface(KInstall, "ImageLoader"),
                  KLoader.Error("Install", "ImageLoader: Could not start install of image: ")));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

// Events -----------------------------------------------------------------------------------------

TEST_F(ImageLoaderTest, TimerAndDescriptorEventsAreHandedToTheWrapper) {
  PrepareAndInstall();

  broker_.Tick();
  broker_.DescriptorReady(77);

  EXPECT_THAT(script_.iCalls, ElementsAre("Wait 1", "Wait 2"));
  EXPECT_TRUE(script_.iHadUnsetResults);
  EXPECT_THAT(
      Lines(),
      ElementsAre(
          KLoader.Interface(KOnEvent, "ImageLoader"),
          KLoader.Info("OnEvent", "ImageLoader: Progress. LoadSize: 10000, BytesProcessed: 0"),
          KLoader.Interface(KOnEvent, "ImageLoader"),
          KLoader.Info("OnEvent", "ImageLoader: Progress. LoadSize: 10000, BytesProcessed: 0")));
}

TEST_F(ImageLoaderTest, OtherEventsAreIgnoredAfterTheEntryLine) {
  PrepareAndInstall();

  loader_->OnEvent({EEventUser, 0, 0, nullptr});
  loader_->OnEvent({2, 0, 0, nullptr});

  EXPECT_THAT(script_.iCalls, IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(KLoader.Interface(KOnEvent, "ImageLoader"),
                                   KLoader.Interface(KOnEvent, "ImageLoader")));
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

TEST_F(ImageLoaderTest, EventsWithoutAWrapperAreIgnoredAfterTheEntryLine) {
  loader_->OnEvent({EEventTimer, 0, 0, nullptr});

  EXPECT_THAT(Lines(), ElementsAre(KLoader.Interface(KOnEvent, "ImageLoader")));
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

TEST_F(ImageLoaderTest, ProgressGoesForwardOnly) {
  PrepareAndInstall();

  for (const unsigned bytes : {0U, 1U, 4096U, 4096U, 8192U, 4096U}) {
    Step(EDDRunning, bytes);
  }
  EXPECT_THAT(callback_.Reports(),
              ElementsAre("Progress 9999/10000", "Progress 5904/10000", "Progress 1808/10000"));

  Step(EDDRunning, 10001);
  Step(EDDRunning, 20000);
  EXPECT_THAT(callback_.Reports(), SizeIs(3)) << "more than there is to be written";
  Step(EDDRunning, 10000);
  EXPECT_THAT(callback_.Reports(), SizeIs(4));
  EXPECT_EQ("Progress 0/10000", callback_.Reports().back());
}

TEST_F(ImageLoaderTest, EveryStepIsLoggedWithWhatIsKnown) {
  PrepareAndInstall();

  Step(EDDRunning, 4096, true);
  Step(EDDRunning, 4096, false);

  const auto line =
      KLoader.Info("OnEvent", "ImageLoader: Progress. LoadSize: 10000, BytesProcessed: 4096");
  EXPECT_THAT(RecordedLog::Instance().LinesOf({logging::categories::Info}),
              ElementsAre(line, line));
}

TEST_F(ImageLoaderTest, WithoutATargetSizeThereIsNoProgress) {
  properties_.values["imgtargetsize"] = "";
  PrepareAndInstall();

  for (const unsigned bytes : {0U, 512U, 4096U}) {
    Step(EDDRunning, bytes);
  }
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

TEST_F(ImageLoaderTest, ACompletedCopyHasThePartitionTableWrittenAndSucceeds) {
  support::TempDir dir;
  tools_.Add("fdisk", "cat > '" + (dir / "input") + "'; echo out; echo error >&2");
  PrepareAndInstall();
  std::vector<std::size_t> subscriptionsAtReport;
  callback_.onReport = [&](const std::string&) {
    subscriptionsAtReport.push_back(broker_.Subscriptions().size());
  };

  Step(EDDCompleted, 10000);

  EXPECT_THAT(tools_.Calls(), ElementsAre("fdisk /dev/mmcblk1", "sleep 1"));
  EXPECT_EQ("w\n", ReadFile(dir / "input"));
  EXPECT_THAT(
      Lines(),
      ElementsAre(KLoader.Interface(KOnEvent, "ImageLoader"),
                  KLoader.Info("OnEvent", "ImageLoader: Succesfull install of image: /a/img.gz")));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 1")) << "and no progress of 0 before it";
  EXPECT_THAT(subscriptionsAtReport, ElementsAre(0U)) << "unsubscribed before the report";
}

TEST_F(ImageLoaderTest, AFailedPartitionTableFailsTheInstall) {
  tools_.Add("fdisk", "exit 3");
  PrepareAndInstall();

  Step(EDDCompleted, 10000);

  EXPECT_THAT(tools_.Calls(), ElementsAre("fdisk /dev/mmcblk1"));
  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KRunner.Error("SystemCmd",
                                "'echo w | fdisk /dev/mmcblk1 2>&1 >/dev/null && sleep 1' exited, "
                                "result=3"),
                  KLoader.Error("OnEvent", "fdisk: failed to write partition table: 3"),
                  KLoader.Error("OnEvent", "ImageLoader: Failed to install image: /a/img.gz")));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
}

TEST_F(ImageLoaderTest, AMissingFdiskFailsTheInstall) {
  std::filesystem::remove(tools_.Path("fdisk"));
  std::filesystem::remove(tools_.Path("sleep"));
  tools_.HideOthers();
  PrepareAndInstall();

  Step(EDDCompleted);

  EXPECT_TRUE(RecordedLog::Instance().HasText("fdisk: failed to write partition table: 127"));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

TEST_F(ImageLoaderTest, AnyOtherOutcomeFailsTheInstallWithoutTouchingThePartitionTable) {
  for (const auto result : {EDDFailed, EDDAborted}) {
    PrepareAndInstall();
    Step(result, 5000, false);
    EXPECT_THAT(
        Lines(),
        ElementsAre(KLoader.Interface(KOnEvent, "ImageLoader"),
                    KLoader.Error("OnEvent", "ImageLoader: Failed to install image: /a/img.gz")));
    EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
    EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
    callback_.Forget();
  }
  EXPECT_THAT(tools_.Calls(), IsEmpty());
}

TEST_F(ImageLoaderTest, TheLoaderMayBeDestroyedInsideItsReport) {
  PrepareAndInstall();
  callback_.onReport = [&](const std::string&) { loader_.reset(); };

  Step(EDDCompleted);

  EXPECT_FALSE(loader_.has_value());
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 1"));
}

// Ends -------------------------------------------------------------------------------------------

TEST_F(ImageLoaderTest, CleanupUnsubscribesTimerAndDescriptorOnce) {
  PrepareAndInstall();

  loader_->Cleanup();
  loader_->Cleanup();

  const auto& calls = broker_.Calls();
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(BrokerCall::KUnsubscribe, calls[0].kind);
  EXPECT_EQ(EEventTimer, calls[0].event.iType);
  EXPECT_EQ(1000U, calls[0].event.iSize) << "the record as it was subscribed";
  EXPECT_EQ(BrokerCall::KUnsubscribe, calls[1].kind);
  EXPECT_EQ(EEventDescriptor, calls[1].event.iType);
  EXPECT_EQ(77U, calls[1].event.iCode);
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
  EXPECT_THAT(script_.iCalls, IsEmpty()) << "the wrapper is not touched";
}

TEST_F(ImageLoaderTest, AbortEndsTheCopyThenTheSubscriptionsAndThenReports) {
  PrepareAndInstall();
  std::vector<std::string> order;
  callback_.onReport = [&](const std::string& report) {
    order.push_back(report + " after " + script_.iCalls.back() + ", subscriptions " +
                    std::to_string(broker_.Subscriptions().size()));
  };

  loader_->Abort();

  EXPECT_THAT(order, ElementsAre("Aborted after Abort, subscriptions 0"));
  EXPECT_THAT(script_.iCalls, ElementsAre("Abort"));
  EXPECT_THAT(Lines(), ElementsAre(KLoader.Interface(KAbort, "ImagerLoader")));
}

TEST_F(ImageLoaderTest, AbortReportsInEveryState) {
  loader_->Abort();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Aborted"));
  ASSERT_EQ(ETrue, loader_->Prepare());
  loader_->Abort();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Aborted", "Aborted"));
  EXPECT_THAT(script_.iCalls, ElementsAre("Abort"));

  PrepareAndInstall();
  Step(EDDCompleted);
  callback_.Forget();
  loader_->Abort();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Aborted"));
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
}

TEST_F(ImageLoaderTest, TheDestructorEndsTheCopyAndTheSubscriptions) {
  PrepareAndInstall();

  loader_.reset();

  EXPECT_THAT(script_.iCalls, ElementsAre("Abort", "Destroy"));
  ASSERT_THAT(broker_.Calls(), SizeIs(2));
  EXPECT_EQ(BrokerCall::KUnsubscribe, broker_.Calls()[0].kind);
  EXPECT_EQ(BrokerCall::KUnsubscribe, broker_.Calls()[1].kind);
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

TEST_F(ImageLoaderTest, TheDestructorOfAnUnpreparedLoaderDoesNothing) {
  loader_.reset();

  EXPECT_THAT(script_.iCalls, IsEmpty());
  EXPECT_THAT(broker_.Calls(), IsEmpty());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ImageLoaderTest, ASecondInstallReportsOnlyWhatGoesBeyondTheFirst) {
  PrepareAndInstall();
  Step(EDDRunning, 4096);
  Step(EDDFailed);
  callback_.Forget();

  loader_->Install();
  Step(EDDRunning, 4096);
  EXPECT_THAT(callback_.Reports(), IsEmpty()) << "the smallest remainder was never set back";
  Step(EDDRunning, 8192);
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 1808/10000"));

  ASSERT_EQ(ETrue, loader_->Prepare());
  callback_.Forget();
  loader_->Cleanup();
  loader_->Install();
  Step(EDDRunning, 4096);
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 5904/10000"));
}

// With the real wrapper --------------------------------------------------------------------------

class ImageLoaderCopyTest : public ImageLoaderTest {
 protected:
  void SetUp() override {
    ImageLoaderTest::SetUp();
    createWrapper = nullptr;
    properties_.values["imgsource"] = source_;
    properties_.values["imgtarget"] = target_;
    properties_.values["imgblocksize"] = "1k";
  }

  void MakeImage(const std::string& content) {
    support::WriteGzip(source_, content);
    properties_.values["imgtargetsize"] = std::to_string(content.length());
  }
  /** An image of 4 GiB, which no test copies to its end. */
  void MakeEndlessImage() {
    MakeImage(std::string(16 * 1024 * 1024, 'x'));
    const auto member = ReadFile(source_);
    std::string members;
    for (int count = 0; count < 256; ++count) {
      members += member;
    }
    support::WriteFile(source_, members);
    properties_.values["imgtargetsize"] = "4294967295";
  }

  /** The image is aside meanwhile. zcat reads a word from a pipe of its name, and fails. */
  void InstallWithFailingZcat() {
    const std::string aside = dir_ / "aside";
    std::filesystem::rename(source_, aside);
    support::Shell("mkfifo '" + source_ + "'");
    loader_->Install();
    ASSERT_THAT(support::Children(), SizeIs(2));
    support::WriteFile(source_, "now\n");
    std::filesystem::rename(aside, source_);
  }

  void ServeToTheEnd(milliseconds period = milliseconds(1000)) {
    support::Ticks ticks(period);
    EXPECT_TRUE(Eventually([&] {
      support::DeliverDue(broker_, ticks);
      return callback_.Ended();
    }));
  }
  void ServeFor(milliseconds duration) {
    support::Ticks ticks;
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
      support::DeliverDue(broker_, ticks);
    }
  }

  support::TempDir dir_;
  std::string source_ = dir_ / "image.gz";
  std::string target_ = dir_ / "target";
};

TEST_F(ImageLoaderCopyTest, AnImageIsInstalledByteForByte) {
  const auto content = support::RandomBytes(2 * 1024 * 1024 + 1);
  MakeImage(content);
  ASSERT_EQ(ETrue, loader_->Prepare());

  loader_->Install();
  ServeToTheEnd();

  EXPECT_EQ("Completed 1", callback_.Reports().back());
  EXPECT_TRUE(content == ReadFile(target_));
  EXPECT_THAT(RecordedLog::Instance().Errors(), IsEmpty());
}

TEST_F(ImageLoaderCopyTest, ProgressIsWhatDDHasWritten) {
  MakeImage(support::RandomBytes(100000));
  // Ends when its answer has been reported: what has not been read by its end is not looked at.
  tools_.Add("dd",
             "trap 'printf \"50+0 records in\\n50+0 records out\\n\" >&2; trap \"\" USR1;"
             " while [ ! -e " +
                 (dir_ / "reported") + " ]; do /bin/sleep 0.01; done;" +
                 " cat > /dev/null; exit 0' USR1; : > '" + (dir_ / "ready") +
                 "'; while :; do /bin/sleep 0.01; done");
  callback_.onReport = [this](const std::string&) { support::WriteFile(dir_ / "reported", ""); };
  ASSERT_EQ(ETrue, loader_->Prepare());
  loader_->Install();
  EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(dir_ / "ready"); }));

  ServeToTheEnd(milliseconds(20));

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 48800/100000", "Completed 1"));
}

TEST_F(ImageLoaderCopyTest, AnImageIsInstalledAgainAfterSuccessAndAfterFailure) {
  const auto content = support::RandomBytes(100000);
  MakeImage(content);
  // Fails once it is told to: ended before Install looks, it would be a failed start instead, after
  // which a wrapper copies no more.
  tools_.Add("zcat", "[ -p \"$1\" ] || exec /bin/zcat \"$1\"\nread -r word <\"$1\"\nexit 1");
  ASSERT_EQ(ETrue, loader_->Prepare());

  for (const bool good : {true, false, true}) {
    std::filesystem::remove(target_);
    callback_.Forget();
    if (good) {
      loader_->Install();
    } else {
      InstallWithFailingZcat();
    }
    ServeToTheEnd();
    EXPECT_EQ(good ? "Completed 1" : "Completed 0", callback_.Reports().back());
    EXPECT_EQ(good, content == ReadFile(target_));
  }
}

TEST_F(ImageLoaderCopyTest, ASecondInstallDuringTheCopyFailsAndTheCopyGoesOn) {
  MakeEndlessImage();
  ASSERT_EQ(ETrue, loader_->Prepare());
  loader_->Install();

  loader_->Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(support::Children(), SizeIs(2));
  EXPECT_THAT(broker_.Subscriptions(), SizeIs(2));
}

TEST_F(ImageLoaderCopyTest, APrepareDuringTheCopyLeavesNoChild) {
  MakeEndlessImage();
  ASSERT_EQ(ETrue, loader_->Prepare());
  loader_->Install();

  EXPECT_EQ(ETrue, loader_->Prepare());

  EXPECT_THAT(support::Children(), IsEmpty());
  broker_.Tick();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

TEST_F(ImageLoaderCopyTest, AfterAnAbortOnlyAPrepareMakesItRunAgain) {
  const auto content = support::RandomBytes(100000);
  MakeImage(content);
  ASSERT_EQ(ETrue, loader_->Prepare());
  loader_->Install();
  loader_->Abort();
  callback_.Forget();

  loader_->Install();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));

  callback_.Forget();
  ASSERT_EQ(ETrue, loader_->Prepare());
  loader_->Install();
  ServeToTheEnd();
  EXPECT_EQ("Completed 1", callback_.Reports().back());
  EXPECT_TRUE(content == ReadFile(target_));
}

TEST_F(ImageLoaderCopyTest, ALoaderDestroyedDuringTheCopyLeavesNoChild) {
  MakeEndlessImage();
  ASSERT_EQ(ETrue, loader_->Prepare());
  loader_->Install();
  ServeFor(milliseconds(50));

  loader_.reset();

  EXPECT_THAT(support::Children(), IsEmpty());
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
}

struct TNoInterfaces : IInterfaceBroker {};

class ImageModuleTest : public ImageLoaderCopyTest, public testing::WithParamInterface<ToolFamily> {
 protected:
  void SetUp() override {
    ImageLoaderCopyTest::SetUp();
    loader_.reset();
    const auto problem = support::UseTools(GetParam(), tools_);
    if (!problem.empty()) {
      GTEST_SKIP() << problem;
    }
    properties_.values["updatelist"] = "img";
    properties_.values["updateprogresslist"] = "100";
  }
  void TearDown() override {
    module_.reset();
    ImageLoaderCopyTest::TearDown();
  }

  void CreateAndInstall() {
    module_.reset(FeatureCreate2(featureId_, interfaces_, broker_, properties_));
    broker_.DeliverUser(EUserEventControllerPrepare, featureId_);
    broker_.DeliverUser(EUserEventControllerInstall, featureId_);
    ASSERT_NE(-1, support::SubscribedDescriptor(broker_));
  }

  TNoInterfaces interfaces_;
  std::unique_ptr<IFeatureModule2> module_;
};

INSTANTIATE_TEST_SUITE_P(Families, ImageModuleTest,
                         testing::Values(ToolFamily::KGnu, ToolFamily::KBusyBox),
                         testing::PrintToStringParamName());

// The moments are random; the seed is reported when one of them fails.
TEST_P(ImageModuleTest, AnAbortIsAcknowledgedWhenBothChildrenAreGoneAndNothingIsWrittenAfterwards) {
  MakeEndlessImage();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 generator(seed);
  std::uniform_int_distribution<int> moment(0, 200);

  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    CreateAndInstall();
    // The last one after dd has been asked for its progress.
    ServeFor(milliseconds(moment(generator) + (round == 9 ? 2100 : 0)));
    EXPECT_THAT(support::Children(), SizeIs(2)) << "the copy is too short for this test";
    bool acknowledged = false;
    std::size_t childrenThen = 2;
    std::uintmax_t sizeThen = 0;
    const auto size = [&] {
      std::error_code none;
      const auto bytes = std::filesystem::file_size(target_, none);
      return none ? 0 : bytes;
    };
    broker_.onPost = [&](const support::PostedEvent& post) {
      if (post.code == EUserEventAbortResult) {
        acknowledged = true;
        childrenThen = support::Children().size();
        sizeThen = size();
      }
    };

    broker_.DeliverUser(EUserEventControllerAbort, "");

    EXPECT_TRUE(acknowledged);
    EXPECT_EQ(0U, childrenThen);
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(sizeThen, size());
    broker_.onPost = nullptr;
    module_.reset();
  }
}

TEST_P(ImageModuleTest, AModuleDestroyedDuringTheCopyLeavesNothing) {
  MakeEndlessImage();
  CreateAndInstall();
  ServeFor(milliseconds(50));

  module_.reset();

  EXPECT_THAT(support::Children(), IsEmpty());
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
}

}  // namespace
