#include "SWLInfra/src/DDWrapper.h"

#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "SWLInfra/src/ChildProcess.h"
#include "SWLInfra/src/Pipe.h"
#include "SWLInfra/src/Text.h"

namespace {

constexpr unsigned KPollingPeriod = 1000;

// The first tick finds the grace below the limit and raises it above.
constexpr TUint32 KGraceLimit = 500;
constexpr TUint32 KGraceStep = 1000;

// Without a block size dd reads 512 bytes at a time, and a pipe that holds more lets the two
// children run side by side.
constexpr int KDataPipeCapacity = 1024 * 1024;

struct TSuffix {
  const char* iText;
  TUint32 iMultiplier;
};

// A bare number is not in the table: it is not taken as bytes.
constexpr TSuffix KSuffixes[] = {
    {"c", 1},        {"w", 2},       {"b", 512},         {"kb", 1000},      {"k", 1024},
    {"mb", 1000000}, {"m", 1048576}, {"gb", 1000000000}, {"g", 1073741824},
};
constexpr TUint32 KDefaultBlockSize = 512;

// How long a child may take to obey SIGTERM.
constexpr std::chrono::milliseconds KObey{5000};
constexpr timespec KMillisecond{0, 1000000};

bool IsEmpty(const unsigned char* text) {
  return text == nullptr || *text == '\0';
}

struct TFree {
  void operator()(char* text) const { std::free(text); }
};
using TArgument = std::unique_ptr<char, TFree>;

/** name + value, or null when there is no memory. The name has three characters. */
TArgument MakeArgument(const char* name, const unsigned char* value) {
  const auto* text = reinterpret_cast<const char*>(value);
  const std::size_t size = std::strlen(text) + 4;
  TArgument argument(static_cast<char*>(std::malloc(size)));
  if (argument != nullptr) {
    static_cast<void>(std::snprintf(argument.get(), size, "%s%s", name, text));
  }
  return argument;
}

/** Looks without collecting: on a busy machine a small image may be through by now. */
bool HasEndedBadly(pid_t child) {
  siginfo_t end{};
  return waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         end.si_pid == child && (end.si_code != CLD_EXITED || end.si_status != 0);
}

bool EndedWithin(pid_t child, std::chrono::milliseconds limit) {
  // Not by counting sleeps: each is ten times as long on a kernel with a slow tick.
  const auto end = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    nanosleep(&KMillisecond, nullptr);
  }
  return true;
}

void EndChild(pid_t child) {
  kill(child, SIGTERM);
  if (!EndedWithin(child, KObey)) {
    // Ignored, or stopped: waiting on could take for ever, with the host's event thread.
    kill(child, SIGKILL);
    int status = 0;
    WaitForEnd(child, status);
  }
}

bool MoveUnlessNone(int descriptor, int standardDescriptor) {
  return descriptor == -1 || MoveOntoStandard(descriptor, standardDescriptor);
}

}  // namespace

IDDWrapper* IDDWrapper::Create() {
  return new CDDWrapper;
}

CDDWrapper::~CDDWrapper() {
  CDDWrapper::Abort();
}

void CDDWrapper::Destroy() {
  Abort();
  delete this;
}

TDDWrapperResult CDDWrapper::Start(unsigned char* source, unsigned char* target,
                                   unsigned char* blockSize, int& descriptor, unsigned& period) {
  descriptor = -1;
  period = 0;
  if (CheckParameters(source, target) != EDDCompleted || iZcatProcess != -1 || iDDProcess != -1) {
    return EDDFailed;
  }

  const TArgument ofArgument = MakeArgument("of=", target);
  if (ofArgument == nullptr) {
    return EDDFailed;
  }
  TArgument bsArgument;
  if (!IsEmpty(blockSize)) {
    bsArgument = MakeArgument("bs=", blockSize);
    if (bsArgument == nullptr) {
      return EDDFailed;
    }
    // Without a block size the one of an earlier copy stays: that is how the figures come out.
    iBlockSize = BlockSizeInBytes(blockSize);
  }

  iBytesProcessed = 0;
  if (!StartChildren(source, ofArgument.get(), bsArgument.get())) {
    return EDDFailed;
  }

  iMaySignal = EFalse;
  iGrace = 0;
  iHasFirstLine = false;
  iLineLength = 0;
  const bool opened = OpenProgressStream();
  if (!opened) {
    Abort();
  }
  descriptor = iProgressDescriptor;
  period = KPollingPeriod;
  return opened ? EDDCompleted : EDDFailed;
}

