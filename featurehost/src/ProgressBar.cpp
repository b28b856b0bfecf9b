#include "featurehost/src/ProgressBar.h"

#include <algorithm>
#include <utility>

#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

constexpr unsigned kComplete = 100;
constexpr std::size_t kShortestBar = 5;
constexpr std::size_t kLongestBar = 30;
constexpr std::size_t kLongestItem = 24;

std::string Bar(std::size_t width, unsigned percent) {
  const std::size_t done = width * percent / kComplete;
  return "[" + std::string(done, '#') + std::string(width - done, '.') + "]";
}

std::string PercentText(unsigned percent) {
  const std::string digits = std::to_string(percent);
  return std::string(3 - std::min<std::size_t>(digits.size(), 3), ' ') + digits + " %";
}

}  // namespace

ProgressBar::ProgressBar(Output& output, Items items) : output_(output), items_(std::move(items)) {}

void ProgressBar::Event(const RunEvent& event) {
  if (event.code == EUserEventControllerPrepare) {
    output_.Write("preparing " + OneLine(event.feature) + "\n");
  } else if (event.code == EUserEventControllerInstall) {
    start_ = Time::now();
    shown_ = true;
  } else if (event.percent.has_value()) {
    percent_ = std::min(*event.percent, kComplete - 1);
  }
  Draw();
}

void ProgressBar::Tick() {
  Draw();
}

void ProgressBar::MakeRoom() {
  if (shown_) {
    output_.Write(kEraseLine);
  }
}

void ProgressBar::Restore() {
  Draw();
}

void ProgressBar::Result(const Outcome& outcome) {
  const bool success = outcome.code == ExitCode::kSuccess;
  if (shown_ && success) {
    percent_ = kComplete;
    Draw();
  }
  output_.Write((shown_ ? "\n" : "") + (success ? outcome.text + "\n" : ""));
  shown_ = false;
}

void ProgressBar::Draw() {
  if (shown_) {
    output_.Write(kEraseLine + Line());
  }
}

std::string ProgressBar::Line() const {
  const std::string item = OneLine(items_.At(std::min(percent_, kComplete - 1)));
  const std::string head = item.substr(0, kLongestItem) + " ";
  const std::string tail =
      " " + PercentText(percent_) + "  " + Clock(Elapsed()) + " elapsed" + Remaining();
  const std::size_t columns = output_.Columns();
  const std::size_t taken = head.size() + tail.size() + 3;  // two brackets, and the cursor
  const std::size_t room = columns > taken ? columns - taken : 0;
  const std::string line =
      room < kShortestBar ? head + tail : head + Bar(std::min(room, kLongestBar), percent_) + tail;
  return line.substr(0, columns - 1);
}

std::chrono::milliseconds ProgressBar::Elapsed() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Time::now() - start_);
}

std::string ProgressBar::Remaining() const {
  if (percent_ == 0 || percent_ >= kComplete) {
    return "";
  }
  return ", " + Clock(Elapsed() * (kComplete - percent_) / percent_) + " left";
}

}  // namespace featurehost
