#pragma once

#include <map>
#include <string>
#include <vector>

#include "featurehost/src/lint/Environment.h"

namespace featurehost::lint {

/** The unit that this process runs on. Tools are tried once each; one that hangs is ended. */
class UnitEnvironment : public Environment {
 public:
  FileFacts Look(const std::string& path) const override;
  std::string Canonical(const std::string& path) const override;
  std::optional<GzipEnds> Ends(const std::string& path) const override;
  std::vector<std::string> MountPointsOf(const std::string& device) const override;
  std::string MountPointAt(const std::string& folder) const override;
  ToolState Tool(const std::string& name) const override;
  std::optional<bool> AcceptsDamage(const std::string& decompressor) const override;
  std::optional<bool> TakesBlockSize(const std::string& text) const override;
  OtherRuns RunsBeside(const RunScope& scope) const override;

 private:
  mutable std::map<std::string, std::optional<bool>> tried_;  // decompressors
};

}  // namespace featurehost::lint
