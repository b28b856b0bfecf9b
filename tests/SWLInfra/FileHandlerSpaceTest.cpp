#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "SWLInfra/src/FileHandler.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/CleanTest.h"
#include "tests/support/HostFakes.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"

namespace {

using support::HostFakes;
using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KHandler(logging::SWLInfra, "SWLInfra/src/FileHandler");
const support::LogSource KRunner(logging::SWLInfra, "SWLInfra/src/CmdHandler");

constexpr char KSpaceFile[] = "/tmp/CalculateDiskSpace";
constexpr TUint32 KBefore = 4711;

/** An own /tmp for this process: the operation's file has a fixed name there. */
std::string EnterPrivateTmp() {
  const std::string problem = support::EnterPrivateMounts();
  if (!problem.empty()) {
    return problem;
  }
  static const bool mounted = mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == 0;
  return mounted ? "" : std::string("no /tmp of our own: ") + std::strerror(errno);
}

class FileHandlerSpaceTest : public support::CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    const std::string problem = EnterPrivateTmp();
    if (!problem.empty()) {
      GTEST_SKIP() << problem;
    }
    tools_ = std::make_unique<support::ScriptedTools>();
    tools_->Add("sync", "exit 0");
  }

  /** What df prints, one line with the given fourth field for the mount point /m. */
  void DfShows(const std::string& field) {
    tools_->Add("df",
                "echo 'Filesystem 1K-blocks Used Available Use% Mounted on'\n"
                "echo '/dev/other 9 9 8 1% /other'\necho '/dev/x 1000 100 " +
                    field + " 10% /m'");
  }

  IFileHandler::TFileHndlError Ask(const std::string& mountPoint = "/m") {
    return IFileHandler::AvailableSpace(Bytes(mountPoint), &available_);
  }

  static bool IsThere() {
    struct stat status {};
    return lstat(KSpaceFile, &status) == 0;
  }

  TUint32 available_ = KBefore;
  std::unique_ptr<support::ScriptedTools> tools_;
};

TEST_F(FileHandlerSpaceTest, StoresTheFourthFieldOfTheMatchingLine) {
  DfShows("123456");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());

  EXPECT_EQ(123456U, available_);
  EXPECT_THAT(tools_->Calls(), ElementsAre("sync", "df"));
  EXPECT_THAT(HostFakes::Instance().Calls(),
              ElementsAre("InternalFileExists /tmp/CalculateDiskSpace",
                          "cache.RemoveFile /tmp/CalculateDiskSpace",
                          "InternalRemoveFile /tmp/CalculateDiskSpace"));
  EXPECT_FALSE(IsThere());
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(FileHandlerSpaceTest, ReadsOnlyTheFirstMatchingLine) {
  tools_->Add("df", "echo '/dev/x 1000 100 11 10% /m'; echo '/dev/y 1000 100 22 10% /m2'");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());
  EXPECT_EQ(11U, available_);
}

TEST_F(FileHandlerSpaceTest, TakesADeviceAsThePatternToo) {
  DfShows("77");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask("/dev/x"));
  EXPECT_EQ(77U, available_);
}

TEST_F(FileHandlerSpaceTest, StoresZeroWithoutALineForTheTextZero) {
  DfShows("0");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());

  EXPECT_EQ(0U, available_);
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

struct Token {
  std::string field;
  TUint32 stored;
  std::string logged;
};

void PrintTo(const Token& token, std::ostream* stream) {
  *stream << token.field.substr(0, 12) << " of length " << token.field.length();
}

class FileHandlerSpaceTokenTest : public FileHandlerSpaceTest,
                                  public testing::WithParamInterface<Token> {};

TEST_P(FileHandlerSpaceTokenTest, StoresWhatTheTokenStartsWith) {
  DfShows(GetParam().field);

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());

  EXPECT_EQ(GetParam().stored, available_);
  if (GetParam().logged.empty()) {
    EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
  } else {
    EXPECT_THAT(RecordedLog::Instance().Lines(),
                ElementsAre(KHandler.Error("AvailableSpace", GetParam().logged)));
  }
  EXPECT_FALSE(IsThere());
}

INSTANTIATE_TEST_SUITE_P(
    Fields, FileHandlerSpaceTokenTest,
    testing::Values(Token{"abc", 0, "The value was not a number. String : abc. Length : 3"},
                    Token{"00", 0, "The value was not a number. String : 00. Length : 2"},
                    Token{"-", 0, "The value was not a number. String : -. Length : 1"},
                    Token{"12abc", 12, ""}, Token{"2147483647", 2147483647, ""},
                    // As strtol saturates on the 32-bit unit.
                    Token{"4294967295", 2147483647, ""},
                    // Ten characters at most are read.
                    Token{"12345678901", 1234567890, ""},
                    Token{"00000000001", 0,
                          "The value was not a number. String : 0000000000. Length : 10"},
                    Token{std::string(400, '1'), 1111111111, ""},
                    Token{std::string(400, 'x'), 0,
                          "The value was not a number. String : xxxxxxxxxx. Length : 10"}));

