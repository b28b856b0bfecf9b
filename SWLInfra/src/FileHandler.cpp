#include "SWLInfra/src/FileHandler.h"

#include <cstring>
#include <iterator>
#include <string>

#include "SWLInfra/src/CmdHandler.h"
#include "SWLInfra/src/CommandLine.h"
#include "SWLInfra/src/Log.h"
#include "SWLInfra/src/Text.h"
#include "host/FileSystemUtils.h"
#include "host/Platform.h"

namespace {

constexpr CLog KLog(logging::SWLInfra, "SWLInfra/src/FileHandler");

/** How a kind of file system is mounted, made and checked. The commands end with the device. */
struct TFileSystem {
  const char* iLogLine;
  const char* iMountOptions;
  const char* iMake;
  const char* iTune;  // run once made; null for none
  const char* iCheck;
  bool iCheckAgain;  // after result 1
};

// In the order of TFileSystemFormat. A loop-mounted image is made and checked as FAT although it is
// mounted as ext2: odd, and kept as units have always done it.
constexpr TFileSystem KFileSystems[] = {
    {"Trying to mount as FAT", " -t vfat -o rw,noexec,noatime,nodev,nosuid",
     "mkdosfs -F32 -I -a256 ", nullptr, "dosfsck -a -w -v ", true},
    {"Trying to mount as EXT3",
     " -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600",
     "mkfs.ext3 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 "
     "-J size=50 -m 0 -I 128 ",
     "tune2fs -i 0d -c 112 -o journal_data ", "e2fsck -p -f ", false},
    {"Trying to mount as EXT2", " -t ext2 -o rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600",
     "mkfs.ext2 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 ",
     nullptr, "e2fsck -p -f ", false},
    {"Trying to mount as EXT2 loopback", " -t ext2 -o loop,exec,noatime,nosuid,nodev",
     "mkdosfs -F32 -I -a256 ", nullptr, "dosfsck -a -w -v ", true},
};

const TFileSystem& FileSystemOf(IFileHandler::TFileSystemFormat format) {
  const auto row = static_cast<std::size_t>(format);
  return row < std::size(KFileSystems) ? KFileSystems[row] : KFileSystems[0];
}

constexpr char KSpaceFile[] = "/tmp/CalculateDiskSpace";

/** Result of a command that was not run; exit codes are not negative. */
constexpr int KNotRun = -1;

const char* Chars(const TChr* text) {
  return reinterpret_cast<const char*>(text);
}

/** Whether a command may be run; logs an error when not. */
bool IsWhole(const CCommandLine& command, CLog::TSite site) {
  if (!command.Fits()) {
    KLog.Error(site, site.iFunction, ": command too long, not run. Length : ", command.Length());
  }
  return command.Fits();
}

int Run(const CCommandLine& command, CLog::TSite site) {
  return IsWhole(command, site) ? ICmdHandler::SystemCmd(command.Text()) : KNotRun;
}

IFileHandler::TFileHndlError OkOrFailed(int result) {
  return result == 0 ? IFileHandler::EFileHndlOk : IFileHandler::EFileHndlFailed;
}

CFileExistsCache& Cache() {
  return *CFileExistsCache::FileExistsCacheInstance();
}

// Only this answer stands for a file that is there; other non-zero ones do not.
constexpr TBool KIsThere = 1;

bool IsRemembered(const TChr* path) {
  return Cache().FileExists(Tdes(path)) == KIsThere;
}

void Forget(const TChr* path) {
  int removed = 0;
  Cache().RemoveFile(Tdes(path), removed);
}

int MakeFileSystem(const TChr* device, const TFileSystem& fileSystem) {
  const int result = Run(CCommandLine(fileSystem.iMake, device), "Format");
  if (result != 0 || fileSystem.iTune == nullptr) {
    return result;
  }
  return Run(CCommandLine(fileSystem.iTune, device), "Format");
}

int CheckFileSystem(const TChr* device, const TFileSystem& fileSystem) {
  const CCommandLine command(fileSystem.iCheck, device);
  const int result = Run(command, "CheckFS");
  if (result != 1 || !fileSystem.iCheckAgain) {
    return result;
  }

  KLog.Info("CheckFS", "------> Recoverable errors have been detected <------");
  KLog.Info("CheckFS", "------> or dosfsck has discovered an internal inconsistency. <------");
  KLog.Info("CheckFS", "------> Checking FAT-Movinand again... <------");
  return Run(command, "CheckFS");
}

/** The fourth field of df's line, stored as a number. */
void ReadAvailableSpace(FILE* file, TUint32& available) {
  char token[IFileHandler::iKMaxDecimalDigitsUint32 + 1] = {};
  static_assert(sizeof token == 11, "the width in the pattern is one less");
  // A field that is not there leaves the token empty, which is reported below.
  static_cast<void>(std::fscanf(file, "%*s %*s %*s %10s", token));

  available = static_cast<TUint32>(DecimalInt32(token));
  if (available == 0 && std::strcmp(token, "0") != 0) {
    KLog.Error("AvailableSpace", "The value was not a number. String : ", token,
               ". Length : ", static_cast<TUint8>(std::strlen(token)));
  }
}

}  // namespace

