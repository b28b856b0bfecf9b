#include "host/FileSystemUtils.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>

#include "featurehost/src/Log.h"
#include "featurehost/src/ProcessGuard.h"
#include "featurehost/src/WriteAll.h"

namespace {

constexpr mode_t kPermissions = 07777;
constexpr std::size_t kBlock = 65536;

/** A descriptor that is closed at the end of its scope. */
class ScopedFile {
 public:
  explicit ScopedFile(int descriptor) : descriptor_(descriptor) {}
  ~ScopedFile() { Close(); }

  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;

  int Get() const { return descriptor_; }
  bool IsOpen() const { return descriptor_ != -1; }
  /** As close(2); some file systems tell only now that a write has failed. */
  int Close() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor == -1 ? 0 : close(descriptor);
  }

 private:
  int descriptor_;
};

int ErrnoOf(int result) {
  return result == 0 ? 0 : errno;
}

bool Status(const Tdes& path, struct stat& status) {
  return stat(path.Text(), &status) == 0;
}

bool SameFile(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

int CopyBytes(int from, int to) {
  std::array<char, kBlock> block{};
  for (;;) {
    const ssize_t count = read(from, block.data(), block.size());
    if (count == 0) {
      return 0;
    }
    if (count == -1 && errno != EINTR) {
      return errno;
    }
    const std::size_t size = count == -1 ? 0 : static_cast<std::size_t>(count);
    const int error = featurehost::WriteAll(to, {block.data(), size});
    if (error != 0) {
      return error;
    }
  }
}

/** Fill an open, empty file with the content and the mode of another, and close it. */
int Fill(ScopedFile& destination, const ScopedFile& source, mode_t mode) {
  int error = CopyBytes(source.Get(), destination.Get());
  if (error == 0) {
    error = ErrnoOf(fchmod(destination.Get(), mode & kPermissions));
  }
  const int closeError = ErrnoOf(destination.Close());
  return error != 0 ? error : closeError;
}

/** Open a file for copying; anything but a regular file is refused. The result is an errno value.*/
int OpenSource(const char* path, int& descriptor, struct stat& status) {
  // Not to wait for the other end of a pipe, which is refused below.
  descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor == -1 || fstat(descriptor, &status) == -1) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) {
    return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  }
  return 0;
}

/** Put a copy in the place of the destination in one step, so that it is never half there. */
int CopyBeside(const char* from, const char* to) {
  int descriptor = -1;
  struct stat status {};
  const int openError = OpenSource(from, descriptor, status);
  const ScopedFile source(descriptor);
  if (openError != 0) {
    return openError;
  }

  std::string fresh = std::string(to) + ".XXXXXX";
  ScopedFile destination(mkostemp(fresh.data(), O_CLOEXEC));
  if (!destination.IsOpen()) {
    return errno;
  }
  int error = Fill(destination, source, status.st_mode);
  if (error == 0) {
    error = ErrnoOf(rename(fresh.c_str(), to));
  }
  if (error != 0) {
    unlink(fresh.c_str());
  }
  return error;
}

int MoveLinkAcross(const char* from, const char* to) {
  std::array<char, 4096> target{};
  if (readlink(from, target.data(), target.size() - 1) == -1) {
    return errno;
  }
  unlink(to);
  return ErrnoOf(symlink(target.data(), to));
}

int MoveAcross(const char* from, const char* to) {
  struct stat status {};
  if (lstat(from, &status) == -1) {
    return errno;
  }
  const int error = S_ISLNK(status.st_mode) ? MoveLinkAcross(from, to) : CopyBeside(from, to);
  return error != 0 ? error : ErrnoOf(unlink(from));
}

/**
 * Paths of files that were found. Missing files are not remembered: the tools create files
 * without telling the cache.
 */
std::unordered_set<std::string>& KnownFiles() {
  static std::unordered_set<std::string> files;
  return files;
}

}  // namespace

Tdes::Tdes(const TChr* path) : iText(path == nullptr ? "" : reinterpret_cast<const char*>(path)) {
  featurehost::EndClone();
  if (path == nullptr) {
    featurehost::Log::Instance().Host(featurehost::Level::kError, "Tdes",
                                      "the module named a file by a null path");
  }
}

const char* Tdes::Text() const {
  return iText.c_str();
}

TBool FileSystemUtils::InternalFileExists(const Tdes& path) {
  featurehost::EndClone();
  struct stat status {};
  return Status(path, status) ? ETrue : EFalse;
}

TBool FileSystemUtils::DirectoryExists(const Tdes& path) {
  featurehost::EndClone();
  struct stat status {};
  return Status(path, status) && S_ISDIR(status.st_mode) ? ETrue : EFalse;
}

TBool FileSystemUtils::FileWritePerm(const Tdes& path) {
  featurehost::EndClone();
  return faccessat(AT_FDCWD, path.Text(), W_OK, AT_EACCESS) == 0 ? ETrue : EFalse;
}

int FileSystemUtils::CreateDirectory(const Tdes& path) {
  featurehost::EndClone();
  return ErrnoOf(mkdir(path.Text(), 0777));
}

int FileSystemUtils::InternalRemoveFile(const Tdes& path) {
  featurehost::EndClone();
  return ErrnoOf(unlink(path.Text()));
}

int FileSystemUtils::InternalMoveFile(const Tdes& from, const Tdes& to) {
  featurehost::EndClone();
  const int error = ErrnoOf(rename(from.Text(), to.Text()));
  return error == EXDEV ? MoveAcross(from.Text(), to.Text()) : error;
}

int FileSystemUtils::InternalCopyFile(const Tdes& from, const Tdes& to) {
  featurehost::EndClone();
  int descriptor = -1;
  struct stat sourceStatus {};
  const int openError = OpenSource(from.Text(), descriptor, sourceStatus);
  const ScopedFile source(descriptor);
  if (openError != 0) {
    return openError;
  }
  struct stat destinationStatus {};
  if (Status(to, destinationStatus) && SameFile(sourceStatus, destinationStatus)) {
    return EINVAL;  // opening it for writing would empty the source
  }

  ScopedFile destination(open(to.Text(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!destination.IsOpen() || fstat(destination.Get(), &destinationStatus) == -1) {
    return errno;
  }
  const int error = Fill(destination, source, sourceStatus.st_mode);
  if (error != 0 && S_ISREG(destinationStatus.st_mode)) {
    unlink(to.Text());
  }
  return error;
}

CFileExistsCache* CFileExistsCache::FileExistsCacheInstance() {
  featurehost::EndClone();
  static CFileExistsCache cache;
  return &cache;
}

// Both are members by the contract.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
TBool CFileExistsCache::FileExists(const Tdes& path) {
  if (KnownFiles().count(path.Text()) > 0) {
    return ETrue;
  }
  if (FileSystemUtils::InternalFileExists(path) == EFalse) {
    return EFalse;
  }
  KnownFiles().insert(path.Text());
  return ETrue;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
void CFileExistsCache::RemoveFile(const Tdes& path, int& removed) {
  removed = static_cast<int>(KnownFiles().erase(path.Text()));
}
