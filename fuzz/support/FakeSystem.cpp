#include "fuzz/support/FakeSystem.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
ssize_t __real_read(int descriptor, void* buffer, std::size_t size);
ssize_t __real_write(int descriptor, const void* buffer, std::size_t size);
int __real_close(int descriptor);
int __real_pipe2(int* ends, int flags);
int __real_fclose(FILE* file);
}

namespace fuzz {

namespace {

FakeSystem* active = nullptr;

// Larger than any process id of the kernel, so that a signal that slipped through would hit nobody.
constexpr pid_t kFirstProcess = 0x40000000;
constexpr std::size_t kMostAtOnce = 65536;  // what an empty pipe takes

int Waiting(int descriptor) {
  int count = 0;
  return ioctl(descriptor, FIONREAD, &count) == 0 ? count : 0;
}

void CloseIfOpen(int& descriptor) {
  if (descriptor != -1) {
    __real_close(descriptor);
    descriptor = -1;
  }
}

}  // namespace

FakeSystem* FakeSystem::Active() {
  return active;
}

FakeSystem::FakeSystem(FuzzedDataProvider& input) : input_(input), nextProcess_(kFirstProcess) {
  active = this;
}

FakeSystem::~FakeSystem() {
  active = nullptr;
  for (auto& channel : channels_) {
    CloseIfOpen(channel->reader);
    CloseIfOpen(channel->writer);
    CloseChildEnds(*channel);
  }
  for (const int descriptor : descriptors_) {
    __real_close(descriptor);
  }
  for (const auto& entry : open_) {
    __real_fclose(entry.first);
  }
}

void FakeSystem::CheckNothingIsLeft() const {
  Require(children_.empty(), "a child is left");
  Require(descriptors_.empty() && open_.empty(), "a file is left open");
  for (const auto& channel : channels_) {
    Require(channel->reader == -1 && channel->writer == -1, "a pipe is left open");
  }
}

bool FakeSystem::Chance() {
  return input_.ConsumeBool();
}

bool FakeSystem::RarelyTrue() {
  return input_.ConsumeIntegralInRange<int>(0, 15) == 15;
}

bool FakeSystem::Exists(const std::string& path) {
  return files.count(path) != 0 || !RarelyTrue();
}

pid_t FakeSystem::Fork() {
  const bool failed = RarelyTrue();
  const pid_t process = nextProcess_++;
  for (auto& channel : channels_) {
    if (channel->users.empty() && channel->childReader != -1) {
      if (failed) {
        CloseChildEnds(*channel);
      } else {
        channel->users.insert(process);
      }
    }
  }
  if (failed) {
    errno = EAGAIN;
    return -1;
  }
  children_[process] = Child();
  if (RarelyTrue()) {
    End(process, AnyStatus());
  }
  return process;
}

pid_t FakeSystem::WaitPid(pid_t process, int* status, int options) {
  Child* child = Find(process);
  Require(child != nullptr, "waitpid for " + std::to_string(process) + ", which is no child");
  if (child->state != Child::State::kEnded) {
    if ((options & WNOHANG) == 0) {
      Require(child->state != Child::State::kStopped, "waitpid for a stopped child never ends");
      End(process, AnyStatus());
    } else if (child->state == Child::State::kStopped || !RarelyTrue()) {
      return 0;
    } else {
      End(process, AnyStatus());
    }
  }
  *status = child->status;
  children_.erase(process);
  return process;
}

int FakeSystem::WaitId(id_t process, siginfo_t* info, int options) {
  Child* child = Find(static_cast<pid_t>(process));
  if (child == nullptr) {
    errno = ECHILD;
    return -1;
  }
  std::memset(info, 0, sizeof *info);
  if (child->state == Child::State::kRunning && (options & WNOHANG) == 0) {
    // Waited for are only children that were told to stop after their next write.
    for (auto& channel : channels_) {
      if (channel->users.count(static_cast<pid_t>(process)) != 0) {
        WriteSome(*channel);
      }
    }
    child->state = Child::State::kStopped;
  }
  if (child->state == Child::State::kEnded) {
    info->si_pid = static_cast<pid_t>(process);
    info->si_code = WIFEXITED(child->status) ? CLD_EXITED : CLD_KILLED;
    info->si_status =
        WIFEXITED(child->status) ? WEXITSTATUS(child->status) : WTERMSIG(child->status);
  } else if (child->state == Child::State::kStopped && (options & WSTOPPED) != 0) {
    info->si_pid = static_cast<pid_t>(process);
    info->si_code = CLD_STOPPED;
    info->si_status = SIGSTOP;
  }
  return 0;
}

int FakeSystem::Kill(pid_t process, int signal) {
  Child* child = Find(process);
  Require(child != nullptr, "kill of " + std::to_string(process) + ", which is no child");
  if (child->state == Child::State::kEnded) {
    return 0;
  }
  switch (signal) {
    case SIGSTOP:
      child->state = Child::State::kStopped;
      break;
    case SIGCONT:
      child->state = Child::State::kRunning;
      if (RarelyTrue()) {
        End(process, AnyStatus());
      }
      break;
    case SIGKILL:
      End(process, SIGKILL);
      break;
    case SIGTERM:
      if (!RarelyTrue()) {
        End(process, SIGTERM);
      }
      break;
    case SIGUSR1:
      Require(!diesOfUsr1_, "SIGUSR1 for a child that would die of it");
      WriteToAll(process, answer ? answer() : input_.ConsumeRandomLengthString(300));
      break;
    default:
      Fail("unexpected signal " + std::to_string(signal));
  }
  return 0;
}

int FakeSystem::Pipe(int* ends, int flags) {
  if (RarelyTrue()) {
    errno = EMFILE;
    return -1;
  }
  const int result = __real_pipe2(ends, flags);
  Require(result == 0, "no pipe");
  auto channel = std::make_unique<Channel>();
  channel->reader = ends[0];
  channel->writer = ends[1];
  channel->childReader = fcntl(ends[0], F_DUPFD_CLOEXEC, 3);
  channel->childWriter = fcntl(ends[1], F_DUPFD_CLOEXEC, 3);
  // A full pipe fails instead of waiting for a reader that does not exist.
  fcntl(ends[1], F_SETFL, O_NONBLOCK);
  channels_.push_back(std::move(channel));
  return 0;
}

void FakeSystem::Closed(int descriptor) {
  descriptors_.erase(descriptor);
  if (Channel* channel = ChannelOf(descriptor)) {
    (channel->reader == descriptor ? channel->reader : channel->writer) = -1;
  }
}

ssize_t FakeSystem::Read(int descriptor, void* buffer, std::size_t size, bool& handled) {
  Channel* channel = ChannelOf(descriptor);
  handled = channel != nullptr;
  if (!handled) {
    return 0;
  }
  BeforePoll(descriptor);
  if (Waiting(descriptor) == 0) {
    CloseChildEnds(*channel);
  }
  return __real_read(descriptor, buffer, size);
}

ssize_t FakeSystem::Write(int descriptor, const void* buffer, std::size_t size, bool& handled) {
  Channel* channel = ChannelOf(descriptor);
  handled = channel != nullptr;
  if (!handled) {
    return 0;
  }
  pid_t process = 0;
  if (RunningUser(*channel, process) == nullptr) {
    CloseChildEnds(*channel);
    return __real_write(descriptor, buffer, size);
  }
  const int course = input_.ConsumeIntegralInRange<int>(0, 31);
  if (course == 31) {
    End(process, AnyStatus());
    return __real_write(descriptor, buffer, size);
  }
  if (course == 30) {
    return 0;
  }
  const std::size_t most = course == 29 ? 1 : kMostAtOnce;
  const ssize_t count = __real_write(descriptor, buffer, std::min(size, most));
  // The child takes it at once.
  static char taken[kMostAtOnce];
  while (Waiting(channel->childReader) > 0) {
    static_cast<void>(__real_read(channel->childReader, taken, sizeof taken));
  }
  return count;
}

/** What is read or polled for arrives, or its writer ends. */
void FakeSystem::BeforePoll(int descriptor) {
  Channel* channel = ChannelOf(descriptor);
  if (channel == nullptr || Waiting(descriptor) > 0) {
    return;
  }
  pid_t process = 0;
  if (RunningUser(*channel, process) == nullptr) {
    return;
  }
  if (steadyBytes_ == 0 && (input_.remaining_bytes() == 0 || RarelyTrue())) {
    End(process, AnyStatus());
  } else {
    WriteSome(*channel);
  }
}

int FakeSystem::Open() {
  if (RarelyTrue()) {
    errno = ENOENT;
    return -1;
  }
  const int descriptor = memfd_create("target", MFD_CLOEXEC);
  Require(descriptor != -1, "no file in memory");
  Require(ftruncate(descriptor, input_.ConsumeIntegralInRange<off_t>(0, 3 << 20)) == 0, "no size");
  descriptors_.insert(descriptor);
  return descriptor;
}

/** What the kernel tells about a child: whether it catches SIGUSR1. */
std::string FakeSystem::Status() {
  diesOfUsr1_ = RarelyTrue();
  return diesOfUsr1_ ? "SigIgn:\t0\nSigCgt:\t0\n" : "SigIgn:\t0\nSigCgt:\t200\n";
}

FILE* FakeSystem::OpenFile(const std::string& path) {
  if (path.rfind("/proc/", 0) == 0) {
    files[path] = Status();
  }
  const auto entry = files.find(path);
  if (entry == files.end() && RarelyTrue()) {
    errno = ENOENT;
    return nullptr;
  }
  auto content = std::make_unique<std::string>(
      entry == files.end() ? input_.ConsumeRandomLengthString(16) : entry->second);
  FILE* file = fmemopen(content->data(), content->size(), "r");
  Require(file != nullptr, "no stream in memory");
  open_[file] = std::move(content);
  return file;
}

void FakeSystem::FileClosed(FILE* file) {
  const int descriptor = fileno(file);
  if (descriptor != -1) {
    Closed(descriptor);
  }
  open_.erase(file);
}

int FakeSystem::Command(const std::string& command) {
  if (onCommand) {
    onCommand(command);
  }
  return RarelyTrue() ? AnyStatus() : 0;
}

FakeSystem::Channel* FakeSystem::ChannelOf(int descriptor) {
  for (const auto& channel : channels_) {
    if (channel->reader == descriptor || channel->writer == descriptor) {
      return channel.get();
    }
  }
  return nullptr;
}

FakeSystem::Child* FakeSystem::Find(pid_t process) {
  const auto entry = children_.find(process);
  return entry == children_.end() ? nullptr : &entry->second;
}

FakeSystem::Child* FakeSystem::RunningUser(const Channel& channel, pid_t& process) {
  for (const pid_t user : channel.users) {
    Child* child = Find(user);
    if (child != nullptr && child->state != Child::State::kEnded) {
      process = user;
      return child;
    }
  }
  return nullptr;
}

void FakeSystem::WriteSome(const Channel& channel) {
  if (channel.childWriter == -1) {
    return;
  }
  const std::size_t sizes[] = {kMostAtOnce, 4096, 1, 100, 5000};
  const bool steady = steadyBytes_ > 0;
  std::string data(steady ? std::min(kMostAtOnce, steadyBytes_) : input_.PickValueInArray(sizes),
                   '\0');
  if (!steady && RarelyTrue()) {
    data.back() = 'x';
  }
  const ssize_t count = __real_write(channel.childWriter, data.data(), data.size());
  steadyBytes_ -= steady && count > 0 ? static_cast<std::size_t>(count) : 0;
}

void FakeSystem::WriteToAll(pid_t process, const std::string& text) {
  for (const auto& channel : channels_) {
    if (channel->users.count(process) != 0 && channel->childWriter != -1) {
      static_cast<void>(__real_write(channel->childWriter, text.data(), text.size()));
    }
  }
}

void FakeSystem::End(pid_t process, int status) {
  Child& child = children_.at(process);
  child.state = Child::State::kEnded;
  child.status = status;
  for (auto& channel : channels_) {
    if (channel->users.count(process) != 0) {
      CloseChildEnds(*channel);
    }
  }
}

int FakeSystem::AnyStatus() {
  const int statuses[] = {0, 0, 0, 1 << 8, 2 << 8, 127 << 8, SIGKILL, SIGPIPE};
  return input_.PickValueInArray(statuses);
}

void FakeSystem::CloseChildEnds(Channel& channel) {
  CloseIfOpen(channel.childReader);
  CloseIfOpen(channel.childWriter);
}

}  // namespace fuzz
