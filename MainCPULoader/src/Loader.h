#pragma once

#include "host/Types.h"

/**
 * Installs one item of the update list. Passive: the controller starts it, and from then on it
 * does one bounded step for each event that it has subscribed to.
 *
 * All operations are called on the event thread. Only the result of Prepare counts; the other
 * operations report through ILoaderCallback.
 */
class ILoader {
 public:
  /** Ends whatever still runs: the controller deletes loaders without aborting them first. */
  virtual ~ILoader() = default;

  /** Get ready to run; called once for every prepare event. EFalse: the loader cannot run. */
  virtual TBool Prepare() = 0;

  /**
   * Start the work. It may end inside the call, or later from the loader's own events. It
   * ends with one ILoaderCallback::Completed or, after an Abort, with Aborted.
   */
  virtual void Install() = 0;

  /**
   * Stop. Legal at any time, also before Install and after the end. The loader answers with
   * ILoaderCallback::Aborted once it has stopped.
   */
  virtual void Abort() = 0;
};
