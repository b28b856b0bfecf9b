#pragma once

#include <functional>
#include <string>
#include <vector>

#include "MainCPULoader/src/LoaderCallback.h"

namespace support {

/** Records what a loader reports, as texts: "Progress 10/100", "Completed 1", "Aborted". */
class FakeCallback : public ILoaderCallback {
 public:
  void Progress(TUint32 remainingSize, TUint32 totalSize) override {
    Record("Progress " + std::to_string(remainingSize) + "/" + std::to_string(totalSize));
  }
  void Completed(TBool successful) override { Record("Completed " + std::to_string(successful)); }
  void Aborted() override { Record("Aborted"); }

  const std::vector<std::string>& Reports() const { return reports_; }
  void Forget() { reports_.clear(); }
  bool Ended() const {
    for (const auto& report : reports_) {
      if (report.rfind("Completed", 0) == 0 || report == "Aborted") {
        return true;
      }
    }
    return false;
  }

  /** Called inside every report. */
  std::function<void(const std::string&)> onReport;

 private:
  void Record(const std::string& report) {
    reports_.push_back(report);
    if (onReport) {
      onReport(report);
    }
  }

  std::vector<std::string> reports_;
};

}  // namespace support
