// Measures how the loops of a library deal with what a feature module does to its host, and prints
// a row for each: name, regular file, children of others, the same with a child of its own, timer.
//   PROGRAM FILE
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/event-loops/Loop.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned kTick = 20;
constexpr int kTicks = 10;
constexpr unsigned kLimit = 20000;

/** Whether an always readable file is told again and again. */
const char* RegularFile(Loop& loop, const char* path) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  int count = 0;
  const bool accepted = loop.OnReadable(file, [&] {
    if (++count == 3) {
      loop.Stop();
    }
  });
  if (accepted) {
    loop.After(kLimit, [&] { loop.Stop(); });
    loop.Run();
  }
  return !accepted ? "refused" : count >= 3 ? "taken" : "silent";
}

enum class ChildState { kRuns, kEnded, kTaken };

ChildState StateOf(int child) {
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
    return ChildState::kTaken;
  }
  return info.si_pid == child ? ChildState::kEnded : ChildState::kRuns;
}

/** Whether a child that is not the library's is still there some turns of the loop after its end.
 */
const char* OtherChildren(Loop& loop) {
  const int child = StartChild();
  int ticks = 0;
  const Loop::Callback tick = [&] {
    const ChildState state = StateOf(child);
    ticks += state == ChildState::kEnded ? 1 : 0;
    if (ticks == kTicks || state == ChildState::kTaken) {
      loop.Stop();
    } else {
      loop.After(kTick, tick);
    }
  };
  loop.After(kTick, tick);
  loop.Run();
  return waitpid(child, nullptr, 0) == child ? "left alone" : "taken away";
}

const char* OtherChildrenBesideOwn(Loop& loop) {
  return loop.WatchAChild() ? OtherChildren(loop) : "-";
}

enum class Came { kEarly, kInTime, kLate };

/** When a timer comes that is set after a callback has blocked for longer than it runs. */
Came TimerComes(Loop& loop) {
  constexpr milliseconds kBlocked{250};
  constexpr milliseconds kPeriod{200};
  constexpr milliseconds kCoarse{20};
  Clock::duration elapsed{};
  const Loop::Callback tick = [&] { loop.After(kTick, tick); };
  tick();
  loop.After(1, [&] {
    std::this_thread::sleep_for(kBlocked);
    const auto start = Clock::now();
    loop.After(static_cast<unsigned>(kPeriod.count()), [&, start] {
      elapsed = Clock::now() - start;
      loop.Stop();
    });
  });
  loop.Run();
  if (elapsed < kPeriod - kCoarse) {
    return Came::kEarly;
  }
  return elapsed > kPeriod + kCoarse ? Came::kLate : Came::kInTime;
}

/**
 * A busy machine may make a timer late, never early: one early timer in some tries is proof. One
 * that comes late tells nothing.
 */
const char* TimerAfterBlocking(const LoopKind& kind) {
  int inTime = 0;
  for (int tries = 0; tries < 30 && inTime < 3; ++tries) {
    const Came came = TimerComes(*kind.make());
    if (came == Came::kEarly) {
      return "early";
    }
    inTime += came == Came::kInTime ? 1 : 0;
  }
  return "in time";
}

}  // namespace

int StartChild() {
  const int child = fork();
  if (child == 0) {
    _exit(0);
  }
  return child;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  for (const LoopKind& kind : LoopKinds()) {
    std::printf("%s|%s", kind.name.c_str(), RegularFile(*kind.make(), argv[1]));
    std::printf("|%s", OtherChildren(*kind.make()));
    std::printf("|%s", OtherChildrenBesideOwn(*kind.make()));
    std::printf("|%s\n", TimerAfterBlocking(kind));
    std::fflush(stdout);
  }
  return 0;
}
