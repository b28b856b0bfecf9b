#include <algorithm>
#include <deque>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MainCPULoader/src/ImageChecker.h"
#include "tests/MainCPULoader/ImageCheck.h"
#include "tests/support/RecordedLog.h"

namespace {

using support::ImageCheck;
using support::LogLine;
using support::RandomBytes;
using support::RecordedLog;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KChecker(logging::MainCPULoader, "MainCPULoader/src/ImageChecker");
const LogLine KOnEventEntry =
    KChecker.Interface("virtual void CImageChecker::OnEvent(const TEvent&)", "ImageChecker");

constexpr unsigned long long KMiB = 1024 * 1024;

/** What a scripted decompressor was asked, and how it answers; outlives it. */
struct Script {
  bool starts = true;
  /** The content, or zeros without end when it is empty. */
  std::string content;
  /** The most that each read delivers, in turn; then as much as is asked for. */
  std::deque<int> portions;

  std::vector<std::string> calls;
  std::vector<int> lengths;
  std::size_t position = 0;
  bool destroyed = false;
  std::function<void()> onCreate;
  std::function<void()> onDestruction;
};

/** A decompressor without a child. */
class ScriptedInputProcess : public CInputProcess {
 public:
  explicit ScriptedInputProcess(Script& script) : script_(script) {}
  ~ScriptedInputProcess() override {
    script_.destroyed = true;
    if (script_.onDestruction) {
      script_.onDestruction();
    }
  }

  bool Create(const TChr* file) override {
    script_.calls.push_back(std::string("Create ") + reinterpret_cast<const char*>(file));
    if (script_.onCreate) {
      script_.onCreate();
    }
    return script_.starts;
  }

  int Read(char* buffer, int length) override {
    script_.lengths.push_back(length);
    std::size_t count = static_cast<std::size_t>(length);
    if (!script_.portions.empty()) {
      count = static_cast<std::size_t>(std::min(length, script_.portions.front()));
      script_.portions.pop_front();
    }
    if (script_.content.empty()) {
      std::fill_n(buffer, count, '\0');
      return static_cast<int>(count);
    }
    count = std::min(count, script_.content.length() - script_.position);
    script_.content.copy(buffer, count, script_.position);
    script_.position += count;
    return static_cast<int>(count);
  }

 private:
  Script& script_;
};

class ImageCheckerTest : public support::CleanTest {
 protected:
  /** An image and a target with these contents. */
  void Make(const std::string& image, const std::string& target) {
    support::WriteGzip(Image(), image);
    support::WriteFile(Target(), target);
  }
  void Make(const std::string& content) { Make(content, content); }

  std::string Image() const { return directory_ / "image.gz"; }
  std::string Target() const { return directory_ / "target"; }

  /** A check of the script's content against the target. */
  std::unique_ptr<ImageCheck> Scripted(unsigned long long size) {
    return std::make_unique<ImageCheck>("/a/image.gz", Target(), size,
                                        new ScriptedInputProcess(script_));
  }

  /** The descriptors that refer to the target. */
  std::vector<int> OpenTargets() const {
    std::vector<int> descriptors;
    for (const auto& [descriptor, name] : support::OpenDescriptors()) {
      if (name == Target()) {
        descriptors.push_back(descriptor);
      }
    }
    return descriptors;
  }

  std::vector<LogLine> Errors() const { return RecordedLog::Instance().Errors(); }

  support::TempDir directory_;
  Script script_;
};

TEST_F(ImageCheckerTest, PiecesAndStepsHaveTheirSizes) {
  EXPECT_EQ(4096U, CImageChecker::KChunkSize);
  EXPECT_EQ(2097152U, CImageChecker::KTransferSize);
}

// --- Prepare -----------------------------------------------------------------------------------

TEST_F(ImageCheckerTest, PrepareReadsItsThreePropertiesInOrderAndLogsEach) {
  ImageCheck check("/a/rootfs.img.gz", "/dev/sdx", 5000);

  EXPECT_EQ(ETrue, check.Checker().Prepare());

  EXPECT_THAT(check.Properties().Lookups(), ElementsAre("imgsource", "imgtarget", "imgtargetsize"));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KChecker.Info("Prepare", "ImageChecker"),
                  KChecker.Info("ReadStringProperty", "ImageChecker: img source: /a/rootfs.img.gz"),
                  KChecker.Info("ReadStringProperty", "ImageChecker: img target: /dev/sdx"),
                  KChecker.Info("ReadLLProperty", "ImageChecker: img targetsize: 5000")));
  EXPECT_THAT(check.Broker().Calls(), IsEmpty());
}

