#include "featurehost/src/LoopDevices.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "featurehost/src/Paths.h"
#include "featurehost/src/WaitUntil.h"

namespace featurehost {

namespace {

std::string FirstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

/** A device number as the kernel tells it in the status of a loop device. */
unsigned long long EncodedDevice(dev_t device) {
  constexpr unsigned kLowMinor = 0xff;
  constexpr unsigned kMajorShift = 8;
  constexpr unsigned kHighMinorShift = 12;
  const unsigned minorNumber = minor(device);
  return (minorNumber & kLowMinor) | (major(device) << kMajorShift) |
         ((minorNumber & ~kLowMinor) << kHighMinorShift);
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

bool HasFileFromHere(const LoopDevice& loop) {
  const int node = open(loop.node.c_str(), O_RDONLY | O_CLOEXEC);
  loop_info64 info{};
  struct stat file {};
  const bool isKnown = node != -1 && ioctl(node, LOOP_GET_STATUS64, &info) == 0 &&
                       stat(loop.file.c_str(), &file) == 0;
  if (node != -1) {
    close(node);
  }
  return isKnown && info.lo_inode == file.st_ino && info.lo_device == EncodedDevice(file.st_dev);
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
