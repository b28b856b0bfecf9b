#pragma once

#include <string>

namespace fuzz {

/** Ends the process with a message, which a fuzzer takes as a crash. */
[[noreturn]] void Fail(const std::string& message);

/** Fail unless it holds. */
inline void Require(bool holds, const std::string& message) {
  if (!holds) {
    Fail(message);
  }
}

}  // namespace fuzz
