// The archive loader with the real zcat and tar; mount and umount are scripted, so that it needs no
// device.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <sys/ioctl.h>

#include "tests/MainCPULoader/ArchiveRun.h"
#include "tests/MainCPULoader/ChildPipeTests.h"
#include "tests/support/Expendable.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/SystemCalls.h"
#include "tests/support/TempDir.h"

namespace {

using childpipes::WaitUntilEnded;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t KStepSize = 262144;

class ArchiveLoaderToolsTest : public support::CleanTest {
 protected:
  ArchiveLoaderToolsTest() {
    for (const char* tool : {"mount", "umount", "sync"}) {
      tools_.Add(tool, "exit 0");
    }
  }

  /** The bytes of a tar archive of the files "first" and, behind it, "last". */
  std::string Tar(std::size_t firstSize) {
    const support::TempDir tree;
    support::WriteFile(tree / "first", support::RandomBytes(firstSize));
    support::WriteFile(tree / "last", "the end");
    support::Shell("tar cf '" + directory_ / "tar" + "' -C '" + tree.Path() + "' first last");
    return support::ReadFile(directory_ / "tar");
  }

  /** The bytes of a gzip file of the content, with its true trailer or another size in it. */
  std::string Gzip(const std::string& content) {
    support::WriteGzip(directory_ / "gz", content);
    return support::ReadFile(directory_ / "gz");
  }
  std::string GzipWithSize(const std::string& content, TUint32 size) {
    std::string bytes = Gzip(content);
    std::memcpy(&bytes[bytes.length() - sizeof size], &size, sizeof size);
    return bytes;
  }

  ArchiveRun& Start(const std::string& archive) {
    support::WriteFile(archive_, archive);
    run_ = std::make_unique<ArchiveRun>(archive_, "/dev/sdx1", target_.Path());
    return run_->Prepare().Install();
  }

  /** The decompressor can write all that it has: its end comes before the first step. */
  ArchiveRun& StartAndWaitForTheDecompressor(const std::string& archive) {
    Start(archive);
    WaitUntilEnded(ArchiveChildren::Find().decompressor);
    return *run_;
  }

  void TearDown() override {
    run_.reset();
    CleanTest::TearDown();
  }

