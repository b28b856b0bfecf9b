#pragma once

#include <string>

#include "host/Types.h"

/**
 * A path, as the host's file utilities take it: an own copy of a NUL-terminated byte string.
 * A null path is reported in the host's log and becomes the empty path, which names no file.
 */
class Tdes {
 public:
  explicit Tdes(const TChr* path);

  /** The path, NUL-terminated; valid as long as this object. */
  const char* Text() const;

 private:
  std::string iText;
};

/**
 * The host's operations on single files and folders. Called on the event thread; they block
 * for as long as the file system takes. Symbolic links are followed, except by removal and move.
 */
class FileSystemUtils {
 public:
  FileSystemUtils() = delete;

  /** ETrue (exactly 1) when the path names something that exists, of whatever kind. */
  static TBool InternalFileExists(const Tdes& path);
  /** ETrue when the path names a folder. */
  static TBool DirectoryExists(const Tdes& path);
  /** ETrue when the process may write to the file. */
  static TBool FileWritePerm(const Tdes& path);

  /** Create one folder (not its parents). 0 on success, otherwise the errno value. */
  static int CreateDirectory(const Tdes& path);
  /** Remove one file. 0 on success, otherwise the errno value. */
  static int InternalRemoveFile(const Tdes& path);
  /**
   * Move a file, replacing the destination; across file systems by copy and removal.
   * 0 on success, otherwise the errno value, and the source still exists.
   */
  static int InternalMoveFile(const Tdes& from, const Tdes& to);
  /**
   * Copy content and mode of a file, replacing the destination.
   * 0 on success, otherwise the errno value; a partial copy is removed.
   */
  static int InternalCopyFile(const Tdes& from, const Tdes& to);
};

/**
 * The host's memory of which files exist, one for the process. Whoever moves, replaces or
 * removes a file without it drops the paths concerned, or later answers are stale.
 */
class CFileExistsCache {
 public:
  /** The one instance; it lives as long as the process and is never the caller's to delete. */
  static CFileExistsCache* FileExistsCacheInstance();

  /** ETrue (exactly 1) when the file exists, from memory where it is remembered. */
  TBool FileExists(const Tdes& path);

  /**
   * Forget what is known of a path; the file itself is not touched.
   *
   * @param removed  receives 1 when something was remembered, 0 otherwise.
   */
  void RemoveFile(const Tdes& path, int& removed);

 private:
  CFileExistsCache() = default;
};
