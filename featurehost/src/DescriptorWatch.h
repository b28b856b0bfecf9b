#pragma once

#include <functional>

#include "featurehost/src/EventLoop.h"
#include "featurehost/src/SourcePace.h"

namespace featurehost {

/**
 * Watches one descriptor, level-triggered, at the pace of its source.
 *
 * Owns its place in the loop, not the descriptor. Readiness is told once; the watch then rests
 * until TurnIsOver, so that the callback may also destroy it.
 */
class DescriptorWatch {
 public:
  DescriptorWatch(EventLoop& loop, int descriptor, std::function<void()> onReady);

  DescriptorWatch(const DescriptorWatch&) = delete;
  DescriptorWatch& operator=(const DescriptorWatch&) = delete;

  /** The subscriber has had its turn: watch again, at once or after a pause. */
  void TurnIsOver();
  /** End the pause when the source has moved meanwhile. */
  void LookAgain();

 private:
  void Ready();
  void Resume();

  int descriptor_;
  std::function<void()> onReady_;
  SourcePace pace_;
  EventHandle readable_;
  EventHandle pause_;
};

}  // namespace featurehost