TEST_F(ImageCheckerTest, PrepareStopsAtTheFirstMissingProperty) {
  const std::vector<std::string> keys = {"source", "target", "targetsize"};
  for (std::size_t missing = 0; missing < keys.size(); ++missing) {
    SCOPED_TRACE(keys[missing]);
    RecordedLog::Instance().Clear();
    ImageCheck check("/a/image.gz", "/dev/sdx", 1);
    check.Properties().values.erase("img" + keys[missing]);

    EXPECT_EQ(EFalse, check.Checker().Prepare());

    EXPECT_EQ(missing + 1, check.Properties().Lookups().size());
    const char* function = keys[missing] == "targetsize" ? "ReadLLProperty" : "ReadStringProperty";
    EXPECT_THAT(
        Errors(),
        ElementsAre(KChecker.Error(function, "ImageChecker: Failed to retrieve '" + keys[missing] +
                                                 "' property"),
                    KChecker.Error("Prepare", "ImageChecker: Failed to retrieve properties")));
  }
}

TEST_F(ImageCheckerTest, PrepareWithoutANameFailsWithTheSummaryOnly) {
  support::FakeBroker broker;
  support::FakeProperties properties;
  properties.values = {{"source", "/a"}, {"target", "/b"}, {"targetsize", "1"}};
  support::FakeCallback callback;
  CImageChecker checker("", "feature", broker, properties, callback, new CInputProcess);

  EXPECT_EQ(EFalse, checker.Prepare());

  EXPECT_THAT(properties.Lookups(), IsEmpty());
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KChecker.Info("Prepare", "ImageChecker"),
                  KChecker.Error("Prepare", "ImageChecker: Failed to retrieve properties")));
}

TEST_F(ImageCheckerTest, ATargetSizeThatIsNotAWholeNumberFailsThePrepare) {
  for (const char* text : {"12abc", "x", "1 ", "0x10", "1.5"}) {
    SCOPED_TRACE(text);
    RecordedLog::Instance().Clear();
    ImageCheck check("/a", "/b", 0);
    check.Properties().values["imgtargetsize"] = text;

    EXPECT_EQ(EFalse, check.Checker().Prepare());

    EXPECT_THAT(
        Errors(),
        ElementsAre(
            KChecker.Error("ReadLLProperty", "ImageChecker: Failed to parse 'targetsize' property"),
            KChecker.Error("Prepare", "ImageChecker: Failed to retrieve properties")));
  }
}

TEST_F(ImageCheckerTest, NumbersHave64Bits) {
  struct TCase {
    const char* text;
    unsigned long long number;
    const char* logged;
  };
  for (const TCase& test :
       {TCase{"", 0, "0"}, TCase{" 7", 7, "7"}, TCase{"5368709120", 5368709120, "5368709120"},
        TCase{"-1", 18446744073709551615U, "18446744073709551615"},
        TCase{"99999999999999999999", 9223372036854775807U, "9223372036854775807"}}) {
    SCOPED_TRACE(test.text);
    RecordedLog::Instance().Clear();
    ImageCheck check("/a", "/b", 0);
    check.Properties().values["imgtargetsize"] = test.text;
    unsigned long long number = 1;

    EXPECT_EQ(ETrue, check.Checker().ReadLLProperty("targetsize", number));

    EXPECT_EQ(test.number, number);
    EXPECT_THAT(
        RecordedLog::Instance().Lines(),
        ElementsAre(KChecker.Info("ReadLLProperty",
                                  std::string("ImageChecker: img targetsize: ") + test.logged)));
  }
}

// --- Install -----------------------------------------------------------------------------------

