#include "featurehost/src/lint/Deep.h"

#include <algorithm>

#include "featurehost/src/lint/Sources.h"
#include "featurehost/src/lint/Update.h"

namespace featurehost::lint {

namespace {

bool IsCompressed(ItemKind kind) {
  return kind == ItemKind::kArchive || kind == ItemKind::kImage || kind == ItemKind::kCheck;
}

/** One pass serves everyone who uses the file. */
void Join(std::vector<UnpackJob>& jobs, const UnpackJob& job) {
  const auto known = std::find_if(jobs.begin(), jobs.end(), [&job](const UnpackJob& other) {
    return other.request.path == job.request.path;
  });
  if (known == jobs.end()) {
    jobs.push_back(job);
    return;
  }
  known->request.isArchive = known->request.isArchive || job.request.isArchive;
  if (known->request.checksum.empty()) {
    known->request.checksum = job.request.checksum;
  }
}

}  // namespace

std::vector<UnpackJob> WhatToUnpack(const Properties::Values& values,
                                    const Environment& environment) {
  const Update update(values);
  std::vector<UnpackJob> jobs;
  for (const Item& item : update.Items()) {
    const std::string path = update.Text(SourceKey(item, update, environment));
    const FileFacts file = environment.Look(path);
    if (!IsCompressed(item.kind) || file.type != FileFacts::Type::kFile || !file.readable) {
      continue;
    }
    const auto ends = environment.Ends(path);
    if (ends.has_value() && ends->isGzip) {
      const bool isImage = item.kind == ItemKind::kImage;
      Join(jobs, {item.name,
                  file.size,
                  {path, item.kind == ItemKind::kArchive,
                   isImage ? update.Text(item.Key("checksum")) : ""}});
    }
  }
  return jobs;
}

std::optional<DeepFactsByPath> UnpackAll(const std::vector<UnpackJob>& jobs,
                                         const std::function<bool(std::uint64_t)>& goOn) {
  DeepFactsByPath all;
  std::uint64_t before = 0;
  for (const UnpackJob& job : jobs) {
    const auto facts = Unpack(
        job.request, [&](std::uint64_t bytes) { return goOn(before + std::min(bytes, job.size)); });
    if (!facts.has_value()) {
      return std::nullopt;
    }
    before += job.size;
    all.emplace(job.request.path, *facts);
  }
  return all;
}

}  // namespace featurehost::lint
