#pragma once

#include <optional>

#include "featurehost/src/RunFolder.h"
#include "featurehost/src/RunNote.h"

namespace featurehost {

/**
 * Keeps the note of a run as long as the run lives. Made before anything is started.
 *
 * Both processes of the run have it; its end in either of them removes the note.
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

  /** The run has ended and cleaned up. For the process that ends without destroying objects. */
  void Remove();

 private:
  void Write() const;

  std::optional<RunFolder> folder_;
  RunNote note_;
};

}  // namespace featurehost
