#pragma once

#include <string>
#include <vector>

#include "tests/support/TempDir.h"

namespace support {

/**
 * Shell scripts that stand in for the unit's tools: their folder is the first of PATH while the
 * object lives. Each call of one is recorded with its arguments, in order.
 */
class ScriptedTools {
 public:
  ScriptedTools();
  ~ScriptedTools();

  ScriptedTools(const ScriptedTools&) = delete;
  ScriptedTools& operator=(const ScriptedTools&) = delete;

  /** Add or replace a tool. The body is a /bin/sh script; "exit N" sets the exit code. */
  void Add(const std::string& name, const std::string& body);
  /** Leave only the scripted tools on the path, so that others are not found. */
  void HideOthers();

  /** The calls so far, each as the name and the arguments separated by blanks. */
  std::vector<std::string> Calls() const;
  void Forget();

  const std::string& Directory() const { return directory_.Path(); }
  /** Where a tool lies. */
  std::string Path(const std::string& name) const { return directory_ / name; }

 private:
  TempDir directory_;
  TempDir records_;
  std::string pathBefore_;
};

/** The text of a script that records its call in a file and goes on with the body. */
std::string RecordingScript(const std::string& name, const std::string& record,
                            const std::string& body);

}  // namespace support
