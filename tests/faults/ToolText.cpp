#include "tests/faults/ToolText.h"

namespace faults {

namespace {

std::string WhatHappens(Act act) {
  switch (act) {
    case Act::kTerm:
      return "kill -TERM $$";
    case Act::kKill:
      return "kill -KILL $$";
    case Act::kStop:
      return "kill -STOP $$";
    case Act::kHang:
      return "echo $$ >" + kHung + ".new && mv " + kHung + ".new " + kHung +
             "; exec tail -f /dev/null";
    case Act::kExitEarly:
      return "exit 0";
    case Act::kExitLate:
      return "exit 3";
    case Act::kFlood:
      return "yes 'a line on standard error that nobody has asked for' | head -n 3000 >&2";
    case Act::kTruncate:
      return ": >/tmp/cell/source";
    default:
      return "echo 'cannot go on: Input/output error' >&2; exit 1";
  }
}

}  // namespace

std::string ActText(Act act, Role role) {
  // The tool outlives its shell, and does nothing more.
  const std::string happens =
      role == Role::kShell ? "kill -KILL $PPID; exec tail -f /dev/null" : WhatHappens(act);
  return ": >" + kActed + "\n" + happens + "\n";
}

std::string DecompressorText(Act act, std::size_t bytes) {
  const std::string count = std::to_string(bytes);
  if (act == Act::kFlood) {
    return "gzip -dc \"$1\" | { head -c " + count + "\n" + ActText(act) + "cat; }";
  }
  return "gzip -dc \"$1\" | head -c " + count + "\n" + ActText(act);
}

}  // namespace faults
