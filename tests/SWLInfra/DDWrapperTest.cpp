#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <memory>
#include <poll.h>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "SWLInfra/src/DDWrapper.h"
#include "SWLInfra/src/Pipe.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/CleanTest.h"
#include "tests/support/Eventually.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/SystemCalls.h"
#include "tests/support/TempDir.h"
#include "tests/support/Ticks.h"
#include "tests/support/ToolFamily.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Eventually;
using support::ReadFile;
using support::SystemCalls;
using support::ToolFamily;
using support::WriteFile;
using support::WriteGzip;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr unsigned KGarbage = 4711;

struct TDestroy {
  void operator()(IDDWrapper* wrapper) const { wrapper->Destroy(); }
};

/** A wrapper together with what its owner knows of the copy. */
class CCopy {
 public:
  TDDWrapperResult Start(std::string source, std::string target, std::string blockSize = "") {
    return iWrapper->Start(Bytes(source), Bytes(target), Bytes(blockSize), iDescriptor, iPeriod);
  }
  TDDWrapperResult Tick() { return iWrapper->WaitForCompletion(EDDTimerTick, iBytes); }
  TDDWrapperResult Output() { return iWrapper->WaitForCompletion(EDDOutputReady, iBytes); }

  /** Whether the progress descriptor becomes readable in time. */
  bool OutputReady(int limit = 20000) const {
    pollfd watched{iDescriptor, POLLIN, 0};
    return iDescriptor != -1 && poll(&watched, 1, limit) == 1;
  }
  TDDWrapperResult AwaitOutput() {
    EXPECT_TRUE(OutputReady());
    return Output();
  }

  /** Serve the copy as a host does, until its outcome is known. */
  TDDWrapperResult RunToEnd() {
    TDDWrapperResult result = EDDRunning;
    support::Ticks ticks;
    const bool ended = Eventually([&] {
      const auto due = ticks.Await(iDescriptor);
      if (due != support::Due::KNothing) {
        result = due == support::Due::KTick ? Tick() : Output();
      }
      return result != EDDRunning;
    });
    EXPECT_TRUE(ended) << "the copy does not end";
    return result;
  }

  std::unique_ptr<IDDWrapper, TDestroy> iWrapper{IDDWrapper::Create()};
  int iDescriptor = static_cast<int>(KGarbage);
  unsigned iPeriod = KGarbage;
  unsigned iBytes = KGarbage;
};

class DDWrapperTest : public support::CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    WriteGzip(source_, "some content\n");
  }
  void TearDown() override {
    copy_.iWrapper.reset();
    EXPECT_THAT(support::RecordedLog::Instance().Lines(), IsEmpty()) << "the wrapper never logs";
    CleanTest::TearDown();
  }

  /** A tool that does something first and then waits until the test ends it. */
  void AddHeldTool(const std::string& name, const std::string& first = "") {
    tools_.Add(name, "trap : USR1\n" + first + "\n: > '" + (dir_ / name) + ".ready'\n" +
                         "while [ ! -e '" + (dir_ / name) + ".end' ]; do sleep 0.01; done\n" +
                         "exit $(cat '" + (dir_ / name) + ".end')");
  }
  void AwaitReady(const std::string& name) {
    EXPECT_TRUE(Eventually([&] { return access((dir_ / (name + ".ready")).c_str(), F_OK) == 0; }));
  }
  void EndTool(const std::string& name, int exitCode) {
    WriteFile(dir_ / "end", std::to_string(exitCode) + "\n");
    std::filesystem::rename(dir_ / "end", dir_ / (name + ".end"));
  }

  /** Both tools run until they are ended; dd has written the text to its standard error. */
  void StartHeld(const std::string& answer = "", const std::string& blockSize = "") {
    WriteFile(dir_ / "answer", answer);
    AddHeldTool("zcat");
    AddHeldTool("dd", "cat '" + (dir_ / "answer") + "' >&2");
    ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_, blockSize));
    AwaitReady("dd");
    AwaitReady("zcat");
  }

  /** Both tools run, and dd answers every signal with the text. */
  void StartAnswering(const std::string& answer, const std::string& blockSize = "") {
    WriteFile(dir_ / "answer", answer);
    AddHeldTool("zcat");
    AddHeldTool("dd", "trap 'cat \"" + (dir_ / "answer") + "\" >&2' USR1");
    ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_, blockSize));
    AwaitReady("dd");
    AwaitReady("zcat");
  }

  /** Lines of a scripted dd with which it keeps the rest of an answer back until it may come. */
  std::string AwaitTheRest() const {
    const std::string file = "\"" + (dir_ / "rest") + "\"";
    return "while [ ! -e " + file + " ]; do sleep 0.01; done; rm " + file + ";";
  }
  void LetTheRestCome() { WriteFile(dir_ / "rest", ""); }

  /** The children of the last start, which looks at each once. */
  static pid_t Child(std::size_t index) {
    const auto looks = SystemCalls::Instance().CallsOf("waitid");
    return index < looks.size() ? std::stoi(looks[index].substr(7)) : -1;
  }
  static pid_t DDChild() { return Child(0); }
  static pid_t ZcatChild() { return Child(1); }

  /**
   * Wait until a child has ended, without collecting it. Asks the kernel what the code under test
   * asks it too, past the test kit's record: a child of several threads, as an emulated one is,
   * shows as ended in /proc before it can be collected.
   */
  static void AwaitEnd(pid_t child) {
    EXPECT_TRUE(Eventually([&] {
      siginfo_t end{};
      const long result =
          syscall(SYS_waitid, P_PID, child, &end, WEXITED | WNOHANG | WNOWAIT, nullptr);
      return result == 0 && end.si_pid == child;
    }));
  }

  /** Let a start's look at its child, the first or the second, come after the child's end. */
  static void LookAtStartAfterItsEnd(std::size_t start) {
    SystemCalls::Instance().onCall = [start](const std::string& call) {
      if (call == "sleep 0" && SystemCalls::Instance().CallsOf("sleep").size() == start) {
        const auto list = "/proc/self/task/" + std::to_string(getpid()) + "/children";
        std::istringstream children(ReadFile(list));
        pid_t newest = 0;
        for (pid_t child = 0; children >> child;) {
          newest = child;
        }
        AwaitEnd(newest);
      }
    };
  }

  static std::string Kill(pid_t child, int signal) {
    return "kill " + std::to_string(child) + " " + std::to_string(signal);
  }
  static std::string Wait(pid_t child, int options) {
    return "waitpid " + std::to_string(child) + " " + std::to_string(options);
  }

  support::TempDir dir_;
  support::ScriptedTools tools_;
  std::string source_ = dir_ / "image.gz";
  std::string target_ = dir_ / "target";
  CCopy copy_;
};

// Start ------------------------------------------------------------------------------------------

TEST_F(DDWrapperTest, EventsAndResultsHaveTheValuesThatOwnersKnow) {
  EXPECT_EQ(1, EDDTimerTick);
  EXPECT_EQ(2, EDDOutputReady);
  EXPECT_EQ(0, EDDCompleted);
  EXPECT_EQ(1, EDDRunning);
  EXPECT_EQ(2, EDDAborted);
  EXPECT_EQ(3, EDDFailed);
}

TEST_F(DDWrapperTest, CreateWithoutMemoryGivesNoWrapper) {
  SystemCalls::Instance().Fail("malloc", ENOMEM);

  EXPECT_EQ(nullptr, IDDWrapper::Create());
}

TEST_F(DDWrapperTest, BothParametersMustBeThereAndNotEmpty) {
  const CDDWrapper wrapper;
  std::string empty;
  std::string text = "x";

  EXPECT_EQ(EDDCompleted, CDDWrapper::CheckParameters(Bytes(text), Bytes(text)));
  EXPECT_EQ(EDDFailed, CDDWrapper::CheckParameters(nullptr, Bytes(text)));
  EXPECT_EQ(EDDFailed, CDDWrapper::CheckParameters(Bytes(text), nullptr));
  EXPECT_EQ(EDDFailed, CDDWrapper::CheckParameters(Bytes(empty), Bytes(text)));
  EXPECT_EQ(EDDFailed, CDDWrapper::CheckParameters(Bytes(text), Bytes(empty)));
}

