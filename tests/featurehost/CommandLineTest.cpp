#include <gmock/gmock.h>

#include "featurehost/src/CommandLine.h"
#include "featurehost/src/HostError.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

using CommandLineTest = HostTest;

std::optional<Options> Parse(std::vector<const char*> words) {
  words.insert(words.begin(), "featurehost");
  return ParseCommandLine(static_cast<int>(words.size()), words.data());
}

std::string Error(const std::vector<const char*>& words) {
  try {
    Parse(words);
  } catch (const HostError& error) {
    EXPECT_EQ(ExitCode::kUsage, error.Code());
    EXPECT_THAT(error.what(), Not(HasSubstr("\n")));
    return error.what();
  }
  return "no error";
}

TEST_F(CommandLineTest, CommandsAndDefaults) {
  const auto install = *Parse({"install", "update.toml"});
  EXPECT_EQ(Options::Command::kInstall, install.command);
  EXPECT_EQ("update.toml", install.configuration);
  EXPECT_EQ("", install.module);
  EXPECT_EQ("", install.feature);
  EXPECT_EQ(Level::kWarning, install.logLevel);
  EXPECT_EQ("", install.logFile);
  EXPECT_FALSE(install.json);
  EXPECT_FALSE(install.quiet);
  EXPECT_EQ(Options::Command::kPrepare, Parse({"prepare", "x"})->command);
  EXPECT_EQ(Options::Command::kType, Parse({"type"})->command);
  EXPECT_EQ(Options::Command::kCleanUp, Parse({"cleanup"})->command);
  EXPECT_FALSE(Parse({"cleanup"})->dryRun);
  EXPECT_TRUE(Parse({"cleanup", "--dry-run"})->dryRun);
}

TEST_F(CommandLineTest, OptionsStandBeforeOrBehindTheCommand) {
  for (const auto& options :
       {*Parse({"install", "--module", "m", "u", "--feature", "f", "--log-level", "interface",
                "--log-file", "l", "--json", "--quiet"}),
        *Parse({"--module=m", "--feature=f", "--log-level=interface", "--log-file=l", "--json",
                "--quiet", "install", "u"})}) {
    EXPECT_EQ("u", options.configuration);
    EXPECT_EQ("m", options.module);
    EXPECT_EQ("f", options.feature);
    EXPECT_EQ(Level::kInterface, options.logLevel);
    EXPECT_EQ("l", options.logFile);
    EXPECT_TRUE(options.json);
    EXPECT_TRUE(options.quiet);
  }
}

TEST_F(CommandLineTest, HelpAndVersionAreNoRun) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(std::nullopt, Parse({"--version"}));
  EXPECT_EQ("featurehost " FEATUREHOST_VERSION "\n", testing::internal::GetCapturedStdout());
  for (const std::vector<const char*>& words :
       {std::vector<const char*>{"--help"}, {"install", "--help"}}) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(std::nullopt, Parse(words));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("Usage: featurehost"));
  }
}

TEST_F(CommandLineTest, WrongUseIsOneLineThatTellsWhereToLook) {
  EXPECT_EQ("no command given; say install, prepare, lint, type or cleanup", Error({}));
  EXPECT_THAT(Error({"install"}), HasSubstr("CONFIG"));
  EXPECT_THAT(Error({"remove", "x"}), HasSubstr("remove"));
  EXPECT_THAT(Error({"install", "a", "b"}), HasSubstr("b"));
  EXPECT_THAT(Error({"install", "a", "--fast"}), HasSubstr("--fast"));
  EXPECT_THAT(Error({"install", "a", "--module"}), HasSubstr("--module"));
  EXPECT_THAT(Error({"install", "a", "--log-level", "loud"}), HasSubstr("loud"));
  EXPECT_THAT(Error({"type", "prepare", "a"}), Not(HasSubstr("no error")));
  EXPECT_THAT(Error({"install", "a", "--dry-run"}), HasSubstr("--dry-run"));
  EXPECT_THAT(Error({"cleanup", "a"}), HasSubstr("a"));
  EXPECT_THAT(Error({"install"}), EndsWith("; see featurehost --help"));
}

TEST_F(CommandLineTest, FeatureIdsThatTheContractCannotCarryAreRefused) {
  const std::string longest(63, 'x');
  const std::string tooLong(64, 'x');
  EXPECT_EQ(longest, Parse({"install", "u", "--feature", longest.c_str()})->feature);
  EXPECT_EQ("--feature: feature id '" + tooLong + "' has 64 bytes; at most 63 are possible",
            Error({"install", "u", "--feature", tooLong.c_str()}));
  EXPECT_EQ("--feature: the feature id is empty; it takes 1 to 63 bytes",
            Error({"install", "u", "--feature", ""}));
}

}  // namespace
}  // namespace featurehost
