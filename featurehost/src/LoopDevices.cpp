#include "featurehost/src/LoopDevices.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "featurehost/src/Paths.h"
#include "featurehost/src/WaitUntil.h"

namespace featurehost {

namespace {

std::string FirstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

}  // namespace

std::vector<LoopDevice> LoopDevices() {
  std::vector<LoopDevice> loops;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/block", error)) {
    const std::string name = entry.path().filename();
    const std::string file = FirstLine(ReadText(entry.path() / "loop/backing_file"));
    if (!file.empty()) {
      loops.push_back({"/dev/" + name, FirstLine(ReadText(entry.path() / "dev")), file});
    }
  }
  return loops;
}

bool IsAttached(const LoopDevice& loop) {
  const auto loops = LoopDevices();
  return std::find(loops.begin(), loops.end(), loop) != loops.end();
}

int Detach(const LoopDevice& loop) {
  const int node = open(loop.node.c_str(), O_RDONLY | O_CLOEXEC);
  if (node == -1) {
    return errno;
  }
  // As long as the node is open, nobody else can be given the device.
  const bool failed = IsAttached(loop) && ioctl(node, LOOP_CLR_FD) != 0 && errno != ENXIO;
  const int error = failed ? errno : 0;
  close(node);
  if (error != 0) {
    return error;
  }
  return WaitUntil([&loop] { return !IsAttached(loop); }) ? 0 : EBUSY;
}

}  // namespace featurehost
