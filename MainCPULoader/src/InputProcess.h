#pragma once

#include <sys/types.h>

#include "host/Types.h"

/**
 * A decompressor child, "/bin/zcat" on one file, and the pipe that its output comes through.
 *
 * Owns the child and the pipe's read end; both end with the object. It sends the child no signal
 * (CDecompressorPace may, for a reader that needs it): the child ends when it has written
 * everything, or when the read end is closed.
 */
class CInputProcess {
 public:
  CInputProcess() = default;

  CInputProcess(const CInputProcess&) = delete;
  CInputProcess& operator=(const CInputProcess&) = delete;

  /**
   * Start the decompressor. Meant to be called once.
   *
   * When the program cannot be run, the call also returns in the child, with false: the host
   * must end such a copy of itself.
   *
   * @param file  path of the compressed file.
   * @return whether a child was started; not whether the file can be decompressed.
   */
  virtual bool Create(const TChr* file);

  /**
   * Read decompressed bytes; blocks until some have arrived.
   *
   * The child is looked at before every read, and reaping it ends the reading: after a call that
   * found it finished with success, every further call fails, even with data left in
   * the pipe. So the pipe must never hold more than one read takes; see SetCapacity.
   *
   * @return the number of bytes, 0 at the end of the stream, -1 on failure.
   */
  virtual int Read(char* buffer, int length);

  /** Closes the pipe and waits for the child, without a time limit. */
  virtual ~CInputProcess();

  /**
   * Set the pipe's capacity in bytes, to be called before Create; 0 keeps the system's default.
   * The kernel rounds it up to a power-of-two number of pages, and may refuse, which is ignored.
   */
  void SetCapacity(int bytes) { iCapacity = bytes; }

  /** The pipe's read end, or -1, for whoever paces the child (CDecompressorPace), not to read. */
  int ReadEnd() const { return iPipe[0]; }
  /** The child, for the same, not to reap; 0 before Create, -1 after a failed fork. */
  pid_t ProcessId() const { return iProcessId; }

 private:
  bool ChildAllowsReading();

  int iPipe[2] = {-1, -1};  // the read end is ours, the write end the child's
  pid_t iProcessId = 0;     // 0 before Create, -1 after a failed fork
  int iCapacity = 0;
  bool iReaped = false;  // the id may be another child's by now
};
