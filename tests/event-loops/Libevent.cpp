#include <event2/event.h>
#include <list>
#include <utility>

#include "tests/event-loops/Loop.h"

namespace {

class Libevent : public Loop {
 public:
  Libevent(int features, int flags) {
    event_config* config = event_config_new();
    event_config_require_features(config, features);
    event_config_set_flag(config, flags);
    base_ = event_base_new_with_config(config);
    event_config_free(config);
  }
  ~Libevent() override {
    for (Watch& watch : watches_) {
      event_free(watch.handle);
    }
    event_base_free(base_);
  }

  bool OnReadable(int descriptor, Callback callback) override {
    return event_add(New(descriptor, EV_READ | EV_PERSIST, std::move(callback)), nullptr) == 0;
  }
  void After(unsigned milliseconds, Callback callback) override {
    const timeval period{milliseconds / 1000, static_cast<suseconds_t>(milliseconds % 1000) * 1000};
    event_add(New(-1, 0, std::move(callback)), &period);
  }
  bool WatchAChild() override { return false; }
  void Run() override { event_base_dispatch(base_); }
  void Stop() override { event_base_loopbreak(base_); }

 private:
  struct Watch {
    Callback callback;
    event* handle;
  };

  event* New(int descriptor, short what, Callback callback) {
    Watch& watch = watches_.emplace_back(Watch{std::move(callback), nullptr});
    watch.handle = event_new(
        base_, descriptor, what,
        [](int, short, void* argument) { static_cast<Watch*>(argument)->callback(); }, &watch);
    return watch.handle;
  }

  event_base* base_;
  std::list<Watch> watches_;
};

}  // namespace

std::vector<LoopKind> LoopKinds() {
  event_set_log_callback([](int, const char*) {});
  return {{"libevent", [] { return std::make_unique<Libevent>(0, 0); }},
          {"libevent, EV_FEATURE_FDS and EVENT_BASE_FLAG_NO_CACHE_TIME", [] {
             return std::make_unique<Libevent>(EV_FEATURE_FDS, EVENT_BASE_FLAG_NO_CACHE_TIME);
           }}};
}
