#pragma once

#include <string>
#include <vector>

namespace featurehost::lint {

enum class ItemKind { kArchive, kImage, kCheck, kFactoryData, kEndOfLineSettings };

/** How the module reads a property. */
enum class Form {
  kText,         ///< only written to the log
  kSource,       ///< path of a file that is read
  kTarget,       ///< path of what is written
  kFolder,       ///< path of a folder to mount on
  kFileName,     ///< file on the target's file system
  kNumber,       ///< the decimal number at the begin of the text, within 32 bits
  kWholeNumber,  ///< a decimal number and nothing else, within 64 bits
  kBlockSize,    ///< block size of dd
};

/** How a value gets to the tool that works with it. */
enum class Way {
  kNone,        ///< not at all
  kArgument,    ///< an argument of its own
  kInArgument,  ///< behind a name and "=", in an argument
  kShellWord,   ///< a word of a shell command
  kInShellWord  ///< inside of a word of a shell command
};

struct PropertyRule {
  const char* suffix;
  bool required;
  bool mayBeEmpty;
  Form form;
  Way way;
};

/** What the module does with the items of a kind. The one place that names their properties. */
struct ItemRule {
  ItemKind kind;
  std::vector<PropertyRule> properties;
  std::vector<const char*> tools;  ///< absolute, or to be found on the search path
};

ItemKind KindOfItem(const std::string& name);
/** What the keys of an item's properties begin with. */
std::string KeyPrefixOf(const std::string& name);
const ItemRule& RuleOf(ItemKind kind);

}  // namespace featurehost::lint
