#pragma once

#include <optional>
#include <vector>

#include "featurehost/src/LeftOver.h"
#include "featurehost/src/RunFolder.h"
#include "featurehost/src/RunNote.h"

namespace featurehost {

/**
 * Keeps the note of a run as long as the run lives, and longer when the run could not clean up all
 * that it left. Made before anything is started.
 *
 * Both processes of the run have it. Its end removes the note, unless that has been decided before.
 */
class NotedRun {
 public:
  /**
   * Throws HostError when another install is at work on the same targets. Without a place for
   * notes the run goes on, and the log says so.
   */
  explicit NotedRun(RunNote note);
  ~NotedRun();

  NotedRun(const NotedRun&) = delete;
  NotedRun& operator=(const NotedRun&) = delete;

  /** The calling process is the one that does the work, and what it starts bears the run's mark. */
  void AddWorker();

  /**
   * The run has ended: remove the note if everything that was left behind could be cleaned.
   * Otherwise it stays, and whoever comes next finds the rest.
   */
  void Settle(const std::vector<LeftOver>& leftOvers);
  /** Decided elsewhere: do nothing at the end. */
  void LeaveAsItIs() { settled_ = true; }

 private:
  void Remove() const;
  void Write() const;

  std::optional<RunFolder> folder_;
  RunNote note_;
  bool settled_ = false;
};

}  // namespace featurehost
