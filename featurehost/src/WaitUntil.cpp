#include "featurehost/src/WaitUntil.h"

#include <chrono>
#include <thread>

namespace featurehost {

namespace {

constexpr std::chrono::milliseconds kGrace{2000};
constexpr std::chrono::milliseconds kStep{10};

}  // namespace

bool WaitUntil(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kGrace;
  bool isOver = false;
  while (!condition()) {
    if (isOver) {
      return false;
    }
    // Over while nobody looked: on a busy machine it may hold by now.
    isOver = std::chrono::steady_clock::now() >= end;
    if (!isOver) {
      std::this_thread::sleep_for(kStep);
    }
  }
  return true;
}

}  // namespace featurehost
