#pragma once

#include <sys/types.h>

#include "MainCPULoader/src/InputProcess.h"
#include "host/Types.h"

/**
 * Keeps a decompressor from ending before its reader has come to the last piece.
 *
 * A reader that takes the stream in pieces needs this, because CInputProcess::Read delivers only
 * once after the decompressor has ended: what that read does not take is lost, and a good stream
 * looks broken. The last piece is always taken by one read. So the decompressor must be unable to
 * write its last byte, and then end, while the reader is in an earlier piece:
 *
 * - While much is left, the pipe is far too small for the rest: KWorkingCapacity.
 * - Before the end the pipe is narrowed to one piece. The kernel refuses while the pipe holds more.
 *   It is asked again before every read; only when that has not helped for a while (the reader is
 *   the slower side) the decompressor is paused until enough was read. A stream that begins
 *   so close to its end has the narrow pipe from the start.
 * - A pipe of one piece bounds what waits, but not where it begins: of an archive with several
 *   members a last write may begin in the last but one piece and end the stream. When the last
 *   but one piece does not wait as a whole, the decompressor is paused and then let go
 *   for one write at a time until the piece is complete.
 *
 * An object lives for one step of the reader. A pause begins and ends within it: the destructor
 * lets the decompressor go on, whatever ended the step. Where the kernel does not know the calls,
 * or has pages of more than one piece, the reader works on without this protection.
 */
class CDecompressorPace {
 public:
  /** The pieces that the reader takes, in bytes: one page of the unit. */
  static constexpr TUint32 KPieceSize = 4096;
  /** The capacity of the pipe, in bytes, until the end is near. */
  static constexpr TUint32 KWorkingCapacity = 64 * 1024;

  /** The pipe's capacity to start a stream with of which total bytes will be read. */
  static int StartCapacity(unsigned long long total);

  explicit CDecompressorPace(const CInputProcess& decompressor);
  ~CDecompressorPace();

  CDecompressorPace(const CDecompressorPace&) = delete;
  CDecompressorPace& operator=(const CDecompressorPace&) = delete;

  /**
   * To be called before every read. Blocks only where the read itself would.
   *
   * @param wanted  bytes that the read asks for, all that is missing of the current piece.
   * @param inStep  bytes that are still to be read in this step, wanted included.
   * @param left    bytes that are still to be read of the stream, wanted included.
   */
  void BeforeRead(TUint32 wanted, unsigned long long inStep, unsigned long long left);

 private:
  void NarrowPipe(unsigned long long inStep, unsigned long long left);
  void GuardLastButOne(TUint32 wanted);

  void Pause();
  void LetWriteOnce();
  void Resume();
  void AwaitStop();

  void Signal(int number) const;
  void AwaitData() const;
  TUint32 Waiting() const;

  int iReadEnd;
  pid_t iProcessId;
  enum { EWide, ENarrow, EUnknown } iPipe = EWide;
  bool iPaused = false;           // the decompressor is stopped, by us
  bool iStopsAfterWrite = false;  // the kernel stops it again when it has written
};
