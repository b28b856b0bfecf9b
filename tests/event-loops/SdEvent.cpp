#include <csignal>
#include <list>
#include <sys/wait.h>
#include <systemd/sd-event.h>
#include <utility>

#include "tests/event-loops/Loop.h"

namespace {

int Tell(void* callback) {
  (*static_cast<Loop::Callback*>(callback))();
  return 0;
}

class SdEvent : public Loop {
 public:
  SdEvent() { sd_event_new(&event_); }
  ~SdEvent() override { sd_event_unref(event_); }

  bool OnReadable(int descriptor, Callback callback) override {
    const sd_event_io_handler_t readable = [](sd_event_source*, int, unsigned, void* call) {
      return Tell(call);
    };
    return sd_event_add_io(event_, nullptr, descriptor, kReadable, readable,
                           Keep(std::move(callback))) >= 0;
  }
  void After(unsigned milliseconds, Callback callback) override {
    const sd_event_time_handler_t due = [](sd_event_source*, std::uint64_t, void* call) {
      return Tell(call);
    };
    sd_event_add_time_relative(event_, nullptr, CLOCK_MONOTONIC, milliseconds * 1000ULL, 1, due,
                               Keep(std::move(callback)));
  }
  bool WatchAChild() override {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    sigprocmask(SIG_BLOCK, &signals, nullptr);  // it insists
    const sd_event_child_handler_t ended = [](sd_event_source*, const siginfo_t*, void*) {
      return 0;
    };
    return sd_event_add_child(event_, nullptr, StartChild(), WEXITED, ended, nullptr) >= 0;
  }
  void Run() override { sd_event_loop(event_); }
  void Stop() override { sd_event_exit(event_, 0); }

 private:
  static constexpr std::uint32_t kReadable = 1;  // EPOLLIN

  Callback* Keep(Callback callback) { return &callbacks_.emplace_back(std::move(callback)); }

  sd_event* event_ = nullptr;
  std::list<Callback> callbacks_;
};

}  // namespace

std::vector<LoopKind> LoopKinds() {
  return {{"sd-event", [] { return std::make_unique<SdEvent>(); }}};
}
