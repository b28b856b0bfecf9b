#pragma once

#include <chrono>
#include <string>

#include "featurehost/src/Items.h"
#include "featurehost/src/Output.h"
#include "featurehost/src/RunReport.h"

namespace featurehost {

/** Back to the begin of the terminal's line, and nothing on it. */
constexpr const char* kEraseLine = "\r\x1b[K";

/**
 * One line on a terminal, redrawn: the item, the percentage, the elapsed and the remaining time.
 * 100 % stands there only once the result is known.
 */
class ProgressBar : public RunReport {
 public:
  ProgressBar(Output& output, Items items);

  void Event(const RunEvent& event) override;
  void Tick() override;
  void MakeRoom() override;
  void Restore() override;
  void Result(const Outcome& outcome) override;

 private:
  using Time = std::chrono::steady_clock;

  void Draw();
  std::string Line() const;
  std::chrono::milliseconds Elapsed() const;
  std::string Remaining() const;

  Output& output_;
  Items items_;
  Time::time_point start_ = Time::now();
  unsigned percent_ = 0;
  bool shown_ = false;  // from the install on until the result
};

}  // namespace featurehost