TEST_F(ImageCheckerTest, InstallStartsTheDecompressorAndSubscribesToTheTarget) {
  support::WriteFile(Target(), "content");
  auto check = Scripted(7);
  std::size_t openAtCreate = 0;
  script_.onCreate = [&] { openAtCreate = OpenTargets().size(); };
  ASSERT_EQ(ETrue, check->Checker().Prepare());
  RecordedLog::Instance().Clear();

  check->Checker().Install();

  EXPECT_THAT(script_.calls, ElementsAre("Create /a/image.gz"));
  EXPECT_EQ(1U, openAtCreate) << "the target is opened first";
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KChecker.Interface("virtual void CImageChecker::Install()", "ImageChecker")));
  ASSERT_EQ(1U, check->Broker().Subscriptions().size());
  const TEvent& filter = check->Broker().Subscriptions().front().filter;
  EXPECT_EQ(1U, filter.iType);
  EXPECT_EQ(0U, filter.iSize);
  EXPECT_THAT(OpenTargets(), ElementsAre(static_cast<int>(filter.iCode)));
  EXPECT_EQ(&check->Checker(), check->Broker().Subscriptions().front().observer);
  EXPECT_THAT(check->Callback().Reports(), IsEmpty());
}

TEST_F(ImageCheckerTest, TheTargetIsOpenedReadOnlyAndNotInheritedByChildren) {
  support::WriteFile(Target(), "content");
  auto check = Scripted(7);
  check->Start();

  const int descriptor = static_cast<int>(check->Broker().Subscriptions().front().filter.iCode);
  EXPECT_EQ(O_RDONLY, fcntl(descriptor, F_GETFL) & O_ACCMODE);
  EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor, F_GETFD));
}

TEST_F(ImageCheckerTest, ATargetThatCannotBeOpenedFailsTheInstallAfterTheDecompressorStarted) {
  auto check = Scripted(7);

  check->Start();

  EXPECT_THAT(script_.calls, ElementsAre("Create /a/image.gz"));
  EXPECT_THAT(Errors(), ElementsAre(KChecker.Error(
                            "Install", "ImageChecker: Cannot open input or output file.")));
  EXPECT_THAT(check->Callback().Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(check->Broker().Calls(), IsEmpty());
}

TEST_F(ImageCheckerTest, TheRealDecompressorIsEndedAfterAFailedInstall) {
  support::WriteGzip(Image(), RandomBytes(KMiB));
  ImageCheck check(Image(), directory_ / "none", KMiB);
  EXPECT_EQ("Completed 0", check.Run());
  EXPECT_EQ(1U, support::Children().size());
}

TEST_F(ImageCheckerTest, AFailedInstallLeavesTheTargetOpenForGood) {
  support::WriteFile(Target(), "content");
  script_.starts = false;
  {
    auto check = Scripted(7);
    check->Start();
    EXPECT_THAT(check->Callback().Reports(), ElementsAre("Completed 0"));
    EXPECT_THAT(check->Broker().Calls(), IsEmpty());
  }
  // The destructor closes only what was subscribed.
  ASSERT_EQ(1U, OpenTargets().size());
  close(OpenTargets().front());
}

TEST_F(ImageCheckerTest, ASecondInstallReleasesWhatTheFirstTook) {
  support::WriteFile(Target(), "content");
  script_.content = "contentcontent";
  auto check = Scripted(7);
  check->Start();
  const TUint32 descriptor = check->Broker().Subscriptions().front().filter.iCode;

  check->Start();

  ASSERT_EQ(3U, check->Broker().Calls().size());
  EXPECT_EQ(support::BrokerCall::KUnsubscribe, check->Broker().Calls()[1].kind);
  EXPECT_EQ(descriptor, check->Broker().Calls()[1].event.iCode);
  EXPECT_EQ(1U, check->Broker().Subscriptions().size());
  EXPECT_EQ(1U, OpenTargets().size());
  check->Step();
  EXPECT_THAT(check->Callback().Reports(), ElementsAre("Completed 1"));
}

TEST_F(ImageCheckerTest, ASecondInstallClosesTheTargetThatAFailedOneLeftOpen) {
  support::WriteFile(Target(), "content");
  script_.content = "content";
  script_.starts = false;
  auto check = Scripted(7);
  check->Start();
  script_.starts = true;
  check->Callback().Forget();

  EXPECT_EQ("Completed 1", check->Run());
}

TEST_F(ImageCheckerTest, AFailedInstallAfterAGoodOneLeavesNothingToReadAndUnsubscribesOnce) {
  support::WriteFile(Target(), "content");
  script_.content = "content";
  {
    auto check = Scripted(7);
    check->Start();
    script_.starts = false;
    check->Start();
    const auto calls = check->Broker().Calls().size();

    check->Checker().OnEvent({});

    EXPECT_THAT(check->Callback().Reports(), ElementsAre("Completed 0", "Completed 0"));
    EXPECT_THAT(script_.lengths, IsEmpty());
    check->Start();
    EXPECT_EQ(calls, check->Broker().Calls().size());
  }
  ASSERT_EQ(1U, OpenTargets().size());
  close(OpenTargets().front());
}

TEST_F(ImageCheckerTest, WithoutADecompressorTheInstallFails) {
  support::WriteFile(Target(), "content");
  {
    ImageCheck check("/a", Target(), 7, nullptr);
    EXPECT_EQ("Completed 0", check.Run());
  }
  close(OpenTargets().at(0));
}

TEST_F(ImageCheckerTest, AnEventBeforeThePrepareIsOnlyLogged) {
  ImageCheck check("/a/image.gz", Target(), 7);

  check.Checker().OnEvent({});

  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KOnEventEntry));
  EXPECT_THAT(check.Callback().Reports(), IsEmpty());
}

