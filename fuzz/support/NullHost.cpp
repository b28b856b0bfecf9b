// The host's functions for the fuzzers: a log that is enabled and keeps nothing, and file utilities
// that answer from the fuzzer's input.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fuzz/support/FakeSystem.h"
#include "host/FileSystemUtils.h"
#include "host/Logging.h"
#include "host/Platform.h"

namespace logging {

namespace {

class NullControl : public CControl {
 public:
  TBool IsEnabled(const char* /*module*/, const char* /*category*/) const override { return ETrue; }
};

}  // namespace

CControl& IControl() {
  static NullControl control;
  return control;
}

namespace internals {

class CLog {};

CLog& ILog() {
  static CLog log;
  return log;
}

CLogHandle::CLogHandle(CLog& /*log*/, TBool /*enabled*/, const char* /*category*/,
                       const char* /*module*/, const char* /*function*/, const char* /*source*/,
                       TUint32 /*line*/)
    : iLine(nullptr) {}

CLogHandle::~CLogHandle() = default;

// Reads the text, so that a sanitizer sees one that is not there.
CLogHandle& CLogHandle::operator<<(const char* text) {
  static std::size_t longest = 0;
  longest = std::max(longest, std::strlen(text));
  return *this;
}

CLogHandle& CLogHandle::operator<<(const TChr* text) {
  return *this << reinterpret_cast<const char*>(text);
}

CLogHandle& CLogHandle::operator<<(TInt32 /*number*/) {
  return *this;
}

CLogHandle& CLogHandle::operator<<(TUint32 /*number*/) {
  return *this;
}

CLogHandle& CLogHandle::operator<<(TUint8 /*number*/) {
  return *this;
}

}  // namespace internals
}  // namespace logging

namespace {

TBool Exists(const Tdes& path) {
  auto* system = fuzz::FakeSystem::Active();
  return system == nullptr || system->Exists(path.Text()) ? ETrue : EFalse;
}

int Outcome(const Tdes& path) {
  return Exists(path) == ETrue ? 0 : EIO;
}

}  // namespace

Tdes::Tdes(const TChr* path) : iText(path == nullptr ? "" : reinterpret_cast<const char*>(path)) {}

const char* Tdes::Text() const {
  return iText.c_str();
}

TBool FileSystemUtils::InternalFileExists(const Tdes& path) {
  return Exists(path);
}

TBool FileSystemUtils::DirectoryExists(const Tdes& path) {
  return Exists(path);
}

TBool FileSystemUtils::FileWritePerm(const Tdes& path) {
  return Exists(path);
}

int FileSystemUtils::CreateDirectory(const Tdes& path) {
  return Outcome(path);
}

int FileSystemUtils::InternalRemoveFile(const Tdes& path) {
  return Outcome(path);
}

int FileSystemUtils::InternalMoveFile(const Tdes& from, const Tdes& /*to*/) {
  return Outcome(from);
}

int FileSystemUtils::InternalCopyFile(const Tdes& from, const Tdes& /*to*/) {
  return Outcome(from);
}

CFileExistsCache* CFileExistsCache::FileExistsCacheInstance() {
  static CFileExistsCache cache;
  return &cache;
}

TBool CFileExistsCache::FileExists(const Tdes& path) {
  return Exists(path);
}

void CFileExistsCache::RemoveFile(const Tdes& /*path*/, int& removed) {
  removed = 0;
}

void platSleep(TUint32 /*duration*/) {}

void platSafecopy(char* destination, const char* source, TUint32 count) {
  if (count == 0) {
    return;
  }
  const std::size_t length = std::min<std::size_t>(std::strlen(source), count - 1);
  std::memcpy(destination, source, length);
  destination[length] = '\0';
}