FILE* IFileHandler::FOpen(const char* aPath, const char* aMode) {
  return std::fopen(aPath, aMode);
}

std::size_t IFileHandler::FRead(void* aBuf, std::size_t aSize, std::size_t aCount, FILE* aFile) {
  return std::fread(aBuf, aSize, aCount, aFile);
}

std::size_t IFileHandler::FWrite(const void* aBuf, std::size_t aSize, std::size_t aCount,
                                 FILE* aFile) {
  return std::fwrite(aBuf, aSize, aCount, aFile);
}

char* IFileHandler::FGets(char* aBuf, int aSize, FILE* aFile) {
  return std::fgets(aBuf, aSize, aFile);
}

int IFileHandler::FSeek(FILE* aFile, long aOffset, int aWhence) {
  return std::fseek(aFile, aOffset, aWhence);
}

int IFileHandler::FEof(FILE* aFile) {
  return std::feof(aFile);
}

int IFileHandler::FClose(FILE* aFile) {
  return std::fclose(aFile);
}

IFileHandler::TFileHndlError IFileHandler::FileExists(const TChr* aPath) {
  return FileSystemUtils::InternalFileExists(Tdes(aPath)) == EFalse ? EFileHndlNotFound
                                                                    : EFileHndlOk;
}

IFileHandler::TFileHndlError IFileHandler::FolderExists(const TChr* aPath) {
  return FileSystemUtils::DirectoryExists(Tdes(aPath)) == EFalse ? EFileHndlNotFound : EFileHndlOk;
}

IFileHandler::TFileHndlError IFileHandler::FileWritePerm(const TChr* aPath) {
  return FileSystemUtils::FileWritePerm(Tdes(aPath)) == EFalse ? EFileHndlNoWritePerm : EFileHndlOk;
}

IFileHandler::TFileHndlError IFileHandler::MakeFolder(const TChr* aPath) {
  return OkOrFailed(FileSystemUtils::CreateDirectory(Tdes(aPath)));
}

IFileHandler::TFileHndlError IFileHandler::RemoveFile(const TChr* aPath) {
  if (FileSystemUtils::InternalFileExists(Tdes(aPath)) != KIsThere) {
    return EFileHndlNotFound;
  }
  Forget(aPath);
  return OkOrFailed(FileSystemUtils::InternalRemoveFile(Tdes(aPath)));
}

IFileHandler::TFileHndlError IFileHandler::MoveFile(const TChr* aFrom, const TChr* aTo) {
  if (!IsRemembered(aFrom)) {
    return EFileHndlNotFound;
  }
  Forget(aFrom);
  Forget(aTo);
  return OkOrFailed(FileSystemUtils::InternalMoveFile(Tdes(aFrom), Tdes(aTo)));
}

