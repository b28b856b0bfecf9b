#include <ev++.h>
#include <list>
#include <utility>

#include "tests/event-loops/Loop.h"

namespace {

struct Call {
  Loop::Callback callback;
  void Make() { callback(); }
};

class Libev : public Loop {
 public:
  explicit Libev(bool isDefault)
      : loop_(isDefault ? ev_default_loop(0) : ev_loop_new(0)), isDefault_(isDefault) {}
  ~Libev() override {
    files_.clear();
    timers_.clear();
    children_.clear();
    if (!isDefault_) {  // that one is the process's
      ev_loop_destroy(loop_);
    }
  }

  bool OnReadable(int descriptor, Callback callback) override {
    Set(files_.emplace_back(loop_), std::move(callback)).start(descriptor, ev::READ);
    return true;
  }
  void After(unsigned milliseconds, Callback callback) override {
    Set(timers_.emplace_back(loop_), std::move(callback)).start(milliseconds / 1000.0);
  }
  bool WatchAChild() override {
    if (isDefault_) {
      Set(children_.emplace_back(loop_), [] {}).start(StartChild());
    }
    return isDefault_;
  }
  void Run() override { ev_run(loop_, 0); }
  void Stop() override { ev_break(loop_, EVBREAK_ALL); }

 private:
  template <class Watcher>
  Watcher& Set(Watcher& watcher, Callback callback) {
    watcher.template set<Call, &Call::Make>(&calls_.emplace_back(Call{std::move(callback)}));
    return watcher;
  }

  struct ev_loop* loop_;
  bool isDefault_;
  std::list<Call> calls_;
  std::list<ev::io> files_;
  std::list<ev::timer> timers_;
  std::list<ev::child> children_;
};

}  // namespace

std::vector<LoopKind> LoopKinds() {
  // The default loop last: it takes over the process's SIGCHLD.
  return {{"libev, a loop of one's own", [] { return std::make_unique<Libev>(false); }},
          {"libev, the default loop", [] { return std::make_unique<Libev>(true); }}};
}
