#pragma once

#include <functional>
#include <string>

namespace support {

/**
 * While it lives, system(3) answers with the hook's status word and runs nothing. For the status
 * words that a real shell never gives, and for command lines that must not run. One at a time.
 */
class SystemHook {
 public:
  explicit SystemHook(std::function<int(const std::string& command)> hook);
  ~SystemHook();

  SystemHook(const SystemHook&) = delete;
  SystemHook& operator=(const SystemHook&) = delete;
};

}  // namespace support
