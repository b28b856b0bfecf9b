#include <cstdlib>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "tests/featurehost/HostTest.h"
#include "tests/featurehost/LintScene.h"

namespace featurehost::lint {
namespace {

/** A property, and a command of the module that it becomes part of, in the place of "VALUE". */
struct Place {
  const char* key;
  const char* command;
};

constexpr Place kWords[] = {
    {"userfstarget", "mount -t ext3 -o rw,commit=3600 VALUE /mnt"},
    {"userfsmountpoint", "mount -t ext3 -o rw,commit=3600 /dev/a VALUE"},
    {"userfsmountpoint", "umount -d VALUE"},
    {"eolsettingstarget", "mount -o rw,nosuid VALUE /tmp/eol"},
};
constexpr Place kInWords[] = {
    {"factorydatasource", "dd if=VALUE of=/dev/a bs=1 skip=0 count=1"},
    {"factorydatatarget", "dd if=/a of=VALUE bs=1 skip=0 count=1"},
    {"eolsettingssource", "dd if=VALUE of=/tmp/eol/a bs=1 skip=0 count=1"},
    {"eolsettingstargetfilename", "dd if=/a of=/tmp/eol/VALUE bs=1 skip=0 count=1"},
    {"eolsettingstargetfilename", "mkdir -p /tmp/eol/VALUE"},
};

std::string Replaced(std::string text, const std::string& piece, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(piece, at)) != std::string::npos; at += with.size()) {
    text.replace(at, piece.size(), with);
  }
  return text;
}

std::string Line(const Place& place, const std::string& value) {
  return Replaced(place.command, "VALUE", value);
}

/** What Show prints when the shell takes nothing for its own. */
std::string Words(const Place& place, const std::string& value) {
  return "<" + Replaced(Replaced(place.command, " ", "><"), "VALUE", value) + ">\n";
}

bool IsFound(const Place& place, const std::string& value) {
  Scene scene;
  scene.values[place.key] = value;
  for (const Finding& finding : scene.Lint()) {
    if (finding.kind == Kind::kPathShell && finding.property == place.key) {
      return true;
    }
  }
  return false;
}

/** What real shells make of the module's commands. */
class LintPathsTest : public HostTest {
 protected:
  /** The one that runs the commands here, and those that may on a unit, as far as they are there.
   */
  static std::vector<std::string> Shells() {
    std::vector<std::string> shells{"/bin/sh"};
    for (const std::string shell : {"busybox sh", "bash --posix"}) {
      if (std::system((shell + " -c true 2>/dev/null").c_str()) == 0) {  // NOLINT
        shells.push_back(shell);
      }
    }
    return shells;
  }

  /** The words of each line, as the commands get them; cut short where a shell gives up. */
  std::string Show(const std::string& shell, const std::vector<std::string>& lines) const {
    std::string script = "Show() { printf '<%s>' \"$@\"; echo; }\n";
    for (const std::string& line : lines) {
      script += "Show " + line + "\n";
    }
    support::WriteFile(folder_ / "script", script);
    support::Shell("mkdir -p '" + folder_ / "empty" + "' && cd '" + folder_ / "empty" +
                   "' && HOME=/home/user " + shell + " ../script >../shown 2>/dev/null </dev/null" +
                   "; true");
    return support::ReadFile(folder_ / "shown");
  }
};

TEST_F(LintPathsTest, WhatIsNotFoundReachesTheToolsAsItIs) {
  std::vector<std::string> values = {"/a/\xc3\xa9", "LABEL=~a", "LABEL=#a", "/a~/~/~", "/a/#/b#"};
  for (const char character : std::string(" \t!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~")) {
    for (const char* form : {"%a/b", "/a%b", "/a/%b", "/a/b%", "a=%/b", "a:%/b"}) {
      values.push_back(Replaced(form, "%", {character}));
    }
  }
  std::vector<std::string> lines;
  std::string expected;
  std::vector<Place> places(std::begin(kWords), std::end(kWords));
  places.insert(places.end(), std::begin(kInWords), std::end(kInWords));
  for (const Place& place : places) {
    for (const std::string& value : values) {
      if (!IsFound(place, value)) {
        lines.push_back(Line(place, value));
        expected += Words(place, value);
      }
    }
  }
  EXPECT_GT(lines.size(), 500U);
  for (const std::string& shell : Shells()) {
    EXPECT_EQ(expected, Show(shell, lines)) << shell;
  }
}

TEST_F(LintPathsTest, TildeAndHashAreFoundWhereAShellTakesThemForItsOwn) {
  for (const Place& place : kWords) {
    for (const char* value : {"~", "~/a", "~root/a", "#", "#a"}) {
      EXPECT_TRUE(IsFound(place, value)) << place.key << " " << value;
      for (const std::string& shell : Shells()) {
        EXPECT_NE(Words(place, value), Show(shell, {Line(place, value)})) << shell;
      }
    }
  }
}

TEST_F(LintPathsTest, TildeAndHashAreNotFoundWhereAShellLeavesThemAlone) {
  for (const Place& place : kWords) {
    for (const char* value :
         {"/a~", "/a/~/b", "/a#b", "/a/#b", "LABEL=~/a", "LABEL=#a", "/a:~/b"}) {
      EXPECT_FALSE(IsFound(place, value)) << place.key << " " << value;
    }
  }
  for (const Place& place : kInWords) {
    for (const char* value : {"~", "~/a", "~root/a", "#", "#a", "/a~", "/a#b", "/a/#b", "a:~/b"}) {
      EXPECT_FALSE(IsFound(place, value)) << place.key << " " << value;
      for (const std::string& shell : Shells()) {
        EXPECT_EQ(Words(place, value), Show(shell, {Line(place, value)})) << shell;
      }
    }
  }
}

}  // namespace
}  // namespace featurehost::lint
