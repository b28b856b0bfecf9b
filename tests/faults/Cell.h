#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/faults/Expectation.h"
#include "tests/faults/FaultHost.h"
#include "tests/faults/Matrix.h"
#include "tests/faults/Outsider.h"
#include "tests/faults/UsedUpDescriptors.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/ScriptedTools.h"

namespace faults {

/** Where a cell has its files; /tmp is the cell's own. */
inline const std::string kPlace = "/tmp/cell";

/**
 * One fault at one moment of an update of one item, in a process of its own: laid out, run in
 * featurehost's event loop, cleaned up by featurehost, and compared with what must come of it.
 *
 * Derived classes know the item: its files and tools, when its moments are, and its children.
 */
class Cell {
 public:
  static std::unique_ptr<Cell> Make(const Row& row, Kind kind, Moment moment);
  virtual ~Cell() = default;

  Cell(const Cell&) = delete;
  Cell& operator=(const Cell&) = delete;

  /** With expectations. */
  void Run();

 protected:
  Cell(const Row& row, Kind kind, Moment moment);

  /** Make the files, the tools and the properties. */
  virtual void LayOut() = 0;
  /** Inside the module: it has posted an event, subscribed, or is about to run a command. */
  virtual void Posted(const std::string& /*event*/) {}
  virtual void Subscribed(TUint32 /*type*/) {}
  virtual void CommandComes(int /*number*/) {}
  /** In the host's loop, again and again. */
  virtual void Turn() {}
  /** Whether the fault is done by the tools that LayOut has made. */
  virtual bool IsDoneByTools() const = 0;
  virtual bool TargetIsRight() const = 0;
  /** How many progress events there must be; unknown: only their shape is looked at. */
  virtual std::optional<std::size_t> ProgressEvents() const { return std::nullopt; }
  virtual void FillTarget() {}
  virtual void BreakTarget() {}

  /** The moment has come; the fault happens if it is this cell's. */
  void Reach(Moment moment);

  Act TheAct() const { return row_.act; }
  Role TheRole() const { return row_.role; }
  Moment TheMoment() const { return moment_; }
  bool Struck() const { return struck_; }
  const Expectation& Expected() const { return expected_; }
  FaultHost& Host() { return host_; }
  const std::string& Source() const { return source_; }

  support::FakeProperties properties_;
  support::ScriptedTools tools_;
  std::vector<std::string> mountPoints_;
  std::string folder_;
  pid_t decompressor_ = -1;
  pid_t writer_ = -1;

 private:
  void Observe();
  void EveryTurn();
  bool ExpectedHasCome() const;
  void Strike();
  void Signal(int number);
  void CheckEvents() const;
  void CheckProgress() const;

  const Row& row_;
  Kind kind_;
  Moment moment_;
  Expectation expected_;
  FaultHost host_{properties_};
  Outsider outsider_;
  std::optional<UsedUpDescriptors> usedUp_;
  bool struck_ = false;
  bool abortPosted_ = false;
  int commands_ = 0;
  int turnsAfterwards_ = 0;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();

 protected:
  const std::string source_ = kPlace + "/source";
};

}  // namespace faults
