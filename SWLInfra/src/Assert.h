#pragma once

#include <cstdio>

/**
 * A soft assertion: reports a broken expectation on standard output and carries on.
 *
 * @param condition  the expression as text, for the report.
 * @param source     the caller's source file, as in its log lines.
 */
inline void SoftAssert(bool holds, const char* condition, const char* source,
                       int line = __builtin_LINE()) {
  if (!holds) {
    std::printf("\nAssertion failed (%s) in file %s, line %d\n", condition, source, line);
  }
}
