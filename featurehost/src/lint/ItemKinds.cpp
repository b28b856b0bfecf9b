#include "featurehost/src/lint/ItemKinds.h"

#include <algorithm>

namespace featurehost::lint {

namespace {

const std::string kCheckPrefix = "check";

const std::vector<ItemRule>& Rules() {
  static const std::vector<ItemRule> rules = {
      {ItemKind::kArchive,
       {{"source", true, false, Form::kSource, Way::kArgument},
        {"target", true, false, Form::kTarget, Way::kShellWord},
        {"mountpoint", true, false, Form::kFolder, Way::kShellWord},
        {"filesystem", true, true, Form::kText, Way::kNone}},
       {"/bin/sh", "mount", "umount", "/bin/zcat", "/bin/tar"}},
      {ItemKind::kImage,
       {{"source", true, false, Form::kSource, Way::kArgument},
        {"altsource", false, true, Form::kSource, Way::kArgument},
        {"target", true, false, Form::kTarget, Way::kInArgument},
        {"targetsize", true, true, Form::kWholeNumber, Way::kNone},
        {"blocksize", false, true, Form::kBlockSize, Way::kInArgument},
        {"checksum", true, true, Form::kText, Way::kNone},
        {"version", false, true, Form::kText, Way::kNone}},
       {"/bin/sh", "zcat", "dd", "fdisk", "sleep"}},
      {ItemKind::kCheck,
       {{"source", true, false, Form::kSource, Way::kArgument},
        {"target", true, false, Form::kTarget, Way::kNone},
        {"targetsize", true, true, Form::kWholeNumber, Way::kNone}},
       {"/bin/zcat"}},
      {ItemKind::kFactoryData,
       {{"source", true, false, Form::kSource, Way::kInShellWord},
        {"target", true, false, Form::kTarget, Way::kInShellWord},
        {"offset", true, true, Form::kNumber, Way::kNone},
        {"size", true, true, Form::kNumber, Way::kNone}},
       {"/bin/sh", "dd"}},
      {ItemKind::kEndOfLineSettings,
       {{"source", true, false, Form::kSource, Way::kInShellWord},
        {"target", true, false, Form::kTarget, Way::kShellWord},
        {"targetfilename", true, false, Form::kFileName, Way::kInShellWord},
        {"offset", true, true, Form::kNumber, Way::kNone},
        {"size", true, true, Form::kNumber, Way::kNone}},
       {"/bin/sh", "mkdir", "mount", "dd", "umount", "rmdir"}},
  };
  return rules;
}

bool IsCheck(const std::string& name) {
  return name.compare(0, kCheckPrefix.size(), kCheckPrefix) == 0;
}

}  // namespace

ItemKind KindOfItem(const std::string& name) {
  if (name == "userfs") {
    return ItemKind::kArchive;
  }
  if (name == "factorydata") {
    return ItemKind::kFactoryData;
  }
  if (name == "eolsettings") {
    return ItemKind::kEndOfLineSettings;
  }
  return IsCheck(name) ? ItemKind::kCheck : ItemKind::kImage;
}

std::string KeyPrefixOf(const std::string& name) {
  return KindOfItem(name) == ItemKind::kCheck ? name.substr(kCheckPrefix.size()) : name;
}

const ItemRule& RuleOf(ItemKind kind) {
  return *std::find_if(Rules().begin(), Rules().end(),
                       [kind](const ItemRule& rule) { return rule.kind == kind; });
}

}  // namespace featurehost::lint
