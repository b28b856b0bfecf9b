#include <climits>
#include <cstring>
#include <deque>
#include <gmock/gmock.h>
#include <limits>
#include <memory>
#include <sys/syscall.h>
#include <type_traits>
#include <utility>

#include "MainCPULoader/src/ArchiveLoader.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/CleanTest.h"
#include "tests/support/Expendable.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/HostFakes.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"

namespace {

using support::LogLine;
using support::RecordedLog;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

const support::LogSource KLog(logging::MainCPULoader, "MainCPULoader/src/ArchiveLoader");
constexpr int KStepSize = 262144;

static_assert(std::is_base_of_v<ILoader, CArchiveLoader>);
static_assert(std::is_base_of_v<IEventObserver, CArchiveLoader>);
static_assert(sizeof(CArchiveLoader) > KStepSize, "the buffer is part of the object");

/** What happened, in order, as short texts. */
using Trace = std::vector<std::string>;

/** A decompressor that does what the test says. */
class FakeDecompressor : public CInputProcess {
 public:
  FakeDecompressor(std::function<void(const std::string&)> record) : record_(std::move(record)) {}
  ~FakeDecompressor() override { record_("decompressor ended"); }

  bool Create(const TChr* file) override {
    record_(std::string("decompressor created: ") + reinterpret_cast<const char*>(file));
    return starts;
  }

  int Read(char* buffer, int length) override {
    EXPECT_EQ(KStepSize, length);
    if (reads.empty()) {
      return -1;
    }
    const int count = reads.front();
    reads.pop_front();
    const std::size_t filled = count > 0 ? static_cast<std::size_t>(std::min(count, length)) : 0;
    std::memset(buffer, fill, filled);
    return count;
  }

  bool starts = true;
  std::deque<int> reads;  // results; no more of them is a failure
  char fill = 'x';

 private:
  std::function<void(const std::string&)> record_;
};

/** An unpacker that keeps what it is given. */
class FakeUnpacker : public CArchiveLoaderOutputProcess {
 public:
  FakeUnpacker(std::function<void(const std::string&)> record) : record_(std::move(record)) {}
  ~FakeUnpacker() override { record_("unpacker ended"); }

  bool Create(const TChr* directory) override {
    record_(std::string("unpacker created: ") + reinterpret_cast<const char*>(directory));
    return starts;
  }

  bool Write(const char* buffer, int length) override {
    writes.push_back(length);
    if (length <= KStepSize) {
      lastByte = buffer[length - 1];
    }
    return takes;
  }

  bool starts = true;
  bool takes = true;
  std::vector<int> writes;
  char lastByte = 0;

 private:
  std::function<void(const std::string&)> record_;
};

/** A broker that also tells of subscriptions as they are made and undone. */
class TracingBroker : public support::FakeBroker {
 public:
  void Subscribe(const TEvent& filter, IEventObserver* observer) override {
    record("Subscribe");
    FakeBroker::Subscribe(filter, observer);
  }
  void Unsubscribe(const TEvent& filter, IEventObserver* observer) override {
    record("Unsubscribe");
    FakeBroker::Unsubscribe(filter, observer);
  }

  std::function<void(const std::string&)> record;
};

/** With scripted mount and umount; what the loader does to the outside is traced in order. */
class ArchiveLoaderTest : public support::CleanTest {
 protected:
  ArchiveLoaderTest() {
    for (const char* tool : {"mount", "umount", "sync"}) {
      tools_.Add(tool, "exit 0");
    }
    SetProperties("userfs");
    callback_.onReport = [this](const std::string& report) { Record(report); };
    broker_.record = callback_.onReport;
  }

  void TearDown() override {
    loader_.reset();
    // What the loader has not ended is ended here.
    delete decompressor_;
    delete unpacker_;
    CleanTest::TearDown();
  }

  void SetProperties(const std::string& name) {
    properties_.values = {{name + "source", archive_},
                          {name + "target", "/dev/sdx1"},
                          {name + "mountpoint", mountPoint_.Path()},
                          {name + "filesystem", "ext3"}};
  }

  /** A loader on fakes; they tell when the loader deletes them. */
  CArchiveLoader& MakeLoader(const std::string& name = "userfs") {
    const auto record = [this](const std::string& what) {
      if (what == "decompressor ended") {
        decompressor_ = nullptr;
      }
      if (what == "unpacker ended") {
        unpacker_ = nullptr;
      }
      Record(what);
    };
    decompressor_ = new FakeDecompressor(record);
    unpacker_ = new FakeUnpacker(record);
    loader_ = std::make_unique<CArchiveLoader>(name, featureId_, broker_, properties_, callback_,
                                               decompressor_, unpacker_);
    return *loader_;
  }