TEST_F(ImageCheckerTest, AStepBeforeTheInstallIsAReadFailure) {
  ImageCheck check("/a/image.gz", Target(), 7);
  ASSERT_EQ(ETrue, check.Checker().Prepare());

  check.Checker().OnEvent({});

  EXPECT_THAT(Errors(), ElementsAre(KChecker.Error("OnEvent", "Read failure on /a/image.gz")));
  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Completed 0"));
}

// --- Steps -------------------------------------------------------------------------------------

TEST_F(ImageCheckerTest, ASmallImageCompletesInOneStepWithoutProgress) {
  Make(RandomBytes(5000));
  ImageCheck check(Image(), Target(), 5000);
  check.Start();
  RecordedLog::Instance().Clear();

  check.Step();

  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Completed 1"));
  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KOnEventEntry));
}

TEST_F(ImageCheckerTest, PiecesAre4096BytesAndTheLastIsTheRest) {
  script_.content = RandomBytes(5000);
  support::WriteFile(Target(), script_.content);
  auto check = Scripted(5000);

  EXPECT_EQ("Completed 1", check->Run());
  EXPECT_THAT(script_.lengths, ElementsAre(4096, 904));
}

TEST_F(ImageCheckerTest, AShortReadIsFollowedByOneForTheRestOfThePiece) {
  script_.content = RandomBytes(5000);
  script_.portions = {1, 4000, 4096, 900};
  support::WriteFile(Target(), script_.content);
  auto check = Scripted(5000);

  EXPECT_EQ("Completed 1", check->Run());
  EXPECT_THAT(script_.lengths, ElementsAre(4096, 4095, 95, 904, 4));
}

TEST_F(ImageCheckerTest, ATargetThatDeliversInSmallPartsIsReadToTheEndOfThePiece) {
  const std::string content = RandomBytes(5000);
  support::WriteGzip(Image(), content);
  ASSERT_EQ(0, mkfifo(Target().c_str(), 0600));
  const int writer = open(Target().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(5000, write(writer, content.data(), content.length()));
  {
    ImageCheck check(Image(), Target(), 5000);
    EXPECT_EQ("Completed 1", check.Run());
  }
  close(writer);
}

TEST_F(ImageCheckerTest, APartOfAPieceIsFollowedByTheRestOfIt) {
  const std::string content = RandomBytes(5000);
  support::WriteGzip(Image(), content);
  ASSERT_EQ(0, mkfifo(Target().c_str(), 0600));
  const int writer = open(Target().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(1000, write(writer, content.data(), 1000));
  // The next part is there once the one before has been read.
  const pid_t feeder = fork();
  if (feeder == 0) {
    alarm(30);  // for a check that does not read
    int unread = 0;
    while (ioctl(writer, FIONREAD, &unread) == 0 && unread > 0) {
      usleep(1000);
    }
    _exit(write(writer, content.data() + 1000, 4000) == 4000 ? 0 : 1);
  }
  {
    ImageCheck check(Image(), Target(), 5000);
    EXPECT_EQ("Completed 1", check.Run());
  }
  int status = -1;
  EXPECT_EQ(feeder, waitpid(feeder, &status, 0));
  EXPECT_EQ(0, status);
  close(writer);
}

TEST_F(ImageCheckerTest, AnImageThatGivesNothingOnceIsNotAskedAgain) {
  script_.content = "content";
  script_.portions = {3, 0};
  support::WriteFile(Target(), script_.content);
  auto check = Scripted(7);

  EXPECT_EQ("Completed 0", check->Run());
  EXPECT_THAT(script_.lengths, ElementsAre(7, 4));
}

TEST_F(ImageCheckerTest, AStepIs2MiBAndReportsWhatIsLeft) {
  Make(RandomBytes(3 * KMiB));
  ImageCheck check(Image(), Target(), 3 * KMiB);
  check.Start();

  check.Step();
  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Progress 1048576/3145728"));
  check.Step();
  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Progress 1048576/3145728", "Completed 1"));
}

TEST_F(ImageCheckerTest, AWholeNumberOfStepsEndsWithTheLast) {
  Make(RandomBytes(4 * KMiB));
  ImageCheck check(Image(), Target(), 4 * KMiB);
  EXPECT_EQ("Completed 1", check.Run());
  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Progress 2097152/4194304", "Completed 1"));
}

TEST_F(ImageCheckerTest, ProgressWordsAreCutTo32Bits) {
  const unsigned long long size = 5 * 1024 * KMiB + 7;
  support::WriteFile(Target(), "");
  ASSERT_EQ(0, truncate(Target().c_str(), static_cast<off_t>(size)));
  auto check = Scripted(size);
  check->Start();

  check->Step();

  EXPECT_THAT(check->Callback().Reports(),
              ElementsAre("Progress " + std::to_string((size - 2 * KMiB) & 0xffffffffU) + "/" +
                          std::to_string(size & 0xffffffffU)));
}

TEST_F(ImageCheckerTest, ATargetSizeOfZeroNeverReports) {
  Make("content");
  ImageCheck check(Image(), Target(), 0);
  check.Start();
  RecordedLog::Instance().Clear();

  check.Step();
  check.Step();

  EXPECT_THAT(check.Callback().Reports(), IsEmpty());
  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KOnEventEntry, KOnEventEntry));
}