TEST_F(DDWrapperTest, StartWithoutSourceOrTargetFailsAndStartsNothing) {
  for (const auto& [source, target] : {std::pair(std::string(), target_), {source_, ""}}) {
    copy_.iDescriptor = static_cast<int>(KGarbage);
    copy_.iPeriod = KGarbage;
    EXPECT_EQ(EDDFailed, copy_.Start(source, target));
    EXPECT_EQ(-1, copy_.iDescriptor);
    EXPECT_EQ(0U, copy_.iPeriod);
  }
  EXPECT_EQ(EDDFailed, copy_.iWrapper->Start(nullptr, Bytes(target_), nullptr, copy_.iDescriptor,
                                             copy_.iPeriod));
  EXPECT_EQ(EDDFailed, copy_.iWrapper->Start(Bytes(source_), nullptr, nullptr, copy_.iDescriptor,
                                             copy_.iPeriod));
  EXPECT_THAT(SystemCalls::Instance().Calls(), IsEmpty());
}

struct TCommandCase {
  const char* blockSize;  // null for none at all
  std::string dd;
};

TEST_F(DDWrapperTest, ToolsGetTheirArgumentsUnchanged) {
  for (const auto& [blockSize, dd] :
       {TCommandCase{"32k", "dd of=" + target_ + " bs=32k"}, TCommandCase{"", "dd of=" + target_},
        TCommandCase{nullptr, "dd of=" + target_},
        TCommandCase{"x y", "dd of=" + target_ + " bs=x y"}}) {
    CCopy copy;
    AddHeldTool("dd");
    AddHeldTool("zcat");
    tools_.Forget();
    std::string text = blockSize == nullptr ? "" : blockSize;
    ASSERT_EQ(EDDCompleted, copy.iWrapper->Start(Bytes(source_), Bytes(target_),
                                                 blockSize == nullptr ? nullptr : Bytes(text),
                                                 copy.iDescriptor, copy.iPeriod));
    EXPECT_TRUE(Eventually([&] { return tools_.Calls().size() == 2; }));
    EXPECT_THAT(tools_.Calls(), testing::UnorderedElementsAre(dd, "zcat " + source_));
  }
}

TEST_F(DDWrapperTest, StartHandsOutTheDescriptorAndThePeriod) {
  StartHeld("hello\n");

  EXPECT_TRUE(copy_.OutputReady());
  EXPECT_EQ(1000U, copy_.iPeriod);
  char text[6] = {};
  EXPECT_EQ(6, read(copy_.iDescriptor, text, sizeof text));
  EXPECT_EQ("hello\n", std::string(text, sizeof text));
}

TEST_F(DDWrapperTest, TheDescriptorNeverBlocksAndNoOtherChildInheritsIt) {
  StartHeld();

  EXPECT_NE(0, fcntl(copy_.iDescriptor, F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, fcntl(copy_.iDescriptor, F_GETFD) & FD_CLOEXEC);
}

TEST_F(DDWrapperTest, OnlyTheReadEndOfTheProgressPipeStaysOpen) {
  const auto before = support::OpenDescriptors().size();

  StartHeld();

  EXPECT_EQ(before + 1, support::OpenDescriptors().size());
}

TEST_F(DDWrapperTest, EachChildIsLookedAtOnceRightAfterItsStart) {
  StartHeld();

  EXPECT_THAT(
      SystemCalls::Instance().Calls(),
      ElementsAre("pipe2", "pipe2", "fork", "sleep 0", "waitid " + std::to_string(DDChild()),
                  "fork", "sleep 0", "waitid " + std::to_string(ZcatChild()), "fdopen"));
}

TEST_F(DDWrapperTest, SecondStartFailsWhileTheFirstCopyRunsOn) {
  StartHeld();
  const int descriptor = copy_.iDescriptor;

  EXPECT_EQ(EDDFailed, copy_.Start(source_, target_));
  EXPECT_EQ(-1, copy_.iDescriptor);
  EXPECT_EQ(0U, copy_.iPeriod);

  copy_.iDescriptor = descriptor;
  EndTool("zcat", 0);
  EndTool("dd", 0);
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
}

TEST_F(DDWrapperTest, StartAfterAbortFails) {
  StartHeld();
  copy_.iWrapper->Abort();

  EXPECT_EQ(EDDFailed, copy_.Start(source_, target_));
  EXPECT_EQ(-1, copy_.iDescriptor);
  EXPECT_EQ(0U, copy_.iPeriod);
}

TEST_F(DDWrapperTest, StartAfterAbortOfAFreshWrapperIsAccepted) {
  EXPECT_EQ(EDDAborted, copy_.iWrapper->Abort());

  StartHeld();
  EXPECT_EQ(EDDRunning, copy_.Tick());
}

TEST_F(DDWrapperTest, AWrapperCopiesAgainAfterAFinishedCopy) {
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    std::filesystem::remove(target_);
    ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
    EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
    EXPECT_EQ("some content\n", ReadFile(target_));
  }
}

struct TFailingCall {
  const char* name;
  int passing;
};

TEST_F(DDWrapperTest, WithoutMemoryPipesOrFirstChildStartFailsAndMayBeRepeated) {
  for (const auto& [name, passing] :
       {TFailingCall{"malloc", 0}, TFailingCall{"malloc", 1}, TFailingCall{"pipe2", 0},
        TFailingCall{"pipe2", 1}, TFailingCall{"fork", 0}}) {
    SCOPED_TRACE(std::string(name) + " after " + std::to_string(passing));
    SystemCalls::Instance().Fail(name, ENOMEM, passing);
    EXPECT_EQ(EDDFailed, copy_.Start(source_, target_, "1k"));
    EXPECT_EQ(-1, copy_.iDescriptor);
    EXPECT_EQ(0U, copy_.iPeriod);
    EXPECT_THAT(support::Children(), IsEmpty());
  }
  EXPECT_EQ(EDDCompleted, copy_.Start(source_, target_, "1k"));
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
}

TEST_F(DDWrapperTest, WithoutSecondChildTheFirstIsEnded) {
  AddHeldTool("dd");
  SystemCalls::Instance().Fail("fork", EAGAIN, 1);

  EXPECT_EQ(EDDFailed, copy_.Start(source_, target_));

  EXPECT_EQ(-1, copy_.iDescriptor);
  EXPECT_EQ(0U, copy_.iPeriod);
  EXPECT_THAT(support::Children(), IsEmpty());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), ElementsAre(Kill(DDChild(), SIGTERM)));
  EXPECT_EQ(EDDFailed, copy_.Start(source_, target_)) << "as after any abort";
}

TEST_F(DDWrapperTest, WithoutAStreamBothChildrenAreEndedAndThePeriodIsSet) {
  AddHeldTool("dd");
  AddHeldTool("zcat");
  SystemCalls::Instance().Fail("fdopen", ENOMEM);

  EXPECT_EQ(EDDFailed, copy_.Start(source_, target_));

  EXPECT_EQ(-1, copy_.iDescriptor);
  EXPECT_EQ(1000U, copy_.iPeriod);
  EXPECT_THAT(support::Children(), IsEmpty());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"),
              ElementsAre(Kill(DDChild(), SIGTERM), Kill(ZcatChild(), SIGTERM)));
}

// What the look right after the start finds, 1 for dd and 2 for zcat, is a matter of luck
// otherwise.
struct TEarlyEndCase {
  std::size_t start;
  const char* tool;
  const char* body;  // null: the tool is missing
  TDDWrapperResult started;
};

TEST_F(DDWrapperTest, AChildThatHasEndedBadlyBeforeItIsLookedAtIsAFailedStart) {
  for (const auto& [start, tool, body, started] :
       {TEarlyEndCase{1, "dd", nullptr, EDDFailed}, TEarlyEndCase{1, "dd", "exit 1", EDDFailed},
        TEarlyEndCase{1, "dd", "kill -9 $$", EDDFailed},
        TEarlyEndCase{2, "zcat", nullptr, EDDFailed},
        TEarlyEndCase{2, "zcat", "exit 1", EDDFailed}}) {
    SCOPED_TRACE(testing::Message() << tool << " " << (body == nullptr ? "missing" : body));
    support::ScriptedTools only;
    only.Add("dd", "read line");
    only.Add("zcat", "read line");
    if (body == nullptr) {
      std::filesystem::remove(only.Path(tool));
    } else {
      only.Add(tool, body);
    }
    only.HideOthers();
    SystemCalls::Instance().Forget();
    LookAtStartAfterItsEnd(start);
    CCopy copy;

    EXPECT_EQ(started, copy.Start(source_, target_));
    EXPECT_EQ(-1, copy.iDescriptor);
    EXPECT_EQ(0U, copy.iPeriod);
    EXPECT_THAT(support::Children(), IsEmpty());
    SystemCalls::Instance().onCall = nullptr;
  }
}

