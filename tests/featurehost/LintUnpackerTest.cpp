#include <functional>
#include <gmock/gmock.h>

#include "featurehost/src/lint/Deep.h"
#include "featurehost/src/lint/Linter.h"
#include "featurehost/src/lint/Unpacker.h"
#include "tests/featurehost/FakeEnvironment.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost::lint {
namespace {

using support::ReadFile;
using support::WriteFile;
using testing::HasSubstr;

/** With real files, made by the real tools. */
class LintUnpackerTest : public HostTest {
 protected:
  static bool GoOn(std::uint64_t /*bytes*/) { return true; }

  DeepFacts UnpackFile(const std::string& path, bool isArchive = false,
                       const std::string& checksum = "") {
    return *Unpack({path, isArchive, checksum}, GoOn);
  }

  /** A compressed file with content of its own. */
  std::string Gzip(const std::string& name, const std::string& content) {
    support::WriteGzip(folder_ / name, content);
    return folder_ / name;
  }

  /** An archive of some files, made by the tar of this machine. */
  std::string Tar(const std::string& options = "") {
    Shell(
        "mkdir -p tree/sub && head -c 3000 /dev/urandom > tree/file && : > tree/empty && "
        "ln -sf file tree/link && ln -f tree/file tree/hard && "
        "cp tree/file tree/sub/$(printf 'n%.0s' $(seq 150)) && truncate -s 1M tree/sparse && "
        "echo end >> tree/sparse && tar -cf archive.tar " +
        options + " tree");
    return folder_ / "archive.tar";
  }

  void Shell(const std::string& line) { support::Shell("cd " + folder_.Path() + " && " + line); }

