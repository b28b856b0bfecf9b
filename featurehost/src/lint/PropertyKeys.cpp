#include <algorithm>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "featurehost/src/lint/Checks.h"

namespace featurehost::lint {

namespace {

// Longer texts are no typing errors of what a property may be called.
constexpr std::size_t kLongestCompared = 64;

std::size_t EditDistance(const std::string& left, const std::string& right) {
  std::vector<std::size_t> row(right.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t line = 0; line < left.size(); ++line) {
    std::size_t diagonal = row[0];
    row[0] = line + 1;
    for (std::size_t column = 0; column < right.size(); ++column) {
      const std::size_t replaced = diagonal + (left[line] == right[column] ? 0 : 1);
      diagonal = row[column + 1];
      row[column + 1] = std::min({replaced, row[column] + 1, diagonal + 1});
    }
  }
  return row[right.size()];
}

std::set<std::string> KnownKeys(const Update& update) {
  std::set<std::string> known;
  for (const Item& item : update.Items()) {
    for (const PropertyRule& rule : RuleOf(item.kind).properties) {
      known.insert(item.Key(rule.suffix));
    }
  }
  return known;
}

std::string Nearest(const Item& item, const std::string& suffix) {
  const auto& rules = RuleOf(item.kind).properties;
  if (suffix.size() > kLongestCompared) {
    return "";
  }
  const auto nearest = std::min_element(
      rules.begin(), rules.end(), [&suffix](const PropertyRule& left, const PropertyRule& right) {
        return EditDistance(suffix, left.suffix) < EditDistance(suffix, right.suffix);
      });
  return item.Key(nearest->suffix);
}

/** The item with the longest name that a key begins with; null when there is none. */
const Item* OwnerOf(const std::string& key, const std::vector<Item>& items) {
  const Item* owner = nullptr;
  std::size_t longest = 0;
  for (const Item& item : items) {
    for (const std::string& begin : {item.name, item.prefix}) {
      if (begin.size() > longest && key.compare(0, begin.size(), begin) == 0) {
        owner = &item;
        longest = begin.size();
      }
    }
  }
  return owner;
}

void CheckRequired(const Subject& subject, const Item& item, const PropertyRule& rule) {
  const std::string key = item.Key(rule.suffix);
  const auto value = subject.update.Value(key);
  if (!value.has_value()) {
    const bool replaced = std::string(rule.suffix) == "source" &&
                          SourceKey(item, subject.update, subject.environment) != key;
    if (rule.required && !replaced) {
      subject.findings.Add(Kind::kPropertyMissing, {item.name, key, ""},
                           "the prepare of this item fails without it", "this property");
    }
  } else if (value->empty() && !rule.mayBeEmpty) {
    subject.findings.Add(Kind::kPropertyEmpty, {item.name, key, ""},
                         "an empty text leaves its place in the tool's command empty: the item "
                         "fails, or works with something else",
                         "the path that is meant");
  }
}

void CheckOverride(const Subject& subject, const Item& item) {
  const std::string key = item.Key("altsource");
  const auto value = subject.update.Value(key);
  if (item.kind != ItemKind::kImage || !value.has_value()) {
    return;
  }
  const bool used = SourceKey(item, subject.update, subject.environment) == key;
  subject.findings.Add(
      Kind::kAltSource, {item.name, key, *value},
      used ? "the development override: this file is written instead of \"" + item.Key("source") +
                 "\", and a check still compares with that"
           : "the development override: there is no such file now, but as soon as there is one it "
             "is written instead of \"" +
                 item.Key("source") + "\"",
      "no such property in an update for units");
}

void CheckUnknown(const Subject& subject) {
  const std::set<std::string> known = KnownKeys(subject.update);
  for (const auto& [key, value] : subject.update.Values()) {
    if (known.count(key) != 0 || key == "updatelist" || key == "updateprogresslist") {
      continue;
    }
    const Item* owner = OwnerOf(key, subject.update.Items());
    if (owner == nullptr) {
      continue;
    }
    const bool named = key.compare(0, owner->name.size(), owner->name) == 0;
    const std::string suffix = key.substr(named ? owner->name.size() : owner->prefix.size());
    const std::string nearest = Nearest(*owner, suffix);
    subject.findings.Add(Kind::kPropertyUnknown, {owner->name, key, value},
                         "nothing reads this property",
                         nearest.empty() ? "no such property" : "\"" + nearest + "\", perhaps");
  }
}

}  // namespace

void CheckProperties(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    for (const PropertyRule& rule : RuleOf(item.kind).properties) {
      CheckRequired(subject, item, rule);
    }
    CheckOverride(subject, item);
  }
  CheckUnknown(subject);
}

}  // namespace featurehost::lint