TEST_F(DDWrapperTest, AZcatThatIsThroughBeforeItIsLookedAtIsNoFailure) {
  LookAtStartAfterItsEnd(2);

  EXPECT_EQ(EDDCompleted, copy_.Start(source_, target_));
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
  EXPECT_EQ("some content\n", ReadFile(target_));
}

TEST_F(DDWrapperTest, WhereTheHostIgnoresTheEndOfChildrenABadStartIsAFailureLater) {
  struct sigaction ignore {};
  struct sigaction before {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &before);
  tools_.Add("dd", "exit 1");
  tools_.Add("zcat", "exit 1");
  SystemCalls::Instance().onCall = [](const std::string& call) {
    if (call == "sleep 0") {
      EXPECT_TRUE(Eventually([] { return support::Children().empty(); }));
    }
  };

  EXPECT_EQ(EDDCompleted, copy_.Start(source_, target_)) << "nobody knows how the children ended";
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_EQ(EDDFailed, copy_.Tick());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), IsEmpty());
  sigaction(SIGCHLD, &before, nullptr);
}

TEST_F(DDWrapperTest, AChildThatCannotHaveItsStreamsEndsWithoutItsProgram) {
  tools_.Add("dd", "exit 1");
  const int none = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
  ASSERT_EQ(0, close(none));
  LookAtStartAfterItsEnd(1);
  for (int stream = 0; stream < 3; ++stream) {
    SCOPED_TRACE(stream);
    int streams[3] = {-1, -1, -1};
    streams[stream] = none;
    SystemCalls::Instance().Forget();

    EXPECT_EQ(
        -1, CDDWrapper::ProcessCreate("dd", "x", nullptr, streams[0], streams[1], streams[2], -1));
    EXPECT_THAT(tools_.Calls(), IsEmpty());
  }
}

TEST_F(DDWrapperTest, ChildrenStartWithDefaultSignalsWhateverTheHostHasSet) {
  const std::string report = "grep -E '^Sig(Blk|Ign)' /proc/self/status > '" + (dir_ / "signals-");
  AddHeldTool("dd", report + "dd'");
  AddHeldTool("zcat", report + "zcat'");
  struct sigaction pipeBefore {};
  struct sigaction userBefore {};
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &pipeBefore);
  sigaction(SIGUSR1, &ignore, &userBefore);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);

  const auto result = copy_.Start(source_, target_);

  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &before, &after);
  struct sigaction pipeAfter {};
  sigaction(SIGPIPE, &pipeBefore, &pipeAfter);
  sigaction(SIGUSR1, &userBefore, nullptr);
  EXPECT_EQ(EDDCompleted, result);
  EXPECT_EQ(1, sigismember(&after, SIGUSR1)) << "the host's mask is untouched";
  EXPECT_EQ(SIG_IGN, pipeAfter.sa_handler) << "the host's dispositions are untouched";
  AwaitReady("dd");
  AwaitReady("zcat");
  for (const char* name : {"signals-dd", "signals-zcat"}) {
    EXPECT_EQ("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n", ReadFile(dir_ / name));
  }
}

TEST_F(DDWrapperTest, ChildrenInheritNoDescriptorOfTheWrapper) {
  // As many as any other child of this process has; each with an input, whatever this process has.
  const std::string report = "ls /proc/self/fd < /dev/null > '" + (dir_ / "fds-");
  support::Shell(report + "any'");
  AddHeldTool("dd", report + "dd'");
  AddHeldTool("zcat", report + "zcat'");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));

  AwaitReady("dd");
  AwaitReady("zcat");
  EXPECT_EQ(ReadFile(dir_ / "fds-any"), ReadFile(dir_ / "fds-dd"));
  EXPECT_EQ(ReadFile(dir_ / "fds-any"), ReadFile(dir_ / "fds-zcat"));
}

/** Of the pipe that a child reads from. */
int InputCapacity(pid_t child) {
  const std::string input = "/proc/" + std::to_string(child) + "/fd/0";
  const int descriptor = open(input.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const int capacity = fcntl(descriptor, F_GETPIPE_SZ);
  close(descriptor);
  return capacity;
}

TEST_F(DDWrapperTest, WithoutABlockSizeThePipeBetweenTheChildrenIsWide) {
  StartHeld();

  EXPECT_EQ(1024 * 1024, InputCapacity(DDChild()));
}

TEST_F(DDWrapperTest, WithABlockSizeThePipeBetweenTheChildrenIsAsTheKernelMakesIt) {
  CPipe kernels;
  ASSERT_TRUE(kernels.Open());
  StartHeld("", "32k");

  EXPECT_EQ(fcntl(kernels.ReadEnd(), F_GETPIPE_SZ), InputCapacity(DDChild()));
}

/** Takes some of the standard streams away for a while. */
class CWithoutStandardStreams {
 public:
  explicit CWithoutStandardStreams(unsigned which) {
    for (int number = 0; number <= 2; ++number) {
      if ((which >> number & 1U) != 0) {
        iSaved[number] = fcntl(number, F_DUPFD_CLOEXEC, 100);
        close(number);
      }
    }
  }
  ~CWithoutStandardStreams() {
    for (int number = 0; number <= 2; ++number) {
      if (iSaved[number] != -1) {
        dup2(iSaved[number], number);
        close(iSaved[number]);
      }
    }
  }
  CWithoutStandardStreams(const CWithoutStandardStreams&) = delete;
  CWithoutStandardStreams& operator=(const CWithoutStandardStreams&) = delete;

 private:
  int iSaved[3] = {-1, -1, -1};
};

TEST_F(DDWrapperTest, AHostWithoutSomeStandardStreamsCopiesAsWell) {
  const std::string content = support::RandomBytes(300000);
  WriteGzip(source_, content);
  for (unsigned which = 0; which < 8; ++which) {
    SCOPED_TRACE(which);
    std::filesystem::remove(target_);
    std::string messages;
    TDDWrapperResult started = EDDFailed;
    TDDWrapperResult ended = EDDFailed;
    {
      const CWithoutStandardStreams without(which);
      started = copy_.Start(source_, target_);
      char buffer[1024];
      while (copy_.OutputReady()) {
        const auto count = read(copy_.iDescriptor, buffer, sizeof buffer);
        if (count <= 0) {
          break;
        }
        messages.append(buffer, static_cast<std::size_t>(count));
      }
      ended = copy_.RunToEnd();
    }
    EXPECT_EQ(EDDCompleted, started);
    EXPECT_EQ(EDDCompleted, ended);
    EXPECT_TRUE(content == ReadFile(target_));
    EXPECT_THAT(messages, HasSubstr("records out"));
  }
}

// Block sizes ------------------------------------------------------------------------------------

struct TBlockSizeCase {
  const char* text;
  unsigned bytes;
};

TEST_F(DDWrapperTest, BlockSizesAreANumberTimesASuffix) {
  const CDDWrapper wrapper;
  for (const auto& [text, bytes] : {TBlockSizeCase{"1c", 1},
                                    {"3c", 3},
                                    {"2W", 4},
                                    {"2w", 4},
                                    {"1b", 512},
                                    {"3b", 1536},
                                    {"1k", 1024},
                                    {"1K", 1024},
                                    {"32k", 32768},
                                    {"1kb", 1000},
                                    {"1kB", 1000},
                                    {"1Kb", 1000},
                                    {"1KB", 1000},
                                    {"1M", 1048576},
                                    {"2m", 2097152},
                                    {"1MB", 1000000},
                                    {"1G", 1073741824},
                                    {"1gb", 1000000000},
                                    {"3GB", 3000000000},
                                    // Without a number it is 1.
                                    {"k", 1024},
                                    {"MB", 1000000},
                                    // A bare number is not taken as bytes, nor is anything unknown.
                                    {"4096", 512},
                                    {"1", 512},
                                    {"1x", 512},
                                    {"1k2", 512},
                                    {"xyz", 512},
                                    {"1kk", 512},
                                    {"1kib", 512},
                                    {"1 k", 512},
                                    {" 1k", 512},
                                    {"-1k", 512},
                                    {"+1k", 512},
                                    {"0x10k", 512},
                                    {"1k ", 512},
                                    {"2x3", 512},
                                    {"\xe9k", 512},
                                    // 32 bits, which wrap; the number itself saturates.
                                    {"4g", 0},
                                    {"5g", 1073741824},
                                    {"5gb", 705032704},
                                    {"4096m", 0},
                                    {"0k", 0},
                                    {"99999999999c", 2147483647},
                                    {"99999999999w", 4294967294}}) {
    std::string copied = text;
    EXPECT_EQ(bytes, CDDWrapper::BlockSizeInBytes(Bytes(copied))) << text;
  }
}

// Answers of dd ----------------------------------------------------------------------------------

struct TAnswerCase {
  const char* answer;
  const char* blockSize;
  unsigned bytes;
};

class DDWrapperAnswerTest : public DDWrapperTest,
                            public testing::WithParamInterface<TAnswerCase> {};

TEST_P(DDWrapperAnswerTest, TheSecondLineTellsTheFullRecords) {
  StartHeld(GetParam().answer, GetParam().blockSize);

  EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
  EXPECT_EQ(GetParam().bytes, copy_.iBytes);

  SystemCalls::Instance().Forget();
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(1))
      << "whatever the second line says, it allows the next signal";
}

