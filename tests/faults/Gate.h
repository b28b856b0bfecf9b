#pragma once

#include <atomic>
#include <cstddef>
#include <limits>
#include <string>
#include <thread>

namespace faults {

/**
 * The reading end of a device that takes no more than it is let: what is written there beyond that
 * makes the writer wait. Works beside the host, whose thread may itself wait for the writer.
 */
class Gate {
 public:
  static constexpr std::size_t kEverything = std::numeric_limits<std::size_t>::max();

  /** Takes the descriptor over, which must be non-blocking. */
  Gate(int descriptor, std::size_t allowed);
  ~Gate() { Close(); }

  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void Allow(std::size_t total) { allowed_ = total; }
  bool HasTakenWhatIsAllowed() const { return taken_ >= allowed_; }
  int Descriptor() const { return descriptor_; }

  /** End it, with its descriptor. */
  void Close();
  /** What was taken. Only of an ended gate. */
  const std::string& Taken() const { return content_; }

 private:
  void Take();

  int descriptor_;
  std::atomic<std::size_t> allowed_;
  std::atomic<std::size_t> taken_{0};
  std::atomic<bool> closing_{false};
  std::string content_;
  std::thread thread_;
};

}  // namespace faults
