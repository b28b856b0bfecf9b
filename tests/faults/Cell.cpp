#include "tests/faults/Cell.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

#include "featurehost/src/UnitState.h"
#include "tests/faults/ArchiveCell.h"
#include "tests/faults/CheckCell.h"
#include "tests/faults/Children.h"
#include "tests/faults/FactoryDataCell.h"
#include "tests/faults/ImageCell.h"
#include "tests/faults/SettingsCell.h"
#include "tests/faults/Text.h"
#include "tests/faults/ToolText.h"
#include "tests/faults/WallClock.h"
#include "tests/support/ProcessState.h"
#include "tests/support/SystemCalls.h"
#include "tests/support/TempDir.h"

namespace faults {

namespace {

using support::SystemCalls;

/** By then everything must be over. */
constexpr std::chrono::seconds kLimit{30};
/** So long the host goes on after the expected end, to see what else comes. */
constexpr int kTurnsAfterwards = 20;

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

/** In the words of Expectation. */
std::string LettersFor(const std::vector<featurehost::LeftOver>& leftOvers) {
  std::string letters;
  for (const auto& leftOver : leftOvers) {
    if (leftOver.kind == featurehost::LeftOver::Kind::kFolder) {
      letters += leftOver.cleaned ? 'f' : 'x';
    } else {
      letters += leftOver.kind == featurehost::LeftOver::Kind::kMount ? 'm' : 'p';
      letters += leftOver.cleaned ? "" : "!";
    }
  }
  return letters;
}

std::size_t NewSince(const std::map<int, std::string>& before) {
  std::size_t fresh = 0;
  for (const auto& entry : support::OpenDescriptors()) {
    fresh += 1 - before.count(entry.first);
  }
  return fresh;
}

std::string Sorted(std::string letters) {
  std::sort(letters.begin(), letters.end());
  return letters;
}

}  // namespace

Cell::Cell(const Row& row, Kind kind, Moment moment)
    : row_(row), kind_(kind), moment_(moment), expected_(Expectation::Of(row, kind, moment)) {}

std::unique_ptr<Cell> Cell::Make(const Row& row, Kind kind, Moment moment) {
  switch (kind) {
    case Kind::kArchive:
      return std::make_unique<ArchiveCell>(row, moment);
    case Kind::kImage:
      return std::make_unique<ImageCell>(row, moment);
    case Kind::kCheck:
      return std::make_unique<CheckCell>(row, moment);
    case Kind::kFactoryData:
      return std::make_unique<FactoryDataCell>(row, moment);
    case Kind::kSettings:
      return std::make_unique<SettingsCell>(row, moment);
  }
  return nullptr;
}

void Cell::Run() {
  LayOut();
  const featurehost::UnitState unit(featurehost::RunScope{mountPoints_, folder_, {}});
  const auto before = support::OpenDescriptors();

  Observe();
  outsider_.Start();
  host_.Run();
  outsider_.Finish();
  usedUp_.reset();
  const int failed = SystemCalls::Instance().Failed();
  SystemCalls::Instance().Reset();

  EXPECT_TRUE(Struck() || Exists(kActed)) << "the fault did not happen";
  if (TheAct() == Act::kCall) {
    EXPECT_EQ(1, failed) << "calls that were made to fail";
  }
  CheckEvents();
  CheckProgress();
  host_.EndFeature();
  EXPECT_EQ(0U, host_.SubscriptionsLeft());
  EXPECT_EQ(Sorted(expected_.left), Sorted(LettersFor(unit.CleanUp())));
  if (expected_.targetIsRight.has_value()) {
    EXPECT_EQ(*expected_.targetIsRight, TargetIsRight()) << "what the target holds";
  }
  // Cleaned up means: a second look finds nothing but what the first could not clean.
  EXPECT_EQ(expected_.left.find('x') == std::string::npos ? "" : "x", LettersFor(unit.CleanUp()));
  EXPECT_TRUE(support::Children().empty());
  EXPECT_EQ(expected_.descriptorsLeft, NewSince(before));
}

void Cell::Observe() {
  host_.onPost = [this](const std::string& event) {
    const bool callOfInstall = TheAct() == Act::kCall || TheAct() == Act::kNoDescriptors;
    if (event == "202 1" && callOfInstall && kind_ <= Kind::kCheck) {
      Reach(Moment::kStart);
    }
    Posted(event);
  };
  host_.onSubscribed = [this](TUint32 type) { Subscribed(type); };
  host_.onTurn = [this] { EveryTurn(); };
  SystemCalls::Instance().onCommand = [this](const std::string&) { CommandComes(++commands_); };
  if (TheAct() == Act::kHang && kind_ != Kind::kImage) {
    outsider_.WillEndWhatHangs(kHung, TheRole() == Role::kDecompressor);
  } else if (TheAct() == Act::kStop && IsDoneByTools()) {
    outsider_.WillContinueWhatStops();
  }
}

void Cell::EveryTurn() {
  Turn();
  if (std::chrono::steady_clock::now() - start_ > kLimit) {
    ADD_FAILURE() << "what must come has not come in time";
    host_.Stop();
  }
  if (host_.Count("204") > 0) {
    Reach(Moment::kAfterEnd);
  }
  if (TheAct() == Act::kHang && !abortPosted_ && kind_ == Kind::kImage && HungTool(kHung) != -1) {
    abortPosted_ = true;
    host_.PostAbort();
  }
  if (!ExpectedHasCome() || (moment_ == Moment::kAfterEnd && !Struck())) {
    return;
  }
  if (expected_.maySucceedToo) {
    host_.EndFeature();
  }
  if (++turnsAfterwards_ == kTurnsAfterwards / 2) {
    host_.Tick();
  } else if (turnsAfterwards_ >= kTurnsAfterwards) {
    host_.Stop();
  }
}

bool Cell::ExpectedHasCome() const {
  return std::all_of(expected_.results.begin(), expected_.results.end(),
                     [this](const std::string& result) { return host_.Count(result) > 0; });
}

void Cell::Reach(Moment moment) {
  const bool byHost = moment == Moment::kAfterEnd || !IsDoneByTools();
  if (moment == moment_ && byHost && !struck_) {
    struck_ = true;
    Strike();
  }
}

void Cell::Strike() {
  switch (TheAct()) {
    case Act::kAbort:
      return host_.PostAbort();
    case Act::kTerm:
      return Signal(SIGTERM);
    case Act::kKill:
      return Signal(SIGKILL);
    case Act::kStop:
      return Signal(SIGSTOP);
    case Act::kCall:
      return SystemCalls::Instance().Fail(row_.call.name, row_.call.error, row_.call.passing);
    case Act::kNoDescriptors:
      usedUp_.emplace();
      return;
    case Act::kDiskFull:
      return FillTarget();
    case Act::kTargetError:
      return BreakTarget();
    case Act::kTruncate:
      EXPECT_EQ(0, truncate(source_.c_str(), 0));
      return;
    case Act::kClockBack:
      return SetWallClockBack();
    case Act::kHang:
    case Act::kExitEarly:
    case Act::kExitLate:
    case Act::kFlood:
    case Act::kSourceError:
      FAIL() << "this is for tools to do";
  }
}

/** Returns when it has had its effect, so that the module meets it in its next step. */
void Cell::Signal(int number) {
  const pid_t child = TheRole() == Role::kDecompressor ? decompressor_ : writer_;
  ASSERT_GT(child, 0);
  EXPECT_EQ(0, kill(child, number));
  siginfo_t end{};
  const int until = number == SIGSTOP ? WSTOPPED | WEXITED : WEXITED;
  EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &end, until | WNOWAIT));
  if (number == SIGSTOP) {
    outsider_.WillContinue(child);
  }
}

void Cell::CheckEvents() const {
  auto results = host_.Results();
  if (expected_.maySucceedToo) {
    results.erase(std::remove(results.begin(), results.end(), "204 1"), results.end());
  }
  std::vector<std::string> expected = {"200", "202 1"};
  expected.insert(expected.end(), expected_.results.begin(), expected_.results.end());
  EXPECT_EQ(expected, results);
}

void Cell::CheckProgress() const {
  int last = 0;
  std::size_t count = 0;
  for (const std::string& event : host_.Events()) {
    if (BeginsWith(event, "205 ")) {
      const int percent = std::stoi(event.substr(4));
      EXPECT_LE(last, percent) << "never back";
      EXPECT_LE(percent, 100) << "never beyond";
      last = percent;
      ++count;
    }
  }
  const auto expected = ProgressEvents();
  if (expected.has_value()) {
    EXPECT_EQ(*expected, count) << "progress events";
  }
}

}  // namespace faults