// The longest first line that is read in one piece.
const std::string KLongAnswer = std::string(254, 'x') + "\n7+0 records out\n";

INSTANTIATE_TEST_SUITE_P(
    Lines, DDWrapperAnswerTest,
    testing::Values(TAnswerCase{"1235+0 records in\n1234+1 records out\n", "1k", 1263616},
                    TAnswerCase{"8+0 records in\n8+0 records out\nsummary\n", "", 4096},
                    TAnswerCase{"8+0 records in\n8+0 records out\n", "4096", 4096},
                    TAnswerCase{"one\n \t+7 records\n", "", 3584},
                    TAnswerCase{"one\n7records\n", "", 3584},
                    TAnswerCase{"7+0 records\n9+0 something else\n", "", 0},
                    TAnswerCase{"a longer line of records\n5\n", "", 0},
                    TAnswerCase{KLongAnswer.c_str(), "", 3584},
                    TAnswerCase{"7+0 records\n\n", "", 0}, TAnswerCase{"one\nrecords 5\n", "", 0},
                    TAnswerCase{"one\n-1 records\n", "1c", 4294967295},
                    TAnswerCase{"one\n- 5 records\n", "1c", 0},
                    TAnswerCase{"one\n99999999999 records\n", "1c", 2147483647},
                    TAnswerCase{"one\n4194305+0 records\n", "1k", 1024},
                    TAnswerCase{"one\nno number 3 records\n", "1c", 0},
                    TAnswerCase{"\xff\xfe\x01\n\x80\x81 records\n", "1c", 0}));

TEST_F(DDWrapperTest, BytesAreToldOnEveryStepAndStayUntilTheNextAnswer) {
  StartHeld("1+0 records in\n1+0 records out\nodd\nother\n");
  EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
  EXPECT_EQ(512U, copy_.iBytes);

  for (auto step : {&CCopy::Tick, &CCopy::Output}) {
    copy_.iBytes = KGarbage;
    EXPECT_EQ(EDDRunning, (copy_.*step)());
    EXPECT_EQ(512U, copy_.iBytes);
  }
}

TEST_F(DDWrapperTest, BytesAreZeroBeforeTheFirstAnswerAndAgainAfterTheNextStart) {
  StartHeld("1+0 records in\n1+0 records out\n");
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_EQ(0U, copy_.iBytes);
  copy_.AwaitOutput();
  EXPECT_EQ(512U, copy_.iBytes);
  EndTool("zcat", 0);
  EndTool("dd", 0);
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
  EXPECT_EQ(512U, copy_.iBytes);
  std::filesystem::remove(dir_ / "dd.end");
  std::filesystem::remove(dir_ / "zcat.end");

  StartHeld("");
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_EQ(0U, copy_.iBytes);
}

TEST_F(DDWrapperTest, ABlockSizeHoldsForLaterCopiesWithoutOne) {
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_, "1k"));
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());

  StartHeld("3+0 records in\n3+0 records out\n");
  EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
  EXPECT_EQ(3072U, copy_.iBytes);
}

TEST_F(DDWrapperTest, AFailedStartCountsInItsBlockSizeToo) {
  SystemCalls::Instance().Fail("pipe2", EMFILE);
  EXPECT_EQ(EDDFailed, copy_.Start(source_, target_, "1k"));

  StartHeld("3+0 records in\n3+0 records out\n");
  EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
  EXPECT_EQ(3072U, copy_.iBytes);
}

TEST_F(DDWrapperTest, LinesThatArriveInPiecesAreReadWhole) {
  AddHeldTool("zcat");
  AddHeldTool("dd",
              "while read piece; do printf \"$piece\" >&2; done < '" + (dir_ / "pieces") + "'");
  ASSERT_EQ(0, mkfifo((dir_ / "pieces").c_str(), 0600));
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  const int pieces = open((dir_ / "pieces").c_str(), O_WRONLY | O_CLOEXEC);
  const auto send = [&](const std::string& piece) {
    ASSERT_EQ(static_cast<ssize_t>(piece.length()), write(pieces, piece.data(), piece.length()));
    EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
  };

  send("1\n");
  send("5+0 rec\n");
  EXPECT_EQ(0U, copy_.iBytes);
  send("ords in\\\\n14\n");
  EXPECT_EQ(0U, copy_.iBytes) << "14 may go on as 140";
  send("+0 \n");
  send("records out\n");
  EXPECT_EQ(0U, copy_.iBytes) << "a line without its end is not there yet";
  send("\\\\n\n");
  EXPECT_EQ(14U * 512, copy_.iBytes);
  close(pieces);
}

TEST_F(DDWrapperTest, ASummaryThatArrivesLateIsNotWaitedFor) {
  AddHeldTool("zcat");
  AddHeldTool("dd", "trap 'printf \"4+0 records in\\n3+1 records out\\n\" >&2; " + AwaitTheRest() +
                        " echo 1536 bytes copied >&2' USR1");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");

  copy_.Tick();
  for (int answer = 0; answer < 3; ++answer) {
    SCOPED_TRACE(answer);
    SystemCalls::Instance().Forget();
    EXPECT_EQ(EDDRunning, copy_.Tick());
    EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(1));
    EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
    EXPECT_EQ(3U * 512, copy_.iBytes) << "of the line that tells what was written";
    LetTheRestCome();
    EXPECT_EQ(EDDRunning, copy_.AwaitOutput()) << "the summary";
    EXPECT_EQ(3U * 512, copy_.iBytes);
    EXPECT_EQ(EDDRunning, copy_.Output()) << "nothing there";
  }
}

TEST_F(DDWrapperTest, LinesThatArriveOneByOneMakeAnAnswer) {
  AddHeldTool("zcat");
  AddHeldTool(
      "dd", "trap 'echo 4+0 records in >&2; " + AwaitTheRest() + " echo 3+1 records out >&2' USR1");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");

  copy_.Tick();
  for (int answer = 0; answer < 2; ++answer) {
    SystemCalls::Instance().Forget();
    EXPECT_EQ(EDDRunning, copy_.Tick());
    EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(1));
    EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
    EXPECT_EQ(EDDRunning, copy_.Tick()) << "half an answer allows no signal";
    EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(1));
    LetTheRestCome();
    EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
    EXPECT_EQ(3U * 512, copy_.iBytes);
  }
}

