#include "featurehost/src/MountTable.h"

#include <fstream>
#include <sstream>

namespace featurehost {

namespace {

/** The kernel's table has blanks and the like as octal escapes. */
std::string Unescape(const std::string& text) {
  constexpr int kOctal = 8;
  std::string plain;
  for (std::size_t index = 0; index < text.size(); ++index) {
    if (text[index] == '\\' && index + 3 < text.size()) {
      plain += static_cast<char>(std::stoi(text.substr(index + 1, 3), nullptr, kOctal));
      index += 3;
    } else {
      plain += text[index];
    }
  }
  return plain;
}

}  // namespace

std::vector<Mount> Mounts() {
  std::vector<Mount> mounts;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string skipped;
    std::string device;
    std::string point;
    fields >> id >> skipped >> device >> skipped >> point;
    // Optional fields follow, ended by "-"; then come the type and the source.
    while (fields >> skipped && skipped != "-") {
    }
    std::string source;
    fields >> skipped >> source;
    mounts.push_back({{id, Unescape(point)}, device, Unescape(source)});
  }
  return mounts;
}

}  // namespace featurehost
