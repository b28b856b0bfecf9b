#pragma once

#include <sys/types.h>

#include "host/Types.h"

/**
 * An unpacker child, "/bin/tar" extracting into one folder, and the pipe that feeds it.
 *
 * Owns the child and the pipe's write end; both end with the object.
 */
class CArchiveLoaderOutputProcess {
 public:
  CArchiveLoaderOutputProcess() = default;

  CArchiveLoaderOutputProcess(const CArchiveLoaderOutputProcess&) = delete;
  CArchiveLoaderOutputProcess& operator=(const CArchiveLoaderOutputProcess&) = delete;

  /**
   * Start the unpacker. Meant to be called once.
   *
   * When the program cannot be run, the call also returns in the child, with false: the host
   * must end such a copy of itself.
   *
   * @param directory  the folder to unpack into.
   * @return whether a child was started; not whether it can unpack.
   */
  virtual bool Create(const TChr* directory);

  /**
   * Write a piece of the tar stream; blocks until the child has taken all of it.
   *
   * A child that has gone makes the write fail; the host never gets a SIGPIPE.
   *
   * @return false on failure.
   */
  virtual bool Write(const char* buffer, int length);

  /** Closes the pipe, upon which the child finishes, and waits for it, without a time limit. */
  virtual ~CArchiveLoaderOutputProcess();

  /**
   * Set the pipe's capacity in bytes, to be called before Create; 0 keeps the system's default.
   * The kernel rounds it up to a power-of-two number of pages, and may refuse, which is ignored.
   */
  void SetCapacity(int bytes) { iCapacity = bytes; }

 private:
  int iPipe[2] = {-1, -1};  // the read end is the child's, the write end ours
  pid_t iProcessId = 0;     // 0 before Create, -1 after a failed fork
  int iCapacity = 0;
};
