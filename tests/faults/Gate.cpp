#include "tests/faults/Gate.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <unistd.h>

namespace faults {

Gate::Gate(int descriptor, std::size_t allowed) : descriptor_(descriptor), allowed_(allowed) {
  thread_ = std::thread([this] {
    while (!closing_) {
      Take();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Take();
  });
}

void Gate::Close() {
  closing_ = true;
  if (thread_.joinable()) {
    thread_.join();
    close(descriptor_);
  }
}

void Gate::Take() {
  std::array<char, 4096> buffer{};
  ssize_t count = 1;
  while (count > 0 && taken_ < allowed_) {
    count = read(descriptor_, buffer.data(), std::min(buffer.size(), allowed_ - taken_));
    if (count > 0) {
      content_.append(buffer.data(), static_cast<std::size_t>(count));
      taken_ = content_.length();
    }
  }
}

}  // namespace faults
