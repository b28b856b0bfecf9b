#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "host/Types.h"

namespace support {

/**
 * The host's file utilities and platform functions for tests. They do the real thing unless a
 * result is set for them, except platSleep, which never waits. One for the process; the
 * fixture resets it.
 */
class HostFakes {
 public:
  static HostFakes& Instance();

  void Reset();

  /** Every call in order: the function's name and its arguments, separated by blanks. */
  const std::vector<std::string>& Calls() const { return calls_; }
  std::size_t Count(const std::string& call) const;
  void Forget() { calls_.clear(); }

  /**
   * Results by function name: InternalFileExists, DirectoryExists, FileWritePerm,
   * CreateDirectory, InternalRemoveFile, InternalMoveFile, InternalCopyFile, cache.FileExists.
   */
  std::map<std::string, int> results;

  /** Called by platSleep instead of waiting. */
  std::function<void(TUint32)> onSleep;

  /** Called after every call has been recorded, with its text. */
  std::function<void(const std::string&)> onCall;

  // Called by the host functions.
  void Record(const std::string& call);
  int Result(const std::string& function, const std::function<int()>& real) const;

 private:
  std::vector<std::string> calls_;
};

}  // namespace support
