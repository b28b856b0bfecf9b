#include "featurehost/src/WriteAll.h"

#include <cerrno>
#include <unistd.h>

namespace featurehost {

int WriteAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written == -1 && errno != EINTR) {
      return errno;
    }
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  return 0;
}

}  // namespace featurehost