TEST_F(DDWrapperTest, AnAnswerOfTenThousandBytesInOneLineIsReadInPiecesOfTheBuffer) {
  AddHeldTool("zcat");
  AddHeldTool("dd",
              "head -c 10000 /dev/zero | tr '\\0' 'a' >&2; echo >&2;"
              " printf '4+0 records in\\n3+1 records out\\n' >&2");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");

  // 39 pieces of 255 bytes, one of 55 and the line end, then the two lines: 21 pairs of lines.
  for (int pair = 0; pair < 20; ++pair) {
    EXPECT_EQ(EDDRunning, copy_.Output());
    EXPECT_EQ(0U, copy_.iBytes);
  }
  EXPECT_EQ(EDDRunning, copy_.Output());
  EXPECT_EQ(3U * 512, copy_.iBytes);
  EndTool("zcat", 0);
  EndTool("dd", 0);
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
}

TEST_F(DDWrapperTest, ZeroBytesInAnAnswerHurtNobody) {
  AddHeldTool("zcat");
  AddHeldTool("dd", "printf '\\000\\000\\n5\\0000 records\\n' >&2");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");

  EXPECT_EQ(EDDRunning, copy_.Output());
  EXPECT_EQ(0U, copy_.iBytes) << "the word stands behind the end of the text";
}

TEST_F(DDWrapperTest, TheLastLineNeedsNoLineEnd) {
  AddHeldTool("zcat");
  AddHeldTool("dd", "printf 'one\\n7+0 records' >&2; exec 2>&-");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");
  AwaitReady("zcat");

  EXPECT_EQ(EDDRunning, copy_.Output());
  EXPECT_EQ(7U * 512, copy_.iBytes);
}

TEST_F(DDWrapperTest, ADDThatClosesItsStandardErrorEarlyIsCopiedToItsEnd) {
  AddHeldTool("zcat");
  AddHeldTool("dd", "printf '2+0 records in\\n2+0 records out\\nlast' >&2; exec 2>&-");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");

  for (int event = 0; event < 100; ++event) {
    EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
    EXPECT_EQ(1024U, copy_.iBytes);
  }
  EndTool("zcat", 0);
  EndTool("dd", 3);
  EXPECT_EQ(EDDFailed, copy_.RunToEnd());
  EXPECT_EQ(1024U, copy_.iBytes);
}

// Signals ----------------------------------------------------------------------------------------

TEST_F(DDWrapperTest, TheFirstTickOnlyAllowsTheSignal) {
  StartAnswering("1+0 records in\n1+0 records out\n");
  auto& calls = SystemCalls::Instance();
  const auto dd = DDChild();

  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(calls.CallsOf("kill"), IsEmpty());
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(calls.CallsOf("kill"), ElementsAre(Kill(dd, SIGUSR1)));
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(calls.CallsOf("kill"), SizeIs(1)) << "unanswered";
  EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
  EXPECT_EQ(512U, copy_.iBytes);
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(calls.CallsOf("kill"), ElementsAre(Kill(dd, SIGUSR1), Kill(dd, SIGUSR1)));
}

TEST_F(DDWrapperTest, TheGraceTickComesAgainWithEveryStart) {
  for (int round = 0; round < 2; ++round) {
    StartAnswering("1+0 records in\n1+0 records out\n");
    SystemCalls::Instance().Forget();
    EXPECT_EQ(EDDRunning, copy_.Tick());
    EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), IsEmpty());
    EXPECT_EQ(EDDRunning, copy_.Tick());
    EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(1));
    EndTool("zcat", 0);
    EndTool("dd", 0);
    EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
    for (const char* left : {"dd.end", "zcat.end", "dd.ready", "zcat.ready"}) {
      std::filesystem::remove(dir_ / left);
    }
  }
}

TEST_F(DDWrapperTest, AnAnswerBeforeTheFirstTickAllowsTheSignalToo) {
  StartHeld("1+0 records in\n1+0 records out\n");
  copy_.AwaitOutput();

  copy_.Tick();
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), ElementsAre(Kill(DDChild(), SIGUSR1)));
}

TEST_F(DDWrapperTest, ASignalThatCouldNotBeSentIsSentOnTheNextTick) {
  StartAnswering("1+0 records in\n1+0 records out\n");
  copy_.Tick();
  SystemCalls::Instance().Fail("kill", EPERM);

  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(2));
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(2));
}

TEST_F(DDWrapperTest, ADDThatNeverAnswersGetsOneSignalAndIsCopiedToItsEnd) {
  StartAnswering("");
  for (int tick = 0; tick < 50; ++tick) {
    EXPECT_EQ(EDDRunning, copy_.Tick());
    EXPECT_EQ(EDDRunning, copy_.Output());
  }
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(1));
  EXPECT_EQ(0U, copy_.iBytes);

  EndTool("zcat", 0);
  EndTool("dd", 0);
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
}

/** A dd that has begun, and waits to be let go before it does anything about signals. */
class DDWrapperLateHandlerTest : public DDWrapperTest {
 protected:
  void StartLate(const std::string& whenLetGo) {
    tools_.Add("dd", ": > '" + (dir_ / "dd.begun") + "'\n" + "while [ ! -e '" + (dir_ / "go") +
                         "' ]; do sleep 0.01; done\n" + whenLetGo + "\n: > '" +
                         (dir_ / "dd.ready") + "'\nwhile [ ! -e '" + (dir_ / "dd.end") +
                         "' ]; do sleep 0.01; done\n");
    ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
    EXPECT_TRUE(Eventually([&] { return access((dir_ / "dd.begun").c_str(), F_OK) == 0; }));
  }
  void LetGo() {
    WriteFile(dir_ / "go", "");
    AwaitReady("dd");
  }
  void ExpectGoodEnd() {
    EndTool("dd", 0);
    EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
  }
  static std::vector<std::string> Signals() { return SystemCalls::Instance().CallsOf("kill"); }
};

TEST_F(DDWrapperLateHandlerTest, ADDIsNotAskedBeforeItCatchesTheSignal) {
  StartLate("trap 'printf \"4+0 records in\\n3+0 records out\\n\" >&2' USR1");
  for (int tick = 0; tick < 5; ++tick) {
    ASSERT_EQ(EDDRunning, copy_.Tick());
    ASSERT_EQ(EDDRunning, copy_.Output()) << "no line there yet";
    EXPECT_EQ(0U, copy_.iBytes);
  }
  ASSERT_THAT(Signals(), IsEmpty()) << "it would have killed dd";

  LetGo();
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(Signals(), ElementsAre(Kill(DDChild(), SIGUSR1)));
  EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
  EXPECT_EQ(3U * 512, copy_.iBytes);
  ExpectGoodEnd();
}

/** Holds a child between its fork and its exec while there is such a file; parents know nothing. */
std::string heldChildrenFile;
void HoldChild() {
  while (!heldChildrenFile.empty() && access(heldChildrenFile.c_str(), F_OK) == 0) {
    usleep(1000);
  }
}

TEST_F(DDWrapperLateHandlerTest, AHandlerThatIsStillTheHostsIsNotTakenForThatOfDD) {
  static const int registered = pthread_atfork(nullptr, nullptr, HoldChild);
  ASSERT_EQ(0, registered);
  struct sigaction before {};
  struct sigaction handle {};
  handle.sa_handler = [](int) {};
  sigaction(SIGUSR1, &handle, &before);
  WriteFile(dir_ / "hold", "");
  heldChildrenFile = dir_ / "hold";
  SystemCalls::Instance().onCall = [](const std::string& call) {
    if (call == "sleep 0") {
      heldChildrenFile.clear();  // only the first child
    }
  };

  EXPECT_EQ(EDDCompleted, copy_.Start(source_, target_));
  for (int tick = 0; tick < 3; ++tick) {
    EXPECT_EQ(EDDRunning, copy_.Tick());
  }
  EXPECT_THAT(Signals(), IsEmpty()) << "it would have killed dd";
  std::filesystem::remove(dir_ / "hold");
  sigaction(SIGUSR1, &before, nullptr);
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
  EXPECT_EQ("some content\n", ReadFile(target_));
}

TEST_F(DDWrapperLateHandlerTest, ADDThatNeverCatchesTheSignalIsCopiedToItsEnd) {
  StartLate("");
  LetGo();
  for (int tick = 0; tick < 5; ++tick) {
    ASSERT_EQ(EDDRunning, copy_.Tick());
  }
  EXPECT_EQ(0U, copy_.iBytes);
  ExpectGoodEnd();
}

