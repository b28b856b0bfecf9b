// The linker sends every call of NAME here as __wrap_NAME, and __real_NAME to the real one.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

#include "fuzz/support/FakeSystem.h"

using fuzz::FakeSystem;

extern "C" {

pid_t __real_fork();
pid_t __real_waitpid(pid_t process, int* status, int options);
int __real_waitid(idtype_t type, id_t id, siginfo_t* info, int options);
int __real_kill(pid_t process, int signal);
int __real_pipe(int* ends);
int __real_pipe2(int* ends, int flags);
int __real_close(int descriptor);
ssize_t __real_read(int descriptor, void* buffer, std::size_t size);
ssize_t __real_write(int descriptor, const void* buffer, std::size_t size);
int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
int __real_open64(const char* path, int flags, ...);
FILE* __real_fopen64(const char* path, const char* mode);
int __real_fclose(FILE* file);
int __real_system(const char* command);
unsigned __real_sleep(unsigned seconds);
int __real_nanosleep(const timespec* duration, timespec* rest);

pid_t __wrap_fork() {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->Fork() : __real_fork();
}

pid_t __wrap_waitpid(pid_t process, int* status, int options) {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->WaitPid(process, status, options)
                                         : __real_waitpid(process, status, options);
}

int __wrap_waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->WaitId(id, info, options)
                                         : __real_waitid(type, id, info, options);
}

int __wrap_kill(pid_t process, int signal) {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->Kill(process, signal)
                                         : __real_kill(process, signal);
}

int __wrap_pipe2(int* ends, int flags) {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->Pipe(ends, flags)
                                         : __real_pipe2(ends, flags);
}

int __wrap_pipe(int* ends) {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->Pipe(ends, 0) : __real_pipe(ends);
}

int __wrap_close(int descriptor) {
  if (FakeSystem::Active() != nullptr) {
    FakeSystem::Active()->Closed(descriptor);
  }
  return __real_close(descriptor);
}

ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
  bool handled = false;
  const ssize_t count = FakeSystem::Active() != nullptr
                            ? FakeSystem::Active()->Read(descriptor, buffer, size, handled)
                            : 0;
  return handled ? count : __real_read(descriptor, buffer, size);
}

ssize_t __wrap_write(int descriptor, const void* buffer, std::size_t size) {
  bool handled = false;
  const ssize_t count = FakeSystem::Active() != nullptr
                            ? FakeSystem::Active()->Write(descriptor, buffer, size, handled)
                            : 0;
  return handled ? count : __real_write(descriptor, buffer, size);
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
  if (FakeSystem::Active() == nullptr) {
    return __real_poll(descriptors, count, timeout);
  }
  FakeSystem::Active()->BeforePoll(descriptors[0].fd);
  const int ready = __real_poll(descriptors, count, 0);
  fuzz::Require(ready != 0 || timeout != -1, "poll never ends");
  return ready;
}

int __wrap_open64(const char* path, int flags, ...) {
  if (FakeSystem::Active() != nullptr) {
    return FakeSystem::Active()->Open();
  }
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  return __real_open64(path, flags, mode);
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->OpenFile(path)
                                         : __real_fopen64(path, mode);
}

int __wrap_fclose(FILE* file) {
  if (FakeSystem::Active() != nullptr) {
    FakeSystem::Active()->FileClosed(file);
  }
  return __real_fclose(file);
}

int __wrap_system(const char* command) {
  return FakeSystem::Active() != nullptr ? FakeSystem::Active()->Command(command)
                                         : __real_system(command);
}

unsigned __wrap_sleep(unsigned seconds) {
  return FakeSystem::Active() != nullptr ? 0 : __real_sleep(seconds);
}

int __wrap_nanosleep(const timespec* duration, timespec* rest) {
  return FakeSystem::Active() != nullptr ? 0 : __real_nanosleep(duration, rest);
}

}  // extern "C"