  /** A file of which only the last four bytes count here. */
  void MakeArchive(TUint32 uncompressedSize) {
    std::string content = "some bytes";
    content.append(reinterpret_cast<const char*>(&uncompressedSize), sizeof uncompressedSize);
    support::WriteFile(archive_, content);
  }

  /** A prepared and installed loader on fakes, for an archive of the given size. */
  CArchiveLoader& Installed(TUint32 uncompressedSize) {
    MakeArchive(uncompressedSize);
    MakeLoader().Prepare();
    loader_->Install();
    Forget();
    return *loader_;
  }

  void Forget() {
    TakeTrace();
    RecordedLog::Instance().Clear();
    callback_.Forget();
  }

  Trace TakeTrace() {
    Record("");
    return std::exchange(trace_, {});
  }

  /** Lines of the loader itself. */
  static std::vector<LogLine> Lines() {
    std::vector<LogLine> lines;
    for (const auto& line : RecordedLog::Instance().Lines()) {
      if (line.source == "MainCPULoader/src/ArchiveLoader") {
        lines.push_back(line);
      }
    }
    return lines;
  }

  std::string Mounting(const std::string& format = "ext3") const {
    const std::string options = format == "ext3" ? "rw,noexec,noatime,nodiratime,nodev,nosuid,"
                                                   "data=journal,commit=3600"
                                                 : "rw,noexec,noatime,nodev,nosuid";
    return "mount -t " + format + " -o " + options + " /dev/sdx1 " + mountPoint_.Path();
  }
  std::string Unmounting() const { return "umount -d " + mountPoint_.Path(); }

  std::string featureId_ = "feature";
  support::TempDir directory_;
  support::TempDir mountPoint_;
  std::string archive_ = directory_ / "archive.tar.gz";
  support::ScriptedTools tools_;
  TracingBroker broker_;
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  FakeDecompressor* decompressor_ = nullptr;
  FakeUnpacker* unpacker_ = nullptr;
  std::unique_ptr<CArchiveLoader> loader_;

 private:
  /** Note the tools that have run since the last note, then the text. */
  void Record(const std::string& what) {
    const auto calls = tools_.Calls();
    for (; toolCalls_ < calls.size(); ++toolCalls_) {
      trace_.push_back(calls[toolCalls_]);
    }
    if (!what.empty()) {
      trace_.push_back(what);
    }
  }

  Trace trace_;
  std::size_t toolCalls_ = 0;
};

// --- Prepare ------------------------------------------------------------------------------------

TEST_F(ArchiveLoaderTest, PrepareReadsItsFourPropertiesInOrderAndLogsEach) {
  EXPECT_EQ(ETrue, MakeLoader().Prepare());

  EXPECT_THAT(properties_.Lookups(),
              ElementsAre("userfssource", "userfstarget", "userfsmountpoint", "userfsfilesystem"));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(
          KLog.Info("Prepare", "ArchiveLoader"),
          KLog.Info("FillArchiveProperties", "ArchiveLoader: userfs source: " + archive_),
          KLog.Info("FillArchiveProperties", "ArchiveLoader: userfs target device: /dev/sdx1"),
          KLog.Info("FillArchiveProperties",
                    "ArchiveLoader: userfs mountpoint: " + mountPoint_.Path()),
          KLog.Info("FillArchiveProperties", "ArchiveLoader: userfs filesystemtype: ext3")));
  EXPECT_THAT(TakeTrace(), IsEmpty());
}

class ArchiveLoaderMissingPropertyTest : public ArchiveLoaderTest,
                                         public testing::WithParamInterface<int> {};

