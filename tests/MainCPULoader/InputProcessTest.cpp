#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/time.h>

#include "MainCPULoader/src/InputProcess.h"
#include "tests/MainCPULoader/ChildPipeTests.h"

namespace {

using childpipes::OnlyChild;
using support::CoveredTool;
using support::InExpendableProcess;
using support::RecordedLog;
using support::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KLog(logging::MainCPULoader, "MainCPULoader/src/InputProcess");
const support::LogLine KGone =
    KLog.Error("Read", "Input process /bin/zcat exited with non-zero condition.");

struct DecompressorTraits {
  using TPipe = CInputProcess;
  static constexpr const char* KTool = "/bin/zcat";
  static constexpr const char* KSource = "MainCPULoader/src/InputProcess";
  static constexpr const char* KDestructor = "~CInputProcess";
  static constexpr const char* KPipeText = "Failed to create CInputProcess pipe";
  static constexpr const char* KForkText = "Failed to fork CInputProcess";
  static constexpr const char* KWaitText = "InputProcess Process /bin/zcat waitpid failed.";
  static constexpr int KOurMode = O_RDONLY;

  static std::string ArgumentToWaitOn(const TempDir& folder) {
    support::Shell("mkfifo '" + folder / "fifo" + "'");
    return folder / "fifo";
  }
};

class InputProcessTest : public support::CleanTest {
 protected:
  void Start(CInputProcess& process, const std::string& content) {
    support::WriteGzip(file_, content);
    ASSERT_TRUE(process.Create(Bytes(file_)));
  }

  /** One read of up to the given length, as text; a failure is "failed". */
  static std::string Read(CInputProcess& process, int length = 100) {
    std::string buffer(static_cast<std::size_t>(length), '\0');
    const int count = process.Read(buffer.data(), length);
    return count == -1 ? "failed" : buffer.substr(0, static_cast<std::size_t>(count));
  }

  TempDir directory_;
  std::string file_ = directory_ / "file.gz";
};

/** Where /bin/zcat is replaced by a script. */
class InputProcessWithScriptTest : public InputProcessTest {
 protected:
  void SetUp() override {
    InputProcessTest::SetUp();
    const std::string impossible = support::EnterPrivateMounts();
    if (!impossible.empty()) {
      GTEST_SKIP() << impossible;
    }
  }

  void Run(CInputProcess& process, const std::string& script) {
    tool_ = std::make_unique<CoveredTool>("/bin/zcat", script);
    ASSERT_TRUE(process.Create(Bytes(file_)));
  }

  std::unique_ptr<CoveredTool> tool_;
};

TEST_F(InputProcessTest, DeliversWhatTheFileHoldsDecompressed) {
  const std::string content = support::RandomBytes(1000000);
  CInputProcess process;
  Start(process, content);

  std::string received;
  while (received.length() < content.length()) {
    const std::string piece = Read(process, 262144);
    ASSERT_NE("failed", piece);
    ASSERT_NE("", piece);
    received += piece;
  }
  EXPECT_TRUE(content == received);
}

TEST_F(InputProcessTest, DeliversPieceByPieceWhatHasArrived) {
  CInputProcess process;
  Start(process, "abcdef");

  EXPECT_EQ("abc", Read(process, 3));
}

TEST_F(InputProcessTest, TakesWhatIsLeftWithTheReadThatReapsTheChildAndFailsFromThenOn) {
  CInputProcess process;
  Start(process, "abcdef");
  childpipes::WaitUntilEnded(OnlyChild());

  EXPECT_EQ("abc", Read(process, 3));
  EXPECT_THAT(support::Children(), IsEmpty()) << "the first read reaps";
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());

  EXPECT_EQ("failed", Read(process, 3)) << "although three bytes wait in the pipe";
  EXPECT_EQ("failed", Read(process, 3));
  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KGone, KGone));
}

TEST_F(InputProcessTest, TheReadThatReapsAtTheEndOfTheStreamDeliversTheEnd) {
  CInputProcess process;
  Start(process, "");
  childpipes::WaitUntilEnded(OnlyChild());

  EXPECT_EQ("", Read(process));
  EXPECT_EQ("failed", Read(process));
}

TEST_F(InputProcessTest, FailsWhenTheChildEndedWithANonZeroStatusEvenWithDataInThePipe) {
  support::WriteGzip(file_, "abcdef");
  support::Shell("printf garbage >> '" + file_ + "'");
  CInputProcess process;
  ASSERT_TRUE(process.Create(Bytes(file_)));
  childpipes::WaitUntilEnded(OnlyChild());

  EXPECT_EQ("failed", Read(process)) << "gzip ends with 2 after trailing garbage";
  EXPECT_EQ("failed", Read(process));
  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KGone, KGone));
}

TEST_F(InputProcessTest, FailsWhenTheFileIsMissing) {
  CInputProcess process;
  ASSERT_TRUE(process.Create(Bytes(directory_ / "missing.gz"))) << "the child has started";
  childpipes::WaitUntilEnded(OnlyChild());

  EXPECT_EQ("failed", Read(process));
}

TEST_F(InputProcessTest, FailsWhenTheChildWasKilled) {
  CInputProcess process;
  Start(process, support::RandomBytes(1000000));
  EXPECT_EQ(100U, Read(process, 100).length());
  const pid_t child = OnlyChild();
  kill(child, SIGKILL);
  childpipes::WaitUntilEnded(child);

  EXPECT_EQ("failed", Read(process));
  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KGone));
}

