#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <fuzzer/FuzzedDataProvider.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "fuzz/support/Require.h"

namespace fuzz {

/**
 * The operating system as the module sees it, invented from a fuzzer's input: children that do not
 * exist write, read, stop and end as the input says, and nothing is ever executed. Pipes are real.
 * While none lives, the real system is reached.
 *
 * When the input is used up everything goes well: children end with 0, commands succeed.
 *
 * Ends the process when the module signals or collects a process that is not its child, or waits
 * for what will never happen.
 */
class FakeSystem {
 public:
  explicit FakeSystem(FuzzedDataProvider& input);
  /** Ends the children and closes everything that is still open. */
  ~FakeSystem();

  FakeSystem(const FakeSystem&) = delete;
  FakeSystem& operator=(const FakeSystem&) = delete;

  static FakeSystem* Active();

  /** Ends the process when the module has left a child or a descriptor. */
  void CheckNothingIsLeft() const;

  /** Called with every command line of system(3). */
  std::function<void(const std::string&)> onCommand;
  /** Contents of files that are opened by name; others exist or not as the input says. */
  std::map<std::string, std::string> files;
  /** What a child answers to SIGUSR1; invented when there is none. */
  std::function<std::string()> answer;

  /** Let the children write so many zeros first, as fast as they are read. */
  void WriteSteadily(std::size_t bytes) { steadyBytes_ = bytes; }

  // The host's file utilities.
  bool Exists(const std::string& path);
  bool Chance();

  // The covered calls; "handled" tells whether the descriptor or process is one of ours.
  pid_t Fork();
  pid_t WaitPid(pid_t process, int* status, int options);
  int WaitId(id_t process, siginfo_t* info, int options);
  int Kill(pid_t process, int signal);
  int Pipe(int* ends, int flags);
  void Closed(int descriptor);
  ssize_t Read(int descriptor, void* buffer, std::size_t size, bool& handled);
  ssize_t Write(int descriptor, const void* buffer, std::size_t size, bool& handled);
  void BeforePoll(int descriptor);
  int Open();
  FILE* OpenFile(const std::string& path);
  void FileClosed(FILE* file);
  int Command(const std::string& command);

 private:
  struct Channel {
    int reader;  // the module's ends, -1 when it has closed them
    int writer;
    int childReader;  // the children's ends, -1 when all have ended
    int childWriter;
    std::set<pid_t> users;
  };
  struct Child {
    enum class State { kRunning, kStopped, kEnded } state = State::kRunning;
    int status = 0;
  };

  Channel* ChannelOf(int descriptor);
  Child* Find(pid_t process);
  Child* RunningUser(const Channel& channel, pid_t& process);
  bool RarelyTrue();
  std::string Status();
  void WriteSome(const Channel& channel);
  void WriteToAll(pid_t process, const std::string& text);
  void End(pid_t process, int status);
  int AnyStatus();
  static void CloseChildEnds(Channel& channel);

  FuzzedDataProvider& input_;
  std::map<pid_t, Child> children_;
  std::vector<std::unique_ptr<Channel>> channels_;
  std::set<int> descriptors_;  // opened by name
  std::map<FILE*, std::unique_ptr<std::string>> open_;
  pid_t nextProcess_;
  std::size_t steadyBytes_ = 0;
  bool diesOfUsr1_ = false;
};

}  // namespace fuzz
