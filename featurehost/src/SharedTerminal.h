#pragma once

#include <string>

#include "featurehost/src/RunReport.h"
#include "featurehost/src/ToolOutput.h"

namespace featurehost {

/**
 * Lets the progress bar, the log and the tools use one terminal: while it lives, lines of the
 * log and of the tools go above the bar.
 */
class SharedTerminal {
 public:
  SharedTerminal(RunReport& report, ToolOutput& tools);
  ~SharedTerminal();

  SharedTerminal(const SharedTerminal&) = delete;
  SharedTerminal& operator=(const SharedTerminal&) = delete;

  /** Show what the tools have printed meanwhile. */
  void Tick();

 private:
  void Show(const std::string& lines) const;

  RunReport& report_;
  ToolOutput& tools_;
};

}  // namespace featurehost
