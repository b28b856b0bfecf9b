#pragma once

#include <string>
#include <vector>

namespace featurehost {

/** A loop device with a file attached. */
struct LoopDevice {
  std::string node;    ///< "/dev/loop0"
  std::string device;  ///< major and minor number, "7:0"
  std::string file;    ///< path of the attached file, as whoever attached it saw it
};

inline bool operator==(const LoopDevice& left, const LoopDevice& right) {
  return left.device == right.device && left.file == right.file;
}

/** All that are attached. */
std::vector<LoopDevice> LoopDevices();

bool IsAttached(const LoopDevice& loop);

/** Whether the attached file is the one that has its path here, and not in some other namespace. */
bool HasFileFromHere(const LoopDevice& loop);

/** Let go of the file, if it is still that one. @return 0, or an errno value. */
int Detach(const LoopDevice& loop);

}  // namespace featurehost
