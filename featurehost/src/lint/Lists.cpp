#include <algorithm>
#include <set>
#include <string>

#include "featurehost/src/lint/Checks.h"

namespace featurehost::lint {

namespace {

constexpr std::size_t kMostItems = 65535;

void CheckPresence(const Subject& subject) {
  for (const char* key : {"updatelist", "updateprogresslist"}) {
    if (!subject.update.Value(key).has_value()) {
      subject.findings.Add(
          Kind::kListMissing, {"", key, ""}, "the prepare fails without this property",
          "a list separated by \";\", such as " + std::string(key == std::string("updatelist")
                                                                  ? "\"userfs;rootfs;checkrootfs\""
                                                                  : "\"60;30;10\""));
    }
  }
  if (subject.update.Value("updatelist").has_value() && subject.update.Names().empty()) {
    subject.findings.Add(Kind::kListEmpty, {"", "updatelist", ""},
                         "the install succeeds without doing anything", "the items to install");
  }
  if (subject.update.Names().size() > kMostItems) {
    subject.findings.Add(Kind::kTooManyItems, {"", "updatelist", ""},
                         "items are counted in 16 bits: with " +
                             std::to_string(subject.update.Names().size()) +
                             " of them some are left out silently",
                         "65535 items at most");
  }
}

void CheckLengths(const Subject& subject) {
  const auto& names = subject.update.Names();
  const auto& weights = subject.update.Weights();
  if (!subject.update.Value("updatelist").has_value() ||
      !subject.update.Value("updateprogresslist").has_value()) {
    return;
  }
  if (weights.size() < names.size()) {
    subject.findings.Add(
        Kind::kItemWithoutWeight,
        {names[weights.size()], "updateprogresslist", subject.update.Text("updateprogresslist")},
        "item " + std::to_string(weights.size() + 1) +
            " has no weight; it and all behind it are dropped silently, and the install succeeds "
            "without them",
        "a weight for each of the " + std::to_string(names.size()) + " items");
  }
  if (weights.size() > names.size() && !names.empty()) {
    subject.findings.Add(
        Kind::kWeightWithoutItem,
        {"", "updateprogresslist", subject.update.Text("updateprogresslist")},
        std::to_string(weights.size()) + " weights for " + std::to_string(names.size()) +
            " items: those behind the last item are ignored, perhaps an item is missing",
        "as many weights as items");
  }
}

void CheckCheck(const Subject& subject, const std::string& name,
                const std::set<std::string>& before) {
  const std::string image = KeyPrefixOf(name);
  if (image.empty()) {
    subject.findings.Add(Kind::kCheckWithoutName, {name, "", name},
                         "no image is named behind \"check\", so its prepare fails",
                         "the image's name behind it, such as checkrootfs");
  } else if (before.count(image) == 0 || KindOfItem(image) != ItemKind::kImage) {
    subject.findings.Add(Kind::kCheckWithoutImage, {name, "", name},
                         "no item \"" + image + "\" writes an image before this one: what is " +
                             "compared is what was on the device before the update",
                         "the item \"" + image + "\" before \"" + name + "\"");
  }
}

void CheckName(const Subject& subject, const std::string& name,
               const std::set<std::string>& before) {
  constexpr const char* kBlanks = " \t\r\n";
  if (name.empty()) {
    subject.findings.Add(Kind::kItemEmpty, {"", "updatelist", subject.update.Text("updatelist")},
                         "a leading or doubled \";\" makes an item without a name, whose prepare "
                         "fails",
                         "one semicolon between two items");
    return;
  }
  if (before.count(name) != 0) {
    subject.findings.Add(Kind::kItemDoubled, {name, "", name},
                         "the item stands in the list twice and is installed twice",
                         "every item once");
    return;
  }
  if (name.find_first_of(kBlanks) != std::string::npos) {
    subject.findings.Add(Kind::kItemBlanks, {name, "", name},
                         "blanks belong to the item's name and to the keys of its properties, and "
                         "an item with one is never an archive or data, but an image",
                         "items without blanks between the \";\"");
  }
  if (KindOfItem(name) == ItemKind::kCheck) {
    CheckCheck(subject, name, before);
  }
}

}  // namespace

void CheckLists(const Subject& subject) {
  CheckPresence(subject);
  CheckLengths(subject);
  std::set<std::string> before;
  for (const std::string& name : subject.update.Names()) {
    // An empty name is reported once: the list is its value.
    if (!name.empty() || before.count(name) == 0) {
      CheckName(subject, name, before);
    }
    before.insert(name);
  }
}

}  // namespace featurehost::lint