TDDWrapperResult CDDWrapper::WaitForCompletion(TDDWrapperEvent event, unsigned& bytesProcessed) {
  const TDDWrapperResult result = ReapChildren();
  if (result != EDDRunning) {
    CloseProgress();
  } else if (event == EDDOutputReady) {
    ReadAnswer();
  } else {
    AskForProgress();
  }
  bytesProcessed = iBytesProcessed;
  return result;
}

TDDWrapperResult CDDWrapper::Abort() {
  if (!iChildrenAborted) {
    for (const pid_t child : {iDDProcess, iZcatProcess}) {
      if (child != -1) {
        EndChild(child);
        iChildrenAborted = true;
      }
    }
  }
  CloseProgress();
  // The ids stay, so that no second copy starts; as the flag tells, they are nobody's by now.
  return EDDAborted;
}

TDDWrapperResult CDDWrapper::CheckParameters(const unsigned char* source,
                                             const unsigned char* target) {
  return IsEmpty(source) || IsEmpty(target) ? EDDFailed : EDDCompleted;
}

unsigned CDDWrapper::BlockSizeInBytes(const unsigned char* text) {
  const std::string whole = reinterpret_cast<const char*>(text);
  const std::string digits = whole.substr(0, whole.find_first_not_of("0123456789"));
  const auto number = static_cast<TUint32>(digits.empty() ? 1 : DecimalInt32(digits));

  std::string suffix = whole.substr(digits.length());
  for (char& letter : suffix) {
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  }
  for (const TSuffix& known : KSuffixes) {
    if (suffix == known.iText) {
      return number * known.iMultiplier;
    }
  }
  return KDefaultBlockSize;
}

int CDDWrapper::ProcessCreate(const char* file, const char* arg1, const char* arg2, int stdinFd,
                              int stdoutFd, int stderrFd, int closeFd) {
  const pid_t child = ForkWithDefaultSignals();
  if (child == 0) {
    // Closed first: in a host without standard streams its number may be wanted for one.
    CloseEnd(closeFd);
    if (MoveUnlessNone(stdinFd, STDIN_FILENO) && MoveUnlessNone(stdoutFd, STDOUT_FILENO) &&
        MoveUnlessNone(stderrFd, STDERR_FILENO)) {
      execlp(file, file, arg1, arg2, static_cast<char*>(nullptr));
    }
    _exit(1);
  }
  if (child == -1) {
    return -1;
  }

  // Gives the child the chance to fail, so that a program that cannot be run is a failed start.
  sleep(0);  // NOLINT(concurrency-mt-unsafe): no alarm is involved
  if (HasEndedBadly(child)) {
    int status = 0;
    waitpid(child, &status, WNOHANG);
    return -1;
  }
  return child;
}

bool CDDWrapper::StartChildren(const unsigned char* source, const char* ofArgument,
                               const char* bsArgument) {
  CPipe data;
  CPipe progress;
  if (!data.Open() || !progress.Open()) {
    return false;
  }
  if (bsArgument == nullptr) {
    data.SetCapacity(KDataPipeCapacity);
  }

  iDDProcess = ProcessCreate("dd", ofArgument, bsArgument, data.ReadEnd(), -1, progress.WriteEnd(),
                             data.WriteEnd());
  if (iDDProcess == -1) {
    return false;
  }
  iChildrenAborted = false;

  iZcatProcess = ProcessCreate("zcat", reinterpret_cast<const char*>(source), nullptr, -1,
                               data.WriteEnd(), -1, data.ReadEnd());
  if (iZcatProcess == -1) {
    Abort();
    return false;
  }
  iProgressDescriptor = progress.TakeReadEnd();
  return true;
}

bool CDDWrapper::OpenProgressStream() {
  // dd writes an answer in several pieces; the event thread must not wait for the next one.
  fcntl(iProgressDescriptor, F_SETFL, O_NONBLOCK);
  iProgressStream = fdopen(iProgressDescriptor, "r");
  return iProgressStream != nullptr;
}

