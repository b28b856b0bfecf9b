#pragma once

#include <functional>
#include <optional>
#include <sys/resource.h>

namespace support {

/**
 * Run a body with expectations in a copy of this process, for what would harm this one: refused
 * system calls, closed standard streams, a child that comes back. The test fails when an
 * expectation in it fails, when the copy does not end by itself, or when it takes too long.
 * Whatever it leaves running in its process group is ended.
 */
void InExpendableProcess(const std::function<void()>& body, unsigned seconds = 30);

/** An argument of a system call, counted from 0. */
struct CallArgument {
  unsigned index;
  unsigned value;
};

/**
 * From now on a system call fails with the given error in this process and its children; an error
 * of 0 makes it return 0. With an argument given, only calls with that one fail. There is no way
 * back: only for expendable processes. Where system calls cannot be refused, the test is
 * skipped.
 */
void RefuseSystemCall(long number, int error, std::optional<CallArgument> onlyWith = {});

/** While it lives, no further descriptor can be opened in this process. */
class NoMoreDescriptors {
 public:
  NoMoreDescriptors();
  ~NoMoreDescriptors();

  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace support