  support::TempDir directory_;
  support::TempDir target_;
  std::string archive_ = directory_ / "archive.tar.gz";
  support::ScriptedTools tools_;
  std::unique_ptr<ArchiveRun> run_;
};

TEST_F(ArchiveLoaderToolsTest, UnpacksAnArchive) {
  Start(Gzip(Tar(3000000))).StepToEnd();

  EXPECT_THAT(run_->Results(), ElementsAre("Completed 1"));
  EXPECT_EQ(support::RandomBytes(3000000), support::ReadFile(target_ / "first"));
  EXPECT_EQ("the end", support::ReadFile(target_ / "last"));
  EXPECT_THAT(support::Children(), IsEmpty());
}

TEST_F(ArchiveLoaderToolsTest, OneStepMovesAFullBuffer) {
  const auto before = support::OpenDescriptors();
  const std::string tar = Tar(1000000);
  Start(Gzip(tar));

  for (const auto& [descriptor, name] : childpipes::Added(before)) {
    if (fcntl(descriptor, F_GETFL) == O_RDONLY) {
      int waiting = 0;
      for (int poll = 0; poll < 10000 && waiting < static_cast<int>(KStepSize); ++poll) {
        usleep(1000);
        ASSERT_EQ(0, ioctl(descriptor, FIONREAD, &waiting));
      }
      EXPECT_EQ(KStepSize, static_cast<std::size_t>(waiting)) << "as much as one step takes";
    }
  }
  run_->Step();

  EXPECT_THAT(run_->Reports(), ElementsAre("Progress " + std::to_string(tar.length() - KStepSize) +
                                           "/" + std::to_string(tar.length())));
}

TEST_F(ArchiveLoaderToolsTest, ThePipesHaveTheRoomThatTheStepsNeed) {
  const auto before = support::OpenDescriptors();
  Start(Gzip(Tar(1000000)));

  std::map<int, int> capacities;  // by direction
  for (const auto& entry : childpipes::Added(before)) {
    capacities[fcntl(entry.first, F_GETFL)] = fcntl(entry.first, F_GETPIPE_SZ);
  }
  EXPECT_THAT(capacities,
              ElementsAre(testing::Pair(O_RDONLY, 262144), testing::Pair(O_WRONLY, 1048576)));
}

TEST_F(ArchiveLoaderToolsTest, APipeOfTheSystemsSizeWillDo) {
  support::InExpendableProcess([this] {
    support::WriteFile(archive_, Gzip(Tar(1000000)));
    support::RefuseSystemCall(SYS_fcntl, EPERM, support::CallArgument{1, F_SETPIPE_SZ});
    ArchiveRun run(archive_, "/dev/sdx1", target_.Path());
    run.Prepare().Install().StepToEnd();

    EXPECT_THAT(run.Results(), ElementsAre("Completed 1"));
    EXPECT_EQ("the end", support::ReadFile(target_ / "last"));
  });
}

TEST_F(ArchiveLoaderToolsTest, TheLastPieceIsNotLostWhenTheDecompressorEndsFirst) {
  StartAndWaitForTheDecompressor(Gzip(Tar(200000))).StepToEnd();

  EXPECT_THAT(run_->Results(), ElementsAre("Completed 1"));
  EXPECT_EQ("the end", support::ReadFile(target_ / "last"));
}

// --- Archives that are not as they should be
// -------------------------------------------------------

TEST_F(ArchiveLoaderToolsTest, ASizeBeyondTheRealLengthFails) {
  const std::string tar = Tar(100000);
  StartAndWaitForTheDecompressor(GzipWithSize(tar, static_cast<TUint32>(tar.length()) + 1))
      .StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Completed 0")) << "gzip ends with 1: length error";
}

TEST_F(ArchiveLoaderToolsTest, ASizeBelowTheRealLengthCompletesWhenItIsReached) {
  const std::string tar = Tar(3000000);
  Start(GzipWithSize(tar, 1000)).StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Progress 0/1000", "Completed 1"));
  EXPECT_NE(0, access((target_ / "last").c_str(), F_OK)) << "the rest was not unpacked";
}

TEST_F(ArchiveLoaderToolsTest, ATruncatedArchiveFailsWhenTheDecompressorHasEnded) {
  const std::string tar = Tar(100000);
  std::string archive = Gzip(tar);
  // The last four bytes of the rest are taken for the size; take a rest where they are a large one.
  TInt32 size = 0;
  do {
    archive.pop_back();
    std::memcpy(&size, &archive[archive.length() - sizeof size], sizeof size);
  } while (size < 1000000);
  StartAndWaitForTheDecompressor(archive).StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Completed 0"));
}

TEST_F(ArchiveLoaderToolsTest, ATruncatedArchiveEndsWheneverTheDecompressorDoes) {
  std::string archive = Gzip(Tar(3000000));
  archive.resize(archive.length() / 2);
  Start(archive).StepToEnd();

  // Whether the end of the stream or the end of the child is seen first is a matter of time, and
  // what the size is a matter of the cut.
  EXPECT_THAT(run_->Results(), Contains(testing::StartsWith("Completed ")));
  EXPECT_THAT(support::Children(), IsEmpty());
}

TEST_F(ArchiveLoaderToolsTest, TrailingGarbageFails) {
  StartAndWaitForTheDecompressor(Gzip(Tar(100000)) + "zzzz").StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Completed 0")) << "gzip ends with 2: a warning";
}

TEST_F(ArchiveLoaderToolsTest, OfSeveralMembersTheSizeOfTheLastOneDecides) {
  const std::string tar = Tar(3000000);
  const std::size_t cut = tar.length() - 100000;
  Start(Gzip(tar.substr(0, cut)) + Gzip(tar.substr(cut))).StepToEnd();

  EXPECT_THAT(run_->Results(), ElementsAre("Completed 1"));
  EXPECT_NE(0, access((target_ / "last").c_str(), F_OK)) << "the rest was not unpacked";
}

TEST_F(ArchiveLoaderToolsTest, SomethingThatIsNotCompressedFails) {
  StartAndWaitForTheDecompressor(Tar(100000) + "size").StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Completed 0"));
}

TEST_F(ArchiveLoaderToolsTest, AnArchiveOfNoFilesCompletes) {
  Start(Gzip(std::string(10240, '\0'))).StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Progress 0/10240", "Completed 1"));
}

TEST_F(ArchiveLoaderToolsTest, AnArchiveOfNoBytesCompletesAtTheEndOfTheStream) {
  Start(Gzip("")).StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Completed 1"));
}

TEST_F(ArchiveLoaderToolsTest, AnEmptyFileStartsNothingAndReportsFailureAndThenSuccess) {
  Start("");
  EXPECT_THAT(support::Children(), IsEmpty());

  run_->StepToEnd();
  EXPECT_THAT(run_->Reports(), ElementsAre("Completed 0", "Completed 1"));
  AcceptWhatIsLeft();  // the stream in which no size could be found
}

// --- Children that die
// ----------------------------------------------------------------------------

TEST_F(ArchiveLoaderToolsTest, AKilledDecompressorFails) {
  Start(Gzip(Tar(5000000))).Step();
  const pid_t decompressor = ArchiveChildren::Find().decompressor;
  kill(decompressor, SIGKILL);
  WaitUntilEnded(decompressor);

  run_->StepToEnd();
  EXPECT_THAT(run_->Results(), ElementsAre("Completed 0"));
}

TEST_F(ArchiveLoaderToolsTest, AKilledUnpackerFailsAndTheHostLives) {
  std::signal(SIGPIPE, SIG_DFL);
  Start(Gzip(Tar(5000000))).Step();
  const pid_t unpacker = ArchiveChildren::Find().unpacker;
  kill(unpacker, SIGKILL);
  WaitUntilEnded(unpacker);

  run_->StepToEnd();
  EXPECT_THAT(run_->Results(), ElementsAre("Completed 0"));
}

TEST_F(ArchiveLoaderToolsTest, AnUnpackerWithoutItsFolderFailsAndTheHostLives) {
  std::signal(SIGPIPE, SIG_DFL);
  Start(Gzip(Tar(5000000)));
  support::Shell("rmdir '" + target_.Path() + "'");

  run_->StepToEnd();
  EXPECT_THAT(run_->Results(), ElementsAre("Completed 0"));
}

// --- Again, and the end in every state
// --------------------------------------------------------------

TEST_F(ArchiveLoaderToolsTest, ASecondInstallAfterTheEndStartsNothing) {
  Start(Gzip(Tar(1000))).StepToEnd();
  run_->Forget();

  run_->Install();
  EXPECT_THAT(support::Children(), IsEmpty());
  run_->StepToEnd();

  EXPECT_THAT(run_->Reports(), ElementsAre("Completed 0", "Completed 1"));
}

TEST_F(ArchiveLoaderToolsTest, ItCanBeDestroyedInEveryState) {
  const std::string archive = Gzip(Tar(5000000));
  support::WriteFile(archive_, archive);
  { ArchiveRun constructed(archive_, "/dev/sdx1", target_.Path()); }
  {
    ArchiveRun prepared(archive_, "/dev/sdx1", target_.Path());
    prepared.Prepare();
  }
  Start(archive).Destroy();
  Start(archive).Step().Destroy();
  Start(archive).Step().Loader().Abort();
  run_->Destroy();
  Start(archive).StepToEnd().Destroy();
  EXPECT_THAT(support::Children(), IsEmpty());
}

TEST_F(ArchiveLoaderToolsTest, ItsEndDuringARunLeavesItsChildrenToItsHost) {
  Start(Gzip(Tar(5000000))).Step();

  run_->DestroyLoader();

  EXPECT_EQ(2U, support::Children().size());
}

// --- Memory
// -----------------------------------------------------------------------------------------

/** Bytes that the heap has taken from the system. */
std::size_t HeapSize() {
  const auto heap = mallinfo2();
  return heap.arena + heap.hblkhd;
}

/** Does nothing, and keeps nothing, but remember the end. */
class SilentCallback : public ILoaderCallback {
 public:
  void Progress(TUint32 /*remainingSize*/, TUint32 /*totalSize*/) override {}
  void Completed(TBool successful) override { result = successful; }
  void Aborted() override {}

