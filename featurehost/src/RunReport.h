#pragma once

#include <vector>

#include "featurehost/src/LeftOver.h"
#include "featurehost/src/Outcome.h"
#include "featurehost/src/RunEvent.h"

namespace featurehost {

/** Shows a run on standard output. This one shows nothing. */
class RunReport {
 public:
  RunReport() = default;
  virtual ~RunReport() = default;

  RunReport(const RunReport&) = delete;
  RunReport& operator=(const RunReport&) = delete;

  /** Every event in order, except the one that ends the run. */
  virtual void Event(const RunEvent& /*event*/) {}
  /** Some time has passed. */
  virtual void Tick() {}
  /** Something else is about to be written on the terminal, and has been written. */
  virtual void MakeRoom() {}
  virtual void Restore() {}
  /** After the run: what had to be cleaned up; called only when there was something. */
  virtual void LeftBehind(const std::vector<LeftOver>& /*leftOvers*/) {}
  /** Called last, when the module is gone and everything has been flushed. */
  virtual void Result(const Outcome& /*outcome*/) {}
};

}  // namespace featurehost
