#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace support {

/** Look again and again until it holds, for at most so long. @return whether it held. */
inline bool Eventually(const std::function<bool()>& holds,
                       std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace support
