#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace featurehost {

/**
 * How soon a readable descriptor is looked at again.
 *
 * Regular files, block devices and pipes at their end are readable for ever, and a subscriber that
 * has finished with one may stay subscribed. A source that did not move is polled ever more
 * slowly, from 1 ms to 1 s; one that moves is polled at once. What "moves" means: the file
 * position of files and block devices, the number of waiting bytes of everything else; a source
 * that shows neither counts as moving.
 *
 * A pipe in which bytes wait is never left for longer than 1 ms: its reader may take line after
 * line out of a buffer of its own, which does not show, while the writer waits for room.
 */
class SourcePace {
 public:
  explicit SourcePace(int descriptor);

  /** Called right before and right after the subscriber's turn; the answer is the pause. */
  void BeforeTurn();
  std::chrono::milliseconds AfterTurn();

  /** Whether the source has moved since the last turn, by someone else's doing. */
  bool MovedSince() const;

 private:
  using Mark = std::optional<std::int64_t>;

  static Mark Look(int descriptor);
  bool BytesWait() const;

  int descriptor_;
  Mark mark_;
  bool moved_ = false;
  std::chrono::milliseconds pause_{0};
};

}  // namespace featurehost