TEST_F(ImageCheckerTest, OnlyTheTargetSizeIsCompared) {
  const std::string content = RandomBytes(10000);
  Make(content + RandomBytes(KMiB, 2), content + RandomBytes(KMiB, 3));
  ImageCheck check(Image(), Target(), 10000);
  EXPECT_EQ("Completed 1", check.Run());
}

TEST_F(ImageCheckerTest, TheFieldsOfAnEventAreNotExamined) {
  Make(RandomBytes(5000));
  ImageCheck check(Image(), Target(), 5000);
  check.Start();
  check.Checker().OnEvent({EEventUser, 99, 3, "abc"});
  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Completed 1"));
}

// --- What is wrong is found ----------------------------------------------------------------------

TEST_F(ImageCheckerTest, ADifferenceIsReportedWithTheBordersOfItsPiece) {
  std::string content = RandomBytes(3 * KMiB);
  std::string other = content;
  other[4100] = static_cast<char>(other[4100] ^ 1);
  Make(content, other);
  ImageCheck check(Image(), Target(), 3 * KMiB);

  EXPECT_EQ("Completed 0", check.Run());

  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Completed 0"));
  EXPECT_EQ(KChecker.Error("OnEvent", "Comparison failure between 4096 and 8192"),
            Errors().front());
}

TEST_F(ImageCheckerTest, ADifferenceInTheLastPieceEndsAtTheTargetSize) {
  const std::string content = RandomBytes(2 * KMiB + 5000);
  std::string other = content;
  other.back() = static_cast<char>(other.back() ^ 0x80);
  Make(content, other);
  ImageCheck check(Image(), Target(), content.length());

  EXPECT_EQ("Completed 0", check.Run());
  EXPECT_TRUE(RecordedLog::Instance().HasText("Comparison failure between 2101248 and 2102152"));
}

TEST_F(ImageCheckerTest, AShortTargetIsAReadFailure) {
  const std::string content = RandomBytes(9000);
  Make(content, content.substr(0, 8999));
  ImageCheck check(Image(), Target(), 9000);

  EXPECT_EQ("Completed 0", check.Run());
  EXPECT_THAT(Errors(), ElementsAre(KChecker.Error("OnEvent", "Read failure on " + Target())));
}

TEST_F(ImageCheckerTest, ATargetThatCannotBeReadIsAReadFailure) {
  support::WriteGzip(Image(), RandomBytes(9000));
  ImageCheck check(Image(), directory_.Path(), 9000);

  EXPECT_EQ("Completed 0", check.Run());
  EXPECT_THAT(Errors(),
              ElementsAre(KChecker.Error("OnEvent", "Read failure on " + directory_.Path())));
}

