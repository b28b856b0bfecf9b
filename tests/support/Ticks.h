#pragma once

#include <chrono>
#include <poll.h>

namespace support {

/** What a host would deliver next: a tick when its period is over, output when there is some. */
enum class Due { KNothing, KTick, KOutput };

/**
 * The timer and the descriptor of one copy, in real time.
 */
class Ticks {
 public:
  explicit Ticks(std::chrono::milliseconds period = std::chrono::milliseconds(1000))
      : period_(period), next_(std::chrono::steady_clock::now() + period) {}

  /** Wait for the next event, for at most 20 ms. A descriptor of -1 is never readable. */
  Due Await(int descriptor) {
    pollfd watched{descriptor, POLLIN, 0};
    if (std::chrono::steady_clock::now() >= next_) {
      next_ += period_;
      return Due::KTick;
    }
    return poll(&watched, 1, 20) == 1 ? Due::KOutput : Due::KNothing;
  }

 private:
  std::chrono::milliseconds period_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace support