TEST_P(ArchiveLoaderMissingPropertyTest, PrepareFailsAtTheFirstMissingProperty) {
  const auto missing = static_cast<std::size_t>(GetParam());
  const std::vector<std::string> keys = {"userfssource", "userfstarget", "userfsmountpoint",
                                         "userfsfilesystem"};
  properties_.values.erase(keys[missing]);

  EXPECT_EQ(EFalse, MakeLoader().Prepare());

  EXPECT_EQ(missing + 1, properties_.Lookups().size()) << "those behind it are not looked up";
  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KLog.Error("Prepare", "ArchiveLoader: Failed to retrieve properties: 0")));
  EXPECT_EQ(missing + 2, Lines().size());
  EXPECT_THAT(TakeTrace(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryProperty, ArchiveLoaderMissingPropertyTest, testing::Range(0, 4));

TEST_F(ArchiveLoaderTest, ItsNameIsThePrefixOfEveryKeyAndTheFeatureIdIsCopied) {
  SetProperties("data");
  MakeLoader("data");
  featureId_ = "another";

  EXPECT_EQ(ETrue, loader_->Prepare());
  EXPECT_THAT(properties_.Lookups(), Contains("datasource"));
}

// --- Install ------------------------------------------------------------------------------------

TEST_F(ArchiveLoaderTest, InstallMountsStartsBothChildrenAndSubscribesToATimerOfAMillisecond) {
  MakeArchive(1000000);
  MakeLoader().Prepare();
  Forget();

  loader_->Install();

  EXPECT_THAT(
      Lines(),
      ElementsAre(
          KLog.Info("Install", "ArchiveLoader"),
          KLog.Info("Install", "ArchiveLoader: Mounting filesystem"),
          KLog.Info("Install", "ArchiveLoader: Checking filesystem"),
          KLog.Info("Install", "ArchiveLoader: found destination: " + mountPoint_.Path()),
          KLog.Info("Install", "ArchiveLoader: found archive: " + archive_),
          KLog.Info("Install", "ArchiveLoader: FileSize of uncompressed archive: 1000000")));
  EXPECT_THAT(TakeTrace(), ElementsAre(Mounting(), "decompressor created: " + archive_,
                                       "unpacker created: " + mountPoint_.Path(), "Subscribe"));
  EXPECT_THAT(callback_.Reports(), IsEmpty());

  const auto& filter = *broker_.Subscriptions().at(0).record;
  EXPECT_EQ(EEventTimer, filter.iType);
  EXPECT_EQ(0U, filter.iCode);
  EXPECT_EQ(1U, filter.iSize);
  EXPECT_EQ(1U, reinterpret_cast<std::uintptr_t>(filter.iData));
  EXPECT_EQ(loader_.get(), broker_.Subscriptions().at(0).observer);
}

TEST_F(ArchiveLoaderTest, ALoaderNamedFatMountsFatWhateverThePropertySays) {
  SetProperties("FAT");
  MakeArchive(10);
  MakeLoader("FAT").Prepare();

  loader_->Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(Mounting("vfat")));
}

TEST_F(ArchiveLoaderTest, AnyOtherLoaderMountsExt3WhateverThePropertySays) {
  properties_.values["userfsfilesystem"] = "FAT";
  MakeArchive(10);
  MakeLoader().Prepare();

  loader_->Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(Mounting("ext3")));
}

TEST_F(ArchiveLoaderTest, AFailedMountIsReportedByTheFirstStepAsFailureAndThenSuccess) {
  MakeArchive(1000000);
  tools_.Add("mount", "exit 32");
  MakeLoader().Prepare();
  Forget();

  loader_->Install();

  EXPECT_THAT(Lines(),
              ElementsAre(KLog.Info("Install", "ArchiveLoader"),
                          KLog.Info("Install", "ArchiveLoader: Mounting filesystem"),
                          KLog.Error("Install", "ArchiveLoader: Unable to mount filesystem: 1"),
                          KLog.Error("Install", "ArchiveLoader: Check filesystem failed: 1")));
  EXPECT_THAT(TakeTrace(), ElementsAre(Mounting(), Mounting(), Mounting(), "Subscribe"))
      << "neither child is started";
  RecordedLog::Instance().Clear();

  broker_.Tick();

  // The size was never read, so both counters are still 0.
  EXPECT_THAT(TakeTrace(),
              ElementsAre("Unsubscribe", "decompressor ended", "unpacker ended", Unmounting(),
                          "Completed 0", "Unsubscribe", Unmounting(), "Completed 1"));
  EXPECT_THAT(
      Lines(),
      ElementsAre(KLog.Error("OnEvent", "ArchiveLoader: Error installing update. retVal = -1"),
                  KLog.Info("OnEvent", "ArchiveLoader: Updates installed")));
}

const LogLine KNoOutput =
    KLog.Error("Install", "ArchiveLoader: Failed to create archiveLoaderOutput.");
const LogLine KNoInput =
    KLog.Error("Install", "ArchiveLoader: Failed to create archiveLoaderInput.");

