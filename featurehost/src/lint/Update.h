#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "featurehost/src/Properties.h"
#include "featurehost/src/lint/ItemKinds.h"

namespace featurehost::lint {

/** An item of an update list. */
struct Item {
  std::string name;
  ItemKind kind;
  std::string prefix;  ///< of its properties' keys

  std::string Key(const std::string& suffix) const { return prefix + suffix; }
};

/** The properties of a feature, with the update list taken apart as the module does. */
class Update {
 public:
  explicit Update(Properties::Values values);

  const Properties::Values& Values() const { return values_; }
  std::optional<std::string> Value(const std::string& key) const;
  /** The text of a key, empty when there is none. */
  std::string Text(const std::string& key) const { return Value(key).value_or(""); }

  /** The items' names with doubled and empty ones, and the weights. */
  const std::vector<std::string>& Names() const { return names_; }
  const std::vector<std::string>& Weights() const { return weights_; }
  /** Every item that has a name, once, in order; also those that the module drops. */
  const std::vector<Item>& Items() const { return items_; }
  /** The item of a kind whose keys begin so; null when there is none. */
  const Item* Find(ItemKind kind, const std::string& prefix) const;

 private:
  Properties::Values values_;
  std::vector<std::string> names_;
  std::vector<std::string> weights_;
  std::vector<Item> items_;
  std::map<std::pair<ItemKind, std::string>, std::size_t> places_;  // in the items
};

}  // namespace featurehost::lint