  DeepFacts UnpackTar(const std::string& options = "") {
    Tar(options);
    Shell("gzip -f archive.tar");
    return UnpackFile(folder_ / "archive.tar.gz", true);
  }
};

TEST_F(LintUnpackerTest, CountsWhatAGoodFileHolds) {
  const std::string content = support::RandomBytes(3000000);
  const DeepFacts facts = UnpackFile(Gzip("image.gz", content));
  EXPECT_EQ("", facts.damage);
  EXPECT_EQ(content.size(), facts.unpacked);
  EXPECT_EQ(1U, facts.members);
  EXPECT_FALSE(facts.zerosBehind);
  EXPECT_FALSE(facts.bytesBehind);
  EXPECT_EQ("", facts.digest);
}

TEST_F(LintUnpackerTest, HighlyCompressedFileIsUnpackedToItsEnd) {
  const DeepFacts facts = UnpackFile(Gzip("zeros.gz", std::string(20000000, '\0')));
  EXPECT_EQ("", facts.damage);
  EXPECT_EQ(20000000U, facts.unpacked);
}

TEST_F(LintUnpackerTest, TruncatedFileIsDamagedWhereverItIsCut) {
  const std::string whole = ReadFile(Gzip("image.gz", support::RandomBytes(600000)));
  for (const std::size_t length :
       {std::size_t{0}, std::size_t{5}, std::size_t{300000}, whole.size() - 8, whole.size() - 1}) {
    WriteFile(folder_ / "cut.gz", whole.substr(0, length));
    EXPECT_EQ("it ends too early", UnpackFile(folder_ / "cut.gz").damage) << length;
  }
}

TEST_F(LintUnpackerTest, WrongChecksumAndWrongLengthAreDamage) {
  const std::string whole = ReadFile(Gzip("image.gz", support::RandomBytes(50000)));
  std::string wrong = whole;
  wrong[whole.size() - 8] = static_cast<char>(wrong[whole.size() - 8] ^ 1);
  WriteFile(folder_ / "crc.gz", wrong);
  EXPECT_THAT(UnpackFile(folder_ / "crc.gz").damage, HasSubstr("incorrect data check"));
  wrong = whole;
  wrong[whole.size() - 1] = 1;
  WriteFile(folder_ / "length.gz", wrong);
  EXPECT_THAT(UnpackFile(folder_ / "length.gz").damage, HasSubstr("incorrect length check"));
}

TEST_F(LintUnpackerTest, MembersAndWhatStandsBehindThemAreTold) {
  const std::string one = ReadFile(Gzip("one.gz", support::RandomBytes(300000, 1)));
  const std::string two = ReadFile(Gzip("two.gz", support::RandomBytes(1000, 2)));
  WriteFile(folder_ / "both.gz", one + two);
  DeepFacts facts = UnpackFile(folder_ / "both.gz");
  EXPECT_EQ("", facts.damage);
  EXPECT_EQ(2U, facts.members);
  EXPECT_EQ(301000U, facts.unpacked);

  WriteFile(folder_ / "zeros.gz", one + std::string(600000, '\0'));
  facts = UnpackFile(folder_ / "zeros.gz");
  EXPECT_TRUE(facts.zerosBehind);
  EXPECT_FALSE(facts.bytesBehind);
  EXPECT_EQ(1U, facts.members);

  WriteFile(folder_ / "bytes.gz", one + "behind");
  facts = UnpackFile(folder_ / "bytes.gz");
  EXPECT_EQ("", facts.damage);
  EXPECT_TRUE(facts.bytesBehind);
}

TEST_F(LintUnpackerTest, MissingFileIsDamage) {
  EXPECT_THAT(UnpackFile(folder_ / "missing").damage, HasSubstr("No such file"));
}

TEST_F(LintUnpackerTest, DigestsOfTheContentAndOfTheFileAreThoseOfTheTools) {
  const std::string path = Gzip("image.gz", support::RandomBytes(300000));
  for (const auto& [tool, digits] :
       std::map<std::string, std::size_t>{{"md5sum", 32}, {"sha1sum", 40}, {"sha256sum", 64}}) {
    Shell("zcat image.gz | " + tool + " | cut -d ' ' -f 1 | tr -d '\\n' > inside");
    Shell(tool + " image.gz | cut -d ' ' -f 1 | tr -d '\\n' > outside");
    const DeepFacts facts = UnpackFile(path, false, std::string(digits, 'A'));
    EXPECT_EQ(ReadFile(folder_ / "inside"), facts.digest) << tool;
    EXPECT_EQ(ReadFile(folder_ / "outside"), facts.compressedDigest) << tool;
  }
  for (const std::string& other : {std::string(31, 'a'), std::string(32, 'g'), std::string()}) {
    EXPECT_EQ("", UnpackFile(path, false, other).digest) << other;
  }
}

TEST_F(LintUnpackerTest, ArchivesOfEveryFormatAreWhole) {
  for (const std::string format : {"gnu", "oldgnu", "pax", "posix", "ustar", "v7"}) {
    if (format == "v7" || format == "ustar") {
      // These have no room for the long name.
      const DeepFacts facts = UnpackTar("--format=" + format + " --exclude='*nnn*'");
      EXPECT_EQ("", facts.tarProblem) << format;
      continue;
    }
    const DeepFacts facts = UnpackTar("--format=" + format);
    EXPECT_EQ("", facts.tarProblem) << format;
    // Two files of 3000 bytes (the hard link has no data) and the sparse one.
    EXPECT_EQ(3000U + 3000U + 1048576U + 4U, facts.contents) << format;
  }
}

TEST_F(LintUnpackerTest, SparseArchivesAreWhole) {
  for (const std::string format : {"gnu", "pax"}) {
    EXPECT_EQ("", UnpackTar("--sparse --format=" + format).tarProblem) << format;
  }
}

TEST_F(LintUnpackerTest, SparseFileWithALongMapIsWhole) {
  // More pieces than the header has room for: the map goes on in blocks of its own.
  Shell(
      "mkdir -p tree && for i in $(seq 0 63); do "
      "printf x | dd of=tree/holes bs=1 seek=$((i * 131072)) conv=notrunc status=none; done");
  EXPECT_EQ("", UnpackTar("--sparse --format=gnu").tarProblem);
}

TEST_F(LintUnpackerTest, DamagedArchivesAreFound) {
  const std::string whole = ReadFile(Tar("--format=gnu"));
  EXPECT_EQ("", UnpackFile(Gzip("whole.gz", whole), true).tarProblem);
  EXPECT_THAT(UnpackFile(Gzip("cut.gz", whole.substr(0, 2000)), true).tarProblem,
              HasSubstr("in the middle of an entry"));
  std::string wrong = whole;
  wrong[1] = static_cast<char>(wrong[1] ^ 1);
  EXPECT_EQ("no entry begins at byte 0", UnpackFile(Gzip("wrong.gz", wrong), true).tarProblem);
  EXPECT_EQ("it has no entries", UnpackFile(Gzip("empty.gz", ""), true).tarProblem);
  EXPECT_EQ("no entry begins at byte 0",
            UnpackFile(Gzip("image.gz", support::RandomBytes(5000)), true).tarProblem);
}

TEST_F(LintUnpackerTest, WorkEndsWhenItIsNotWantedAnyMore) {
  const std::string path = Gzip("image.gz", support::RandomBytes(3000000));
  std::uint64_t seen = 0;
  EXPECT_EQ(std::nullopt, Unpack({path, false, ""}, [&seen](std::uint64_t bytes) {
              seen = bytes;
              return bytes < 1000000;
            }));
  EXPECT_GE(seen, 1000000U);
  EXPECT_LT(seen, 2000000U);
}

TEST_F(LintUnpackerTest, EveryFileIsUnpackedOnceForAllWhoUseIt) {
  FakeEnvironment unit;
  unit.AddGzip("/a.gz", 10, 100);
  unit.AddGzip("/b.gz", 20, 200);
  unit.AddFile("/plain", 30);
  unit.AddGzip("/alt.gz", 40, 400);
  const auto jobs = WhatToUnpack({{"updatelist", "userfs;checkroot;root;other;boot;none"},
                                  {"userfssource", "/a.gz"},
                                  {"rootsource", "/b.gz"},
                                  {"rootchecksum", "12"},
                                  {"othersource", "/plain"},
                                  {"bootsource", "/b.gz"},
                                  {"bootaltsource", "/alt.gz"},
                                  {"nonesource", "/missing.gz"}},
                                 unit);
  ASSERT_EQ(3U, jobs.size());
  EXPECT_EQ("/a.gz", jobs[0].request.path);
  EXPECT_TRUE(jobs[0].request.isArchive);
  EXPECT_EQ("/b.gz", jobs[1].request.path);
  EXPECT_EQ("12", jobs[1].request.checksum);
  EXPECT_FALSE(jobs[1].request.isArchive);
  EXPECT_EQ(20U, jobs[1].size);
  EXPECT_EQ("/alt.gz", jobs[2].request.path);
}

}  // namespace
}  // namespace featurehost::lint
