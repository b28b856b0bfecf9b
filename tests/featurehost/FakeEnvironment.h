#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "featurehost/src/lint/Environment.h"

namespace featurehost::lint {

/** A unit that exists in a test's mind only. */
class FakeEnvironment : public Environment {
 public:
  static constexpr std::uint64_t kMib = 1024 * 1024;

  std::map<std::string, FileFacts> files;
  std::map<std::string, GzipEnds> ends;
  std::map<std::string, std::vector<std::string>> mounts;  // by device
  std::map<std::string, ToolState> tools;                  // the others are usable
  std::set<std::string> accepting;                         // decompressors
  std::set<std::string> refused;                           // block sizes
  std::map<std::string, std::string> links;

  OtherRuns others;

  void AddFile(const std::string& path, std::uint64_t size) {
    files[path] = {FileFacts::Type::kFile, size, true};
  }
  void AddGzip(const std::string& path, std::uint64_t size, std::uint32_t unpacked) {
    AddFile(path, size);
    ends[path] = {true, false, unpacked};
  }
  void AddDevice(const std::string& path, std::uint64_t size) {
    files[path] = {FileFacts::Type::kBlockDevice, size, true};
  }
  void AddFolder(const std::string& path) { files[path] = {FileFacts::Type::kFolder, 0, true}; }

  FileFacts Look(const std::string& path) const override {
    const auto entry = files.find(path);
    return entry == files.end() ? FileFacts{} : entry->second;
  }
  std::string Canonical(const std::string& path) const override {
    const auto entry = links.find(path);
    return entry == links.end() ? path : entry->second;
  }
  std::optional<GzipEnds> Ends(const std::string& path) const override {
    const auto entry = ends.find(path);
    return entry == ends.end() ? std::nullopt : std::optional(entry->second);
  }
  std::vector<std::string> MountPointsOf(const std::string& device) const override {
    const auto entry = mounts.find(device);
    return entry == mounts.end() ? std::vector<std::string>{} : entry->second;
  }
  std::string MountPointAt(const std::string& folder) const override {
    const bool isOne = std::any_of(mounts.begin(), mounts.end(), [&folder](const auto& mount) {
      return std::find(mount.second.begin(), mount.second.end(), folder) != mount.second.end();
    });
    return isOne ? folder : "";
  }
  ToolState Tool(const std::string& name) const override {
    const auto entry = tools.find(name);
    return entry == tools.end() ? ToolState::kUsable : entry->second;
  }
  std::optional<bool> AcceptsDamage(const std::string& decompressor) const override {
    return accepting.count(decompressor) != 0;
  }
  std::optional<bool> TakesBlockSize(const std::string& text) const override {
    return refused.count(text) == 0;
  }
  OtherRuns RunsBeside(const RunScope& /*scope*/) const override { return others; }
};

}  // namespace featurehost::lint
