#include "featurehost/src/PlainLines.h"

#include <utility>

#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

constexpr unsigned kComplete = 100;

std::string ProgressLine(const std::string& item, unsigned percent) {
  return std::to_string(percent) + " % " + OneLine(item) + "\n";
}

}  // namespace

PlainLines::PlainLines(Output& output, Items items) : output_(output), items_(std::move(items)) {}

void PlainLines::Event(const RunEvent& event) {
  std::string line;
  if (event.code == EUserEventControllerPrepare) {
    line = "preparing " + OneLine(event.feature) + "\n";
  } else if (event.code == EUserEventControllerInstall) {
    line = "installing " + OneLine(event.feature) + "\n";
  } else if (event.percent.has_value() && *event.percent < kComplete) {
    line = ProgressLine(items_.At(*event.percent), *event.percent);
  }
  if (line != lastLine_ && !line.empty()) {
    output_.Write(line);
    lastLine_ = line;
  }
}

void PlainLines::Result(const Outcome& outcome) {
  if (outcome.code == ExitCode::kSuccess) {
    const bool installed =
        outcome.last.has_value() && outcome.last->code == EUserEventInstallResult;
    output_.Write((installed ? ProgressLine(items_.At(kComplete), kComplete) : "") + outcome.text +
                  "\n");
  }
}

}  // namespace featurehost