  TBool result = -1;
};

TEST_F(ArchiveLoaderToolsTest, ItsMemoryDoesNotGrowWithTheArchive) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "AddressSanitizer keeps freed memory for a while";
#endif
  const std::string impossible = support::EnterPrivateMounts();
  if (!impossible.empty()) {
    GTEST_SKIP() << impossible;
  }
  const support::CoveredTool drain("/bin/tar", "exec cat > /dev/null");
  const auto largestHeapDuring = [this](TUint32 size) {
    const support::CoveredTool source("/bin/zcat",
                                      "exec head -c " + std::to_string(size) + " /dev/zero");
    support::WriteFile(archive_, std::string(reinterpret_cast<const char*>(&size), sizeof size));
    support::FakeBroker broker;
    support::FakeProperties properties;
    properties.values = {{"userfssource", archive_},
                         {"userfstarget", "/dev/sdx1"},
                         {"userfsmountpoint", target_.Path()},
                         {"userfsfilesystem", "ext3"}};
    SilentCallback callback;
    std::string featureId = "feature";
    CArchiveLoader loader("userfs", featureId, broker, properties, callback, new CInputProcess,
                          new CArchiveLoaderOutputProcess);
    loader.Prepare();
    loader.Install();
    std::size_t largest = 0;
    while (callback.result == -1) {
      loader.OnEvent(TEvent{});
      largest = std::max(largest, HeapSize());
      // What the test kit writes down does grow.
      support::RecordedLog::Instance().Clear();
      support::SystemCalls::Instance().Forget();
    }
    EXPECT_EQ(ETrue, callback.result);
    return largest;
  };

  const std::size_t small = largestHeapDuring(10U << 20U);
  const std::size_t large = largestHeapDuring(1U << 30U);

  constexpr std::size_t KHeapExtension = 132U << 10U;
  EXPECT_LE(large, small + KHeapExtension);
}

}  // namespace
