#include <utility>
#include <uv.h>

#include "tests/event-loops/Loop.h"

namespace {

/** A handle with its callback; freed by the loop when it has been closed. */
template <class Handle>
struct Watch {
  explicit Watch(Loop::Callback call) : callback(std::move(call)) { handle.data = this; }
  uv_handle_t* Base() { return reinterpret_cast<uv_handle_t*>(&handle); }

  Handle handle{};
  Loop::Callback callback;
};

void Free(uv_handle_t* handle) {
  if (handle->type == UV_POLL) {
    delete static_cast<Watch<uv_poll_t>*>(handle->data);
  } else if (handle->type == UV_TIMER) {
    delete static_cast<Watch<uv_timer_t>*>(handle->data);
  } else {
    delete static_cast<Watch<uv_process_t>*>(handle->data);
  }
}

class Libuv : public Loop {
 public:
  Libuv() { uv_loop_init(&loop_); }
  ~Libuv() override {
    uv_walk(
        &loop_, [](uv_handle_t* handle, void*) { uv_close(handle, Free); }, nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }

  bool OnReadable(int descriptor, Callback callback) override {
    auto watch = std::make_unique<Watch<uv_poll_t>>(std::move(callback));
    if (uv_poll_init(&loop_, &watch->handle, descriptor) != 0) {
      return false;
    }
    uv_poll_start(&watch.release()->handle, UV_READABLE, [](uv_poll_t* handle, int, int) {
      static_cast<Watch<uv_poll_t>*>(handle->data)->callback();
    });
    return true;
  }
  void After(unsigned milliseconds, Callback callback) override {
    auto* watch = new Watch<uv_timer_t>(std::move(callback));
    uv_timer_init(&loop_, &watch->handle);
    uv_timer_start(
        &watch->handle,
        [](uv_timer_t* handle) { static_cast<Watch<uv_timer_t>*>(handle->data)->callback(); },
        milliseconds, 0);
  }
  bool WatchAChild() override {
    auto* watch = new Watch<uv_process_t>(nullptr);
    char name[] = "true";
    char* arguments[] = {name, nullptr};
    uv_process_options_t options{};
    options.file = name;
    options.args = arguments;
    return uv_spawn(&loop_, &watch->handle, &options) == 0;
  }
  void Run() override { uv_run(&loop_, UV_RUN_DEFAULT); }
  void Stop() override { uv_stop(&loop_); }

 private:
  uv_loop_t loop_{};
};

}  // namespace

std::vector<LoopKind> LoopKinds() {
  return {{"libuv", [] { return std::make_unique<Libuv>(); }}};
}
