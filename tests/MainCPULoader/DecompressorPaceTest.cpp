#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "MainCPULoader/src/DecompressorPace.h"
#include "tests/MainCPULoader/ImageCheck.h"
#include "tests/support/Expendable.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SystemCalls.h"

namespace {

using support::ImageCheck;
using support::PatientInputProcess;
using support::RandomBytes;
using support::SystemCalls;
using Sizes = std::vector<std::size_t>;

volatile std::sig_atomic_t stops = 0;
const char* madeAtStop = nullptr;

/** For handlers of signals. */
void MakeFile(const char* path) {
  const int saved = errno;
  if (path != nullptr) {
    close(creat(path, 0600));
  }
  errno = saved;
}

void CountStop(int /*number*/, siginfo_t* info, void* /*context*/) {
  if (info->si_code == CLD_STOPPED) {
    ++stops;
    MakeFile(madeAtStop);
  }
}

/** Sees when children are stopped. Several stops at once may count as one. */
class StopCounter {
 public:
  /** @param file  is made at a stop, for a script that waits for it; null for none. */
  explicit StopCounter(const char* file = nullptr) {
    stops = 0;
    madeAtStop = file;
    struct sigaction action {};
    action.sa_sigaction = CountStop;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(SIGCHLD, &action, &before_);
  }
  ~StopCounter() { sigaction(SIGCHLD, &before_, nullptr); }

  StopCounter(const StopCounter&) = delete;
  StopCounter& operator=(const StopCounter&) = delete;

  int Stops() const { return stops; }

