#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

struct event;
struct event_base;

namespace featurehost {

/** Gives an event of the event library back. */
struct EventDeleter {
  void operator()(event* handle) const;
};
using EventHandle = std::unique_ptr<event, EventDeleter>;

/**
 * The host's one loop, on the thread that calls Run. It takes descriptors of every kind, also
 * regular files, and leaves the process's children alone.
 *
 * In each turn everything that is due gets its call once, signals first: the user's wish to stop
 * is known before anything else is delivered.
 */
class EventLoop {
 public:
  using Callback = std::function<void()>;

  EventLoop();
  ~EventLoop();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /** Serve until Stop is called. */
  void Run();
  /** End Run before the next call is made. A loop that has been stopped stays stopped. */
  void Stop();
  bool Stopped() const { return stopped_; }

  /** Handle a signal in the loop for as long as the loop lives. */
  void OnSignal(int number, Callback callback);
  /** Call again and again for as long as the loop lives. */
  void Every(std::chrono::milliseconds period, Callback callback);

  /** A timer, not yet started. The callback must not outlive what it refers to. */
  EventHandle NewTimer(bool repeating, void (*callback)(int, short, void*), void* argument);
  /** A one-time wait for a descriptor to become readable, not yet started. */
  EventHandle NewReadable(int descriptor, void (*callback)(int, short, void*), void* argument);
  static void Start(const EventHandle& timer, std::chrono::milliseconds period);
  static void Start(const EventHandle& readable);
  static bool IsStarted(const EventHandle& handle);
  static void Cancel(const EventHandle& handle);

 private:
  struct BaseDeleter {
    void operator()(event_base* base) const;
  };
  struct Permanent {
    Callback callback;
    EventHandle handle;
  };

  EventHandle New(int descriptor, int what, void (*callback)(int, short, void*), void* argument);
  Permanent& AddPermanent(Callback callback);

  std::unique_ptr<event_base, BaseDeleter> base_;
  std::vector<std::unique_ptr<Permanent>> permanents_;
  bool stopped_ = false;
};

}  // namespace featurehost