TEST_F(ArchiveLoaderTest, AMissingDestinationStartsNoChildAndFailsInTheFirstStep) {
  const std::string missing = directory_ / "missing";
  properties_.values["userfsmountpoint"] = missing;
  MakeArchive(1000000);
  MakeLoader().Prepare();
  Forget();

  loader_->Install();

  EXPECT_THAT(
      Lines(),
      ElementsAre(KLog.Info("Install", "ArchiveLoader"),
                  KLog.Info("Install", "ArchiveLoader: Mounting filesystem"),
                  KLog.Info("Install", "ArchiveLoader: Checking filesystem"),
                  KLog.Error("Install", "ArchiveLoader: could not find destination: " + missing),
                  KLog.Info("Install", "ArchiveLoader: found archive: " + archive_),
                  KLog.Info("Install", "ArchiveLoader: FileSize of uncompressed archive: 1000000"),
                  KNoOutput, KNoInput));
  EXPECT_EQ("Subscribe", TakeTrace().back());

  broker_.Tick();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

TEST_F(ArchiveLoaderTest, AMissingArchiveStartsNoChildButSubscribes) {
  MakeLoader().Prepare();
  Forget();

  loader_->Install();

  EXPECT_THAT(
      Lines(),
      ElementsAre(KLog.Info("Install", "ArchiveLoader"),
                  KLog.Info("Install", "ArchiveLoader: Mounting filesystem"),
                  KLog.Info("Install", "ArchiveLoader: Checking filesystem"),
                  KLog.Info("Install", "ArchiveLoader: found destination: " + mountPoint_.Path()),
                  KLog.Error("Install", "ArchiveLoader: could not find archive: " + archive_),
                  KLog.Error("FileSizeUncompressedDataGzip",
                             "ArchiveLoader: Could not open compressed file: " + archive_),
                  KLog.Error("Install",
                             "ArchiveLoader: could not determine fileSize of archive: " + archive_),
                  KNoOutput, KNoInput));
  EXPECT_THAT(TakeTrace(), ElementsAre(Mounting(), "Subscribe"));

  broker_.Tick();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0", "Completed 1"));
}

TEST_F(ArchiveLoaderTest, AnArchiveThatTheHostDoesNotKnowStartsNoChildThoughItCanBeRead) {
  MakeArchive(1000);
  MakeLoader().Prepare();
  support::HostFakes::Instance().results["InternalFileExists"] = EFalse;
  Forget();

  loader_->Install();

  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KLog.Error("Install", "ArchiveLoader: could not find archive: " + archive_),
                  KNoOutput, KNoInput));
  EXPECT_THAT(TakeTrace(), ElementsAre(Mounting(), "Subscribe"));
}

TEST_F(ArchiveLoaderTest, AnArchiveWithAllBitsOfItsSizeSetCannotBeToldFromAnUnreadableOne) {
  MakeArchive(0xFFFFFFFF);
  MakeLoader().Prepare();
  Forget();

  loader_->Install();

  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KLog.Error("Install",
                             "ArchiveLoader: could not determine fileSize of archive: " + archive_),
                  KNoOutput, KNoInput));
  EXPECT_THAT(TakeTrace(), ElementsAre(Mounting(), "Subscribe"));
}

TEST_F(ArchiveLoaderTest, AFailedDecompressorLogsBothTextsAndTheUnpackerIsNotStarted) {
  MakeArchive(1000000);
  MakeLoader().Prepare();
  decompressor_->starts = false;
  Forget();

  loader_->Install();

  EXPECT_THAT(RecordedLog::Instance().Errors(), ElementsAre(KNoOutput, KNoInput));
  EXPECT_THAT(TakeTrace(),
              ElementsAre(Mounting(), "decompressor created: " + archive_, "Subscribe"));
}

TEST_F(ArchiveLoaderTest, AFailedUnpackerLogsTheInputTextAlone) {
  MakeArchive(1000000);
  MakeLoader().Prepare();
  unpacker_->starts = false;
  Forget();

  loader_->Install();

  EXPECT_THAT(RecordedLog::Instance().Errors(), ElementsAre(KNoInput));
  EXPECT_EQ("Subscribe", TakeTrace().back());
}

TEST_F(ArchiveLoaderTest, WithoutPipesItBehavesAsAFailedStartAndAFailedRead) {
  MakeArchive(1000000);
  loader_ = std::make_unique<CArchiveLoader>("userfs", featureId_, broker_, properties_, callback_,
                                             nullptr, nullptr);
  loader_->Prepare();

  loader_->Install();
  EXPECT_THAT(RecordedLog::Instance().Errors(), ElementsAre(KNoOutput, KNoInput));
  RecordedLog::Instance().Clear();

  broker_.Tick();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KLog.Error("OnEvent", "ArchiveLoader: Error installing update. retVal = -1")));
}

