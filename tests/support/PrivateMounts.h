#pragma once

#include <string>

#include "tests/support/TempDir.h"

namespace support {

/**
 * Move this process into a mount namespace of its own (with a user namespace when it is not root),
 * so that tools with absolute paths can be covered. Done once for the process.
 *
 * @return empty on success, otherwise why it is not possible, for GTEST_SKIP.
 */
std::string EnterPrivateMounts();

/**
 * A file that covers a tool at an absolute path, such as "/bin/zcat", for this process and its
 * children. Needs EnterPrivateMounts. Ends with the object.
 */
class CoveredTool {
 public:
  /** @param body  a /bin/sh script. */
  CoveredTool(const std::string& path, const std::string& body);
  /** Cover it with another program, which is found by its absolute path. */
  static CoveredTool WithProgram(const std::string& path, const std::string& program) {
    return {path, program, ProgramTag{}};
  }
  ~CoveredTool();

  CoveredTool(const CoveredTool&) = delete;
  CoveredTool& operator=(const CoveredTool&) = delete;

  /** Cover it with a file that cannot be executed: exec fails. */
  static std::string NotExecutable() { return ""; }

 private:
  struct ProgramTag {};
  CoveredTool(const std::string& path, const std::string& program, ProgramTag /*unused*/);

  void Cover(const std::string& program);

  TempDir directory_;
  std::string target_;
};

}  // namespace support
