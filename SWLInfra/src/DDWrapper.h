#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <sys/types.h>

#include "host/Types.h"

/** Why WaitForCompletion is called. */
enum TDDWrapperEvent {
  EDDTimerTick = 1,    ///< the polling timer has fired
  EDDOutputReady = 2,  ///< the progress descriptor is readable
};

/** How a copy stands. */
enum TDDWrapperResult {
  EDDCompleted = 0,  ///< from Start: the copy runs; otherwise: both children ended with 0
  EDDRunning = 1,    ///< still copying
  EDDAborted = 2,    ///< what Abort returns
  EDDFailed = 3,     ///< bad arguments, a system call failed, or a child ended badly
};

/**
 * Writes a gzip-compressed image to a device with `zcat SOURCE | dd of=TARGET [bs=SIZE]`, as two
 * child processes, and asks dd how far it has got.
 *
 * Passive: Start says which descriptor to watch and how often to call, and the owner calls
 * WaitForCompletion for every such event. All calls are made on the event thread; none of them
 * blocks while the copy runs. Nothing is logged.
 */
class IDDWrapper {
 public:
  virtual ~IDDWrapper() = default;

  /**
   * Start the copy. A wrapper runs one copy at a time, and none after an Abort that ended one.
   *
   * @param source      path of the compressed image.
   * @param target      the device or file to write.
   * @param blockSize   a block size as dd takes it, handed on unchanged; null or empty for none.
   * @param descriptor  receives the descriptor to watch for readability. It stays the wrapper's,
   *                    and is closed when the copy ends. -1 on failure.
   * @param period      receives the period in milliseconds in which to report EDDTimerTick.
   *                    0 on failure, except when the descriptor could not be made a stream.
   * @return EDDCompleted when both children run, otherwise EDDFailed.
   */
  virtual TDDWrapperResult Start(unsigned char* source, unsigned char* target,
                                 unsigned char* blockSize, int& descriptor, unsigned& period) = 0;

  /**
   * One step: collect the children that have ended, ask dd how far it is, or read its answer.
   * Blocks only to collect a child that is known to be ending.
   *
   * @param bytesProcessed  receives the number of bytes written, as last reported by dd.
   * @return EDDRunning, or the outcome; once that has been told, EDDFailed.
   */
  virtual TDDWrapperResult WaitForCompletion(TDDWrapperEvent event, unsigned& bytesProcessed) = 0;

  /**
   * Stop: both children have ended when the call returns. Legal at any time. Waits while a child
   * finishes, and kills one that does not obey within seconds.
   *
   * @return EDDAborted
   */
  virtual TDDWrapperResult Abort() = 0;

  /** Abort and delete this object. */
  virtual void Destroy() = 0;

  /** A new wrapper, which ends with Destroy; null when there is no memory. */
  static IDDWrapper* Create();
};

/**
 * The wrapper. Owns the two children and the read end of the pipe that dd's messages come
 * through; all end with the copy, with Abort, or with the object.
 */
class CDDWrapper : public IDDWrapper {
 public:
  CDDWrapper() = default;
  ~CDDWrapper() override;

  CDDWrapper(const CDDWrapper&) = delete;
  CDDWrapper& operator=(const CDDWrapper&) = delete;

  static void* operator new(std::size_t size) noexcept { return std::malloc(size); }
  static void operator delete(void* memory) { std::free(memory); }

  TDDWrapperResult Start(unsigned char* source, unsigned char* target, unsigned char* blockSize,
                         int& descriptor, unsigned& period) override;
  TDDWrapperResult WaitForCompletion(TDDWrapperEvent event, unsigned& bytesProcessed) override;
  TDDWrapperResult Abort() override;
  void Destroy() override;

  /** EDDCompleted when both texts are there and not empty, otherwise EDDFailed. */
  static TDDWrapperResult CheckParameters(const unsigned char* source, const unsigned char* target);

  /**
   * How many bytes a record of dd is taken to have: a number (1 when there is none) and a suffix
   * in either case, multiplied in 32 bits, which wraps. 512 for everything else, a bare
   * number among it.
   */
  static unsigned BlockSizeInBytes(const unsigned char* text);

  /**
   * Start a program found through PATH.
   *
   * @param arg2     null for none.
   * @param stdinFd, stdoutFd, stderrFd  what becomes the child's standard streams; -1 leaves the
   *                 host's. They stay the caller's.
   * @param closeFd  a descriptor that the child must not keep; -1 for none.
   * @return the child's id; -1 when there is none or when it has already ended badly, which is how
   *         a program that cannot be run shows.
   */
  static int ProcessCreate(const char* file, const char* arg1, const char* arg2, int stdinFd,
                           int stdoutFd, int stderrFd, int closeFd);

 private:
  bool StartChildren(const unsigned char* source, const char* ofArgument, const char* bsArgument);
  bool OpenProgressStream();
  void CloseProgress();

  TDDWrapperResult ReapChildren();
  bool Reap(pid_t& process, int options, TDDWrapperResult& result) const;

  void ReadAnswer();
  bool ReadLine();
  void AskForProgress();

  pid_t iDDProcess = -1;
  pid_t iZcatProcess = -1;
  int iProgressDescriptor = -1;  // belongs to the stream once there is one
  FILE* iProgressStream = nullptr;
  TBool iMaySignal = EFalse;
  TUint32 iGrace = 0;  // spent on the first tick, see AskForProgress
  TUint32 iBytesProcessed = 0;
  TUint32 iBlockSize = 512;

  bool iChildrenAborted = false;  // the ids above are those of children that Abort has reaped
  bool iHasFirstLine = false;     // of the two lines of an answer
  char iLine[256] = {};
  std::size_t iLineLength = 0;  // of a line that has arrived in part
};
