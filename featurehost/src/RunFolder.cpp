#include "featurehost/src/RunFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "featurehost/src/HostError.h"
#include "featurehost/src/Paths.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/WriteAll.h"

namespace featurehost {

namespace {

constexpr const char* kSuffix = ".json";
constexpr const char* kTemporarySuffix = ".tmp";
constexpr std::size_t kIdLength = 32;
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

std::string Variable(const char* name) {
  const char* value = getenv(name);  // NOLINT(concurrency-mt-unsafe): there is one thread
  return value == nullptr ? "" : value;
}

std::vector<std::string> Candidates() {
  const std::string wanted = Variable("FEATUREHOST_RUN_DIR");
  if (!wanted.empty()) {
    return {wanted};
  }
  std::vector<std::string> paths = {"/run/featurehost"};
  const std::string runtime = Variable("XDG_RUNTIME_DIR");
  if (!runtime.empty()) {
    paths.push_back(runtime + "/featurehost");
  }
  paths.push_back("/tmp/featurehost-" + std::to_string(geteuid()));
  return paths;
}

/** Why a folder must not or cannot be used; empty when it can. */
std::string Objection(const std::string& path, int access) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    return ErrorText(errno);
  }
  if (!S_ISDIR(status.st_mode)) {
    return "is not a folder";
  }
  if ((status.st_uid != geteuid() && status.st_uid != 0) ||
      (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "others can write there";
  }
  return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0 ? "" : ErrorText(errno);
}

int WriteFile(const std::string& path, const std::string& text) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode);
  if (file == -1) {
    return errno;
  }
  int error = WriteAll(file, text);
  if (error == 0 && fsync(file) != 0) {
    error = errno;
  }
  close(file);
  return error;
}

int SyncFolder(const std::string& path) {
  const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder == -1) {
    return errno;
  }
  // Some file systems cannot; then there is nothing more to be done.
  const int error = fsync(folder) == 0 || errno == EINVAL ? 0 : errno;
  close(folder);
  return error;
}

std::vector<std::filesystem::path> Files(const std::string& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.symlink_status(error).type() == std::filesystem::file_type::regular) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

/** Whether we may have written it; a folder of the user's choice may hold other files too. */
bool HasNameOfANote(std::filesystem::path file) {
  if (file.extension() == kTemporarySuffix) {
    file.replace_extension();
  }
  const std::string id = file.stem();
  return file.extension() == kSuffix && id.size() == kIdLength &&
         id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::optional<RunNote> NoteIn(const std::filesystem::path& file) {
  const auto note = file.extension() == kSuffix ? ParseNote(ReadText(file)) : std::nullopt;
  return note.has_value() && note->id == file.stem() ? note : std::nullopt;
}

}  // namespace

RunFolder RunFolder::ForWriting() {
  std::string objections;
  for (const std::string& path : Candidates()) {
    mkdir(path.c_str(), kFolderMode);
    const std::string objection = Objection(path, R_OK | W_OK | X_OK);
    if (objection.empty()) {
      return RunFolder(path);
    }
    objections += (objections.empty() ? "" : ", ") + OneLine(path) + ": " + objection;
  }
  throw HostError(ExitCode::kUsage, objections);
}

std::vector<RunFolder> RunFolder::ForReading() {
  std::vector<RunFolder> folders;
  for (const std::string& path : Candidates()) {
    if (Objection(path, R_OK | X_OK).empty()) {
      folders.push_back(RunFolder(path));
    }
  }
  return folders;
}

RunFolder::Lock::Lock(const RunFolder& folder)
    : descriptor_(open(folder.path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  while (flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
  }
}

RunFolder::Lock::~Lock() {
  close(descriptor_);
}

std::vector<RunNote> RunFolder::Notes() const {
  std::vector<RunNote> notes;
  for (const auto& file : Files(path_)) {
    if (auto note = NoteIn(file)) {
      notes.push_back(std::move(*note));
    }
  }
  return notes;
}

std::vector<std::string> RunFolder::Rubbish() const {
  std::vector<std::string> rubbish;
  for (const auto& file : Files(path_)) {
    if (HasNameOfANote(file) && !NoteIn(file).has_value()) {
      rubbish.push_back(file);
    }
  }
  return rubbish;
}

int RunFolder::Write(const RunNote& note) const {
  const std::string temporary = FileOf(note) + kTemporarySuffix;
  int error = WriteFile(temporary, ToText(note));
  if (error == 0 && rename(temporary.c_str(), FileOf(note).c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    unlink(temporary.c_str());
    return error;
  }
  return SyncFolder(path_);
}

int RunFolder::Remove(const RunNote& note) const {
  return unlink(FileOf(note).c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

std::string RunFolder::FileOf(const RunNote& note) const {
  return path_ + "/" + note.id + kSuffix;
}

}  // namespace featurehost