IFileHandler::TFileHndlError IFileHandler::CopyFile(const TChr* aFrom, const TChr* aTo) {
  if (!IsRemembered(aFrom)) {
    return EFileHndlNotFound;
  }
  Forget(aTo);
  return OkOrFailed(FileSystemUtils::InternalCopyFile(Tdes(aFrom), Tdes(aTo)));
}

long IFileHandler::FileSize(const TChr* aPath) {
  if (!IsRemembered(aPath)) {
    return -1;
  }
  FILE* file = FOpen(Chars(aPath), "r");
  if (file == nullptr) {
    return -1;
  }
  FSeek(file, 0, SEEK_END);
  const long size = std::ftell(file);
  FClose(file);

  KLog.Info("FileSize", "File size :", std::to_string(size));
  return size;
}

IFileHandler::TFileHndlError IFileHandler::Sync() {
  if (ICmdHandler::SystemCmd(CCommandLine("sync").Text()) == 0) {
    return EFileHndlOk;
  }
  KLog.Error("Sync", "Sync: The filesystems couldn't be flushed");
  return EFileHndlSyncFailed;
}

IFileHandler::TFileHndlError IFileHandler::RemoveFolder(const TChr* aFolder) {
  if (Run(CCommandLine("rm -rf ", aFolder), "RemoveFolder") == 0) {
    KLog.Info("RemoveFolder", "The folder \"", aFolder, "\" has been successfully removed");
    return EFileHndlOk;
  }
  KLog.Error("RemoveFolder", "The folder \"", aFolder, "\" could not be removed");
  return EFileHndlFailed;
}

IFileHandler::TFileHndlError IFileHandler::Mount(const TChr* aDevice, const TChr* aMountPoint,
                                                 TBool aRemount, TFileSystemFormat aFormat) {
  KLog.Interface(
      "static IFileHandler::TFileHndlError IFileHandler::Mount(const TChr*, const TChr*, TBool, "
      "IFileHandler::TFileSystemFormat)",
      "Device: ", aDevice, ", MountPoint: ", aMountPoint,
      ", FileSystemFormat: ", static_cast<TInt32>(aFormat));

  const TFileSystem& fileSystem = FileSystemOf(aFormat);
  KLog.Info("Mount", fileSystem.iLogLine);
  const CCommandLine command("mount", fileSystem.iMountOptions,
                             aRemount != EFalse ? ",remount" : "", " ", aDevice, " ", aMountPoint);
  if (!IsWhole(command, "Mount")) {
    return EFileHndlFailed;
  }

  for (TUint8 attempt = 1; attempt <= iKnumberRetriesMount; ++attempt) {
    const int result = ICmdHandler::SystemCmd(command.Text());
    if (result == 0) {
      return EFileHndlOk;
    }
    KLog.Error("Mount", "Mounting ", aMountPoint, " failed. Error number : ", result);
    platSleep(iKWaitBeforeRetry);
  }
  return EFileHndlFailed;
}

IFileHandler::TFileHndlError IFileHandler::Mount(const TChr* aDevice, const TChr* aMountPoint,
                                                 TFileSystemFormat aFormat) {
  return Mount(aDevice, aMountPoint, EFalse, aFormat);
}

IFileHandler::TFileHndlError IFileHandler::ReMount(const TChr* aDevice, const TChr* aMountPoint,
                                                   TFileSystemFormat aFormat) {
  return Mount(aDevice, aMountPoint, ETrue, aFormat);
}