TEST_F(FileHandlerSpaceTest, AMissingFourthFieldIsAnEmptyToken) {
  tools_->Add("df", "echo '/dev/x 1000 /m'");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());

  EXPECT_EQ(0U, available_);
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KHandler.Error("AvailableSpace",
                                         "The value was not a number. String : . Length : 0")));
}

TEST_F(FileHandlerSpaceTest, ALineThatIsNotThereLeavesTheValueAndSucceeds) {
  DfShows("5");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask("/nowhere"));

  EXPECT_EQ(KBefore, available_);
  EXPECT_FALSE(IsThere()) << "the shell had made the file";
  EXPECT_EQ(1U, HostFakes::Instance().Count("InternalRemoveFile /tmp/CalculateDiskSpace"));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KRunner.Error("SystemCmd",
                                        "'df|grep /nowhere > /tmp/CalculateDiskSpace' exited, "
                                        "result=1")));
}

TEST_F(FileHandlerSpaceTest, ADfThatFailsCountsOnlyByWhatItPrinted) {
  tools_->Add("df", "echo '/dev/x 1000 100 33 10% /m'; exit 1");
  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());
  EXPECT_EQ(33U, available_) << "the result of the pipe is the result of grep";

  available_ = KBefore;
  tools_->Add("df", "exit 1");
  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());
  EXPECT_EQ(KBefore, available_);
  EXPECT_FALSE(IsThere());
}

TEST_F(FileHandlerSpaceTest, AFlushThatFailsEndsItBeforeAnythingElse) {
  tools_->Add("sync", "exit 1");
  DfShows("5");

  EXPECT_EQ(IFileHandler::EFileHndlSyncFailed, Ask());

  EXPECT_EQ(KBefore, available_);
  EXPECT_THAT(tools_->Calls(), ElementsAre("sync"));
  EXPECT_THAT(HostFakes::Instance().Calls(), IsEmpty());
}

TEST_F(FileHandlerSpaceTest, AFileThatCannotBeOpenedIsLoggedAndRemoved) {
  // For root every file opens; a symbolic link to itself does not, and is removed all the same.
  DfShows("5");
  tools_->Add("grep", "rm " + std::string(KSpaceFile) + "; ln -s loop " + KSpaceFile +
                          "; ln -sf CalculateDiskSpace /tmp/loop");
  HostFakes::Instance().results["InternalFileExists"] = ETrue;

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask());

  EXPECT_EQ(KBefore, available_);
  EXPECT_FALSE(IsThere());
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KHandler.Error("AvailableSpace",
                                 "The file containing the available space could not be opened")));
}

TEST_F(FileHandlerSpaceTest, AFileThatIsGoneIsReportedAsNotFound) {
  DfShows("5");
  tools_->Add("grep", "rm " + std::string(KSpaceFile));

  EXPECT_EQ(IFileHandler::EFileHndlNotFound, Ask());

  EXPECT_EQ(KBefore, available_);
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KHandler.Error("AvailableSpace",
                                 "The file containing the available space could not be opened"),
                  KHandler.Error("AvailableSpace",
                                 "The file containing the available space could not be removed")));
}

TEST_F(FileHandlerSpaceTest, AFileThatCannotBeRemovedIsTheResultAlthoughTheValueIsStored) {
  DfShows("5");
  HostFakes::Instance().results["InternalRemoveFile"] = 1;

  EXPECT_EQ(IFileHandler::EFileHndlFailed, Ask());

  EXPECT_EQ(5U, available_);
  EXPECT_EQ(KHandler.Error("AvailableSpace",
                           "The file containing the available space could not be removed"),
            RecordedLog::Instance().Lines().back());
  EXPECT_EQ(0, unlink(KSpaceFile));
}

TEST_F(FileHandlerSpaceTest, AFolderInPlaceOfTheFileStopsTheCommandAndTheRemoval) {
  DfShows("5");
  ASSERT_EQ(0, mkdir(KSpaceFile, 0700));

  EXPECT_EQ(IFileHandler::EFileHndlFailed, Ask());

  EXPECT_EQ(KBefore, available_);
  EXPECT_EQ(KHandler.Error("AvailableSpace",
                           "The file containing the available space could not be removed"),
            RecordedLog::Instance().Lines().back());
  EXPECT_EQ(0, rmdir(KSpaceFile));
}

TEST_F(FileHandlerSpaceTest, APatternThatIsTooLongForACommandFailsAndRunsNothingButTheFlush) {
  DfShows("5");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, Ask(std::string(476, 'm')));

  EXPECT_EQ(KBefore, available_);
  EXPECT_THAT(tools_->Calls(), ElementsAre("sync"));
  EXPECT_THAT(HostFakes::Instance().Calls(), IsEmpty());
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KHandler.Error(
                  "AvailableSpace", "AvailableSpace: command too long, not run. Length : 510")));
}

TEST_F(FileHandlerSpaceTest, APatternReachesTheShellAsItIs) {
  DfShows("5");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Ask("-e nothing -e x"));
  EXPECT_EQ(5U, available_);
}

}  // namespace
