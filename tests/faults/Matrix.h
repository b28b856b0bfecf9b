#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace faults {

enum class Kind { kArchive, kImage, kCheck, kFactoryData, kSettings };
enum class Moment { kStart, kFirstStep, kMiddle, kLastStep, kAfterEnd };

constexpr std::size_t kKinds = 5;
constexpr std::size_t kMoments = 5;

/** Which of an item's children a fault is about. The writer is tar, dd, or a command's
 * tool. */
enum class Role { kNone, kDecompressor, kWriter, kShell };

/** What happens. */
enum class Act {
  kAbort,  // no fault: the host aborts
  kTerm,
  kKill,
  kStop,  // and continued a moment later
  kHang,
  kExitEarly,
  kExitLate,
  kFlood,
  kCall,  // a system call of the module fails once
  kNoDescriptors,
  kDiskFull,
  kSourceError,
  kTargetError,
  kTruncate,
  kClockBack,
};

/** The call that fails: as support::SystemCalls names it, how many of them pass before, errno. */
struct FailingCall {
  const char* name = nullptr;
  int passing = 0;
  int error = 0;
};

/**
 * One fault with what must come of it, for every kind of item in the order of Kind. A text holds a
 * word for every moment; Expectation has their grammar.
 */
struct Row {
  const char* name;
  Act act;
  Role role;
  FailingCall call;
  std::array<const char*, kKinds> rules;
  const char* note;  // how the fault is made, or why the outcome is right; may be empty
};

const std::vector<Row>& Rows();

/** For people: "userfs", "start" and so on. */
const char* NameOf(Kind kind);
const char* NameOf(Moment moment);
/** Why a cell is not run, by the letter behind its "-". */
const std::vector<std::pair<char, const char*>>& Reasons();

}  // namespace faults
