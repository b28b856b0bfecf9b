#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

/** As much of an event loop as is measured. One program for each library implements it. */
class Loop {
 public:
  using Callback = std::function<void()>;

  virtual ~Loop() = default;

  /** Call whenever the descriptor is readable. False when the library refuses it. */
  virtual bool OnReadable(int descriptor, Callback callback) = 0;
  /** Call once, so many milliseconds from now. */
  virtual void After(unsigned milliseconds, Callback callback) = 0;
  /** Have the library start or watch a child that ends at once. False when it cannot do that. */
  virtual bool WatchAChild() = 0;
  virtual void Run() = 0;
  virtual void Stop() = 0;
};

/** A loop, set up in one way, by the name under which it is reported. */
struct LoopKind {
  std::string name;
  std::function<std::unique_ptr<Loop>()> make;
};

/** What the program of a library measures. */
std::vector<LoopKind> LoopKinds();

/** A child that ends at once; not the caller's to wait for. */
int StartChild();
