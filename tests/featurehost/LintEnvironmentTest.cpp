#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "featurehost/src/ProcessTable.h"
#include "featurehost/src/lint/ToolTrial.h"
#include "featurehost/src/lint/UnitEnvironment.h"
#include "tests/featurehost/HostTest.h"
#include "tests/support/Eventually.h"

namespace featurehost::lint {
namespace {

using support::WriteFile;

class LintEnvironmentTest : public HostTest {
 protected:
  std::string Script(const std::string& name, const std::string& body, mode_t mode = 0755) {
    WriteFile(folder_ / name, "#!/bin/sh\n" + body + "\n");
    chmod((folder_ / name).c_str(), mode);
    return folder_ / name;
  }

  static constexpr std::chrono::milliseconds kShort{200};

  UnitEnvironment unit_;
};

TEST_F(LintEnvironmentTest, SeesWhatStandsAtAPath) {
  WriteFile(folder_ / "file", "12345");
  EXPECT_EQ(FileFacts::Type::kFile, unit_.Look(folder_ / "file").type);
  EXPECT_EQ(5U, unit_.Look(folder_ / "file").size);
  EXPECT_TRUE(unit_.Look(folder_ / "file").readable);
  EXPECT_EQ(FileFacts::Type::kFolder, unit_.Look(folder_.Path()).type);
  EXPECT_EQ(FileFacts::Type::kOther, unit_.Look("/dev/null").type);
  EXPECT_EQ(FileFacts::Type::kMissing, unit_.Look(folder_ / "missing").type);
  EXPECT_EQ(FileFacts::Type::kMissing, unit_.Look("").type);
}

TEST_F(LintEnvironmentTest, ReadsBothEndsOfACompressedFile) {
  support::WriteGzip(folder_ / "image.gz", std::string(70000, 'x'));
  const auto ends = unit_.Ends(folder_ / "image.gz");
  ASSERT_TRUE(ends.has_value());
  EXPECT_TRUE(ends->isGzip);
  EXPECT_FALSE(ends->inBlocks);
  EXPECT_EQ(70000U, ends->lastLength);

  WriteFile(folder_ / "text", "a text that is longer than a header");
  EXPECT_FALSE(unit_.Ends(folder_ / "text")->isGzip);
  WriteFile(folder_ / "short", std::string("\x1f\x8b\x08", 3));
  EXPECT_FALSE(unit_.Ends(folder_ / "short")->isGzip);
  EXPECT_EQ(std::nullopt, unit_.Ends(folder_ / "missing"));
}

TEST_F(LintEnvironmentTest, KnowsFilesThatArePackedInBlocks) {
  // The begin of such a file: an extra field named BC with the size of the member.
  const std::string header("\x1f\x8b\x08\x04\0\0\0\0\0\xff\x06\0BC\x02\0\x1b\0", 18);
  WriteFile(folder_ / "blocks.gz", header + std::string("\x03\0\0\0\0\0\0\0\0\0", 10));
  EXPECT_TRUE(unit_.Ends(folder_ / "blocks.gz")->inBlocks);
  std::string other = header;
  other[12] = 'X';
  WriteFile(folder_ / "other.gz", other + std::string("\x03\0\0\0\0\0\0\0\0\0", 10));
  EXPECT_FALSE(unit_.Ends(folder_ / "other.gz")->inBlocks);
}

TEST_F(LintEnvironmentTest, MountPointsAreFoundThroughLinks) {
  EXPECT_EQ("/proc", unit_.MountPointAt("/proc"));
  EXPECT_EQ("/proc", unit_.MountPointAt("/proc/"));
  support::Shell("ln -s /proc " + (folder_ / "link"));
  EXPECT_EQ("/proc", unit_.MountPointAt(folder_ / "link"));
  EXPECT_EQ("", unit_.MountPointAt(folder_.Path()));
  EXPECT_EQ("", unit_.MountPointAt(folder_ / "missing"));
  EXPECT_THAT(unit_.MountPointsOf("/dev/null"), testing::IsEmpty());
}

TEST_F(LintEnvironmentTest, ToolsAreFoundOnTheSearchPath) {
  EXPECT_EQ(ToolState::kUsable, unit_.Tool("/bin/sh"));
  EXPECT_EQ(ToolState::kUsable, unit_.Tool("sh"));
  EXPECT_EQ(ToolState::kMissing, unit_.Tool("no-such-tool"));
  EXPECT_EQ(ToolState::kMissing, unit_.Tool(folder_ / "missing"));
  EXPECT_EQ(ToolState::kNotExecutable, unit_.Tool(Script("plain", "exit 0", 0644)));
}

TEST_F(LintEnvironmentTest, DecompressorIsTriedWithADamagedFile) {
  EXPECT_EQ(false, unit_.AcceptsDamage("/bin/zcat"));
  // This one would also be content with the sample if it were no gzip at all.
  EXPECT_EQ(true, unit_.AcceptsDamage(
                      Script("lenient", "gzip -cd \"$1\"; test \"$(gzip -cd \"$1\")\" = sample")));
  EXPECT_EQ(std::nullopt, unit_.AcceptsDamage(folder_ / "missing"));
}

TEST_F(LintEnvironmentTest, BusyBoxIsToldByWhatItDoesWithADamagedFile) {
  if (unit_.Tool("busybox") != ToolState::kUsable) {
    GTEST_SKIP() << "no busybox on this machine";
  }
  support::WriteGzip(folder_ / "good.gz", "content");
  std::string content = support::ReadFile(folder_ / "good.gz");
  content[content.size() - 8] = static_cast<char>(content[content.size() - 8] ^ 1);
  WriteFile(folder_ / "damaged.gz", content);
  const std::string zcat = Script("zcat", "exec busybox zcat \"$@\"");
  const auto code = TryTool(zcat, {folder_ / "damaged.gz"});
  ASSERT_TRUE(code.has_value());
  EXPECT_EQ(*code == 0, unit_.AcceptsDamage(zcat));
}

/** Values that no dd takes; the last one is a number to it, but nobody has that much memory. */
constexpr const char* kRefusedBlockSizes[] = {"0",
                                              "0k",
                                              "00",
                                              "-1",
                                              "32q",
                                              "32k ",
                                              "9999999999999999G",
                                              "99999999999G",
                                              "18446744073709551616",
                                              "1000000G"};

TEST_F(LintEnvironmentTest, DdIsTriedWithTheBlockSize) {
  EXPECT_EQ(true, unit_.TakesBlockSize("32k"));
  EXPECT_EQ(true, unit_.TakesBlockSize("4096"));
  for (const char* text : kRefusedBlockSizes) {
    EXPECT_EQ(false, unit_.TakesBlockSize(text)) << text;
  }
}

TEST_F(LintEnvironmentTest, BusyBoxDdIsTriedWithTheBlockSize) {
  if (unit_.Tool("busybox") != ToolState::kUsable) {
    GTEST_SKIP() << "no busybox on this machine";
  }
  Script("dd", "exec busybox dd \"$@\"");
  const std::string path = getenv("PATH");  // NOLINT(concurrency-mt-unsafe): there is one thread
  setenv("PATH", (folder_.Path() + ":" + path).c_str(), 1);
  EXPECT_EQ(true, unit_.TakesBlockSize("32k"));
  EXPECT_EQ(true, unit_.TakesBlockSize("4096"));
  for (const char* text : kRefusedBlockSizes) {
    EXPECT_EQ(false, unit_.TakesBlockSize(text)) << text;
  }
  setenv("PATH", path.c_str(), 1);
}

TEST_F(LintEnvironmentTest, TrialsHaveNeitherInputNorOutput) {
  EXPECT_EQ(0, TryTool(Script("quiet", "cat; echo loud; echo louder >&2; exit 0"), {}));
  EXPECT_EQ(7, TryTool(Script("seven", "exit 7"), {}));
  EXPECT_EQ(std::nullopt, TryTool(Script("killed", "kill -9 $$"), {}));
}

TEST_F(LintEnvironmentTest, TrialWhoseEndCannotBeHeardOfTellsNothing) {
  // The kernel keeps no exit code then, and the wait ends without one.
  struct sigaction ignored {};
  struct sigaction before {};
  ignored.sa_handler = SIG_IGN;
  ASSERT_EQ(0, sigaction(SIGCHLD, &ignored, &before));
  EXPECT_EQ(std::nullopt, TryTool(Script("good", "exit 0"), {}));
  EXPECT_EQ(std::nullopt, unit_.TakesBlockSize("32q"));
  EXPECT_EQ(std::nullopt, TryTool(Script("hang", "exec sleep 1000"), {}, kShort));
  sigaction(SIGCHLD, &before, nullptr);
  EXPECT_EQ(false, unit_.TakesBlockSize("32q"));
}

TEST_F(LintEnvironmentTest, TrialThatHangsIsEndedWithItsChildren) {
  const std::string marker = folder_ / "children";
  const std::string tool = Script("hang", "sleep 1000 & echo $! > " + marker + "; wait");
  // On a busy machine it may be ended before it has got so far.
  pid_t child = 0;
  for (std::chrono::seconds limit{1}; child == 0 && limit.count() < 60; limit *= 4) {
    EXPECT_EQ(std::nullopt, TryTool(tool, {}, limit));
    std::ifstream(marker) >> child;
  }
  ASSERT_GT(child, 0);
  EXPECT_TRUE(support::Eventually([&] { return !IsAlive(NameOf(child)); }));
}

}  // namespace
}  // namespace featurehost::lint
