#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "featurehost/src/RunScope.h"

namespace featurehost::lint {

/** What stands at a path; links are followed. */
struct FileFacts {
  enum class Type { kMissing, kFile, kFolder, kBlockDevice, kOther };

  Type type = Type::kMissing;
  std::uint64_t size = 0;  ///< in bytes, of a file or a block device; 0 when it is not known
  bool readable = false;
  bool inUse = false;  ///< of a block device: someone has it for himself, as a mount does, or swap
  bool isPartition = false;  ///< of a block device: it lies on another one
};

/** The two ends of a compressed file. */
struct GzipEnds {
  bool isGzip = false;           ///< begins as gzip does, and is long enough to be one
  bool inBlocks = false;         ///< says in its header that it consists of many members
  std::uint32_t lastLength = 0;  ///< the last four bytes: length of the last member, unpacked
};

enum class ToolState { kMissing, kNotExecutable, kUsable };

/** Other installs that this one would meet. */
struct OtherRuns {
  std::vector<std::string> running;  ///< features that are being installed on the same targets
  std::vector<std::string> killed;   ///< what killed installs have left behind, a line for each
  std::size_t unjudged = 0;          ///< noted installs that may be either: /proc does not tell
};

/** What the checks have to know about the unit. Asking changes nothing on it. */
class Environment {
 public:
  Environment() = default;
  virtual ~Environment() = default;

  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  virtual FileFacts Look(const std::string& path) const = 0;
  /** The path without links, as far as there is something at it. */
  virtual std::string Canonical(const std::string& path) const = 0;
  /** Nothing when the file cannot be read. */
  virtual std::optional<GzipEnds> Ends(const std::string& path) const = 0;
  /** Where a block device, or a part of it, is mounted. */
  virtual std::vector<std::string> MountPointsOf(const std::string& device) const = 0;
  /** The same for a folder, in the same spelling; empty when nothing is mounted there. */
  virtual std::string MountPointAt(const std::string& folder) const = 0;
  /** @param name  an absolute path, or a name to be found on the search path. */
  virtual ToolState Tool(const std::string& name) const = 0;
  /** Whether a decompressor ends with 0 for a damaged file; nothing when that cannot be tried. */
  virtual std::optional<bool> AcceptsDamage(const std::string& decompressor) const = 0;
  /** Whether dd takes a text as its block size; nothing when that cannot be tried. */
  virtual std::optional<bool> TakesBlockSize(const std::string& text) const = 0;
  virtual OtherRuns RunsBeside(const RunScope& scope) const = 0;
};

}  // namespace featurehost::lint
