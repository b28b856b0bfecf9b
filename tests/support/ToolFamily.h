#pragma once

#include <array>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <string>

#include "tests/support/ScriptedTools.h"

namespace support {

/** Whose dd and zcat are first on the path. */
enum class ToolFamily { KGnu, KBusyBox };

inline std::ostream& operator<<(std::ostream& stream, ToolFamily family) {
  return stream << (family == ToolFamily::KGnu ? "Gnu" : "BusyBox");
}

inline std::string FirstLineOf(const std::string& command) {
  std::string line;
  // NOLINTNEXTLINE(cert-env33-c)
  if (FILE* output = popen(command.c_str(), "r")) {
    std::array<char, 256> buffer{};
    if (std::fgets(buffer.data(), buffer.size(), output) != nullptr) {
      line = buffer.data();
    }
    pclose(output);
  }
  return line;
}

/**
 * Put the family's dd and zcat into the folder of the scripted tools.
 *
 * @return empty on success, otherwise why it is not possible, for GTEST_SKIP.
 */
inline std::string UseTools(ToolFamily family, const ScriptedTools& tools) {
  if (family == ToolFamily::KGnu) {
    const bool there = FirstLineOf("dd --version 2>&1").find("coreutils") != std::string::npos &&
                       FirstLineOf("zcat --version 2>&1").find("gzip") != std::string::npos;
    return there ? "" : "dd and zcat on the path are not those of GNU";
  }
  std::string busybox = FirstLineOf("command -v busybox");
  if (busybox.empty()) {
    return "busybox is not installed";
  }
  busybox.pop_back();
  for (const char* name : {"dd", "zcat"}) {
    std::filesystem::create_symlink(busybox, tools.Path(name));
  }
  return "";
}

}  // namespace support
