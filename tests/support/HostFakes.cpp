#include "tests/support/HostFakes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "host/FileSystemUtils.h"
#include "host/Platform.h"

using support::HostFakes;

namespace {

bool Exists(const Tdes& path) {
  struct stat status {};
  return stat(path.Text(), &status) == 0;
}

bool IsDirectory(const Tdes& path) {
  struct stat status {};
  return stat(path.Text(), &status) == 0 && S_ISDIR(status.st_mode);
}

int Call(const std::string& function, const std::string& arguments,
         const std::function<int()>& real) {
  HostFakes::Instance().Record(function + " " + arguments);
  return HostFakes::Instance().Result(function, real);
}

int ErrnoOf(int result) {
  return result == 0 ? 0 : errno;
}

}  // namespace

Tdes::Tdes(const TChr* path) : iText(path == nullptr ? "" : reinterpret_cast<const char*>(path)) {
  if (path == nullptr) {
    HostFakes::Instance().Record("Tdes null");
  }
}

const char* Tdes::Text() const {
  return iText.c_str();
}

TBool FileSystemUtils::InternalFileExists(const Tdes& path) {
  return Call("InternalFileExists", path.Text(), [&] { return Exists(path) ? ETrue : EFalse; });
}

TBool FileSystemUtils::DirectoryExists(const Tdes& path) {
  return Call("DirectoryExists", path.Text(), [&] { return IsDirectory(path) ? ETrue : EFalse; });
}

TBool FileSystemUtils::FileWritePerm(const Tdes& path) {
  return Call("FileWritePerm", path.Text(),
              [&] { return access(path.Text(), W_OK) == 0 ? ETrue : EFalse; });
}

int FileSystemUtils::CreateDirectory(const Tdes& path) {
  return Call("CreateDirectory", path.Text(), [&] { return ErrnoOf(mkdir(path.Text(), 0777)); });
}

int FileSystemUtils::InternalRemoveFile(const Tdes& path) {
  return Call("InternalRemoveFile", path.Text(), [&] { return ErrnoOf(unlink(path.Text())); });
}

int FileSystemUtils::InternalMoveFile(const Tdes& from, const Tdes& to) {
  return Call("InternalMoveFile", std::string(from.Text()) + " " + to.Text(),
              [&] { return ErrnoOf(rename(from.Text(), to.Text())); });
}

int FileSystemUtils::InternalCopyFile(const Tdes& from, const Tdes& to) {
  return Call("InternalCopyFile", std::string(from.Text()) + " " + to.Text(), [&] {
    std::error_code error;
    std::filesystem::copy_file(from.Text(), to.Text(),
                               std::filesystem::copy_options::overwrite_existing, error);
    return error.value();
  });
}

CFileExistsCache* CFileExistsCache::FileExistsCacheInstance() {
  static CFileExistsCache cache;
  return &cache;
}

TBool CFileExistsCache::FileExists(const Tdes& path) {
  return Call("cache.FileExists", path.Text(), [&] { return Exists(path) ? ETrue : EFalse; });
}

void CFileExistsCache::RemoveFile(const Tdes& path, int& removed) {
  HostFakes::Instance().Record(std::string("cache.RemoveFile ") + path.Text());
  removed = 0;
}

void platSleep(TUint32 duration) {
  HostFakes::Instance().Record("platSleep " + std::to_string(duration));
  if (HostFakes::Instance().onSleep) {
    HostFakes::Instance().onSleep(duration);
  }
}

void platSafecopy(char* destination, const char* source, TUint32 count) {
  if (count == 0) {
    return;
  }
  const std::size_t length = std::min<std::size_t>(std::strlen(source), count - 1);
  std::memcpy(destination, source, length);
  destination[length] = '\0';
}

namespace support {

HostFakes& HostFakes::Instance() {
  static HostFakes fakes;
  return fakes;
}

void HostFakes::Reset() {
  *this = HostFakes();
}

std::size_t HostFakes::Count(const std::string& call) const {
  return static_cast<std::size_t>(std::count(calls_.begin(), calls_.end(), call));
}

void HostFakes::Record(const std::string& call) {
  calls_.push_back(call);
  if (onCall) {
    onCall(call);
  }
}

int HostFakes::Result(const std::string& function, const std::function<int()>& real) const {
  const auto entry = results.find(function);
  return entry == results.end() ? real() : entry->second;
}

}  // namespace support
