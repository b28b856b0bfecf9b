#include <cerrno>
#include <sys/ioctl.h>

#include "MainCPULoader/src/ArchiveLoaderOutputProcess.h"
#include "tests/MainCPULoader/ChildPipeTests.h"

namespace {

using childpipes::OnlyChild;
using support::CoveredTool;
using support::InExpendableProcess;
using support::RecordedLog;
using support::TempDir;
using testing::IsEmpty;

struct UnpackerTraits {
  using TPipe = CArchiveLoaderOutputProcess;
  static constexpr const char* KTool = "/bin/tar";
  static constexpr const char* KSource = "MainCPULoader/src/ArchiveLoaderOutputProcess";
  static constexpr const char* KDestructor = "~CArchiveLoaderOutputProcess";
  static constexpr const char* KPipeText = "Failed to create CArchiveLoaderOutputProcess pipe";
  static constexpr const char* KForkText = "Failed to fork CArchiveLoaderOutputProcess";
  static constexpr const char* KWaitText =
      "ArchiveLoaderOutputProcess Process waitpid /bin/tar failed.";
  static constexpr int KOurMode = O_WRONLY;

  static std::string ArgumentToWaitOn(const TempDir& folder) { return folder.Path(); }
};

class ArchiveLoaderOutputProcessTest : public support::CleanTest {
 protected:
  /** A tar stream with one file, "name", that holds the content. */
  std::string TarOf(const std::string& content) {
    const TempDir source;
    support::WriteFile(source / "name", content);
    support::Shell("tar cf '" + directory_ / "tar" + "' -C '" + source.Path() + "' name");
    return support::ReadFile(directory_ / "tar");
  }

  /** The child has gone, and with it the pipe's only reader. */
  void StartAndKill(CArchiveLoaderOutputProcess& process) {
    ASSERT_TRUE(Create(process));
    kill(OnlyChild(), SIGKILL);
    childpipes::WaitUntilEnded(OnlyChild());
  }

  bool Create(CArchiveLoaderOutputProcess& process) {
    return process.Create(Bytes(target_.Path()));
  }

  static bool Write(CArchiveLoaderOutputProcess& process, const std::string& bytes) {
    return process.Write(bytes.data(), static_cast<int>(bytes.length()));
  }

  /** One piece, whose write(2) fails with the error or, without one, takes nothing. */
  bool WriteWithResult(int error) {
    const auto before = support::OpenDescriptors();
    CArchiveLoaderOutputProcess process;
    EXPECT_TRUE(Create(process));
    const auto ours = static_cast<unsigned>(childpipes::Added(before).begin()->first);
    support::RefuseSystemCall(SYS_write, error, support::CallArgument{0, ours});
    return Write(process, "abc");
  }

  TempDir directory_;
  TempDir target_;
};

/**
 * A child that waits until the pipe behind a descriptor is full, sends this process a SIGUSR1,
 * which interrupts the write that waits, and makes a file.
 */
void SignalOnceFull(int descriptor, const std::string& file) {
  struct sigaction action {};
  action.sa_handler = [](int /*number*/) {};
  sigaction(SIGUSR1, &action, nullptr);
  if (fork() == 0) {
    int held = 0;
    while (ioctl(descriptor, FIONREAD, &held) == 0 && held < fcntl(descriptor, F_GETPIPE_SZ)) {
      usleep(1000);
    }
    kill(getppid(), SIGUSR1);
    close(creat(file.c_str(), 0600));
    _exit(0);
  }
}

/** Where /bin/tar is replaced. */
class ArchiveLoaderOutputProcessWithScriptTest : public ArchiveLoaderOutputProcessTest {
 protected:
  void SetUp() override {
    ArchiveLoaderOutputProcessTest::SetUp();
    const std::string impossible = support::EnterPrivateMounts();
    if (!impossible.empty()) {
      GTEST_SKIP() << impossible;
    }
  }
};

TEST_F(ArchiveLoaderOutputProcessTest, UnpacksWhatItIsGivenIntoTheFolder) {
  const std::string content = support::RandomBytes(1000000);
  const std::string tar = TarOf(content);
  {
    CArchiveLoaderOutputProcess process;
    ASSERT_TRUE(Create(process));
    EXPECT_TRUE(Write(process, tar.substr(0, 300000)));
    EXPECT_TRUE(Write(process, tar.substr(300000)));
  }

  EXPECT_TRUE(content == support::ReadFile(target_ / "name")) << "complete once the object is gone";
}

TEST_F(ArchiveLoaderOutputProcessTest, FailsWhenTheChildHasGoneAndTheHostIsNotKilled) {
  std::signal(SIGPIPE, SIG_DFL);
  CArchiveLoaderOutputProcess process;
  StartAndKill(process);

  EXPECT_FALSE(Write(process, "abc"));

  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty()) << "the caller reports it";
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(0, sigismember(&blocked, SIGPIPE));
  struct sigaction action {};
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(SIG_DFL, action.sa_handler);
}

TEST_F(ArchiveLoaderOutputProcessTest, FailsWhenTheChildGoesInTheMiddleOfAWrite) {
  std::signal(SIGPIPE, SIG_DFL);
  const std::string tar = TarOf(support::RandomBytes(10000000));
  CArchiveLoaderOutputProcess process;
  ASSERT_TRUE(process.Create(Bytes(directory_ / "missing")));

  EXPECT_FALSE(Write(process, tar)) << "tar looks for the folder when it has read a first piece";
}