TEST_F(DDWrapperLateHandlerTest, ADDThatIgnoresTheSignalGetsOne) {
  StartLate("trap '' USR1");
  LetGo();
  for (int tick = 0; tick < 5; ++tick) {
    EXPECT_EQ(EDDRunning, copy_.Tick());
  }
  EXPECT_THAT(Signals(), ElementsAre(Kill(DDChild(), SIGUSR1)));
  ExpectGoodEnd();
}

TEST_F(DDWrapperLateHandlerTest, WhereTheKernelDoesNotTellTheSignalIsSent) {
  StartLate("");
  copy_.Tick();
  SystemCalls::Instance().Fail("fopen", ENOENT);

  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_THAT(Signals(), ElementsAre(Kill(DDChild(), SIGUSR1)));
  EXPECT_EQ(EDDFailed, copy_.RunToEnd());
}

// The outcome ------------------------------------------------------------------------------------

TEST_F(DDWrapperTest, WithoutACopyThereIsOnlyFailure) {
  EXPECT_EQ(EDDFailed, copy_.Tick());
  EXPECT_EQ(0U, copy_.iBytes);
  EXPECT_EQ(EDDFailed, copy_.Output());
}

struct TOutcomeCase {
  int zcat;
  int dd;
  TDDWrapperResult result;
};

TEST_F(DDWrapperTest, TheOutcomeIsTheExitCodesOfBothInWhateverOrderTheyEnd) {
  for (const bool zcatFirst : {true, false}) {
    for (const auto& [zcat, dd, result] : {TOutcomeCase{0, 0, EDDCompleted},
                                           {0, 1, EDDFailed},
                                           {1, 0, EDDFailed},
                                           {1, 1, EDDFailed},
                                           {255, 0, EDDFailed},
                                           {0, 255, EDDFailed}}) {
      SCOPED_TRACE(testing::Message() << zcat << " " << dd << " zcat first: " << zcatFirst);
      for (const char* left : {"dd.end", "zcat.end", "dd.ready", "zcat.ready"}) {
        std::filesystem::remove(dir_ / left);
      }
      SystemCalls::Instance().Forget();
      StartHeld("1+0 records in\n1+0 records out\n");
      EXPECT_EQ(EDDRunning, copy_.AwaitOutput());
      const pid_t ddChild = DDChild();
      const pid_t zcatChild = ZcatChild();

      // The call that finds the first one's failure waits for the other, so both end before it.
      const bool waits = zcatFirst ? zcat != 0 : true;
      EndTool(zcatFirst ? "zcat" : "dd", zcatFirst ? zcat : dd);
      AwaitEnd(zcatFirst ? zcatChild : ddChild);
      if (!waits) {
        EXPECT_EQ(EDDRunning, copy_.Tick());
        EXPECT_EQ(EDDRunning, copy_.Tick()) << "only one is left";
      }
      EndTool(zcatFirst ? "dd" : "zcat", zcatFirst ? dd : zcat);
      if (!waits) {
        AwaitEnd(zcatFirst ? ddChild : zcatChild);
      }
      copy_.iBytes = KGarbage;
      EXPECT_EQ(result, copy_.Tick());
      EXPECT_EQ(512U, copy_.iBytes);
      EXPECT_THAT(support::Children(), IsEmpty());
      EXPECT_EQ(EDDFailed, copy_.Tick()) << "the outcome is told once";
      EXPECT_EQ(512U, copy_.iBytes) << "with the last figure";
    }
  }
}

TEST_F(DDWrapperTest, TheProgressDescriptorIsClosedWithTheOutcome) {
  const auto before = support::OpenDescriptors();
  StartHeld();
  EndTool("zcat", 0);
  EndTool("dd", 0);

  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
  EXPECT_EQ(before, support::OpenDescriptors());
}

TEST_F(DDWrapperTest, AChildThatDiesOfASignalFailsTheCopy) {
  for (const bool zcat : {true, false}) {
    CCopy copy;
    SystemCalls::Instance().Forget();
    tools_.Add("zcat", "exec sleep 1000");
    tools_.Add("dd", "cat > /dev/null; exit 0");
    ASSERT_EQ(EDDCompleted, copy.Start(source_, target_));
    // The look after each start tells who is who.
    const pid_t victim = zcat ? ZcatChild() : DDChild();
    const pid_t other = zcat ? DDChild() : ZcatChild();
    EXPECT_EQ(EDDRunning, copy.Tick());
    ASSERT_EQ(0, kill(victim, SIGKILL));
    AwaitEnd(victim);
    if (!zcat) {
      ASSERT_EQ(0, kill(other, SIGTERM));
    }
    EXPECT_EQ(EDDFailed, copy.Tick());
    EXPECT_THAT(support::Children(), IsEmpty());
  }
}

TEST_F(DDWrapperTest, WhenZcatFailsDDIsWaitedForAtOnce) {
  AddHeldTool("zcat");
  tools_.Add("dd", "cat > /dev/null; sleep 0.3; : > '" + (dir_ / "dd.done") + "'");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  const pid_t dd = DDChild();
  const pid_t zcat = ZcatChild();
  EndTool("zcat", 1);
  AwaitEnd(zcat);
  SystemCalls::Instance().Forget();

  EXPECT_EQ(EDDFailed, copy_.Tick());
  EXPECT_EQ(0, access((dir_ / "dd.done").c_str(), F_OK));
  EXPECT_THAT(SystemCalls::Instance().Calls(), ElementsAre(Wait(zcat, WNOHANG), Wait(dd, 0)));
}

TEST_F(DDWrapperTest, WhenDDEndsZcatIsWaitedForAtOnce) {
  AddHeldTool("dd");
  AddHeldTool("zcat");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  const pid_t dd = DDChild();
  const pid_t zcat = ZcatChild();
  EndTool("dd", 0);
  AwaitEnd(dd);
  SystemCalls::Instance().Forget();
  SystemCalls::Instance().onCall = [&](const std::string& call) {
    if (call == Wait(zcat, 0)) {
      EndTool("zcat", 0);
    }
  };

  EXPECT_EQ(EDDCompleted, copy_.Tick());
  SystemCalls::Instance().onCall = nullptr;
  EXPECT_THAT(SystemCalls::Instance().Calls(),
              ElementsAre(Wait(zcat, WNOHANG), Wait(dd, WNOHANG), Wait(zcat, 0)));
}

TEST_F(DDWrapperTest, NothingBlocksWhileBothRun) {
  StartHeld("1+0 records in\n1+0 records out\n");
  SystemCalls::Instance().Forget();
  copy_.AwaitOutput();
  copy_.Output();

  for (const auto& call : SystemCalls::Instance().CallsOf("waitpid")) {
    EXPECT_THAT(call, testing::EndsWith(" 1")) << "WNOHANG";
  }
}

TEST_F(DDWrapperTest, AWaitThatASignalInterruptsIsRepeated) {
  AddHeldTool("zcat");
  tools_.Add("dd", "cat > /dev/null");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  const pid_t dd = DDChild();
  const pid_t zcat = ZcatChild();
  EndTool("zcat", 1);
  AwaitEnd(zcat);
  SystemCalls::Instance().Forget();
  SystemCalls::Instance().Fail("waitpid", EINTR, 1, 2);

  EXPECT_EQ(EDDFailed, copy_.Tick());
  EXPECT_THAT(SystemCalls::Instance().Calls(),
              ElementsAre(Wait(zcat, WNOHANG), Wait(dd, 0), Wait(dd, 0), Wait(dd, 0)));
}

TEST_F(DDWrapperTest, AHostThatCollectsTheChildrenItselfGetsAFailureAndNoSignalToStrangers) {
  StartHeld();
  copy_.Tick();
  const pid_t dd = DDChild();
  const pid_t zcat = ZcatChild();
  EndTool("zcat", 0);
  EndTool("dd", 0);
  ASSERT_EQ(zcat, waitpid(zcat, nullptr, 0));
  ASSERT_EQ(dd, waitpid(dd, nullptr, 0));

  EXPECT_EQ(EDDRunning, copy_.Tick()) << "nothing is known of the children any more";
  EXPECT_EQ(EDDFailed, copy_.Tick());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), IsEmpty());
}

