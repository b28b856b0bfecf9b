#include "featurehost/src/lint/Update.h"

#include <algorithm>
#include <set>
#include <utility>

namespace featurehost::lint {

namespace {

/** A separator at the end adds nothing; a leading or a doubled one adds an empty piece. */
std::vector<std::string> Split(const std::string& list) {
  std::vector<std::string> pieces;
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = std::min(list.find(';', start), list.size());
    pieces.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return pieces;
}

}  // namespace

Update::Update(Properties::Values values)
    : values_(std::move(values)),
      names_(Split(Text("updatelist"))),
      weights_(Split(Text("updateprogresslist"))) {
  std::set<std::string> known;
  for (const std::string& name : names_) {
    const std::string prefix = KeyPrefixOf(name);
    if (!prefix.empty() && known.insert(name).second) {
      places_.emplace(std::pair(KindOfItem(name), prefix), items_.size());
      items_.push_back({name, KindOfItem(name), prefix});
    }
  }
}

std::optional<std::string> Update::Value(const std::string& key) const {
  const auto entry = values_.find(key);
  return entry == values_.end() ? std::nullopt : std::optional<std::string>(entry->second);
}

const Item* Update::Find(ItemKind kind, const std::string& prefix) const {
  const auto place = places_.find({kind, prefix});
  return place == places_.end() ? nullptr : &items_[place->second];
}

}  // namespace featurehost::lint
