#pragma once

#include "host/Types.h"

/**
 * What a loader tells its controller. Called on the event thread, from inside Install, Abort or
 * the loader's own OnEvent; the controller reacts before the call returns, so Completed(ETrue) has
 * started the next loader when it comes back.
 */
class ILoaderCallback {
 public:
  virtual ~ILoaderCallback() = default;

  /** How far the loader has got, in bytes. A total of 0 counts as done. */
  virtual void Progress(TUint32 remainingSize, TUint32 totalSize) = 0;

  /** The loader has ended; non-zero: with success. */
  virtual void Completed(TBool successful) = 0;

  /** The loader has stopped after an Abort. */
  virtual void Aborted() = 0;
};
