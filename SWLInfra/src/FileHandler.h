#pragma once

#include <cstddef>
#include <cstdio>

#include "host/Types.h"

/**
 * Files and file systems for the loaders. Static operations, no state.
 *
 * Called on the host's event thread, which they block for as long as the file system, the tools
 * and the pauses between attempts take. Nothing throws: failures are results, and lines in the log.
 *
 * Paths and devices are NUL-terminated. Operations on single files hand a null path on to the
 * host, which reports it; the operations that run commands need paths that are not null. Commands
 * go through the shell and paths become part of them as they stand: blanks and characters that
 * mean something to the shell keep their meaning there. A command of more than 509 bytes is never
 * run: the operation logs an error and fails with EFileHndlFailed.
 */
class IFileHandler {
 public:
  enum TFileHndlError : TInt32 {
    EFileHndlOk = 0,
    EFileHndlFailed = 1,
    EFileHndlNotFound = 2,
    EFileHndlNoWritePerm = 3,
    EFileHndlReserved4 = 4,  ///< no operation returns it, nor the next two
    EFileHndlReserved5 = 5,
    EFileHndlReserved6 = 6,
    EFileHndlSyncFailed = 7,
  };

  /** What is on a device. Every other value is treated as EFormatFAT. */
  enum TFileSystemFormat : TInt32 {
    EFormatFAT = 0,
    EFormatEXT3 = 1,          ///< with full data journalling
    EFormatEXT2 = 2,          ///< on a block device
    EFormatEXT2Loopback = 3,  ///< an image file, mounted through a loop device
  };

  /** Attempts of a mount, and of an unmount in each of its two phases. */
  static constexpr TUint8 iKnumberRetriesMount = 3;
  /** Pause after a failed attempt, as platSleep takes it (microseconds). */
  static constexpr TUint32 iKWaitBeforeRetry = 500000;
  /** Digits of the largest amount of space that AvailableSpace reads. */
  static constexpr TUint32 iKMaxDecimalDigitsUint32 = 10;

  IFileHandler() = delete;

  // The standard stdio functions of these names, with the same arguments and results.
  static FILE* FOpen(const char* aPath, const char* aMode);
  static std::size_t FRead(void* aBuf, std::size_t aSize, std::size_t aCount, FILE* aFile);
  static std::size_t FWrite(const void* aBuf, std::size_t aSize, std::size_t aCount, FILE* aFile);
  static char* FGets(char* aBuf, int aSize, FILE* aFile);
  static int FSeek(FILE* aFile, long aOffset, int aWhence);
  static int FEof(FILE* aFile);
  static int FClose(FILE* aFile);

  /** @return EFileHndlOk when the path names anything, otherwise EFileHndlNotFound. */
  static TFileHndlError FileExists(const TChr* aPath);
  /** @return EFileHndlOk when the path names a folder, otherwise EFileHndlNotFound. */
  static TFileHndlError FolderExists(const TChr* aPath);
  /** @return EFileHndlOk when the file may be written, otherwise EFileHndlNoWritePerm. */
  static TFileHndlError FileWritePerm(const TChr* aPath);

  /** Create one folder, not its parents. @return EFileHndlOk or EFileHndlFailed. */
  static TFileHndlError MakeFolder(const TChr* aPath);
  /** Remove one file. @return EFileHndlOk, EFileHndlNotFound or EFileHndlFailed. */
  static TFileHndlError RemoveFile(const TChr* aPath);
  /** Move one file over the destination. @return as RemoveFile. */
  static TFileHndlError MoveFile(const TChr* aFrom, const TChr* aTo);
  /** Copy one file over the destination. @return as RemoveFile. */
  static TFileHndlError CopyFile(const TChr* aFrom, const TChr* aTo);

  /**
   * Size of a file in bytes; -1 when the file is unknown, cannot be opened, or has a size that a
   * long cannot hold (2 GiB and more on a 32-bit machine).
   */
  static long FileSize(const TChr* aPath);

  /** Flush all file systems. @return EFileHndlOk or EFileHndlSyncFailed. */
  static TFileHndlError Sync();
  /** Remove a folder and all that it holds; one that is not there is no failure. */
  static TFileHndlError RemoveFolder(const TChr* aFolder);

  /**
   * Mount a device, in up to three attempts with a pause after each that fails.
   *
   * @param aRemount  true changes the options of a mount that is there already.
   * @return EFileHndlOk, or EFileHndlFailed when every attempt failed.
   */
  static TFileHndlError Mount(const TChr* aDevice, const TChr* aMountPoint, TBool aRemount,
                              TFileSystemFormat aFormat);
  /** A first mount: Mount with aRemount false. */
  static TFileHndlError Mount(const TChr* aDevice, const TChr* aMountPoint,
                              TFileSystemFormat aFormat);
  /** Mount with aRemount true. */
  static TFileHndlError ReMount(const TChr* aDevice, const TChr* aMountPoint,
                                TFileSystemFormat aFormat);

  /**
   * Unmount, in up to three attempts and then up to three lazy ones, with a flush and a pause after
   * each that fails.
   *
   * @return EFileHndlOk, also when no attempt succeeded. EFileHndlFailed only when a command was
   *         too long to be run.
   */
  static TFileHndlError Umount(const TChr* aMountPoint);

  /**
   * Make a fresh file system and mount it. What is on the device is lost; a mount point that cannot
   * be unmounted before does not stop it.
   *
   * @return EFileHndlOk, or EFileHndlFailed when it was not made or could not be mounted.
   */
  static TFileHndlError Format(const TChr* aDevice, const TChr* aMountPoint,
                               TFileSystemFormat aFormat);

  /**
   * Unmount a file system, check and repair it, and mount it again.
   *
   * @return EFileHndlOk; EFileHndlFailed when the checker did not end with 0 (the file system
   *         stays unmounted, also when all that it found was corrected) or the mount failed.
   */
  static TFileHndlError CheckFS(const TChr* aDevice, const TChr* aMountPoint,
                                TFileSystemFormat aFormat);

  /**
   * Free space of a mounted file system as df prints it, in 1024-byte blocks.
   *
   * Goes through the file "/tmp/CalculateDiskSpace": one call at a time on a machine.
   *
   * @param aMountPoint  a grep pattern for the line of df, such as a mount point or a device.
   * @param aAvailable   receives the number; 0 when df's text is not one; untouched when
   *                     df shows no such line.
   * @return EFileHndlSyncFailed when the flush before it failed, otherwise only whether the file
   *         could be removed. The log tells what else went wrong.
   */
  static TFileHndlError AvailableSpace(const TChr* aMountPoint, TUint32* aAvailable);
};
