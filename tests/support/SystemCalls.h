#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace support {

/**
 * Stands between the code under test and some system calls: records them, and makes them fail when
 * the test says so. Otherwise the real ones run. Calls made by libraries do not come through here.
 * One for the process; the fixture resets it. It belongs to the main thread, which the code under
 * test runs on: other threads are the test's own helpers, and their calls pass unseen.
 *
 * Covered: kill, waitpid, waitid, sleep, fork, pipe2, fdopen. Covered without being recorded:
 * malloc, pipe, open, fopen, read, "read file" (a read from something that has a position), write,
 * fcntl (other than F_GETFD), system; and _exit, so that a coverage build knows what ran in
 * children. A kill of everything (-1), of the own group (0) or of process 1 fails, and the test.
 */
class SystemCalls {
 public:
  static SystemCalls& Instance();

  void Reset();

  /** The calls of this process in order: name and numeric arguments, separated by blanks. */
  const std::vector<std::string>& Calls() const { return calls_; }
  /** The calls of one name. */
  std::vector<std::string> CallsOf(const std::string& name) const;
  void Forget() { calls_.clear(); }

  /** Let the next calls of a name pass and then fail some with an errno value. */
  void Fail(const std::string& name, int error, int passing = 0, int failing = 1) {
    failures_[name] = {passing, failing, error};
  }
  /** How many calls of all names were made to fail so far. */
  int Failed() const { return failed_; }

  /** Called with the text of every call before it is made. */
  std::function<void(const std::string&)> onCall;
  /** Called with every command line before system(3) runs it. */
  std::function<void(const std::string&)> onCommand;

  // Called by the covered functions.
  void Record(const std::string& call);
  bool MustFail(const char* name);
  /** Whether calls of a name are to fail now or later. */
  bool MayFail(const char* name) const;

 private:
  struct Failure {
    int passing;
    int failing;
    int error;
  };

  std::vector<std::string> calls_;
  std::map<std::string, Failure> failures_;
  int failed_ = 0;
};

}  // namespace support