void CDDWrapper::CloseProgress() {
  if (iProgressStream != nullptr) {
    static_cast<void>(std::fclose(iProgressStream));  // and with it the descriptor
    iProgressStream = nullptr;
    iProgressDescriptor = -1;
  }
  CloseEnd(iProgressDescriptor);
}

// EDDRunning also when the children are out of reach, as after Abort.
TDDWrapperResult CDDWrapper::ReapChildren() {
  if (iZcatProcess == -1 && iDDProcess == -1) {
    return EDDFailed;
  }

  TDDWrapperResult result = EDDRunning;
  if (iZcatProcess != -1) {
    Reap(iZcatProcess, WNOHANG, result);
    if (iDDProcess == -1) {
      return result;
    }
  }

  // When zcat has failed dd has seen the end of its input, and is collected at once.
  if (!Reap(iDDProcess, result == EDDFailed ? 0 : WNOHANG, result)) {
    return EDDRunning;
  }
  if (iZcatProcess != -1) {
    Reap(iZcatProcess, 0, result);
  }
  return result;
}

/**
 * Collect a child if it has ended; with options 0 wait until it has.
 *
 * @param process  becomes -1 unless the child goes on.
 * @param result   receives the outcome; a failure is kept.
 * @return whether the child is gone.
 */
bool CDDWrapper::Reap(pid_t& process, int options, TDDWrapperResult& result) const {
  int status = 0;
  pid_t ended = -1;
  if (!iChildrenAborted) {
    ended = options == 0 ? WaitForEnd(process, status) : waitpid(process, &status, options);
  }
  if (ended == 0) {
    return false;
  }

  if (ended == process) {
    const bool good = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!good) {
      result = EDDFailed;
    } else if (result != EDDFailed) {
      result = EDDCompleted;
    }
  }
  process = -1;
  return true;
}

// dd answers with "N+M records in" and "N+M records out"; the second line tells what is written.
void CDDWrapper::ReadAnswer() {
  iHasFirstLine = iHasFirstLine || ReadLine();
  if (!iHasFirstLine || !ReadLine()) {
    return;
  }
  iHasFirstLine = false;
  if (std::strstr(iLine, "records") != nullptr) {
    char* rest = nullptr;
    const char* fullRecords = strtok_r(iLine, " \t\n+", &rest);
    if (fullRecords != nullptr) {
      iBytesProcessed = iBlockSize * static_cast<TUint32>(DecimalInt32(fullRecords));
    }
  }
  iMaySignal = ETrue;
}

/**
 * Take the next line into iLine as fgets would: cut to the size of the buffer, and the last one
 * also without a line end. Unlike with fgets, a line that has arrived only in part waits for its
 * rest.
 *
 * @return false when there is no line yet, or none any more.
 */
bool CDDWrapper::ReadLine() {
  if (iProgressStream == nullptr) {
    return false;
  }
  // "Nothing there for now" must not stick.
  std::clearerr(iProgressStream);
  int last = 0;
  while (iLineLength + 1 < sizeof iLine && last != '\n') {
    last = std::getc(iProgressStream);
    if (last == EOF) {
      break;
    }
    iLine[iLineLength++] = static_cast<char>(last);
  }
  if (last == EOF && (iLineLength == 0 || std::feof(iProgressStream) == 0)) {
    return false;
  }
  iLine[iLineLength] = '\0';
  iLineLength = 0;
  return true;
}

// SIGUSR1 kills a dd that has not set up its handler yet. So the first tick only allows the signal,
// and from then on each answer allows the next. A machine that is short of time may need more than
// a tick to start dd: what would be deadly waits for the next one, as a signal that failed.
void CDDWrapper::AskForProgress() {
  if (iMaySignal != EFalse) {
    // -1 is no process id: kill would take it for every process there is.
    if (iDDProcess != -1 && !WouldDieOf(iDDProcess, SIGUSR1) && kill(iDDProcess, SIGUSR1) == 0) {
      iMaySignal = EFalse;
      iHasFirstLine = false;  // an odd line was the summary behind the answer before
    }
  } else if (iGrace < KGraceLimit) {
    iGrace += KGraceStep;
    iMaySignal = ETrue;
  }
}