TEST_F(ArchiveLoaderTest, WithoutAnUnpackerTheFirstPieceCannotBeWritten) {
  MakeArchive(1000000);
  MakeLoader();
  loader_ = std::make_unique<CArchiveLoader>("userfs", featureId_, broker_, properties_, callback_,
                                             decompressor_, nullptr);
  loader_->Prepare();
  loader_->Install();
  EXPECT_THAT(RecordedLog::Instance().Errors(), ElementsAre(KNoInput));
  decompressor_->reads = {100};

  broker_.Tick();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

// --- Steps --------------------------------------------------------------------------------------

TEST_F(ArchiveLoaderTest, EveryStepMovesOnePieceAndReportsWhatRemains) {
  Installed(1000000);
  decompressor_->reads = {KStepSize, 1000};

  broker_.Tick();
  decompressor_->fill = 'y';
  broker_.Tick();

  EXPECT_THAT(unpacker_->writes, ElementsAre(KStepSize, 1000));
  EXPECT_EQ('y', unpacker_->lastByte) << "the bytes written are those read";
  EXPECT_THAT(TakeTrace(), ElementsAre("Progress 737856/1000000", "Progress 736856/1000000"));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, TheStepThatReachesTheSizeReportsNothingLeftAndThenEndsEverythingInOrder) {
  Installed(300000);
  decompressor_->reads = {KStepSize, 300000 - KStepSize};

  broker_.Tick();
  TakeTrace();
  broker_.Tick();

  EXPECT_THAT(TakeTrace(), ElementsAre("Progress 0/300000", "Unsubscribe", "decompressor ended",
                                       "unpacker ended", Unmounting(), "Completed 1"));
  EXPECT_THAT(Lines(), ElementsAre(KLog.Info("OnEvent", "ArchiveLoader: Updates installed")));
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, BytesBeyondTheSizeAreWrittenButNotCounted) {
  Installed(1000);
  decompressor_->reads = {1500};

  broker_.Tick();

  EXPECT_THAT(TakeTrace(), ElementsAre("Progress 0/1000", "Unsubscribe", "decompressor ended",
                                       "unpacker ended", Unmounting(), "Completed 1"));
}

TEST_F(ArchiveLoaderTest, TheEndOfTheStreamBeforeTheSizeCompletesWithoutALastProgress) {
  Installed(1000);
  decompressor_->reads = {400, 0};

  broker_.Tick();
  broker_.Tick();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 600/1000", "Completed 1"));
  EXPECT_THAT(Lines(), ElementsAre(KLog.Info("OnEvent", "ArchiveLoader: Updates installed")));
}

TEST_F(ArchiveLoaderTest, AFailedReadEndsEverythingAndReportsFailureOnce) {
  Installed(1000);
  decompressor_->reads = {400, -1};

  broker_.Tick();
  TakeTrace();
  broker_.Tick();

  EXPECT_THAT(TakeTrace(), ElementsAre("Unsubscribe", "decompressor ended", "unpacker ended",
                                       Unmounting(), "Completed 0"));
  EXPECT_THAT(Lines(), ElementsAre(KLog.Error(
                           "OnEvent", "ArchiveLoader: Error installing update. retVal = -1")));
}

TEST_F(ArchiveLoaderTest, AFailedWriteIsReportedWithTheCountThatWasRead) {
  Installed(1000);
  unpacker_->takes = false;
  decompressor_->reads = {400};

  broker_.Tick();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(Lines(), ElementsAre(KLog.Error(
                           "OnEvent", "ArchiveLoader: Error installing update. retVal = 400")));
}

TEST_F(ArchiveLoaderTest, AFailedWriteWithEqualCountersReportsFailureAndThenSuccess) {
  Installed(0);
  unpacker_->takes = false;
  decompressor_->reads = {400};

  broker_.Tick();

  EXPECT_THAT(TakeTrace(),
              ElementsAre("Unsubscribe", "decompressor ended", "unpacker ended", Unmounting(),
                          "Completed 0", "Unsubscribe", Unmounting(), "Completed 1"));
  EXPECT_THAT(
      Lines(),
      ElementsAre(KLog.Error("OnEvent", "ArchiveLoader: Error installing update. retVal = 400"),
                  KLog.Info("OnEvent", "ArchiveLoader: Updates installed")));
}

TEST_F(ArchiveLoaderTest, AStreamWithoutBytesOfAnArchiveOfSizeZeroCompletesOnce) {
  Installed(0);
  decompressor_->reads = {0};

  broker_.Tick();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 1"));
}

TEST_F(ArchiveLoaderTest, ASizeOf2GiBAndMoreIsNegativeAndReachedByTheFirstStep) {
  Installed(0x80000000);
  decompressor_->reads = {KStepSize};

  broker_.Tick();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/2147483648", "Completed 1"));
}

TEST_F(ArchiveLoaderTest, TheLargestSizeIsCountedWithoutOverflow) {
  Installed(0x7FFFFFFF);
  decompressor_->reads = {0x7FFFFF00, KStepSize};

  broker_.Tick();
  broker_.Tick();

  EXPECT_THAT(callback_.Reports(),
              ElementsAre("Progress 255/2147483647", "Progress 0/2147483647", "Completed 1"));
}

TEST_F(ArchiveLoaderTest, EveryEventIsAStep) {
  Installed(1000);
  decompressor_->reads = {400, 400};

  loader_->OnEvent(TEvent{EEventUser, 77, 0, nullptr});
  loader_->OnEvent(TEvent{EEventDescriptor, 5, 0, nullptr});

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 600/1000", "Progress 200/1000"));
}

// --- Again and again ----------------------------------------------------------------------------

TEST_F(ArchiveLoaderTest, ASecondInstallAfterSuccessFindsNoChildrenAndReportsFailureThenSuccess) {
  Installed(1000);
  decompressor_->reads = {1000};
  broker_.Tick();
  Forget();

  loader_->Install();

  EXPECT_THAT(RecordedLog::Instance().Errors(), ElementsAre(KNoOutput, KNoInput));
  EXPECT_THAT(TakeTrace(), ElementsAre(Mounting(), "Subscribe"));

  broker_.Tick();
  EXPECT_THAT(TakeTrace(), ElementsAre("Unsubscribe", Unmounting(), "Completed 0", "Unsubscribe",
                                       Unmounting(), "Completed 1"));
}

TEST_F(ArchiveLoaderTest, ASecondInstallAfterAFailureFailsAgain) {
  Installed(1000);
  decompressor_->reads = {400, -1};
  broker_.Tick();
  broker_.Tick();
  Forget();

  loader_->Install();
  EXPECT_THAT(RecordedLog::Instance().Errors(), ElementsAre(KNoOutput, KNoInput));

  broker_.Tick();
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

TEST_F(ArchiveLoaderTest, AnInstallAfterAnAbortGoesOnCountingWhereItStopped) {
  Installed(1000);
  decompressor_->reads = {400, 500, 500};
  broker_.Tick();
  loader_->Abort();
  Forget();

  loader_->Install();
  EXPECT_THAT(TakeTrace(), ElementsAre(Mounting(), "decompressor created: " + archive_,
                                       "unpacker created: " + mountPoint_.Path(), "Subscribe"));

  broker_.Tick();
  broker_.Tick();
  EXPECT_THAT(callback_.Reports(),
              ElementsAre("Progress 100/1000", "Progress 0/1000", "Completed 1"));
}

TEST_F(ArchiveLoaderTest, AnInstallDuringARunKeepsOneSubscription) {
  Installed(1000);

  loader_->Install();

  EXPECT_EQ(1U, broker_.Subscriptions().size());
  loader_.reset();
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty()) << "no event may reach an object that is gone";
}

TEST_F(ArchiveLoaderTest, FinalizingTwiceDeletesOnceAndDoesEverythingElseTwice) {
  Installed(1000);

  loader_->FinalizeLoading(0);
  loader_->FinalizeLoading(1);

  EXPECT_THAT(TakeTrace(),
              ElementsAre("Unsubscribe", "decompressor ended", "unpacker ended", Unmounting(),
                          "Completed 0", "Unsubscribe", Unmounting(), "Completed 1"));
}

TEST_F(ArchiveLoaderTest, AFailedUnmountIsPassedOver) {
  Installed(1000);
  tools_.Add("umount", "exit 1");
  decompressor_->reads = {1000};

  broker_.Tick();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/1000", "Completed 1"));
}

TEST_F(ArchiveLoaderTest, WhatItsReportsSetOffMayCallItAgain) {
  Installed(1000);
  decompressor_->reads = {400, -1};
  callback_.onReport = [this](const std::string& report) {
    if (report == "Progress 600/1000") {
      loader_->Abort();
    }
    if (report == "Completed 0") {
      loader_->Install();
    }
  };

  broker_.Tick();
  EXPECT_THAT(broker_.Subscriptions(), IsEmpty());
  loader_->OnEvent(TEvent{});

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 600/1000", "Aborted", "Completed 0"));
  EXPECT_EQ(1U, broker_.Subscriptions().size()) << "of the install inside the report";
}

TEST_F(ArchiveLoaderTest, TheNextLoaderStartsInsideItsReportOfSuccess) {
  MakeArchive(1000);
  Installed(1000);
  decompressor_->reads = {1000};
  CArchiveLoader next("userfs", featureId_, broker_, properties_, callback_, nullptr, nullptr);
  next.Prepare();
  bool started = false;
  callback_.onReport = [&](const std::string& report) {
    if (report == "Completed 1" && !started) {
      started = true;
      next.Install();
    }
  };

  broker_.Tick();

  ASSERT_TRUE(started);
  ASSERT_EQ(1U, broker_.Subscriptions().size());
  EXPECT_EQ(&next, broker_.Subscriptions().front().observer);
}

// --- Abort and end ------------------------------------------------------------------------------

TEST_F(ArchiveLoaderTest, AbortStopsTheSteppingAndNothingElse) {
  Installed(1000);
  decompressor_->reads = {400, 400};
  broker_.Tick();
  Forget();

  loader_->Abort();

  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KLog.Info("Abort", "ArchiveLoader")));
  EXPECT_THAT(TakeTrace(), ElementsAre("Unsubscribe", "Aborted")) << "no child ends, no unmount";
  broker_.Tick();
  EXPECT_THAT(TakeTrace(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, AbortWorksBeforeTheInstallAndAfterTheEnd) {
  MakeArchive(1000);
  MakeLoader().Abort();
  loader_->Prepare();
  loader_->Install();
  decompressor_->reads = {1000};
  broker_.Tick();
  loader_->Abort();

  EXPECT_THAT(callback_.Reports(),
              ElementsAre("Aborted", "Progress 0/1000", "Completed 1", "Aborted"));
}

TEST_F(ArchiveLoaderTest, ItsEndUnsubscribesWithTheRecordOfTheSubscriptionAndKeepsThePipes) {
  Installed(1000);
  const TEvent* record = broker_.Subscriptions().at(0).record;

  loader_.reset();

  EXPECT_EQ(record, broker_.Calls().back().record);
  EXPECT_THAT(TakeTrace(), ElementsAre("Unsubscribe"));
  EXPECT_NE(nullptr, decompressor_);
  EXPECT_NE(nullptr, unpacker_);
}

TEST_F(ArchiveLoaderTest, ItsEndUnsubscribesInEveryState) {
  MakeLoader();
  loader_.reset();
  EXPECT_THAT(TakeTrace(), ElementsAre("Unsubscribe"));
  delete decompressor_;
  delete unpacker_;

  Installed(1000);
  loader_->Abort();
  Forget();
  loader_.reset();
  EXPECT_THAT(TakeTrace(), ElementsAre("Unsubscribe"));
  delete decompressor_;
  delete unpacker_;

  Installed(1000);
  decompressor_->reads = {1000};
  broker_.Tick();
  Forget();
  loader_.reset();
  EXPECT_THAT(TakeTrace(), ElementsAre("Unsubscribe"));
}

// --- File-system operations
// -----------------------------------------------------------------------

TEST_F(ArchiveLoaderTest, TheFileSystemTypeIsFatForExactlyFat) {
  EXPECT_EQ(IFileHandler::EFormatFAT, CArchiveLoader::FileSystemType("FAT"));
  for (const char* type : {"", "fat", "FAT ", "FAT32", "EXT3", "EXT2"}) {
    EXPECT_EQ(IFileHandler::EFormatEXT3, CArchiveLoader::FileSystemType(type)) << type;
  }
}

TEST_F(ArchiveLoaderTest, FileSystemOperationsReturnTranslatedResults) {
  EXPECT_EQ(0, CArchiveLoader::MountFileSystem("/dev/sdx1", mountPoint_.Path(), "EXT3"));
  EXPECT_EQ(0, CArchiveLoader::UmountFileSystem(mountPoint_.Path()));
  EXPECT_THAT(tools_.Calls(), ElementsAre(Mounting(), Unmounting()));

  tools_.Add("mount", "exit 1");
  EXPECT_EQ(1, CArchiveLoader::MountFileSystem("/dev/sdx1", mountPoint_.Path(), "FAT"));
  EXPECT_EQ(Mounting("vfat"), tools_.Calls().back());
}

TEST_F(ArchiveLoaderTest, FormattingMakesTheFileSystemOfTheTypeAndMountsIt) {
  tools_.Add("mkdosfs", "exit 0");

  EXPECT_EQ(0, CArchiveLoader::FormatFileSystem("/dev/sdx1", mountPoint_.Path(), "FAT"));
  EXPECT_THAT(tools_.Calls(),
              ElementsAre(Unmounting(), "mkdosfs -F32 -I -a256 /dev/sdx1", Mounting("vfat")));

  tools_.Forget();
  tools_.Add("mkfs.ext3", "exit 1");
  EXPECT_EQ(1, CArchiveLoader::FormatFileSystem("/dev/sdx1", mountPoint_.Path(), "userfs"));
  EXPECT_THAT(tools_.Calls(), Contains(testing::StartsWith("mkfs.ext3 ")));
}

// --- Translations
// ---------------------------------------------------------------------------------

template <typename TError>
void ExpectTranslations(const std::map<int, int>& known, const std::vector<int>& unknown,
                        const std::string& text) {
  for (const auto& [error, result] : known) {
    EXPECT_EQ(result, CArchiveLoader::Translate(static_cast<TError>(error))) << error;
  }
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
  for (const int error : unknown) {
    RecordedLog::Instance().Clear();
    EXPECT_EQ(19, CArchiveLoader::Translate(static_cast<TError>(error))) << error;
    EXPECT_THAT(RecordedLog::Instance().Lines(),
                ElementsAre(KLog.Warning("Translate", text + std::to_string(error))));
  }
}

TEST_F(ArchiveLoaderTest, TranslatesResultsOfTheFileHandler) {
  ExpectTranslations<IFileHandler::TFileHndlError>({{0, 0}, {1, 1}, {2, 2}, {5, 16}, {6, 17}},
                                                   {3, 4, 7, 8, 100, -1},
                                                   "Unknown file handler error : ");
}

TEST_F(ArchiveLoaderTest, TranslatesResultsOfFileLists) {
  ExpectTranslations<ISwlFileList::TSwlFileListError>({{0, 0}, {1, 1}, {2, 8}, {3, 10}, {4, 17}},
                                                      {5, 6, 19, -1, INT_MIN},
                                                      "Unknown filelist error : ");
}

TEST_F(ArchiveLoaderTest, TranslatesResultsOfArchives) {
  ExpectTranslations<ISwlArchive::TSwlArchiveError>({{0, 0}, {1, 1}, {2, 6}, {3, 10}, {4, 17}},
                                                    {5, 6, 19, -1, INT_MAX},
                                                    "Unknown archive handler error : ");
}

// --- Size of the archive
// --------------------------------------------------------------------------

TEST_F(ArchiveLoaderTest, TheSizeIsThatOfTheTrailer) {
  support::WriteGzip(archive_, std::string(123456, 'a'));

  EXPECT_EQ(123456, CArchiveLoader::FileSizeUncompressedDataGzip(archive_.c_str()));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, TheSizeOfSeveralMembersIsThatOfTheLast) {
  support::WriteGzip(archive_, "abcdef");
  support::WriteGzip(directory_ / "second", "abc");
  support::Shell("cat '" + directory_ / "second" + "' >> '" + archive_ + "'");

  EXPECT_EQ(3, CArchiveLoader::FileSizeUncompressedDataGzip(archive_.c_str()));
}

TEST_F(ArchiveLoaderTest, TheSizeOfAFileThatCannotBeOpenedIsAnError) {
  EXPECT_EQ(-1, CArchiveLoader::FileSizeUncompressedDataGzip(archive_.c_str()));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KLog.Error("FileSizeUncompressedDataGzip",
                             "ArchiveLoader: Could not open compressed file: " + archive_)));
}

