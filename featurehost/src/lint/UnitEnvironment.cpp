#include "featurehost/src/lint/UnitEnvironment.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "featurehost/src/KilledRuns.h"
#include "featurehost/src/MountTable.h"
#include "featurehost/src/Paths.h"
#include "featurehost/src/RunFolder.h"
#include "featurehost/src/lint/ToolTrial.h"

namespace featurehost::lint {

namespace {

/** A file that is open for reading as long as this lives. */
class OpenFile {
 public:
  explicit OpenFile(const std::string& path)
      : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~OpenFile() {
    if (descriptor_ != -1) {
      close(descriptor_);
    }
  }

  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int Get() const { return descriptor_; }

 private:
  int descriptor_;
};

/** Of a block device, "179:1"; empty for anything else. */
std::string NumberOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) {
    return "";
  }
  return std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
}

std::string FirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

/** The number of the whole device that a partition lies on; empty for anything else. */
std::string WholeOf(const std::string& number) {
  const std::string folder = "/sys/dev/block/" + number;
  return access((folder + "/partition").c_str(), F_OK) == 0 ? FirstLine(folder + "/../dev") : "";
}

std::uint64_t DeviceSize(const std::string& path) {
  constexpr std::uint64_t kSector = 512;
  const OpenFile device(path);
  std::uint64_t size = 0;
  if (device.Get() != -1 && ioctl(device.Get(), BLKGETSIZE64, &size) == 0) {
    return size;
  }
  return std::strtoull(FirstLine("/sys/dev/block/" + NumberOf(path) + "/size").c_str(), nullptr,
                       10) *
         kSector;
}

/**
 * Also what the mount table here does not tell: swap, volume groups, arrays, and mounts in other
 * namespaces. Asking takes the device for this moment only, and changes nothing on it.
 */
bool IsInUse(const std::string& device) {
  const int descriptor = open(device.c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC);
  if (descriptor == -1) {
    return errno == EBUSY;
  }
  close(descriptor);
  return false;
}

/** BGZF and the like: the size of the member in an extra field of its header, named "BC". */
bool IsInBlocks(std::string_view header) {
  constexpr std::size_t kFlags = 3;
  constexpr unsigned kExtra = 4;
  constexpr std::size_t kExtraField = 12;
  return header.size() > kExtraField + 1 && (static_cast<unsigned>(header[kFlags]) & kExtra) != 0 &&
         header.substr(kExtraField, 2) == "BC";
}

}  // namespace

FileFacts UnitEnvironment::Look(const std::string& path) const {
  FileFacts facts;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return facts;
  }
  facts.readable = faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
  if (S_ISREG(status.st_mode)) {
    facts.type = FileFacts::Type::kFile;
    facts.size = static_cast<std::uint64_t>(status.st_size);
  } else if (S_ISDIR(status.st_mode)) {
    facts.type = FileFacts::Type::kFolder;
  } else if (S_ISBLK(status.st_mode)) {
    facts.type = FileFacts::Type::kBlockDevice;
    facts.size = DeviceSize(path);
    facts.inUse = IsInUse(path);
    facts.isPartition = !WholeOf(NumberOf(path)).empty();
  } else {
    facts.type = FileFacts::Type::kOther;
  }
  return facts;
}

std::string UnitEnvironment::Canonical(const std::string& path) const {
  return featurehost::Canonical(path);
}

std::optional<GzipEnds> UnitEnvironment::Ends(const std::string& path) const {
  constexpr ssize_t kShortest = 18;  // header and trailer
  constexpr std::array<unsigned char, 3> kMagic{0x1f, 0x8b, 8};
  const OpenFile file(path);
  std::array<char, 64> header{};
  const ssize_t count = pread(file.Get(), header.data(), header.size(), 0);
  if (count < 0) {
    return std::nullopt;
  }
  GzipEnds ends;
  ends.isGzip = count >= kShortest && std::memcmp(header.data(), kMagic.data(), kMagic.size()) == 0;
  ends.inBlocks = ends.isGzip && IsInBlocks({header.data(), static_cast<std::size_t>(count)});

  std::array<unsigned char, 4> trailer{};
  struct stat status {};
  if (ends.isGzip && fstat(file.Get(), &status) == 0 &&
      pread(file.Get(), trailer.data(), trailer.size(),
            status.st_size - static_cast<off_t>(trailer.size())) ==
          static_cast<ssize_t>(trailer.size())) {
    for (std::size_t index = trailer.size(); index-- > 0;) {
      constexpr unsigned kByte = 8;
      ends.lastLength = (ends.lastLength << kByte) | trailer[index];
    }
  }
  return ends;
}

std::vector<std::string> UnitEnvironment::MountPointsOf(const std::string& device) const {
  std::vector<std::string> points;
  const std::string number = NumberOf(device);
  if (number.empty()) {
    return points;
  }
  for (const Mount& mount : Mounts()) {
    if (mount.device == number || WholeOf(mount.device) == number) {
      points.push_back(mount.Point());
    }
  }
  return points;
}

std::string UnitEnvironment::MountPointAt(const std::string& folder) const {
  std::error_code error;
  const std::string path = std::filesystem::canonical(folder, error).string();
  const auto mounts = Mounts();
  const bool isOne = !error && std::any_of(mounts.begin(), mounts.end(), [&path](const Mount& one) {
    return one.Point() == path;
  });
  return isOne ? path : "";
}

ToolState UnitEnvironment::Tool(const std::string& name) const {
  std::vector<std::string> paths;
  if (name.find('/') != std::string::npos) {
    paths.push_back(name);
  } else {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
    const char* search = std::getenv("PATH");
    std::istringstream folders(search == nullptr ? "/bin:/usr/bin" : search);
    for (std::string folder; std::getline(folders, folder, ':');) {
      paths.push_back((folder.empty() ? "." : folder) + "/" + name);
    }
  }
  ToolState state = ToolState::kMissing;
  for (const std::string& path : paths) {
    if (Look(path).type == FileFacts::Type::kFile) {
      if (faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0) {
        return ToolState::kUsable;
      }
      state = ToolState::kNotExecutable;
    }
  }
  return state;
}

std::optional<bool> UnitEnvironment::AcceptsDamage(const std::string& decompressor) const {
  const auto [entry, fresh] = tried_.try_emplace(decompressor);
  if (fresh) {
    entry->second = TryDamagedFile(decompressor);
  }
  return entry->second;
}

std::optional<bool> UnitEnvironment::TakesBlockSize(const std::string& text) const {
  // Without a count, as the item runs it: told to copy nothing, it does not even ask for memory.
  const auto code = TryTool("dd", {"if=/dev/null", "of=/dev/null", "bs=" + text});
  return code.has_value() ? std::optional(*code == 0) : std::nullopt;
}

OtherRuns UnitEnvironment::RunsBeside(const RunScope& scope) const {
  OtherRuns others;
  others.unjudged = UnjudgedRuns();
  for (const RunFolder& folder : RunFolder::ForReading()) {
    for (const RunNote& note : folder.Notes()) {
      // Not by KilledRuns(), which would drop notes.
      const auto left = IsKilled(note) ? LeftOf(note) : std::vector<LeftOver>();
      if (!left.empty()) {
        others.killed.push_back(Describe(KilledRun{note, left}));
      }
    }
  }
  for (const RunNote& note : RunningInstalls()) {
    if (note.scope.Meets(scope)) {
      others.running.push_back(note.feature);
    }
  }
  return others;
}

}  // namespace featurehost::lint
