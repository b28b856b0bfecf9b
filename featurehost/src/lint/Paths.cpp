#include "featurehost/src/lint/Paths.h"

#include <algorithm>
#include <string>

#include "featurehost/src/lint/Checks.h"

namespace featurehost::lint {

namespace {

// The file handler's buffer, and what Linux takes as one argument: the shell's command is one.
constexpr std::size_t kMountBuffer = 510;
constexpr std::size_t kArgument = 131072;

const std::string kMountArchive =
    "mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 ";

bool IsForShell(char character) {
  constexpr unsigned char kDelete = 0x7f;
  const auto byte = static_cast<unsigned char>(character);
  return byte <= ' ' || byte == kDelete ||
         std::string("|&;<>()$`\\\"'*?[]{}!^").find(character) != std::string::npos;
}

/** A home folder, or a comment. Elsewhere in a word, also behind "=" or ":", they mean nothing. */
bool IsForShellAtBegin(char character) {
  return character == '~' || character == '#';
}

bool IsForShell(const std::string& value, Way way) {
  return (way == Way::kShellWord && IsForShellAtBegin(value.front())) ||
         std::any_of(value.begin(), value.end(), [](char one) { return IsForShell(one); });
}

bool IsPath(Form form) {
  return form == Form::kSource || form == Form::kTarget || form == Form::kFolder;
}

void CheckPath(const Subject& subject, const PropertyRule& rule, const Findings::Place& place) {
  const bool isShell = rule.way == Way::kShellWord || rule.way == Way::kInShellWord;
  const bool isWord = rule.way == Way::kShellWord || rule.way == Way::kArgument;
  if (isShell && IsForShell(place.value, rule.way)) {
    subject.findings.Add(
        Kind::kPathShell, place,
        "this becomes part of a shell command as it is: the shell takes blanks and "
        "special characters for its own, and works with something else",
        "a path of letters, digits and / . _ -");
  } else if (isWord && place.value.front() == '-') {
    subject.findings.Add(Kind::kPathOption, place, "the tool takes this for an option",
                         "an absolute path");
  } else if (IsPath(rule.form) && place.value.front() != '/' &&
             !(rule.way == Way::kShellWord && IsDeviceTag(place.value))) {
    subject.findings.Add(Kind::kPathRelative, place,
                         "this depends on the folder in which the host was started",
                         "an absolute path");
  }
}

void CheckFileName(const Subject& subject, const Findings::Place& place) {
  const std::string path = "/" + place.value + "/";
  const std::string last = place.value.substr(place.value.rfind('/') + 1);
  if (path.find("/../") != std::string::npos) {
    subject.findings.Add(Kind::kTargetFileName, place,
                         "\"..\" leads out of the target's file system, to the unit's own files",
                         "a path from the root of the target's file system");
  } else if (last.empty() || last == ".") {
    subject.findings.Add(Kind::kTargetFileName, place,
                         "this names a folder, and dd cannot write it", "the name of a file");
  }
}

void CheckLength(const Subject& subject, const Findings::Place& place, std::size_t length,
                 std::size_t limit) {
  if (length >= limit) {
    subject.findings.Add(Kind::kCommandTooLong, place,
                         "the command has " + std::to_string(length) + " bytes and would have to " +
                             "have less than " + std::to_string(limit) +
                             ": it is not run, and the data does not arrive",
                         "shorter paths");
  }
}

void CheckCommand(const Subject& subject, const Item& item) {
  const auto text = [&](const char* suffix) { return subject.update.Text(item.Key(suffix)); };
  const std::string source = text("source");
  const std::string target = text("target");
  switch (item.kind) {
    case ItemKind::kArchive:
      CheckLength(subject, {item.name, item.Key("mountpoint"), text("mountpoint")},
                  kMountArchive.size() + target.size() + 1 + text("mountpoint").size(),
                  kMountBuffer);
      break;
    case ItemKind::kFactoryData:
      CheckLength(
          subject, {item.name, item.Key("source"), source},
          ("dd if=" + source + " of=" + target + " bs=1 skip=0000000000 count=0000000000").size(),
          kArgument);
      break;
    case ItemKind::kEndOfLineSettings:
      CheckLength(subject, {item.name, item.Key("source"), source},
                  ("dd if=" + source + " of=/tmp/eolmountpoint/" + text("targetfilename") + target +
                   " bs=1 skip=0000000000 count=0000000000")
                      .size(),
                  kArgument);
      break;
    default:
      break;
  }
}

}  // namespace

bool IsDeviceTag(const std::string& text) {
  const auto begins = [&text](const char* begin) {
    return text.compare(0, std::string(begin).size(), begin) == 0;
  };
  return begins("LABEL=") || begins("UUID=") || begins("PARTLABEL=") || begins("PARTUUID=");
}

void CheckPaths(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    for (const PropertyRule& rule : RuleOf(item.kind).properties) {
      const std::string key = item.Key(rule.suffix);
      const std::string value = subject.update.Text(key);
      if (!value.empty()) {
        CheckPath(subject, rule, {item.name, key, value});
        if (rule.form == Form::kFileName) {
          CheckFileName(subject, {item.name, key, value});
        }
      }
    }
    CheckCommand(subject, item);
  }
}

}  // namespace featurehost::lint
