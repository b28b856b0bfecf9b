#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "featurehost/src/CleanUpCommand.h"
#include "featurehost/src/HostError.h"
#include "featurehost/src/KilledRuns.h"
#include "featurehost/src/NotedRun.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class KilledRunsTest : public HostTest {
 protected:
  void SetUp() override {
    setenv("FEATUREHOST_RUN_DIR", Notes().c_str(), 1);
    HostTest::SetUp();
  }

  void TearDown() override {
    HostTest::TearDown();
    unsetenv("FEATUREHOST_RUN_DIR");
    unsetenv("FEATUREHOST_RUN");
  }

  std::string Notes() const { return folder_ / "runs"; }

  bool HasNote(const RunNote& note) const {
    return access((Notes() + "/" + note.id + ".json").c_str(), F_OK) == 0;
  }

  /** As a host leaves it that has been killed. */
  static RunNote Killed(const RunScope& scope = {}) {
    RunNote note = NewNote("maincpu", "update.toml", scope, TakeStock(scope));
    note.processes = {{getpid(), 1}};
    return note;
  }

  static void Write(const RunNote& note) { ASSERT_EQ(0, RunFolder::ForWriting().Write(note)); }

  RunScope WithFolder() const { return {{}, folder_ / "eol", {}}; }

  std::string LeaveFolder() const {
    std::filesystem::create_directory(folder_ / "eol");
    return folder_ / "eol";
  }

  /** What cleanup prints and ends with. */
  static std::string CleanUpText(ExitCode expected, const CleanUpRequest& request = {}) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(expected, CleanUpKilledRuns(request));
    return testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
  }

  static std::string Refusal(const RunScope& scope) {
    try {
      RefuseBesideOtherRuns(scope);
    } catch (const HostError& error) {
      EXPECT_EQ(ExitCode::kUsage, error.Code());
      return error.what();
    }
    return "";
  }
};

/** A process that runs until it is ended, with an environment entry of its own. */
class Sleeper {
 public:
  explicit Sleeper(const std::string& entry) {
    int started[2];
    EXPECT_EQ(0, pipe2(static_cast<int*>(started), O_CLOEXEC));
    process_ = fork();
    if (process_ == 0) {
      execl("/usr/bin/env", "env", entry.c_str(), "sleep", "600", static_cast<char*>(nullptr));
      _exit(1);
    }
    close(started[1]);
    char nothing = 0;
    EXPECT_EQ(0, read(started[0], &nothing, 1)) << "closed by the exec";
    close(started[0]);
    while (DescribeProcess(process_).find("(sleep 600)") == std::string::npos) {
      usleep(1000);
    }
  }
  ~Sleeper() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  pid_t Process() const { return process_; }
  bool IsThere() const { return IsAlive(NameOf(process_)); }

 private:
  pid_t process_;
};

