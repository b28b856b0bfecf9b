#pragma once

#include <string>
#include <vector>

#include "featurehost/src/Output.h"
#include "featurehost/src/RunReport.h"

namespace featurehost {

/** One JSON object a line: every event, and what was left behind. */
class JsonReport : public RunReport {
 public:
  JsonReport(Output& output, std::string featureId);

  void Event(const RunEvent& event) override;
  void LeftBehind(const std::vector<LeftOver>& leftOvers) override;
  void Result(const Outcome& outcome) override;

 private:
  Output& output_;
  std::string featureId_;
};

}  // namespace featurehost