TEST_F(ArchiveLoaderOutputProcessTest, KeepsASigpipeOfTheHostThatWasPendingBefore) {
  InExpendableProcess([this] {
    sigset_t sigPipe;
    sigemptyset(&sigPipe);
    sigaddset(&sigPipe, SIGPIPE);
    sigprocmask(SIG_BLOCK, &sigPipe, nullptr);
    raise(SIGPIPE);
    CArchiveLoaderOutputProcess process;
    StartAndKill(process);

    EXPECT_FALSE(Write(process, "abc"));

    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(1, sigismember(&pending, SIGPIPE));
  });
}

TEST_F(ArchiveLoaderOutputProcessTest, WritesASingleByte) {
  const std::string tar = TarOf("abc");
  {
    CArchiveLoaderOutputProcess process;
    ASSERT_TRUE(Create(process));
    for (const char byte : tar) {
      ASSERT_TRUE(process.Write(&byte, 1));
    }
  }

  EXPECT_EQ("abc", support::ReadFile(target_ / "name"));
}

TEST_F(ArchiveLoaderOutputProcessTest, NothingToWriteIsWritten) {
  CArchiveLoaderOutputProcess process;

  EXPECT_TRUE(process.Write(nullptr, 0)) << "a write would fail: there is no pipe";
}

TEST_F(ArchiveLoaderOutputProcessTest, FailsAtOnceWhenItWasNeverStarted) {
  CArchiveLoaderOutputProcess process;

  EXPECT_FALSE(Write(process, "abc"));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(ArchiveLoaderOutputProcessTest, AWriteThatTakesNothingCountsAsWritten) {
  InExpendableProcess([this] { EXPECT_TRUE(WriteWithResult(0)); });
}

TEST_F(ArchiveLoaderOutputProcessTest, AnInterruptedWriteFails) {
  InExpendableProcess([this] { EXPECT_FALSE(WriteWithResult(EINTR)); });
}

TEST_F(ArchiveLoaderOutputProcessTest, WorksInAHostWithoutStandardStreams) {
  const std::string tar = TarOf("abc");
  InExpendableProcess([this, &tar] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    CArchiveLoaderOutputProcess process;
    ASSERT_TRUE(Create(process));

    EXPECT_TRUE(Write(process, tar));
  });

  EXPECT_EQ("abc", support::ReadFile(target_ / "name"));
}

TEST_F(ArchiveLoaderOutputProcessWithScriptTest, RunsTarOnItsStandardInput) {
  const std::string record = directory_ / "record";
  const CoveredTool tool("/bin/tar", "{ echo \"$0:$#:$*\"; cat; } > '" + record + "'");
  {
    CArchiveLoaderOutputProcess process;
    ASSERT_TRUE(Create(process));
    EXPECT_TRUE(Write(process, "stream\n"));
  }

  EXPECT_EQ("/bin/tar:3:x -C " + target_.Path() + "\nstream\n", support::ReadFile(record));
}

TEST_F(ArchiveLoaderOutputProcessWithScriptTest, CallsTheToolByTheNameThatChoosesABusyBoxApplet) {
  const std::string tar = TarOf("abc");
  const CoveredTool tool = CoveredTool::WithProgram("/bin/tar", "/bin/busybox");
  {
    CArchiveLoaderOutputProcess process;
    ASSERT_TRUE(Create(process));
    EXPECT_TRUE(Write(process, tar));
  }

  EXPECT_EQ("abc", support::ReadFile(target_ / "name"));
}

TEST_F(ArchiveLoaderOutputProcessWithScriptTest, WritesAllOfItToAChildThatTakesItSlowly) {
  const std::string record = directory_ / "record";
  const CoveredTool tool("/bin/tar", "exec > '" + record +
                                         "'; for i in 1 2 3 4 5; do dd bs=50000 count=1 "
                                         "iflag=fullblock status=none; sleep 0.02; done; cat");
  const std::string bytes = support::RandomBytes(500000);
  {
    CArchiveLoaderOutputProcess process;
    ASSERT_TRUE(Create(process));
    EXPECT_TRUE(Write(process, bytes));
  }

  EXPECT_TRUE(bytes == support::ReadFile(record));
}

TEST_F(ArchiveLoaderOutputProcessWithScriptTest, GoesOnWithTheRestAfterAWriteThatASignalCutShort) {
  const std::string record = directory_ / "record";
  const std::string signalled = directory_ / "signalled";
  const CoveredTool tool("/bin/tar", "while [ ! -e '" + signalled +
                                         "' ]; do sleep 0.01; done; cat > '" + record + "'");
  const std::string bytes = support::RandomBytes(200000);
  InExpendableProcess([&] {
    const auto before = support::OpenDescriptors();
    {
      CArchiveLoaderOutputProcess process;
      ASSERT_TRUE(Create(process));
      SignalOnceFull(childpipes::Added(before).begin()->first, signalled);
      EXPECT_TRUE(Write(process, bytes));
    }
    EXPECT_TRUE(bytes == support::ReadFile(record));
  });
}

}  // namespace

namespace childpipes {
INSTANTIATE_TYPED_TEST_SUITE_P(Unpacker, ChildPipeTest, UnpackerTraits);
}  // namespace childpipes