TEST_F(KilledRunsTest, NothingNotedIsNothingKilled) {
  EXPECT_THAT(KilledRuns(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(Notes())) << "looking makes no folder";
  EXPECT_EQ("", Refusal({}));
  EXPECT_EQ("nothing to clean up\n", CleanUpText(ExitCode::kSuccess));
}

TEST_F(KilledRunsTest, ProcessWithTheRunsMarkIsFoundAndEnded) {
  const RunNote note = Killed();
  Write(note);
  const Sleeper own(EnvironmentEntry(note));
  const Sleeper other(EnvironmentEntry(note) + "0");
  const std::string name = std::to_string(own.Process()) + " (sleep 600)";

  ASSERT_THAT(KilledRuns(), SizeIs(1));
  EXPECT_EQ("an install of feature 'maincpu' was killed and has left behind: process " + name +
                "; run featurehost cleanup",
            Refusal({}));
  EXPECT_TRUE(own.IsThere()) << "looking ends nothing";

  EXPECT_EQ("left by a killed install of feature 'maincpu':\nprocess " + name + ": ended\n",
            CleanUpText(ExitCode::kSuccess));
  EXPECT_FALSE(own.IsThere());
  EXPECT_TRUE(other.IsThere());
  EXPECT_FALSE(HasNote(note));
}

TEST_F(KilledRunsTest, NumberOfTheHostThatWasGivenToAnotherProcessIsNotTouched) {
  RunNote note = Killed();
  const Sleeper stranger("A=B");
  note.processes = {{stranger.Process(), 1}};
  Write(note);
  EXPECT_THAT(KilledRuns(), IsEmpty());
  EXPECT_TRUE(stranger.IsThere());
}

TEST_F(KilledRunsTest, FolderIsFoundAndRemoved) {
  const RunNote note = Killed(WithFolder());
  Write(note);
  const std::string left = LeaveFolder();

  EXPECT_THAT(Refusal({}), HasSubstr("folder " + left));
  EXPECT_EQ("left by a killed install of feature 'maincpu':\nfolder " + left +
                ": to be cleaned up\nfeaturehost: 1 thing is to be cleaned up\n",
            CleanUpText(ExitCode::kNotCleaned, {true, false, false}));
  EXPECT_TRUE(std::filesystem::exists(left));
  EXPECT_TRUE(HasNote(note));

  EXPECT_THAT(CleanUpText(ExitCode::kSuccess), HasSubstr("folder " + left + ": removed\n"));
  EXPECT_FALSE(std::filesystem::exists(left));
  EXPECT_EQ("", Refusal({}));
}

TEST_F(KilledRunsTest, FolderThatWasThereBeforeIsNotOfTheRun) {
  const std::string left = LeaveFolder();
  Write(Killed(WithFolder()));
  EXPECT_THAT(KilledRuns(), IsEmpty());
}

TEST_F(KilledRunsTest, WhatCannotBeCleanedIsToldAndFoundAgain) {
  const RunNote note = Killed(WithFolder());
  Write(note);
  support::WriteFile(LeaveFolder() + "/file", "x");
  EXPECT_THAT(CleanUpText(ExitCode::kNotCleaned),
              HasSubstr(": cannot be removed: Directory not empty\n"
                        "featurehost: 1 thing is still there\n"));
  EXPECT_THAT(KilledRuns(), SizeIs(1));
}

TEST_F(KilledRunsTest, QuietTellsOnlyWhatIsStillThere) {
  Write(Killed(WithFolder()));
  support::WriteFile(LeaveFolder() + "/file", "x");
  EXPECT_EQ("featurehost: 1 thing is still there\n",
            CleanUpText(ExitCode::kNotCleaned, {false, false, true}));
  std::filesystem::remove(folder_ / "eol/file");
  EXPECT_EQ("", CleanUpText(ExitCode::kSuccess, {false, false, true}));
}

TEST_F(KilledRunsTest, NoteOfAKilledRunThatHasLeftNothingIsDropped) {
  const RunNote note = Killed(WithFolder());
  Write(note);
  EXPECT_THAT(KilledRuns(), IsEmpty());
  EXPECT_FALSE(HasNote(note));
}

TEST_F(KilledRunsTest, OfARunBeforeTheLastBootOnlyTheFolderIsLeft) {
  RunNote note = Killed(WithFolder());
  note.boot = "another";
  Write(note);
  const Sleeper stranger(EnvironmentEntry(note));
  const std::string left = LeaveFolder();

  const auto killed = KilledRuns();
  ASSERT_THAT(killed, SizeIs(1));
  ASSERT_THAT(killed[0].left, SizeIs(1));
  EXPECT_EQ("folder " + left, Describe(killed[0].left[0]));
  CleanUpText(ExitCode::kSuccess);
  EXPECT_FALSE(std::filesystem::exists(left));
  EXPECT_TRUE(stranger.IsThere());
}

TEST_F(KilledRunsTest, RunInAnotherProcessNamespaceIsLeftAlone) {
  RunNote note = Killed(WithFolder());
  note.processSpace = "another";
  Write(note);
  const std::string left = LeaveFolder();
  EXPECT_THAT(KilledRuns(), IsEmpty());
  EXPECT_EQ("nothing to clean up\n", CleanUpText(ExitCode::kSuccess));
  EXPECT_TRUE(std::filesystem::exists(left));
  EXPECT_TRUE(HasNote(note));
}

TEST_F(KilledRunsTest, OfARunAmongOtherMountsOnlyTheProcessesAreEnded) {
  RunNote note = Killed(WithFolder());
  note.mountSpace = "another";
  Write(note);
  const std::string left = LeaveFolder();
  const Sleeper own(EnvironmentEntry(note));
  CleanUpText(ExitCode::kSuccess);
  EXPECT_FALSE(own.IsThere());
  EXPECT_TRUE(std::filesystem::exists(left));
  EXPECT_TRUE(HasNote(note));
}

TEST_F(KilledRunsTest, DamagedNotesDisturbNobodyAndAreCleanedUp) {
  RunFolder::ForWriting();
  const std::string some = "/" + std::string(32, 'a') + ".json";
  const std::string begun = "/" + std::string(32, 'b') + ".json.tmp";
  const std::string renamed = "/" + std::string(32, 'f') + ".json";
  support::WriteFile(Notes() + some, "{\"id\":");
  support::WriteFile(Notes() + begun, "");
  support::WriteFile(Notes() + renamed, ToText(Killed()));
  // Not of our making: the folder may be one of the user's choice.
  for (const char* name : {"/readme.txt", "/results.json", "/notes.tmp", "/abc.json.tmp"}) {
    support::WriteFile(Notes() + name, "");
  }
  EXPECT_EQ("", Refusal({}));
  const std::string text = CleanUpText(ExitCode::kSuccess);
  for (const std::string& name : {some, begun, renamed}) {
    EXPECT_THAT(text, HasSubstr("note " + Notes() + name + ": damaged; removed\n"));
  }
  EXPECT_EQ(4, std::distance(std::filesystem::directory_iterator(Notes()), {}));
}

TEST_F(KilledRunsTest, FolderThatOthersCanWriteToIsNotTrusted) {
  const RunNote note = Killed(WithFolder());
  Write(note);
  const std::string left = LeaveFolder();
  ASSERT_EQ(0, chmod(Notes().c_str(), 0777));
  EXPECT_THAT(KilledRuns(), IsEmpty());
  EXPECT_THROW(RunFolder::ForWriting(), HostError);
  ASSERT_EQ(0, chmod(Notes().c_str(), 0755));
  EXPECT_THAT(KilledRuns(), SizeIs(1));
}

TEST_F(KilledRunsTest, RunThatHasNoPlaceForItsNoteGoesOnWithAWarning) {
  setenv("FEATUREHOST_RUN_DIR", (folder_ / "missing/runs").c_str(), 1);
  {
    NotedRun run(NewNote("maincpu", "update.toml", {}, {}));
    run.AddWorker();
  }
  EXPECT_THAT(LogText(), HasSubstr("no place to note this run down"));
}

TEST_F(KilledRunsTest, RunIsNotedAsLongAsItLives) {
  const RunNote note = NewNote("maincpu", "update.toml", WithFolder(), {});
  {
    NotedRun run(note);
    run.AddWorker();
    EXPECT_TRUE(HasNote(note));
    EXPECT_EQ(note.id, getenv("FEATUREHOST_RUN"));
    ASSERT_THAT(RunFolder::ForWriting().Notes(), SizeIs(1));
    EXPECT_THAT(RunFolder::ForWriting().Notes()[0].processes, SizeIs(2));
    EXPECT_THAT(KilledRuns(), IsEmpty());
    EXPECT_EQ("process " + std::to_string(getpid()) +
                  " is installing feature 'maincpu'; left alone\nnothing to clean up\n",
              CleanUpText(ExitCode::kSuccess));
  }
  EXPECT_THAT(RunFolder::ForWriting().Rubbish(), IsEmpty());
  EXPECT_FALSE(HasNote(note));
}

TEST_F(KilledRunsTest, RunThatCouldNotCleanUpKeepsItsNote) {
  const LeftOver cleaned{LeftOver::Kind::kProcess, "process 7", true, "ended"};
  const LeftOver busy{LeftOver::Kind::kMount, "/mnt (dev)", false, "cannot be unmounted: busy"};
  LeftOver foreign = busy;
  foreign.foreign = true;
  const auto isNotedAfter = [this](const std::vector<LeftOver>& leftOvers) {
    const RunNote note = NewNote("maincpu", "update.toml", WithFolder(), {});
    {
      NotedRun run(note);
      run.Settle(leftOvers);
    }
    const bool isNoted = HasNote(note);
    RunFolder::ForWriting().Remove(note);
    return isNoted;
  };

  EXPECT_FALSE(isNotedAfter({}));
  EXPECT_FALSE(isNotedAfter({cleaned, foreign}));
  EXPECT_TRUE(isNotedAfter({cleaned, busy}));
}

TEST_F(KilledRunsTest, SecondInstallOnTheSameTargetsIsRefused) {
  const RunScope card{{}, "", {"/dev/card"}};
  const NotedRun run(NewNote("first", "update.toml", card, {}));
  EXPECT_EQ("process " + std::to_string(getpid()) +
                " is installing feature 'first' on the same targets; wait for its end, or stop it",
            Refusal(card));
  EXPECT_THROW(NotedRun(NewNote("second", "update.toml", card, {})), HostError);
  EXPECT_THAT(RunFolder::ForWriting().Notes(), SizeIs(1)) << "the refused one is not noted";
  EXPECT_EQ("", Refusal({{}, "", {"/dev/other"}}));
}

}  // namespace
}  // namespace featurehost