// Abort ------------------------------------------------------------------------------------------

TEST_F(DDWrapperTest, AbortEndsDDAndThenZcat) {
  const auto before = support::OpenDescriptors();
  StartHeld();
  const pid_t dd = DDChild();
  const pid_t zcat = ZcatChild();
  SystemCalls::Instance().Forget();

  EXPECT_EQ(EDDAborted, copy_.iWrapper->Abort());

  EXPECT_THAT(support::Children(), IsEmpty());
  EXPECT_EQ(before, support::OpenDescriptors());
  const auto& calls = SystemCalls::Instance().Calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(Kill(dd, SIGTERM), calls.front());
  const auto second = std::find(calls.begin(), calls.end(), Kill(zcat, SIGTERM));
  ASSERT_NE(calls.end(), second);
  EXPECT_EQ(Wait(dd, WNOHANG), *(second - 1)) << "dd is collected first";
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), SizeIs(2));
}

TEST_F(DDWrapperTest, AbortOfAFreshOrFinishedWrapperSignalsNobody) {
  EXPECT_EQ(EDDAborted, copy_.iWrapper->Abort());
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
  EXPECT_EQ(EDDAborted, copy_.iWrapper->Abort());

  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), IsEmpty());
}

TEST_F(DDWrapperTest, AfterAbortNoSignalGoesToTheNumbersThatOnceWereChildren) {
  StartHeld();
  copy_.Tick();
  copy_.iWrapper->Abort();
  SystemCalls::Instance().Forget();

  EXPECT_EQ(EDDAborted, copy_.iWrapper->Abort());
  EXPECT_EQ(EDDRunning, copy_.Tick());
  EXPECT_EQ(EDDFailed, copy_.Tick());
  EXPECT_EQ(EDDFailed, copy_.Output());
  copy_.iWrapper.reset();
  EXPECT_THAT(SystemCalls::Instance().Calls(), IsEmpty());
}

TEST_F(DDWrapperTest, OutputAfterAbortIsNoAccess) {
  StartHeld();
  copy_.iWrapper->Abort();

  EXPECT_EQ(EDDRunning, copy_.Output());
  EXPECT_EQ(EDDFailed, copy_.Output());
}

TEST_F(DDWrapperTest, DestroyEndsARunningCopy) {
  StartHeld();
  const pid_t dd = DDChild();
  const pid_t zcat = ZcatChild();
  SystemCalls::Instance().Forget();

  copy_.iWrapper.reset();

  EXPECT_THAT(support::Children(), IsEmpty());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"),
              ElementsAre(Kill(dd, SIGTERM), Kill(zcat, SIGTERM)));
}

TEST_F(DDWrapperTest, TheDestructorEndsARunningCopyToo) {
  AddHeldTool("dd");
  AddHeldTool("zcat");
  {
    CDDWrapper wrapper;
    ASSERT_EQ(EDDCompleted, wrapper.Start(Bytes(source_), Bytes(target_), nullptr,
                                          copy_.iDescriptor, copy_.iPeriod));
  }
  EXPECT_THAT(support::Children(), IsEmpty());
}

TEST_F(DDWrapperTest, ADDThatIgnoresSIGTERMForAWhileIsWaitedFor) {
  AddHeldTool("zcat");
  AddHeldTool("dd", "trap 'sleep 0.5; : > \"" + (dir_ / "tidy") + "\"; exit 0' TERM");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");
  const pid_t dd = DDChild();

  EXPECT_EQ(EDDAborted, copy_.iWrapper->Abort());
  EXPECT_EQ(0, access((dir_ / "tidy").c_str(), F_OK)) << "it had its time";
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), testing::Not(Contains(Kill(dd, SIGKILL))));
}

// Real and wrong tools ---------------------------------------------------------------------------

class DDWrapperToolsTest : public DDWrapperTest, public testing::WithParamInterface<ToolFamily> {
 protected:
  void SetUp() override {
    DDWrapperTest::SetUp();
    const auto problem = support::UseTools(GetParam(), tools_);
    if (!problem.empty()) {
      GTEST_SKIP() << problem;
    }
  }

  /** A start that fails at once, or a copy whose failure the next calls tell. */
  TDDWrapperResult Outcome() {
    const auto begin = steady_clock::now();
    TDDWrapperResult result = copy_.Start(source_, target_);
    result = result == EDDCompleted ? copy_.RunToEnd() : result;
    EXPECT_LT(steady_clock::now() - begin, milliseconds(20000));
    EXPECT_THAT(support::Children(), IsEmpty());
    return result;
  }
};

TEST_P(DDWrapperToolsTest, ACopyIsTheImageByteForByte) {
  const auto content = support::RandomBytes(3 * 1024 * 1024 + 77);
  WriteGzip(source_, content);
  for (const char* blockSize : {"", "512", "32k", "1M"}) {
    SCOPED_TRACE(blockSize);
    std::filesystem::remove(target_);
    ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_, blockSize));
    EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
    EXPECT_TRUE(content == ReadFile(target_));
  }
}

TEST_P(DDWrapperToolsTest, ATargetThatCannotBeWrittenFails) {
  target_ = dir_.Path();
  EXPECT_EQ(EDDFailed, Outcome());
}

TEST_P(DDWrapperToolsTest, AFullDeviceFails) {
  WriteGzip(source_, support::RandomBytes(1024 * 1024));
  target_ = "/dev/full";
  EXPECT_EQ(EDDFailed, Outcome());
}

TEST_P(DDWrapperToolsTest, AMissingSourceFails) {
  source_ = dir_ / "missing";
  EXPECT_EQ(EDDFailed, Outcome());
}

TEST_P(DDWrapperToolsTest, ASourceThatIsNoImageFails) {
  WriteFile(source_, "this is not compressed at all");
  EXPECT_EQ(EDDFailed, Outcome());
}

// BusyBox's zcat reports damage only on its standard error and exits with 0.
TEST_P(DDWrapperToolsTest, ATruncatedSourceFailsUnlessZcatKeepsItToItself) {
  WriteGzip(source_, support::RandomBytes(1024 * 1024));
  std::filesystem::resize_file(source_, 500000);
  EXPECT_EQ(GetParam() == ToolFamily::KGnu ? EDDFailed : EDDCompleted, Outcome());
}

TEST_P(DDWrapperToolsTest, ADamagedSourceFailsUnlessZcatKeepsItToItself) {
  WriteGzip(source_, support::RandomBytes(1024 * 1024));
  auto image = ReadFile(source_);
  image[image.length() / 2] = static_cast<char>(image[image.length() / 2] ^ 0x55);
  WriteFile(source_, image);
  EXPECT_EQ(GetParam() == ToolFamily::KGnu ? EDDFailed : EDDCompleted, Outcome());
}

// Ticks without a pause, so that most come before dd is ready. There is always something to read
// again: a signal between dd's look for signals and its read is answered after that read only.
TEST_P(DDWrapperToolsTest, NoDDIsKilledByItsFirstSignalHoweverSoonTheTicksCome) {
  std::filesystem::remove(tools_.Path("zcat"));
  tools_.Add("zcat", "while echo; do sleep 0.05; done");
  for (int starts = 0; starts < 100 && !HasFailure(); ++starts) {
    CCopy copy;
    SystemCalls::Instance().Forget();
    ASSERT_EQ(EDDCompleted, copy.Start(source_, target_));
    EXPECT_TRUE(Eventually([&] {
      EXPECT_EQ(EDDRunning, copy.Tick()) << "dd lives";
      return HasFailure() || !SystemCalls::Instance().CallsOf("kill").empty();
    }));
    EXPECT_EQ(EDDRunning, copy.AwaitOutput()) << "and answers";
    EXPECT_EQ(EDDRunning, copy.Tick());
  }
}

INSTANTIATE_TEST_SUITE_P(Families, DDWrapperToolsTest,
                         testing::Values(ToolFamily::KGnu, ToolFamily::KBusyBox),
                         testing::PrintToStringParamName());

