#include "featurehost/src/lint/WrittenDisks.h"

#include <algorithm>

#include "featurehost/src/PartitionName.h"

namespace featurehost::lint {

void WrittenDisks::Add(const Item& item, const std::string& target, const FileFacts& facts) {
  if (item.kind == ItemKind::kImage && facts.type == FileFacts::Type::kBlockDevice &&
      !facts.isPartition) {
    disks_.push_back({environment_.Canonical(target), item.name, facts.size});
  }
}

const WrittenDisk* WrittenDisks::Of(const std::string& partition) const {
  if (disks_.empty()) {
    return nullptr;
  }
  const std::string path = environment_.Canonical(partition);
  const auto disk = std::find_if(disks_.rbegin(), disks_.rend(), [&path](const WrittenDisk& one) {
    return IsPartitionOf(path, one.path);
  });
  return disk == disks_.rend() ? nullptr : &*disk;
}

}  // namespace featurehost::lint
