#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "featurehost/src/Output.h"
#include "featurehost/src/ProgressBar.h"
#include "featurehost/src/lint/Deep.h"

namespace featurehost::lint {

/** The progress bar of the deep checks. It is gone from the terminal's line when this ends. */
class DeepProgress {
 public:
  /** @param isShown  false for no bar at all. */
  DeepProgress(Output& output, const std::vector<UnpackJob>& jobs, bool isShown);
  ~DeepProgress();

  DeepProgress(const DeepProgress&) = delete;
  DeepProgress& operator=(const DeepProgress&) = delete;

  void Show(std::uint64_t bytes);

 private:
  using Time = std::chrono::steady_clock;

  std::optional<ProgressBar> bar_;
  std::uint64_t total_;
  unsigned percent_ = 0;
  Time::time_point drawn_ = Time::now();
};

}  // namespace featurehost::lint