TEST_F(ArchiveLoaderTest, TheSizeOfAFileOfLessThanFourBytesIsAnErrorAndTheStreamStaysOpen) {
  support::WriteFile(archive_, "abc");
  const auto before = support::OpenDescriptors().size();

  EXPECT_EQ(-1, CArchiveLoader::FileSizeUncompressedDataGzip(archive_.c_str()));

  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KLog.Error("FileSizeUncompressedDataGzip",
                                     "ArchiveLoader: Could not seek in file: " + archive_)));
  EXPECT_EQ(before + 1, support::OpenDescriptors().size());
  AcceptWhatIsLeft();
}

TEST_F(ArchiveLoaderTest, TheSizeOfAFileThatCannotBeReadIsAnErrorAndTheStreamStaysOpen) {
  const auto before = support::OpenDescriptors().size();

  EXPECT_EQ(-1, CArchiveLoader::FileSizeUncompressedDataGzip("/dev/null"));

  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KLog.Error("FileSizeUncompressedDataGzip",
                                     "ArchiveLoader: Could not read in file: /dev/null")));
  EXPECT_EQ(before + 1, support::OpenDescriptors().size());
  AcceptWhatIsLeft();
}

TEST_F(ArchiveLoaderTest, TheSizeOfAFileThatCannotBeClosedIsAnError) {
  MakeArchive(1000);
  support::InExpendableProcess([this] {
    support::RefuseSystemCall(SYS_close, EIO);

    EXPECT_EQ(-1, CArchiveLoader::FileSizeUncompressedDataGzip(archive_.c_str()));

    EXPECT_THAT(RecordedLog::Instance().Lines(),
                ElementsAre(KLog.Error("FileSizeUncompressedDataGzip",
                                       "ArchiveLoader: Could not close file: " + archive_)));
  });
}

}  // namespace
