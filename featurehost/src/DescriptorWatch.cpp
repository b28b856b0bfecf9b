#include "featurehost/src/DescriptorWatch.h"

#include <cerrno>
#include <fcntl.h>
#include <utility>

#include "featurehost/src/Log.h"

namespace featurehost {

DescriptorWatch::DescriptorWatch(EventLoop& loop, int descriptor, std::function<void()> onReady)
    : descriptor_(descriptor), onReady_(std::move(onReady)), pace_(descriptor) {
  readable_ = loop.NewReadable(
      descriptor, [](int, short, void* watch) { static_cast<DescriptorWatch*>(watch)->Ready(); },
      this);
  pause_ = loop.NewTimer(
      false, [](int, short, void* watch) { static_cast<DescriptorWatch*>(watch)->Resume(); }, this);
  Resume();
}

void DescriptorWatch::TurnIsOver() {
  const auto pause = pace_.AfterTurn();
  if (pause.count() == 0) {
    Resume();
  } else {
    EventLoop::Start(pause_, pause);
  }
}

void DescriptorWatch::LookAgain() {
  if (EventLoop::IsStarted(pause_) && pace_.MovedSince()) {
    EventLoop::Cancel(pause_);
    Resume();
  }
}

void DescriptorWatch::Ready() {
  pace_.BeforeTurn();
  const auto onReady = onReady_;  // outlives this object, which may end in the call
  onReady();
}

void DescriptorWatch::Resume() {
  if (fcntl(descriptor_, F_GETFD) == -1) {
    Log::Instance().Host(Level::kError, "Subscribe",
                         "descriptor " + std::to_string(descriptor_) +
                             " is not open; its subscription stays silent");
    return;
  }
  EventLoop::Start(readable_);
}

}  // namespace featurehost