TEST_F(ImageCheckerTest, AShortImageIsAReadFailure) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{4096}, std::size_t{8999}}) {
    SCOPED_TRACE(size);
    RecordedLog::Instance().Clear();
    const std::string content = RandomBytes(9000);
    Make(content.substr(0, size), content);
    ImageCheck check(Image(), Target(), 9000);

    EXPECT_EQ("Completed 0", check.Run());
    EXPECT_EQ(KChecker.Error("OnEvent", "Read failure on " + Image()), Errors().back());
  }
}

TEST_F(ImageCheckerTest, AMissingImageIsAReadFailure) {
  support::WriteFile(Target(), RandomBytes(9000));
  ImageCheck check(Image(), Target(), 9000);

  EXPECT_EQ("Completed 0", check.Run());
  EXPECT_EQ(KChecker.Error("OnEvent", "Read failure on " + Image()), Errors().back());
}

TEST_F(ImageCheckerTest, AFailedPieceIsNotCountedSoALaterEventFailsAgain) {
  const std::string content = RandomBytes(10000);
  std::string other = content;
  other[0] = static_cast<char>(other[0] ^ 1);
  Make(content, other);
  ImageCheck check(Image(), Target(), 10000);
  check.Start();

  check.Step();
  check.Step();
  check.Step();

  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Completed 0", "Completed 0", "Completed 0"));
}

// --- After the end -------------------------------------------------------------------------------

TEST_F(ImageCheckerTest, AfterTheEndItStaysSubscribedAndFurtherEventsReportNothing) {
  Make(RandomBytes(5000));
  ImageCheck check(Image(), Target(), 5000);
  ASSERT_EQ("Completed 1", check.Run());

  EXPECT_EQ(1U, check.Broker().Subscriptions().size());
  check.Step();
  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Completed 1"));
}

TEST_F(ImageCheckerTest, AbortOnlyReportsAndKeepsEverything) {
  Make(RandomBytes(3 * KMiB));
  ImageCheck check(Image(), Target(), 3 * KMiB);
  check.Start();
  check.Step();
  check.Callback().Forget();
  RecordedLog::Instance().Clear();

  check.Checker().Abort();

  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Aborted"));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KChecker.Interface("virtual void CImageChecker::Abort()", "ImageChecker")));
  EXPECT_EQ(1U, check.Broker().Subscriptions().size());
  check.Step();
  EXPECT_EQ("Completed 1", check.Callback().Reports().back());
}

TEST_F(ImageCheckerTest, AbortBeforeInstallOnlyReports) {
  ImageCheck check("/a", "/b", 1);
  check.Checker().Abort();
  check.Checker().Abort();
  EXPECT_THAT(check.Callback().Reports(), ElementsAre("Aborted", "Aborted"));
}

TEST_F(ImageCheckerTest, TheDestructorUnsubscribesClosesAndThenDeletesTheDecompressor) {
  support::WriteFile(Target(), "content");
  support::FakeBroker broker;
  support::FakeProperties properties;
  properties.values = {
      {"imgsource", "/a/image.gz"}, {"imgtarget", Target()}, {"imgtargetsize", "7"}};
  support::FakeCallback callback;
  std::size_t subscriptionsAtDeletion = 99;
  const auto descriptorsBefore = support::OpenDescriptors();
  script_.onDestruction = [&] {
    subscriptionsAtDeletion = broker.Subscriptions().size();
    EXPECT_EQ(descriptorsBefore, support::OpenDescriptors());
  };
  {
    CImageChecker checker("img", "feature", broker, properties, callback,
                          new ScriptedInputProcess(script_));
    ASSERT_EQ(ETrue, checker.Prepare());
    checker.Install();
  }

  EXPECT_TRUE(script_.destroyed);
  EXPECT_EQ(0U, subscriptionsAtDeletion);
  ASSERT_EQ(2U, broker.Calls().size());
  EXPECT_EQ(support::BrokerCall::KUnsubscribe, broker.Calls()[1].kind);
  EXPECT_EQ(broker.Calls()[0].record, broker.Calls()[1].record);
  EXPECT_EQ(broker.Calls()[0].event.iCode, broker.Calls()[1].event.iCode);
}

TEST_F(ImageCheckerTest, DestroyedInTheMiddleItEndsTheDecompressor) {
  Make(RandomBytes(8 * KMiB));
  ImageCheck check(Image(), Target(), 8 * KMiB);
  check.Start();
  check.Step();
}

}  // namespace
