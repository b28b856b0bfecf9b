#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <sys/types.h>
#include <thread>

namespace faults {

/**
 * Someone outside of the host, as a thread: lets what was stopped go on, and ends a tool that hangs
 * and with it keeps the host's thread.
 */
class Outsider {
 public:
  Outsider() = default;
  ~Outsider() { Finish(); }

  Outsider(const Outsider&) = delete;
  Outsider& operator=(const Outsider&) = delete;

  /** Continue a process in a moment. */
  void WillContinue(pid_t process) { stopped_ = process; }
  /** Continue, after a moment, every process of this group that is found stopped. */
  void WillContinueWhatStops() { looksForStopped_ = true; }
  /**
   * End the tool whose process id the file holds, once the main thread waits for it: for something
   * to read from it, or for its end.
   */
  void WillEndWhatHangs(const std::string& file, bool isRead) {
    hungFile_ = file;
    hungIsRead_ = isRead;
  }

  void Start();
  void Finish();

 private:
  void Look();

  std::atomic<pid_t> stopped_{-1};
  std::atomic<bool> finished_{false};
  bool looksForStopped_ = false;
  std::string hungFile_;
  bool hungIsRead_ = false;
  std::thread thread_;
};

}  // namespace faults
