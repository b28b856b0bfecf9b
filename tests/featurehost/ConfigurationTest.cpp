#include <functional>
#include <gmock/gmock.h>

#include "featurehost/src/Configuration.h"
#include "featurehost/src/HostError.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

class ConfigurationTest : public HostTest {
 protected:
  Configuration Load(const std::string& text) {
    support::WriteFile(Path(), text);
    return Configuration::Load(Path());
  }

  std::string Path() const { return folder_ / "update.toml"; }

  /** The error's line; every one of them ends the process with the usage code. */
  static std::string Error(const std::function<void()>& action) {
    try {
      action();
    } catch (const HostError& error) {
      EXPECT_EQ(ExitCode::kUsage, error.Code());
      EXPECT_THAT(error.what(), Not(HasSubstr("\n")));
      return error.what();
    }
    return "no error";
  }

  std::string LoadError(const std::string& text) {
    return Error([&] { Load(text); });
  }
};

TEST_F(ConfigurationTest, TablesAreFeaturesAndKeysTheirProperties) {
  const auto configuration =
      Load("[one]\nupdatelist = \"a;b\"\nempty = ''\n[\"two 2\"]\nx = 'y'\n");
  EXPECT_THAT(configuration.Of("one"), ElementsAre(Pair("empty", ""), Pair("updatelist", "a;b")));
  EXPECT_THAT(configuration.Of("two 2"), ElementsAre(Pair("x", "y")));
}

TEST_F(ConfigurationTest, IntegersAndBooleansAreTakenAsTheirText) {
  const auto configuration =
      Load("[f]\na = 512\nb = -1\nc = 4_294_967_296\nd = 0x10\ne = true\nf = false\n");
  EXPECT_THAT(configuration.Of("f"),
              ElementsAre(Pair("a", "512"), Pair("b", "-1"), Pair("c", "4294967296"),
                          Pair("d", "16"), Pair("e", "true"), Pair("f", "false")));
}

TEST_F(ConfigurationTest, ValuesOfOtherTypesAreRefusedWithFileLineAndKey) {
  for (const std::string value : {"1.5", "[1, 2]", "{a = 1}", "1979-05-27", "07:32:00"}) {
    EXPECT_THAT(LoadError("[feature]\ngood = 1\n\nbad = " + value + "\n"),
                AllOf(StartsWith(Path() + ":4: key 'bad' of feature 'feature' is of type "),
                      HasSubstr("write a string, an integer or a boolean")))
        << value;
  }
  EXPECT_THAT(LoadError("[feature]\n[feature.nested]\na = 1\n"),
              StartsWith(Path() + ":2: key 'nested' of feature 'feature' is of type table"));
}

TEST_F(ConfigurationTest, TextThatIsNotTomlIsRefusedWithFileAndLine) {
  EXPECT_THAT(LoadError("[feature]\nkey = \n"), StartsWith(Path() + ":2: not valid TOML: "));
  EXPECT_THAT(LoadError("[feature\n"), StartsWith(Path() + ":1: not valid TOML: "));
  EXPECT_THAT(LoadError("[f]\na = 1\na = 2\n"), StartsWith(Path() + ":3: not valid TOML: "));
  EXPECT_THAT(LoadError("[f]\na = '\xff'\n"), StartsWith(Path() + ":2: not valid TOML: "));
  EXPECT_THAT(LoadError("[f]\n[=]\n"), StartsWith(Path() + ":2: not valid TOML: "));
}

TEST_F(ConfigurationTest, LettersBeyondAsciiOutsideOfStringsAreRefused) {
  for (const char* letter : {"\u00e9", "\u3042", "\ufefb", "\u00a1"}) {
    EXPECT_THAT(LoadError("[f]\n" + std::string(letter) + " = 1\n"),
                StartsWith(Path() + ":2: not valid TOML: "))
        << letter;
  }
}

TEST_F(ConfigurationTest, KeyOutsideOfATableIsRefused) {
  EXPECT_THAT(LoadError("updatelist = 'a'\n[feature]\n"),
              StartsWith(Path() + ":1: key 'updatelist' stands outside of a feature's table"));
}

TEST_F(ConfigurationTest, NulInAValueIsRefused) {
  EXPECT_THAT(LoadError("[f]\na = \"x\\u0000y\"\n"),
              StartsWith(Path() + ":2: key 'a' of feature 'f' contains a NUL character"));
}

TEST_F(ConfigurationTest, FileThatCannotBeReadIsNamed) {
  const std::string missing = folder_ / "missing.toml";
  EXPECT_EQ(missing + ": cannot read the configuration: No such file or directory",
            Error([&] { Configuration::Load(missing); }));
  EXPECT_EQ(folder_.Path() + ": is a folder, not a configuration file",
            Error([&] { Configuration::Load(folder_.Path()); }));
}

TEST_F(ConfigurationTest, FeatureIsTheOnlyOneUnlessOneIsWanted) {
  EXPECT_EQ("solo", Load("[solo]\n").Choose(""));
  const auto two = Load("[a]\n[b]\n");
  EXPECT_EQ("b", two.Choose("b"));
  EXPECT_EQ(Path() + ": holds 2 features; choose one with --feature: a, b",
            Error([&] { two.Choose(""); }));
  EXPECT_EQ(Path() + ": has no table for feature 'c'; it holds: a, b",
            Error([&] { two.Choose("c"); }));
  const auto none = Load("# nothing\n");
  EXPECT_EQ(Path() + ": holds no feature; add a table [FEATURE-ID] with its properties",
            Error([&] { none.Choose(""); }));
}

TEST_F(ConfigurationTest, FeatureIdsOf1To63BytesAreTaken) {
  const std::string longest(63, 'x');
  EXPECT_EQ(longest, Load("[" + longest + "]\n").Choose(""));
  EXPECT_EQ("x", Load("[x]\n").Choose(""));
  const std::string tooLong(64, 'x');
  EXPECT_EQ(Path() + ":2: feature id '" + tooLong + "' has 64 bytes; at most 63 are possible",
            LoadError("\n[" + tooLong + "]\n"));
  EXPECT_EQ(Path() + ":1: the feature id is empty; it takes 1 to 63 bytes", LoadError("['']\n"));
  EXPECT_EQ(Path() + ":1: the feature id contains a NUL character", LoadError("[\"a\\u0000\"]\n"));
}

TEST_F(ConfigurationTest, PropertiesAnswerForTheirFeatureAndLeaveTheValueOtherwise) {
  const Properties properties("f", {{"key", "text"}, {"empty", ""}});
  std::string value = "before";
  EXPECT_EQ(EFalse, properties.GetProperty("f", "missing", value));
  EXPECT_EQ(EFalse, properties.GetProperty("g", "key", value));
  EXPECT_EQ("before", value);
  EXPECT_EQ(ETrue, properties.GetProperty("f", "key", value));
  EXPECT_EQ("text", value);
  EXPECT_EQ(ETrue, properties.GetProperty("f", "empty", value));
  EXPECT_EQ("", value);
}

}  // namespace
}  // namespace featurehost