TEST_F(InputProcessTest, FailsWhenTheHostHasCollectedTheChildEvenWithDataInThePipe) {
  CInputProcess process;
  Start(process, "abcdef");
  const pid_t child = OnlyChild();
  childpipes::WaitUntilEnded(child);
  EXPECT_EQ(0, childpipes::Reap(child));

  EXPECT_EQ("failed", Read(process));
  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KGone));
}

TEST_F(InputProcessTest, AReadErrorIsReturnedWithoutALine) {
  support::Shell("mkfifo '" + file_ + "'");
  // As long as it could be written to, zcat waits for its content.
  const int writer = open(file_.c_str(), O_RDWR | O_CLOEXEC);
  const auto before = support::OpenDescriptors();
  CInputProcess process;
  ASSERT_TRUE(process.Create(Bytes(file_)));
  const pid_t child = OnlyChild();
  const auto added = childpipes::Added(before);
  ASSERT_EQ(1U, added.size());
  close(added.begin()->first);

  EXPECT_EQ("failed", Read(process));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
  kill(child, SIGKILL);
  close(writer);
}

TEST_F(InputProcessTest, FailsAtOnceWhenItWasNeverStartedAndTakesNoOtherChild) {
  const pid_t other = fork();
  if (other == 0) {
    _exit(7);
  }
  childpipes::WaitUntilEnded(other);
  CInputProcess process;

  EXPECT_EQ("failed", Read(process));

  EXPECT_EQ(7, WEXITSTATUS(childpipes::Reap(other)));
}

TEST_F(InputProcessTest, NeverWaitsForAnotherChildThatGotTheIdOfTheReapedOne) {
  auto process = std::make_unique<CInputProcess>();
  Start(*process, "abc");
  const pid_t child = OnlyChild();
  childpipes::WaitUntilEnded(child);
  EXPECT_EQ("abc", Read(*process));
  const pid_t other = childpipes::IdleChildWithId(child);
  if (other == -1) {
    GTEST_SKIP() << "process ids cannot be chosen here: " << std::strerror(errno);
  }
  ASSERT_EQ(child, other);

  EXPECT_EQ("failed", Read(*process));
  RecordedLog::Instance().Clear();
  process.reset();

  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KLog.Error("~CInputProcess", DecompressorTraits::KWaitText)));
  EXPECT_EQ(0, waitpid(other, nullptr, WNOHANG));
  childpipes::EndChild(other);
}

TEST_F(InputProcessTest, ItsEndEndsAChildThatStillWrites) {
  CInputProcess process;
  Start(process, std::string(10000000, '\0'));

  EXPECT_EQ(100U, Read(process, 100).length());
}

TEST_F(InputProcessTest, WorksInAHostWithoutStandardStreams) {
  support::WriteGzip(file_, "abc");
  InExpendableProcess([this] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    CInputProcess process;
    ASSERT_TRUE(process.Create(Bytes(file_)));

    EXPECT_EQ("abc", Read(process));
  });
}

TEST_F(InputProcessTest, ACapacityThatTheKernelRefusesIsPassedOver) {
  InExpendableProcess([this] {
    support::WriteGzip(file_, "abc");
    support::RefuseSystemCall(SYS_fcntl, EPERM, support::CallArgument{1, F_SETPIPE_SZ});
    CInputProcess process;
    process.SetCapacity(262144);
    ASSERT_TRUE(process.Create(Bytes(file_)));

    EXPECT_EQ("abc", Read(process));
  });
}

TEST_F(InputProcessWithScriptTest, RunsZcatOnTheFile) {
  CInputProcess process;
  Run(process, "echo \"$0:$#:$*\"");

  EXPECT_EQ("/bin/zcat:1:" + file_ + "\n", Read(process, 1000));
}

TEST_F(InputProcessWithScriptTest, CallsTheToolByTheNameThatChoosesABusyBoxApplet) {
  support::WriteGzip(file_, "abc");
  const CoveredTool tool = CoveredTool::WithProgram("/bin/zcat", "/bin/busybox");
  CInputProcess process;
  ASSERT_TRUE(process.Create(Bytes(file_)));

  EXPECT_EQ("abc", Read(process));
}

TEST_F(InputProcessWithScriptTest, DeliversTheEndOfTheStreamWhileTheChildStillRuns) {
  CInputProcess process;
  Run(process, "printf abc; exec >&-; exec sleep 1000");

  EXPECT_EQ("abc", Read(process));
  EXPECT_EQ("", Read(process));
  EXPECT_EQ("", Read(process));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
  kill(OnlyChild(), SIGKILL);
}

TEST_F(InputProcessWithScriptTest, TriesAgainWhenASignalInterrupts) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction before {};
  sigaction(SIGALRM, &action, &before);
  CInputProcess process;
  Run(process, "sleep 0.3; printf abc");

  const itimerval every{{0, 20000}, {0, 20000}};
  setitimer(ITIMER_REAL, &every, nullptr);
  EXPECT_EQ("abc", Read(process));
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
}

TEST_F(InputProcessWithScriptTest, TriesAgainWhileNothingHasArrivedOnANonBlockingPipe) {
  const auto before = support::OpenDescriptors();
  CInputProcess process;
  Run(process, "sleep 0.3; printf abc");
  const auto added = childpipes::Added(before);
  ASSERT_EQ(1U, added.size());
  fcntl(added.begin()->first, F_SETFL, O_NONBLOCK);

  EXPECT_EQ("abc", Read(process));
}

}  // namespace

namespace childpipes {
INSTANTIATE_TYPED_TEST_SUITE_P(Decompressor, ChildPipeTest, DecompressorTraits);
}  // namespace childpipes