 private:
  struct sigaction before_ {};
};

constexpr int KEnoughAlarms = 10;
volatile std::sig_atomic_t alarms = 0;
const char* madeAfterAlarms = nullptr;

void CountAlarm(int /*number*/) {
  ++alarms;
  if (alarms == KEnoughAlarms) {
    MakeFile(madeAfterAlarms);
  }
}

/** Interrupts whatever waits, a hundred times a second. */
class Interruptions {
 public:
  /** @param file  is made after the tenth, for a script that waits for it. */
  explicit Interruptions(const char* file) {
    alarms = 0;
    madeAfterAlarms = file;
    struct sigaction action {};
    action.sa_handler = CountAlarm;
    sigaction(SIGALRM, &action, &before_);
    const itimerval often{{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~Interruptions() {
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }

  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  int Count() const { return alarms; }

 private:
  struct sigaction before_ {};
};

/** Reads with all patience, and tells what it met. */
class ObservingInputProcess : public PatientInputProcess {
 public:
  /** @param onRead  called before every read, with what has been delivered so far. */
  explicit ObservingInputProcess(
      std::function<void(unsigned long long, const CInputProcess&)> onRead)
      : onRead_(std::move(onRead)) {}

  int Read(char* buffer, int length) override {
    Settle();
    onRead_(delivered_, *this);
    const int count = CInputProcess::Read(buffer, length);
    delivered_ += static_cast<unsigned long long>(std::max(count, 0));
    return count;
  }

 private:
  std::function<void(unsigned long long, const CInputProcess&)> onRead_;
  unsigned long long delivered_ = 0;
};

class DecompressorPaceTest : public support::CleanTest {
 protected:
  void Make(const std::string& content) {
    support::WriteGzip(Image(), content);
    support::WriteFile(Target(), content);
  }

  /** An image of several members, as a concatenation of archives has them. */
  void MakeMembers(const Sizes& sizes) {
    std::string content;
    support::WriteFile(Image(), "");
    for (const std::size_t size : sizes) {
      const std::string member = RandomBytes(size, static_cast<unsigned>(content.length()));
      support::WriteGzip(directory_ / "member.gz", member);
      support::Shell("cat '" + (directory_ / "member.gz") + "' >> '" + Image() + "'");
      content += member;
    }
    support::WriteFile(Target(), content);
    size_ = content.length();
  }

  std::string Image() const { return directory_ / "image.gz"; }
  std::string Target() const { return directory_ / "target"; }

  /** Check sizes of content against slow and fast readers; counts the false failures. */
  int FalseFailures(const Sizes& sizes) {
    int failures = 0;
    for (const std::size_t size : sizes) {
      Make(RandomBytes(size));
      for (const bool patient : {true, false}) {
        CInputProcess* decompressor = patient ? new PatientInputProcess : new CInputProcess;
        ImageCheck check(Image(), Target(), size, decompressor);
        if (check.Run() != "Completed 1") {
          ++failures;
          ADD_FAILURE() << "false failure of " << size << " bytes, "
                        << (patient ? "patient" : "eager");
        }
      }
    }
    return failures;
  }

  support::TempDir directory_;
  std::size_t size_ = 0;
};

const Sizes KSizes = {1,     4095,  4096,  4097,   5000,   8191,   8192,   8193,    32768,
                      32769, 65536, 69632, 262143, 262144, 262145, 300000, 2097152, 2097152 + 5000};

TEST_F(DecompressorPaceTest, StreamsThatBeginCloseToTheirEndStartWithANarrowPipe) {
  EXPECT_EQ(4096, CDecompressorPace::StartCapacity(0));
  EXPECT_EQ(4096, CDecompressorPace::StartCapacity(262144));
  EXPECT_EQ(65536, CDecompressorPace::StartCapacity(262145));
  EXPECT_EQ(65536, CDecompressorPace::StartCapacity(1ULL << 40));
}

TEST_F(DecompressorPaceTest, ThePipeIsWideUntilTheEndIsNearAndThenHoldsOnePiece) {
  const unsigned long long size = 2097152 + 5000;
  Make(RandomBytes(size));
  ImageCheck check(Image(), Target(), size,
                   new ObservingInputProcess([&](auto delivered, const auto& process) {
                     const int capacity = fcntl(process.ReadEnd(), F_GETPIPE_SZ);
                     if (size - delivered > 256 * 1024) {
                       ASSERT_EQ(65536, capacity) << delivered;
                     } else if (size - delivered < 128 * 1024) {
                       ASSERT_EQ(4096, capacity) << delivered;
                     }
                   }));
  EXPECT_EQ("Completed 1", check.Run());
}

TEST_F(DecompressorPaceTest, ASmallImageOfWholeBlocksNeedsNoPauseHoweverSlowItsReader) {
  for (const std::size_t size : Sizes{5000, 100000, 262144}) {
    SCOPED_TRACE(size);
    Make(RandomBytes(size));
    const StopCounter counter;
    ImageCheck check(Image(), Target(), size, new PatientInputProcess);
    EXPECT_EQ("Completed 1", check.Run());
    EXPECT_EQ(0, counter.Stops());
  }
}

TEST_F(DecompressorPaceTest, ASlowReaderPausesTheDecompressorFarFromTheEndOnly) {
  const std::size_t size = 3 * 1024 * 1024;
  Make(RandomBytes(size));
  const StopCounter counter;
  int stopsBefore = -1;
  int stopsMiddle = -1;
  ImageCheck check(Image(), Target(), size,
                   new ObservingInputProcess([&](auto delivered, const auto& process) {
                     const auto left = size - delivered;
                     const bool stopped = support::ProcessState(process.ProcessId()) == 'T';
                     if (left > 192 * 1024) {
                       stopsBefore = counter.Stops();
                     }
                     if (left == 100 * 1024) {
                       stopsMiddle = counter.Stops();
                     }
                     EXPECT_FALSE(stopped && (left > 192 * 1024 || left < 124 * 1024)) << left;
                   }));
  EXPECT_EQ("Completed 1", check.Run());
  EXPECT_EQ(0, stopsBefore);
  EXPECT_EQ(1, stopsMiddle);
  EXPECT_EQ(1, counter.Stops());
}

TEST_F(DecompressorPaceTest, APauseEndsWithItsStep) {
  // In every step, and after it, at all distances of the end from the border of a step.
  for (const std::size_t beyond :
       Sizes{1, 5000, 60000, 65536, 100000, 130000, 190000, 200000, 260000}) {
    SCOPED_TRACE(beyond);
    const std::size_t size = CImageChecker::KTransferSize + beyond;
    Make(RandomBytes(size));
    auto* decompressor = new PatientInputProcess;
    ImageCheck check(Image(), Target(), size, decompressor);
    check.Start();
    const pid_t child = decompressor->ProcessId();
    check.Step();
    EXPECT_NE('T', support::ProcessState(child));
    check.Step();
    EXPECT_NE('T', support::ProcessState(child));
    EXPECT_EQ("Completed 1", check.Callback().Reports().back());
  }
}

TEST_F(DecompressorPaceTest, AFailureDuringAPauseLetsTheDecompressorGoOn) {
  const std::size_t size = 1024 * 1024;
  const std::string content = RandomBytes(size);
  for (const bool shortTarget : {true, false}) {
    SCOPED_TRACE(shortTarget);
    Make(content);
    const std::size_t wrong = size - 190 * 1024;
    std::string target = content;
    target[wrong] = static_cast<char>(target[wrong] ^ 1);
    support::WriteFile(Target(), shortTarget ? content.substr(0, wrong) : target);
    const StopCounter counter;
    auto* decompressor = new PatientInputProcess;
    ImageCheck check(Image(), Target(), size, decompressor);

    EXPECT_EQ("Completed 0", check.Run());

    EXPECT_EQ(1, counter.Stops()) << "the failure was meant to fall into the pause";
    EXPECT_NE('T', support::ProcessState(decompressor->ProcessId()));
  }
}

TEST_F(DecompressorPaceTest, AnImageThatEndsTooEarlyIsAFailureAndNotAHang) {
  for (const std::size_t size : Sizes{1, 4096, 5000, 65536, 262145, 300000}) {
    Make(RandomBytes(size));
    for (const std::size_t missing : Sizes{1, 4096, 5000, 70000, 200000, 300000}) {
      SCOPED_TRACE(std::to_string(size) + " bytes, but " + std::to_string(missing) + " missing");
      support::WriteFile(Target(), RandomBytes(size) + std::string(missing, 'x'));
      ImageCheck check(Image(), Target(), size + missing, new PatientInputProcess);
      EXPECT_EQ("Completed 0", check.Run());
      check.Step();
      EXPECT_EQ("Completed 0", check.Callback().Reports().back());
    }
  }
}

TEST_F(DecompressorPaceTest, AnImageOfSeveralMembersPassesWhereverTheyEnd) {
  const Sizes sizes = {1, 500, 904, 3500, 4000, 4096, 5000, 9000};
  for (const std::size_t first : sizes) {
    for (const std::size_t second : sizes) {
      SCOPED_TRACE(std::to_string(first) + " + " + std::to_string(second));
      MakeMembers({first, second});
      ImageCheck check(Image(), Target(), size_, new PatientInputProcess);
      EXPECT_EQ("Completed 1", check.Run());
    }
  }
}

TEST_F(DecompressorPaceTest, AfterPiecesThatWereReadWriteByWriteTheDecompressorGoesOn) {
  // The second member begins in the last but one piece that is compared, and there is a third.
  MakeMembers({4000, 500, 100000});
  const std::string content = support::ReadFile(Target());
  for (const bool wrong : {false, true}) {
    SCOPED_TRACE(wrong);
    std::string target = content;
    target[4050] = static_cast<char>(target[4050] ^ (wrong ? 1 : 0));
    support::WriteFile(Target(), target);
    const StopCounter counter;
    auto* decompressor = new PatientInputProcess;
    ImageCheck check(Image(), Target(), 4500, decompressor);

    EXPECT_EQ(wrong ? "Completed 0" : "Completed 1", check.Run());

    EXPECT_LE(1, counter.Stops());
    EXPECT_NE('T', support::ProcessState(decompressor->ProcessId()));
    EXPECT_EQ(0, fcntl(decompressor->ReadEnd(), F_GETFL) & O_ASYNC);
    EXPECT_EQ(0, fcntl(decompressor->ReadEnd(), F_GETSIG));
    EXPECT_EQ(0, fcntl(decompressor->ReadEnd(), F_GETOWN));
  }
}

TEST_F(DecompressorPaceTest, AStopIsWaitedForThroughSignals) {
  MakeMembers({4000, 500, 100000});
  // A decompressor that was taken for running would stay stopped for ever.
  support::InExpendableProcess([this] {
    const StopCounter counter;
    ImageCheck check(Image(), Target(), 4500, new PatientInputProcess);
    // The first call looks whether there is still a child to stop.
    SystemCalls::Instance().Fail("waitid", EINTR, 1, 3);

    EXPECT_EQ("Completed 1", check.Run());

    EXPECT_EQ(3, SystemCalls::Instance().Failed());
    EXPECT_LE(1, counter.Stops());
  });
}

TEST_F(DecompressorPaceTest, ALargeImageOfSeveralMembersPassesWithASlowReader) {
  for (const std::size_t last : Sizes{500, 3000, 5000, 70000}) {
    SCOPED_TRACE(last);
    MakeMembers({5000, 2097152, 300000, 3904 + 4096 - 300, last});
    ImageCheck check(Image(), Target(), size_, new PatientInputProcess);
    EXPECT_EQ("Completed 1", check.Run());
  }
}

TEST_F(DecompressorPaceTest, GzipsImagesPassOfEverySize) {
  EXPECT_EQ(0, FalseFailures(KSizes));
}

TEST_F(DecompressorPaceTest, SizesAroundEveryBorderOfTheLastPiecesPass) {
  Sizes sizes;
  for (std::size_t size = 4096; size < 5 * 4096; size += 117) {
    sizes.push_back(size);
  }
  EXPECT_EQ(0, FalseFailures(sizes));
}

/** Tests with another "/bin/zcat". Its argument is the path of the image; here it lies plain. */
class OtherDecompressorTest : public DecompressorPaceTest {
 protected:
  void SetUp() override {
    const std::string problem = support::EnterPrivateMounts();
    if (!problem.empty()) {
      GTEST_SKIP() << problem;
    }
    DecompressorPaceTest::SetUp();
  }

  /** A decompressor that begins when there is such a file. */
  static std::string CatAfter(const std::string& file) {
    return "while [ ! -e '" + file + "' ]; do sleep 0.01; done; exec cat \"$1\"";
  }
};

TEST_F(OtherDecompressorTest, BusyBoxImagesPassOfEverySize) {
  const support::CoveredTool zcat("/bin/zcat", "exec busybox zcat \"$1\"");
  EXPECT_EQ(0, FalseFailures(KSizes));

  MakeMembers({4000, 500});
  ImageCheck check(Image(), Target(), size_, new PatientInputProcess);
  EXPECT_EQ("Completed 1", check.Run());
}

TEST_F(OtherDecompressorTest, WritersOfAnyBlockSizePass) {
  for (const int block : {1, 904, 1000, 4095, 4097, 5000, 10000, 65536, 100000}) {
    SCOPED_TRACE(block);
    const support::CoveredTool zcat(
        "/bin/zcat", "exec dd if=\"$1\" bs=" + std::to_string(block) + " status=none");
    for (const std::size_t size : Sizes{1, 4097, 5000, 8192, 12000, 70000, 300000, 2101000}) {
      if (block == 1 && size > 12000) {
        continue;
      }
      SCOPED_TRACE(size);
      const std::string content = RandomBytes(size);
      support::WriteFile(Image(), content);
      support::WriteFile(Target(), content);
      ImageCheck check(Image(), Target(), size, new PatientInputProcess);
      EXPECT_EQ("Completed 1", check.Run());
    }
  }
}

TEST_F(OtherDecompressorTest, ADecompressorThatIsTheSlowerSideIsNeverStopped) {
  // 32 KiB at a time, as gzip writes them, and none before the reader has taken the one before,
  // however long it is kept from that.
  const support::CoveredTool zcat("/bin/zcat", R"(exec perl -e '
      alarm(60);  # for a check that reads no more
      open(my $image, "<:raw", $ARGV[0]) or die;
      while (sysread($image, my $block, 32768)) {
        syswrite(STDOUT, $block) == length($block) or die;
        my $unread = pack("i", 1);
        while (unpack("i", $unread)) {
          select(undef, undef, undef, 0.001);
          ioctl(STDOUT, $ARGV[1], $unread) or die;
        }
      }' "$1" )" + std::to_string(FIONREAD));
  for (const std::size_t size : Sizes{100000, 300000, 700000}) {
    SCOPED_TRACE(size);
    const std::string content = RandomBytes(size);
    support::WriteFile(Image(), content);
    support::WriteFile(Target(), content);
    const StopCounter counter;
    ImageCheck check(Image(), Target(), size);
    EXPECT_EQ("Completed 1", check.Run());
    EXPECT_EQ(0, counter.Stops());
  }
}

TEST_F(OtherDecompressorTest, WhereSignalsInterruptTheWaitForAPieceTheDecompressorIsNotStopped) {
  // The last but one piece, which is waited for, comes after the signals.
  const std::string interrupted = directory_ / "interrupted";
  const support::CoveredTool zcat("/bin/zcat", CatAfter(interrupted));
  const std::string content = RandomBytes(5000);
  support::WriteFile(Image(), content);
  support::WriteFile(Target(), content);
  const StopCounter counter;
  const Interruptions interruptions(interrupted.c_str());
  ImageCheck check(Image(), Target(), content.length());

  EXPECT_EQ("Completed 1", check.Run());

  EXPECT_LE(KEnoughAlarms, interruptions.Count());
  EXPECT_EQ(0, counter.Stops());
}

TEST_F(OtherDecompressorTest, WhereAPieceCannotBeWaitedForTheDecompressorIsPausedInstead) {
  // Nothing comes before the pause.
  const std::string stopped = directory_ / "stopped";
  const support::CoveredTool zcat("/bin/zcat", CatAfter(stopped));
  const std::string content = RandomBytes(5000);
  support::WriteFile(Image(), content);
  support::WriteFile(Target(), content);
  support::InExpendableProcess([&] {
    const StopCounter counter(stopped.c_str());
#ifdef SYS_poll
    support::RefuseSystemCall(SYS_poll, ENOMEM);
#else
    support::RefuseSystemCall(SYS_ppoll, ENOMEM);
#endif
    ImageCheck check(Image(), Target(), content.length(), new PatientInputProcess);

    EXPECT_EQ("Completed 1", check.Run());

    EXPECT_LE(1, counter.Stops());
  });
}

TEST_F(OtherDecompressorTest, APipeThatCannotBeNarrowedIsAskedOnceAndReadOn) {
  // Goes on after the image: without a narrow pipe an end would come too early.
  const support::CoveredTool zcat("/bin/zcat", "cat \"$1\"; exec cat /dev/zero");
  const std::string content = RandomBytes(600000);
  support::WriteFile(Image(), content);
  support::WriteFile(Target(), content);
  const StopCounter counter;
  auto* decompressor = new CInputProcess;
  ImageCheck check(Image(), Target(), content.length(), decompressor);
  check.Start();
  SystemCalls::Instance().Fail("fcntl", EINVAL);

  while (!check.Callback().Ended()) {
    check.Step();
    ASSERT_FALSE(HasFatalFailure());
  }

  EXPECT_EQ("Completed 1", check.Callback().Reports().back());
  EXPECT_EQ(1, SystemCalls::Instance().Failed());
  EXPECT_EQ(65536, fcntl(decompressor->ReadEnd(), F_GETPIPE_SZ));
  EXPECT_EQ(0, counter.Stops());
}

TEST_F(OtherDecompressorTest, ADecompressorThatFailsAtItsEndIsNotedWhileThereIsMoreToRead) {
  const support::CoveredTool zcat("/bin/zcat", "head -c 70000 \"$1\"; exit 1");
  const std::string content = RandomBytes(80000);
  support::WriteFile(Image(), content);
  support::WriteFile(Target(), content);
  ImageCheck check(Image(), Target(), 80000, new PatientInputProcess);
  EXPECT_EQ("Completed 0", check.Run());
}

}  // namespace
