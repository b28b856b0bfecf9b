#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/Types.h"

namespace featurehost {

/** What a log shows; each level includes those before it. */
enum class Level { kError, kWarning, kInfo, kInterface };

/** The level of a name as the command line takes it, if it is one. */
std::optional<Level> LevelOf(const std::string& name);

/**
 * The log of this process: lines of the module and of the host, on standard error and, if wanted,
 * in a file. One line of text for each: time, level, module, function, source and line, message.
 */
class Log {
 public:
  static Log& Instance();

  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  void SetLevel(Level level);
  /** Standard error gets nothing but errors; a file still gets its level. */
  void SetQuiet(bool quiet) { quiet_ = quiet; }
  /** Append to a file from now on. Throws HostError when it cannot be opened. */
  void OpenFile(const std::string& path);
  void CloseFile();

  /** Where standard error is from now on; stays the caller's. */
  void SetStandardError(int descriptor);
  /** Called around every line on standard error, to keep a progress bar out of its way. */
  void SetAround(std::function<void()> before, std::function<void()> after);

  /** Whether any place shows lines of a category of the contract. */
  bool IsEnabled(const std::string& category) const;
  /** Write a line where its category is shown. Control characters are shown as escapes. */
  void Write(const std::string& category, const std::string& module, const std::string& function,
             const std::string& source, TUint32 line, const std::string& message);

  /** A line of the host itself. */
  void Host(Level level, const std::string& function, const std::string& message);

 private:
  struct Sinks;

  Log();
  ~Log();

  bool ShownOnStandardError(const std::string& category) const;
  bool ShownInFile(const std::string& category) const;
  void Print(const std::string& category, const std::string& text);

  std::unique_ptr<Sinks> sinks_;
  Level level_ = Level::kWarning;
  bool quiet_ = false;
  std::function<void()> before_;
  std::function<void()> after_;
};

}  // namespace featurehost
