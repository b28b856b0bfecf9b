#include "tests/support/SystemCalls.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

namespace {

bool OnMainThread() {
  return gettid() == getpid();
}

}  // namespace

SystemCalls& SystemCalls::Instance() {
  // Never destroyed: calls are made, by a coverage build's runtime for one, until the process ends.
  static auto* const calls = new SystemCalls;
  return *calls;
}

void SystemCalls::Reset() {
  calls_.clear();
  failures_.clear();
  failed_ = 0;
  onCall = nullptr;
  onCommand = nullptr;
}

std::vector<std::string> SystemCalls::CallsOf(const std::string& name) const {
  std::vector<std::string> chosen;
  for (const auto& call : calls_) {
    if (call == name || call.rfind(name + " ", 0) == 0) {
      chosen.push_back(call);
    }
  }
  return chosen;
}

void SystemCalls::Record(const std::string& call) {
  if (!OnMainThread()) {
    return;
  }
  calls_.push_back(call);
  if (onCall) {
    onCall(call);
  }
}

bool SystemCalls::MayFail(const char* name) const {
  return OnMainThread() && failures_.count(name) > 0;
}

bool SystemCalls::MustFail(const char* name) {
  if (!OnMainThread() || failures_.empty()) {
    return false;
  }
  const auto entry = failures_.find(name);
  if (entry == failures_.end() || entry->second.passing-- > 0) {
    return false;
  }
  const bool failing = entry->second.failing-- > 0;
  if (failing) {
    ++failed_;
    errno = entry->second.error;
  } else {
    failures_.erase(entry);
  }
  return failing;
}

namespace {

bool RecordedFailure(const char* name, const std::string& arguments = "") {
  SystemCalls::Instance().Record(name + arguments);
  return SystemCalls::Instance().MustFail(name);
}

bool HasPosition(int descriptor) {
  return lseek(descriptor, 0, SEEK_CUR) != -1;
}

}  // namespace

}  // namespace support

// The linker sends every call of NAME to __wrap_NAME, and __real_NAME to the real one.
extern "C" {

int __real_kill(pid_t process, int signal);
pid_t __real_waitpid(pid_t process, int* status, int options);
int __real_waitid(idtype_t type, id_t id, siginfo_t* info, int options);
unsigned __real_sleep(unsigned seconds);
pid_t __real_fork();
int __real_pipe2(int* ends, int flags);
FILE* __real_fdopen(int descriptor, const char* mode);
FILE* __real_fopen64(const char* path, const char* mode);
void* __real_malloc(std::size_t size);
int __real_pipe(int* ends);
int __real_open64(const char* path, int flags, ...);
int __real_fcntl64(int descriptor, int command, ...);
ssize_t __real_read(int descriptor, void* buffer, size_t size);
ssize_t __real_write(int descriptor, const void* buffer, size_t size);
[[noreturn]] void __real__exit(int code);

/** In a coverage build, from its runtime: writes down what has run until now. */
void __gcov_dump() __attribute__((weak));

int __wrap_kill(pid_t process, int signal) {
  if (process >= -1 && process <= 1) {
    // A child that was not found must never become a signal to every process of the machine.
    ADD_FAILURE() << "a signal to process " << process;
    errno = EPERM;
    return -1;
  }
  const auto arguments = " " + std::to_string(process) + " " + std::to_string(signal);
  return support::RecordedFailure("kill", arguments) ? -1 : __real_kill(process, signal);
}

pid_t __wrap_waitpid(pid_t process, int* status, int options) {
  const auto arguments = " " + std::to_string(process) + " " + std::to_string(options);
  return support::RecordedFailure("waitpid", arguments) ? -1
                                                        : __real_waitpid(process, status, options);
}

int __wrap_waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  return support::RecordedFailure("waitid", " " + std::to_string(id))
             ? -1
             : __real_waitid(type, id, info, options);
}

unsigned __wrap_sleep(unsigned seconds) {
  support::RecordedFailure("sleep", " " + std::to_string(seconds));
  return __real_sleep(seconds);
}

pid_t __wrap_fork() {
  return support::RecordedFailure("fork") ? -1 : __real_fork();
}

int __wrap_pipe2(int* ends, int flags) {
  return support::RecordedFailure("pipe2") ? -1 : __real_pipe2(ends, flags);
}

FILE* __wrap_fdopen(int descriptor, const char* mode) {
  return support::RecordedFailure("fdopen") ? nullptr : __real_fdopen(descriptor, mode);
}

[[noreturn]] void __wrap__exit(int code) {
  if (__gcov_dump != nullptr) {
    __gcov_dump();
  }
  __real__exit(code);
}

void* __wrap_malloc(std::size_t size) {
  return support::SystemCalls::Instance().MustFail("malloc") ? nullptr : __real_malloc(size);
}

int __wrap_pipe(int* ends) {
  return support::SystemCalls::Instance().MustFail("pipe") ? -1 : __real_pipe(ends);
}

// Large file support gives these three another name.
int __wrap_open64(const char* path, int flags, ...) {
  std::va_list rest;
  va_start(rest, flags);
  const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return support::SystemCalls::Instance().MustFail("open") ? -1 : __real_open64(path, flags, mode);
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
  return support::SystemCalls::Instance().MustFail("fopen") ? nullptr : __real_fopen64(path, mode);
}

int __wrap_fcntl64(int descriptor, int command, ...) {
  std::va_list rest;
  va_start(rest, command);
  const auto argument = va_arg(rest, long);
  va_end(rest);
  return command != F_GETFD && support::SystemCalls::Instance().MustFail("fcntl")
             ? -1
             : __real_fcntl64(descriptor, command, argument);
}

ssize_t __wrap_read(int descriptor, void* buffer, size_t size) {
  auto& calls = support::SystemCalls::Instance();
  if (calls.MustFail("read") || (calls.MayFail("read file") && support::HasPosition(descriptor) &&
                                 calls.MustFail("read file"))) {
    return -1;
  }
  return __real_read(descriptor, buffer, size);
}

ssize_t __wrap_write(int descriptor, const void* buffer, size_t size) {
  return support::SystemCalls::Instance().MustFail("write")
             ? -1
             : __real_write(descriptor, buffer, size);
}

}  // extern "C"
