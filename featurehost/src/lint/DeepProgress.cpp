#include "featurehost/src/lint/DeepProgress.h"

#include <algorithm>
#include <string>

namespace featurehost::lint {

namespace {

constexpr std::uint64_t kHundred = 100;
constexpr std::chrono::milliseconds kTick{500};

std::uint64_t TotalOf(const std::vector<UnpackJob>& jobs) {
  std::uint64_t total = 0;
  for (const UnpackJob& job : jobs) {
    total += job.size;
  }
  return total;
}

/** The files with their shares, for the bar to name the one at work. */
Items SharesOf(const std::vector<UnpackJob>& jobs) {
  constexpr std::uint64_t kShares = 1000000;
  const std::uint64_t unit = std::max<std::uint64_t>(TotalOf(jobs) / kShares, 1);
  std::string names;
  std::string shares;
  for (const UnpackJob& job : jobs) {
    names += job.item + ";";
    shares += std::to_string(job.size / unit) + ";";
  }
  return {names, shares};
}

RunEvent ProgressEvent(TUint32 code, unsigned percent) {
  RunEvent event{};
  event.code = code;
  event.percent = percent;
  return event;
}

}  // namespace

DeepProgress::DeepProgress(Output& output, const std::vector<UnpackJob>& jobs, bool isShown)
    : total_(std::max<std::uint64_t>(TotalOf(jobs), 1)) {
  if (isShown) {
    bar_.emplace(output, SharesOf(jobs));
    bar_->Event(ProgressEvent(EUserEventControllerInstall, 0));
  }
}

DeepProgress::~DeepProgress() {
  if (bar_.has_value()) {
    bar_->MakeRoom();
  }
}

void DeepProgress::Show(std::uint64_t bytes) {
  const auto percent = static_cast<unsigned>(std::min(bytes, total_) * kHundred / total_);
  const auto now = Time::now();
  if (bar_.has_value() && (percent != percent_ || now - drawn_ >= kTick)) {
    bar_->Event(ProgressEvent(EUserEventInstallProgress, percent));
    percent_ = percent;
    drawn_ = now;
  }
}

}  // namespace featurehost::lint
