#include "featurehost/src/EventLoop.h"

#include <event2/event.h>
#include <new>
#include <utility>

namespace featurehost {

namespace {

// Signals come first, everything else has the middle priority, which is the usual one.
constexpr int kPriorities = 2;
constexpr int kFirst = 0;

timeval ToTimeval(std::chrono::milliseconds period) {
  constexpr int kPerSecond = 1000;
  timeval value{};
  value.tv_sec = static_cast<decltype(value.tv_sec)>(period.count() / kPerSecond);
  value.tv_usec = static_cast<decltype(value.tv_usec)>(period.count() % kPerSecond * kPerSecond);
  return value;
}

void CallBack(int /*descriptor*/, short /*what*/, void* argument) {
  (*static_cast<EventLoop::Callback*>(argument))();
}

}  // namespace

void EventDeleter::operator()(event* handle) const {
  event_free(handle);
}

void EventLoop::BaseDeleter::operator()(event_base* base) const {
  event_base_free(base);
}

EventLoop::EventLoop() {
  const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(),
                                                                           &event_config_free);
  if (config == nullptr) {
    throw std::bad_alloc();
  }
  // The image checker watches regular files, which epoll refuses.
  event_config_require_features(config.get(), EV_FEATURE_FDS);
  event_config_set_flag(config.get(), EVENT_BASE_FLAG_IGNORE_ENV);
  // A timer that is set after the module has blocked for long must not be due at once.
  event_config_set_flag(config.get(), EVENT_BASE_FLAG_NO_CACHE_TIME);
  // The coarse clock would let timers fire some milliseconds early.
  event_config_set_flag(config.get(), EVENT_BASE_FLAG_PRECISE_TIMER);
  base_.reset(event_base_new_with_config(config.get()));
  if (base_ == nullptr) {
    throw std::bad_alloc();
  }
  event_base_priority_init(base_.get(), kPriorities);
}

EventLoop::~EventLoop() = default;

void EventLoop::Run() {
  if (!stopped_) {
    event_base_loop(base_.get(), EVLOOP_NO_EXIT_ON_EMPTY);
  }
}

void EventLoop::Stop() {
  stopped_ = true;
  event_base_loopbreak(base_.get());
}

void EventLoop::OnSignal(int number, Callback callback) {
  Permanent& permanent = AddPermanent(std::move(callback));
  permanent.handle = New(number, EV_SIGNAL | EV_PERSIST, CallBack, &permanent.callback);
  event_priority_set(permanent.handle.get(), kFirst);
  event_add(permanent.handle.get(), nullptr);
}

void EventLoop::Every(std::chrono::milliseconds period, Callback callback) {
  Permanent& permanent = AddPermanent(std::move(callback));
  permanent.handle = NewTimer(true, CallBack, &permanent.callback);
  Start(permanent.handle, period);
}

EventHandle EventLoop::NewTimer(bool repeating, void (*callback)(int, short, void*),
                                void* argument) {
  return New(-1, repeating ? EV_PERSIST : 0, callback, argument);
}

EventHandle EventLoop::NewReadable(int descriptor, void (*callback)(int, short, void*),
                                   void* argument) {
  return New(descriptor, EV_READ, callback, argument);
}

void EventLoop::Start(const EventHandle& timer, std::chrono::milliseconds period) {
  const timeval value = ToTimeval(period);
  event_add(timer.get(), &value);
}

void EventLoop::Start(const EventHandle& readable) {
  event_add(readable.get(), nullptr);
}

bool EventLoop::IsStarted(const EventHandle& handle) {
  return event_pending(handle.get(), EV_READ | EV_TIMEOUT, nullptr) != 0;
}

void EventLoop::Cancel(const EventHandle& handle) {
  event_del(handle.get());
}

EventHandle EventLoop::New(int descriptor, int what, void (*callback)(int, short, void*),
                           void* argument) {
  EventHandle handle(
      event_new(base_.get(), descriptor, static_cast<short>(what), callback, argument));
  if (handle == nullptr) {
    throw std::bad_alloc();
  }
  return handle;
}

EventLoop::Permanent& EventLoop::AddPermanent(Callback callback) {
  permanents_.push_back(std::make_unique<Permanent>(Permanent{std::move(callback), nullptr}));
  return *permanents_.back();
}

}  // namespace featurehost
