#pragma once

#include <string>

namespace featurehost {

/**
 * What the tools and the module print, kept until it can be shown without spoiling the progress
 * bar. It is kept in memory rather than in a pipe: a tool that the host waits for must never wait
 * for the host to read.
 *
 * Made before the run's process is, so that what a crash leaves unread can still be shown.
 */
class ToolOutput {
 public:
  ToolOutput() = default;
  ~ToolOutput();

  ToolOutput(const ToolOutput&) = delete;
  ToolOutput& operator=(const ToolOutput&) = delete;

  /** @return false when the system offers no memory for it; nothing is kept then. */
  bool Open();

  /** Turn standard output and error of this process and its children to the memory, and back. */
  void Divert();
  void Restore();
  /** Standard error as it was before Divert. */
  int StandardError() const { return standardError_; }

  /** The lines printed since the last call; an unfinished line waits for its end. */
  std::string TakeLines();
  /** Everything printed since, the last line ended. */
  std::string TakeRest();

 private:
  std::string Take() const;

  int writer_ = -1;
  int reader_ = -1;  // its file position, shared with forked processes, tells what was taken
  int standardOutput_ = -1;
  int standardError_ = -1;
};

}  // namespace featurehost
