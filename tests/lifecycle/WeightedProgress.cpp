#include "tests/lifecycle/WeightedProgress.h"

#include <cstdio>
#include <numeric>

namespace lifecycle {

namespace {

/** Follows the log: which item runs, and how much weight is behind it. */
struct Position {
  const std::vector<unsigned>& weights;
  std::size_t item = 0;
  unsigned long long behind = 0;

  void StartFirst() { item = 0; }
  void StartNext() {
    if (item + 1 < weights.size()) {
      behind += weights[item];
      ++item;
    }
  }
};

// Percent of one loader, rounded half up: (2 * 100 * done + total) / (2 * total).
unsigned long long Percent(unsigned long long remaining, unsigned long long total) {
  return total == 0 ? 100 : (200 * (total - remaining) + total) / (2 * total);
}

}  // namespace

std::vector<unsigned> ExpectedPercentages(const std::vector<support::LogLine>& log,
                                          const std::vector<unsigned>& weights) {
  const unsigned long long sum = std::accumulate(weights.begin(), weights.end(), 0ULL);
  std::vector<unsigned> expected;
  Position position{weights};
  for (const auto& line : log) {
    if (line.function == "HandleControllerInstall") {
      position.StartFirst();
    } else if (line.function == "HandleLoaderCompleted" && line.message == "()\n") {
      position.StartNext();
    }
    unsigned remaining = 0;
    unsigned total = 0;
    if (std::sscanf(line.message.c_str(), "(RemainingSize: %u, TotalSize: %u)", &remaining,
                    &total) == 2) {
      const auto weighted =
          (weights[position.item] * Percent(remaining, total) + position.behind * 100) / sum;
      expected.push_back(static_cast<unsigned>(weighted % 256));
    }
  }
  return expected;
}

}  // namespace lifecycle
