#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

#include "featurehost/src/SourcePace.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::Each;
using testing::ElementsAre;

using SourcePaceTest = HostTest;

/** The pauses after some turns in which the subscriber does something. */
template <typename TAction>
std::vector<long> Pauses(SourcePace& pace, int turns, TAction action) {
  std::vector<long> pauses;
  for (int turn = 0; turn < turns; ++turn) {
    pace.BeforeTurn();
    action();
    pauses.push_back(static_cast<long>(pace.AfterTurn().count()));
  }
  return pauses;
}

TEST_F(SourcePaceTest, PausesOfAFileThatRestsDoubleFromOneMillisecondToOneSecond) {
  support::WriteFile(folder_ / "file", "content");
  const int file = open((folder_ / "file").c_str(), O_RDONLY | O_CLOEXEC);
  SourcePace pace(file);

  EXPECT_THAT(Pauses(pace, 12, [] {}),
              ElementsAre(1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1000, 1000));
  EXPECT_FALSE(pace.MovedSince());
  lseek(file, 1, SEEK_SET);
  EXPECT_TRUE(pace.MovedSince());
  EXPECT_THAT(Pauses(pace, 3, [] {}), ElementsAre(0, 1, 2));
  close(file);
}

TEST_F(SourcePaceTest, FileThatIsReadHasNoPause) {
  support::WriteFile(folder_ / "file", "content");
  const int file = open((folder_ / "file").c_str(), O_RDONLY | O_CLOEXEC);
  SourcePace pace(file);
  char byte = 0;

  EXPECT_THAT(Pauses(pace, 7, [&] { EXPECT_EQ(1, read(file, &byte, 1)); }), Each(0));
  EXPECT_THAT(Pauses(pace, 2, [&] { EXPECT_EQ(0, read(file, &byte, 1)); }), ElementsAre(1, 2));
  close(file);
}

TEST_F(SourcePaceTest, PipeMovesWhenBytesComeOrGo) {
  int pipe[2] = {};
  ASSERT_EQ(0, pipe2(pipe, O_CLOEXEC));
  SourcePace pace(pipe[0]);
  char byte = 0;
  ASSERT_EQ(2, write(pipe[1], "ab", 2));

  EXPECT_THAT(Pauses(pace, 3, [] {}), ElementsAre(0, 1, 1)) << "came, and then nothing happens";
  EXPECT_THAT(Pauses(pace, 2, [&] { EXPECT_EQ(1, read(pipe[0], &byte, 1)); }), ElementsAre(0, 0));
  EXPECT_THAT(Pauses(pace, 2, [] {}), ElementsAre(1, 2)) << "readable without bytes: the end";
  close(pipe[0]);
  close(pipe[1]);
}

// Its reader may have lines of it in a buffer of its own and take them one by one, unseen.
TEST_F(SourcePaceTest, PipeInWhichBytesWaitIsNotLeftForLong) {
  int pipe[2] = {};
  ASSERT_EQ(0, pipe2(pipe, O_CLOEXEC));
  ASSERT_EQ(1, write(pipe[1], "a", 1));
  SourcePace pace(pipe[0]);
  char byte = 0;

  EXPECT_THAT(Pauses(pace, 20, [] {}), Each(1));
  ASSERT_EQ(1, read(pipe[0], &byte, 1));
  EXPECT_THAT(Pauses(pace, 4, [] {}), ElementsAre(0, 1, 2, 4)) << "nothing waits any more";
  close(pipe[0]);
  close(pipe[1]);
}

TEST_F(SourcePaceTest, SourceThatShowsNothingCountsAsMoving) {
  const int counter = eventfd(1, EFD_CLOEXEC);
  SourcePace pace(counter);
  EXPECT_THAT(Pauses(pace, 5, [] {}), Each(0));
  close(counter);
}

}  // namespace
}  // namespace featurehost
