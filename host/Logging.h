#pragma once

#include "host/Types.h"

/**
 * The host's logging facility.
 *
 * A line is opened, receives its pieces, and is committed when its line object is destroyed.
 * All of it is called on the event thread. Nothing here reports failure.
 */
namespace logging {

/** Categories of lines. They travel as strings, which the host compares by content. */
namespace categories {
constexpr const char* Error = "logging::categories::Error";
constexpr const char* Warning = "logging::categories::Warning";
constexpr const char* Info = "logging::categories::Info";
constexpr const char* Interface = "logging::categories::Interface";
/** Lines that are written whatever is enabled. */
constexpr const char* Always = "logging::categories::Always";
}  // namespace categories

/** Module names of the two components. */
constexpr const char* MainCPULoader = "logging::MainCPULoader";
constexpr const char* SWLInfra = "logging::SWLInfra";

/** Decides which lines are wanted. */
class CControl {
 public:
  virtual ~CControl() = default;

  /** Whether lines of this module and category are wanted at this moment. */
  virtual TBool IsEnabled(const char* module, const char* category) const = 0;
};

/** The host's control object. It lives as long as the process. */
CControl& IControl();

namespace internals {

/** The host's log, opaque to the module. */
class CLog;

/** The host's log object. It lives as long as the process. */
CLog& ILog();

/** One line being written. A local of the writer; it commits the line when it is destroyed. */
class CLogHandle {
 public:
  /**
   * Open a line.
   *
   * @param enabled   the control's answer for this module and category; a line that is not
   *                  enabled takes its pieces and is dropped.
   * @param function  the operation's name: the full signature for lines of category Interface.
   * @param source    path of the source file from the component root, without extension.
   * @param line      line number in that file.
   *
   * All strings must live until the line is committed.
   */
  CLogHandle(CLog& log, TBool enabled, const char* category, const char* module,
             const char* function, const char* source, TUint32 line);
  /** Commit the line. */
  ~CLogHandle();

  CLogHandle(const CLogHandle&) = delete;
  CLogHandle& operator=(const CLogHandle&) = delete;

  /** Add a NUL-terminated text, as it stands. */
  CLogHandle& operator<<(const char* text);
  CLogHandle& operator<<(const TChr* text);
  /** Add a number in decimal. */
  CLogHandle& operator<<(TInt32 number);
  CLogHandle& operator<<(TUint32 number);
  CLogHandle& operator<<(TUint8 number);

 private:
  struct CLine;
  CLine* iLine;  // owned; the host's own record of the line
};

}  // namespace internals
}  // namespace logging