IFileHandler::TFileHndlError IFileHandler::Umount(const TChr* aMountPoint) {
  CCommandLine command("umount -d", " ", aMountPoint);
  bool forced = false;
  TUint8 attempt = 1;

  while (attempt <= iKnumberRetriesMount) {
    const int result = Run(command, "Umount");
    if (result == KNotRun) {
      return EFileHndlFailed;
    }
    if (result == 0) {
      return EFileHndlOk;
    }
    KLog.Error("Umount", "umount failed on ", aMountPoint, ". Error number : ", result);

    if (attempt == iKnumberRetriesMount && !forced) {
      command = CCommandLine("umount -d", " ", "-l", " ", aMountPoint);
      Sync();
      platSleep(iKWaitBeforeRetry);
      KLog.Error("Umount", "It was impossible to umount ", aMountPoint, ", forcing its umount");
      attempt = 1;
      forced = true;
    } else {
      KLog.Info("Umount", "Retrying to umount ", aMountPoint, ". Try #", attempt);
      Sync();
      ++attempt;
      platSleep(iKWaitBeforeRetry);
    }
  }
  // A mount point that stays busy does not stop the caller: the lazy attempts were the last resort.
  return EFileHndlOk;
}

IFileHandler::TFileHndlError IFileHandler::Format(const TChr* aDevice, const TChr* aMountPoint,
                                                  TFileSystemFormat aFormat) {
  KLog.Interface(
      "static IFileHandler::TFileHndlError IFileHandler::Format(const TChr*, const TChr*, "
      "IFileHandler::TFileSystemFormat)",
      "Device: ", aDevice, ", MountPoint: ", aMountPoint,
      ", FileSystemFormat: ", static_cast<TInt32>(aFormat));

  if (Umount(aMountPoint) != EFileHndlOk) {
    KLog.Error("Format", "The file system could not be unmounted. Formatting anyway . . .");
  }

  const int result = MakeFileSystem(aDevice, FileSystemOf(aFormat));
  if (result != 0) {
    KLog.Error("Format", "Formatting failed. errorsys = ", result);
    return EFileHndlFailed;
  }

  const TFileHndlError mounted = Mount(aDevice, aMountPoint, aFormat);
  if (mounted != EFileHndlOk) {
    KLog.Error("Format", "Error mounting/umounting");
  }
  return mounted;
}

IFileHandler::TFileHndlError IFileHandler::CheckFS(const TChr* aDevice, const TChr* aMountPoint,
                                                   TFileSystemFormat aFormat) {
  KLog.Interface(
      "static IFileHandler::TFileHndlError IFileHandler::CheckFS(const TChr*, const TChr*, "
      "IFileHandler::TFileSystemFormat)",
      "Device: ", aDevice, ", MountPoint: ", aMountPoint,
      ", FileSystemFormat: ", static_cast<TInt32>(aFormat));

  if (Umount(aMountPoint) != EFileHndlOk) {
    KLog.Error("CheckFS", "The file system could not be unmounted. Checking anyway. . .");
  }

  const int result = CheckFileSystem(aDevice, FileSystemOf(aFormat));
  if (result != 0) {
    KLog.Error("CheckFS", "Checking failed. errorsys = ", result);
    return EFileHndlFailed;
  }

  const TFileHndlError mounted = Mount(aDevice, aMountPoint, aFormat);
  if (mounted != EFileHndlOk) {
    KLog.Error("CheckFS", "Error mounting/umounting. retVal = ", static_cast<TInt32>(mounted));
  }
  return mounted;
}

IFileHandler::TFileHndlError IFileHandler::AvailableSpace(const TChr* aMountPoint,
                                                          TUint32* aAvailable) {
  const TFileHndlError synced = Sync();
  if (synced != EFileHndlOk) {
    return synced;
  }

  const int result =
      Run(CCommandLine("df|grep ", aMountPoint, " > ", KSpaceFile), "AvailableSpace");
  if (result == KNotRun) {
    return EFileHndlFailed;
  }
  if (result == 0) {
    FILE* file = FOpen(KSpaceFile, "r");
    if (file == nullptr) {
      KLog.Error("AvailableSpace", "The file containing the available space could not be opened");
    } else {
      ReadAvailableSpace(file, *aAvailable);
      FClose(file);
    }
  }

  const TFileHndlError removed = RemoveFile(reinterpret_cast<const TChr*>(KSpaceFile));
  if (removed != EFileHndlOk) {
    KLog.Error("AvailableSpace", "The file containing the available space could not be removed");
  }
  return removed;
}