TEST_F(DDWrapperTest, AToolThatCannotRunFailsTheStartOrTheCopy) {
  const auto outcome = [this] {
    CCopy copy;
    const auto started = copy.Start(source_, target_);
    EXPECT_THAT(started, AnyOf(EDDCompleted, EDDFailed));
    return started == EDDCompleted ? copy.RunToEnd() : started;
  };
  const std::string path = getenv("PATH");
  for (const std::string wrong : {"dd", "zcat"}) {
    // A dd that reads to the end, a zcat that has nothing to say.
    const std::string other = wrong == "dd" ? "zcat" : "dd";
    tools_.Add(other, wrong == "dd" ? "" : "exec /bin/cat > /dev/null");
    SCOPED_TRACE(wrong);

    tools_.Add(wrong, "exit 7");
    EXPECT_EQ(EDDFailed, outcome()) << "exits at once";
    tools_.HideOthers();
    chmod(tools_.Path(wrong).c_str(), 0644);
    EXPECT_EQ(EDDFailed, outcome()) << "not executable";
    std::filesystem::remove(tools_.Path(wrong));
    EXPECT_EQ(EDDFailed, outcome()) << "missing";
    setenv("PATH", path.c_str(), 1);
  }
  EXPECT_THAT(support::Children(), IsEmpty());
}

TEST_P(DDWrapperToolsTest, AnAbortedCopyWritesNothingMore) {
  WriteGzip(source_, std::string(16 * 1024 * 1024, 'x'));
  std::string endless;
  for (int member = 0; member < 256; ++member) {
    endless += ReadFile(source_);
  }
  WriteFile(source_, endless);
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 generator(seed);
  std::uniform_int_distribution<int> moment(0, 150);

  for (int round = 0; round < 10; ++round) {
    CCopy copy;
    ASSERT_EQ(EDDCompleted, copy.Start(source_, target_, round % 2 == 0 ? "" : "64k"));
    std::this_thread::sleep_for(milliseconds(moment(generator)));
    EXPECT_EQ(EDDRunning, copy.Tick()) << "the copy is too short for this test";

    EXPECT_EQ(EDDAborted, copy.iWrapper->Abort());

    EXPECT_THAT(support::Children(), IsEmpty());
    const bool there = std::filesystem::exists(target_);
    const auto size = there ? std::filesystem::file_size(target_) : 0;
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(there, std::filesystem::exists(target_));
    EXPECT_EQ(size, there ? std::filesystem::file_size(target_) : 0);
  }
}

// Long ones --------------------------------------------------------------------------------------

class DDWrapperSlowTest : public DDWrapperToolsTest {};

INSTANTIATE_TEST_SUITE_P(Families, DDWrapperSlowTest,
                         testing::Values(ToolFamily::KGnu, ToolFamily::KBusyBox),
                         testing::PrintToStringParamName());

/** Reads what dd writes into a fifo, slowly, and keeps the last part back until it is let go. */
class CSlowDevice {
 public:
  CSlowDevice(const std::string& path, std::size_t size)
      : iSize(size), iDescriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK)) {
    iThread = std::thread([this] { Run(); });
  }
  ~CSlowDevice() {
    iStop = true;
    iThread.join();
    close(iDescriptor);
  }
  CSlowDevice(const CSlowDevice&) = delete;
  CSlowDevice& operator=(const CSlowDevice&) = delete;

  void LetGo() { iLetGo = true; }
  /** What was written; for after the copy. */
  std::string Content() {
    Eventually([this] { return iReceived == iSize; });
    iStop = true;
    return iContent;
  }
  std::size_t Received() const { return iReceived; }

 private:
  void Run() {
    std::string piece(KPiece, '\0');
    while (!iStop) {
      std::this_thread::sleep_for(milliseconds(iLetGo ? 1 : 10));
      if (!iLetGo && iReceived + KKeptBack + KPiece > iSize) {
        continue;
      }
      const auto count = read(iDescriptor, piece.data(), piece.length());
      if (count > 0) {
        iContent.append(piece, 0, static_cast<std::size_t>(count));
        iReceived = iContent.length();
      }
    }
  }

  static constexpr std::size_t KPiece = 16384;
  static constexpr std::size_t KKeptBack = 1024 * 1024;

  const std::size_t iSize;
  const int iDescriptor;
  std::string iContent;
  std::atomic<std::size_t> iReceived{0};
  std::atomic<bool> iLetGo{false};
  std::atomic<bool> iStop{false};
  std::thread iThread;
};

/*
 * The bound of a step: five polling periods. A step takes microseconds; it is the machine that may
 * take the processor away in between. A step that waits for dd fails by far: dd is not signalled
 * again while it waits, and the device is held until all steps are done.
 */
TEST_P(DDWrapperSlowTest, NoStepOfALongCopyBlocks) {
  const auto content = support::RandomBytes(32 * 1024 * 1024);
  WriteGzip(source_, content);
  ASSERT_EQ(0, mkfifo(target_.c_str(), 0600));
  CSlowDevice device(target_, content.length());
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  const pid_t dd = DDChild();
  std::this_thread::sleep_for(milliseconds(1000));  // the grace of the host's first period

  const auto begin = steady_clock::now();
  const auto elapsed = [&] { return steady_clock::now() - begin; };
  auto longest = steady_clock::duration::zero();
  const auto timed = [&](TDDWrapperResult (CCopy::*step)()) {
    const auto before = steady_clock::now();
    const unsigned bytesBefore = copy_.iBytes == KGarbage ? 0 : copy_.iBytes;
    EXPECT_EQ(EDDRunning, (copy_.*step)());
    longest = std::max(longest, steady_clock::now() - before);
    // The line before may have counted a record that was read and not yet written.
    EXPECT_GE(copy_.iBytes + 512, bytesBefore);
  };
  const auto signals = [] { return SystemCalls::Instance().CallsOf("kill").size(); };
  auto nextTick = steady_clock::now();
  std::size_t answers = 0;
  while ((elapsed() < milliseconds(20000) || answers <= 1000) && elapsed() < milliseconds(120000)) {
    if (steady_clock::now() >= nextTick) {
      timed(&CCopy::Tick);
      nextTick += milliseconds(8);
      answers = signals();
    } else if (copy_.OutputReady(2)) {
      timed(&CCopy::Output);
    }
    if (testing::Test::HasFailure()) {
      break;
    }
  }

  EXPECT_GE(elapsed(), milliseconds(20000));
  EXPECT_GT(answers, 1000U) << "each signal but the last has been answered";
  EXPECT_LT(longest, milliseconds(5000));
  EXPECT_GT(copy_.iBytes, device.Received() / 2) << "progress is true";
  EXPECT_LE(copy_.iBytes, content.length());
  EXPECT_THAT(SystemCalls::Instance().CallsOf("kill"), testing::Each(Kill(dd, SIGUSR1)));
  RecordProperty("answers", std::to_string(answers));
  RecordProperty(
      "longest_step_us",
      std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(longest).count()));
  device.LetGo();
  EXPECT_EQ(EDDCompleted, copy_.RunToEnd());
  EXPECT_TRUE(content == device.Content());
}

class DDWrapperStubbornSlowTest : public DDWrapperTest {};

TEST_F(DDWrapperStubbornSlowTest, AChildThatNeverObeysOrIsStoppedIsKilled) {
  AddHeldTool("zcat");
  AddHeldTool("dd", "trap '' TERM");
  ASSERT_EQ(EDDCompleted, copy_.Start(source_, target_));
  AwaitReady("dd");
  AwaitReady("zcat");
  const pid_t dd = DDChild();
  const pid_t zcat = ZcatChild();
  ASSERT_EQ(0, kill(zcat, SIGSTOP));
  SystemCalls::Instance().Forget();
  const auto begin = steady_clock::now();

  EXPECT_EQ(EDDAborted, copy_.iWrapper->Abort());

  EXPECT_THAT(
      SystemCalls::Instance().CallsOf("kill"),
      ElementsAre(Kill(dd, SIGTERM), Kill(dd, SIGKILL), Kill(zcat, SIGTERM), Kill(zcat, SIGKILL)));
  EXPECT_GE(steady_clock::now() - begin, milliseconds(10000)) << "five seconds each";
  EXPECT_THAT(support::Children(), IsEmpty());
}

}  // namespace
