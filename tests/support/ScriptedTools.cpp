#include "tests/support/ScriptedTools.h"

#include <filesystem>
#include <fstream>
#include <stdlib.h>
#include <sys/stat.h>

namespace support {

std::string RecordingScript(const std::string& name, const std::string& record,
                            const std::string& body) {
  return "#!/bin/sh\necho \"" + name + "${*:+ $*}\" >> '" + record + "'\n" + body + "\n";
}

ScriptedTools::ScriptedTools() {
  const char* path = getenv("PATH");
  pathBefore_ = path == nullptr ? "" : path;
  setenv("PATH", (directory_.Path() + ":" + pathBefore_).c_str(), 1);
}

ScriptedTools::~ScriptedTools() {
  setenv("PATH", pathBefore_.c_str(), 1);
}

void ScriptedTools::Add(const std::string& name, const std::string& body) {
  // Written beside and renamed: a script that is running may be replaced.
  const std::string fresh = records_ / name;
  WriteFile(fresh, RecordingScript(name, records_ / "calls", body));
  chmod(fresh.c_str(), 0755);
  std::filesystem::rename(fresh, Path(name));
}

void ScriptedTools::HideOthers() {
  setenv("PATH", directory_.Path().c_str(), 1);
}

std::vector<std::string> ScriptedTools::Calls() const {
  std::vector<std::string> calls;
  std::ifstream record(records_ / "calls");
  for (std::string line; std::getline(record, line);) {
    calls.push_back(line);
  }
  return calls;
}

void ScriptedTools::Forget() {
  std::filesystem::remove(records_ / "calls");
}

}  // namespace support
