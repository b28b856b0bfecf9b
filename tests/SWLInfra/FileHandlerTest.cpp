#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "SWLInfra/src/FileHandler.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/CleanTest.h"
#include "tests/support/HostFakes.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/TempDir.h"

namespace {

using support::HostFakes;
using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KHandler(logging::SWLInfra, "SWLInfra/src/FileHandler");
const support::LogSource KRunner(logging::SWLInfra, "SWLInfra/src/CmdHandler");

class FileHandlerTest : public support::CleanTest {
 protected:
  static const std::vector<std::string>& Calls() { return HostFakes::Instance().Calls(); }
  static void Answer(const std::string& function, int result) {
    HostFakes::Instance().results[function] = result;
  }

  support::TempDir dir_;
  const std::string file_ = dir_ / "file";
  const std::string other_ = dir_ / "other";
};

TEST_F(FileHandlerTest, ResultsFormatsAndConstantsHaveTheirValues) {
  EXPECT_EQ(0, IFileHandler::EFileHndlOk);
  EXPECT_EQ(1, IFileHandler::EFileHndlFailed);
  EXPECT_EQ(2, IFileHandler::EFileHndlNotFound);
  EXPECT_EQ(3, IFileHandler::EFileHndlNoWritePerm);
  EXPECT_EQ(4, IFileHandler::EFileHndlReserved4);
  EXPECT_EQ(5, IFileHandler::EFileHndlReserved5);
  EXPECT_EQ(6, IFileHandler::EFileHndlReserved6);
  EXPECT_EQ(7, IFileHandler::EFileHndlSyncFailed);
  EXPECT_EQ(0, IFileHandler::EFormatFAT);
  EXPECT_EQ(1, IFileHandler::EFormatEXT3);
  EXPECT_EQ(2, IFileHandler::EFormatEXT2);
  EXPECT_EQ(3, IFileHandler::EFormatEXT2Loopback);
  EXPECT_EQ(3, IFileHandler::iKnumberRetriesMount);
  EXPECT_EQ(500000U, IFileHandler::iKWaitBeforeRetry);
  EXPECT_EQ(10U, IFileHandler::iKMaxDecimalDigitsUint32);
}

// --- stdio

TEST_F(FileHandlerTest, StdioWrappersWriteSeekAndReadAFile) {
  FILE* file = IFileHandler::FOpen(file_.c_str(), "w+");
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(3U, IFileHandler::FWrite("one\ntwo\nend\n", 4, 3, file));
  EXPECT_EQ(0, IFileHandler::FSeek(file, 4, SEEK_SET));
  char line[16] = {};
  EXPECT_EQ(line, IFileHandler::FGets(line, sizeof line, file));
  EXPECT_STREQ("two\n", line);
  EXPECT_EQ(0, IFileHandler::FEof(file));
  char rest[16] = {};
  EXPECT_EQ(1U, IFileHandler::FRead(rest, 4, 2, file)) << "one whole item is left";
  EXPECT_STREQ("end\n", rest);
  EXPECT_NE(0, IFileHandler::FEof(file));
  EXPECT_EQ(nullptr, IFileHandler::FGets(line, sizeof line, file));
  EXPECT_EQ(0, IFileHandler::FClose(file));

  EXPECT_EQ("one\ntwo\nend\n", support::ReadFile(file_));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(FileHandlerTest, StdioWrappersReportFailuresAsStdioDoes) {
  EXPECT_EQ(nullptr, IFileHandler::FOpen(file_.c_str(), "r"));

  support::WriteFile(file_, "four");
  FILE* file = IFileHandler::FOpen(file_.c_str(), "r");
  ASSERT_NE(nullptr, file);
  EXPECT_GT(0, IFileHandler::FSeek(file, -5, SEEK_END));
  EXPECT_EQ(0U, IFileHandler::FWrite("x", 1, 1, file));
  EXPECT_EQ(0, IFileHandler::FClose(file));
}

// --- queries

TEST_F(FileHandlerTest, QueriesAskTheHostAndTranslateItsAnswer) {
  support::WriteFile(file_, "");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::FileExists(Bytes(file_)));
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::FileExists(Bytes(other_)));
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::FolderExists(Bytes(dir_.Path())));
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::FolderExists(Bytes(file_)));
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::FileWritePerm(Bytes(file_)));
  EXPECT_EQ(IFileHandler::EFileHndlNoWritePerm, IFileHandler::FileWritePerm(Bytes(other_)));

  EXPECT_THAT(Calls(), ElementsAre("InternalFileExists " + file_, "InternalFileExists " + other_,
                                   "DirectoryExists " + dir_.Path(), "DirectoryExists " + file_,
                                   "FileWritePerm " + file_, "FileWritePerm " + other_));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(FileHandlerTest, QueriesTakeAnyAnswerButFalseAsTrue) {
  Answer("InternalFileExists", 2);
  Answer("DirectoryExists", -1);
  Answer("FileWritePerm", 7);

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::FileExists(Bytes(file_)));
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::FolderExists(Bytes(file_)));
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::FileWritePerm(Bytes(file_)));
}

TEST_F(FileHandlerTest, ANullPathIsHandedOnToTheHostWhichReportsIt) {
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::FileExists(nullptr));

  EXPECT_THAT(Calls(), ElementsAre("Tdes null", "InternalFileExists "));
}

// --- make, remove, move, copy

TEST_F(FileHandlerTest, MakeFolderMakesOneFolder) {
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::MakeFolder(Bytes(file_)));
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::FolderExists(Bytes(file_)));
  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::MakeFolder(Bytes(file_)));
  EXPECT_EQ(1U, HostFakes::Instance().Count("DirectoryExists " + file_));
  EXPECT_EQ(2U, HostFakes::Instance().Count("CreateDirectory " + file_));
}

TEST_F(FileHandlerTest, MakeFolderFailsForEveryResultButZero) {
  Answer("CreateDirectory", -1);
  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::MakeFolder(Bytes(file_)));
  Answer("CreateDirectory", 2);
  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::MakeFolder(Bytes(file_)));
}

TEST_F(FileHandlerTest, RemoveFileDropsThePathFromTheCacheAndThenRemovesIt) {
  support::WriteFile(file_, "x");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::RemoveFile(Bytes(file_)));

  EXPECT_THAT(Calls(), ElementsAre("InternalFileExists " + file_, "cache.RemoveFile " + file_,
                                   "InternalRemoveFile " + file_));
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::FileExists(Bytes(file_)));
}

TEST_F(FileHandlerTest, RemoveFileOfAMissingPathDoesNotTouchTheCache) {
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::RemoveFile(Bytes(file_)));

  EXPECT_THAT(Calls(), ElementsAre("InternalFileExists " + file_));
}

TEST_F(FileHandlerTest, RemoveFileTakesOnlyTheAnswerOneAsThere) {
  Answer("InternalFileExists", 2);

  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::RemoveFile(Bytes(file_)));
  EXPECT_THAT(Calls(), ElementsAre("InternalFileExists " + file_));
}

TEST_F(FileHandlerTest, RemoveFileFailsWhenTheHostCannotRemove) {
  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::RemoveFile(Bytes(dir_.Path())))
      << "a folder is there, but is no file";
}

TEST_F(FileHandlerTest, MoveFileDropsBothPathsFromTheCacheAndThenMoves) {
  support::WriteFile(file_, "content");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::MoveFile(Bytes(file_), Bytes(other_)));

  EXPECT_THAT(Calls(), ElementsAre("cache.FileExists " + file_, "cache.RemoveFile " + file_,
                                   "cache.RemoveFile " + other_,
                                   "InternalMoveFile " + file_ + " " + other_));
  EXPECT_EQ("content", support::ReadFile(other_));
}

TEST_F(FileHandlerTest, CopyFileDropsOnlyTheDestinationFromTheCacheAndThenCopies) {
  support::WriteFile(file_, "content");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::CopyFile(Bytes(file_), Bytes(other_)));

  EXPECT_THAT(Calls(), ElementsAre("cache.FileExists " + file_, "cache.RemoveFile " + other_,
                                   "InternalCopyFile " + file_ + " " + other_));
  EXPECT_EQ("content", support::ReadFile(file_));
  EXPECT_EQ("content", support::ReadFile(other_));
}

TEST_F(FileHandlerTest, MoveAndCopyOfAMissingSourceOnlyAskTheCache) {
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::MoveFile(Bytes(file_), Bytes(other_)));
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::CopyFile(Bytes(file_), Bytes(other_)));

  EXPECT_THAT(Calls(), ElementsAre("cache.FileExists " + file_, "cache.FileExists " + file_));
}

TEST_F(FileHandlerTest, MoveCopyAndSizeTakeOnlyTheAnswerOneAsThere) {
  support::WriteFile(file_, "content");
  Answer("cache.FileExists", 2);

  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::MoveFile(Bytes(file_), Bytes(other_)));
  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::CopyFile(Bytes(file_), Bytes(other_)));
  EXPECT_EQ(-1, IFileHandler::FileSize(Bytes(file_)));
}

TEST_F(FileHandlerTest, MoveAndCopyFailForEveryResultButZero) {
  support::WriteFile(file_, "content");
  Answer("InternalMoveFile", 5);
  Answer("InternalCopyFile", -1);

  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::MoveFile(Bytes(file_), Bytes(other_)));
  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::CopyFile(Bytes(file_), Bytes(other_)));
}

// --- size

TEST_F(FileHandlerTest, FileSizeGivesAndLogsTheSize) {
  support::WriteFile(file_, std::string(1234, 'x'));

  EXPECT_EQ(1234, IFileHandler::FileSize(Bytes(file_)));

  EXPECT_THAT(Calls(), ElementsAre("cache.FileExists " + file_));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KHandler.Info("FileSize", "File size :1234")));
}

TEST_F(FileHandlerTest, FileSizeOfAnEmptyFileIsZero) {
  support::WriteFile(file_, "");

  EXPECT_EQ(0, IFileHandler::FileSize(Bytes(file_)));
  EXPECT_THAT(RecordedLog::Instance().Texts(), ElementsAre("File size :0"));
}

TEST_F(FileHandlerTest, FileSizeOfAMissingFileIsMinusOne) {
  EXPECT_EQ(-1, IFileHandler::FileSize(Bytes(file_)));

  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(FileHandlerTest, FileSizeOfARememberedFileThatCannotBeOpenedIsMinusOne) {
  Answer("cache.FileExists", ETrue);

  EXPECT_EQ(-1, IFileHandler::FileSize(Bytes(file_)));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(FileHandlerTest, FileSizeBeyond2GiBIsGivenWhereALongHoldsIt) {
  support::WriteFile(file_, "");
  const off_t size = 3LL * 1024 * 1024 * 1024;
  if (truncate(file_.c_str(), size) != 0) {
    GTEST_SKIP() << "no sparse file of 3 GiB here";
  }

  const long expected = sizeof(long) > 4 ? static_cast<long>(size) : -1;
  EXPECT_EQ(expected, IFileHandler::FileSize(Bytes(file_)));
  EXPECT_THAT(RecordedLog::Instance().Texts(),
              ElementsAre("File size :" + std::to_string(expected)));
}

// --- sync and folder removal

TEST_F(FileHandlerTest, SyncRunsSync) {
  support::ScriptedTools tools;
  tools.Add("sync", "exit 0");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::Sync());

  EXPECT_THAT(tools.Calls(), ElementsAre("sync"));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(FileHandlerTest, SyncThatFailsIsLoggedAndReported) {
  support::ScriptedTools tools;
  tools.Add("sync", "exit 3");

  EXPECT_EQ(IFileHandler::EFileHndlSyncFailed, IFileHandler::Sync());

  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KRunner.Error("SystemCmd", "'sync' exited, result=3"),
                          KHandler.Error("Sync", "Sync: The filesystems couldn't be flushed")));
}

TEST_F(FileHandlerTest, RemoveFolderRemovesItWithAllItHolds) {
  support::Shell("mkdir -p " + file_ + "/deep && touch " + file_ + "/deep/x");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::RemoveFolder(Bytes(file_)));

  EXPECT_EQ(IFileHandler::EFileHndlNotFound, IFileHandler::FileExists(Bytes(file_)));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KHandler.Info(
                  "RemoveFolder", "The folder \"" + file_ + "\" has been successfully removed")));
}

TEST_F(FileHandlerTest, RemoveFolderOfAMissingFolderSucceeds) {
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::RemoveFolder(Bytes(file_)));
}

TEST_F(FileHandlerTest, RemoveFolderThatFailsIsLoggedAndReported) {
  support::ScriptedTools tools;
  tools.Add("rm", "exit 1");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::RemoveFolder(Bytes("/not/there")));

  EXPECT_THAT(tools.Calls(), ElementsAre("rm -rf /not/there"));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KRunner.Error("SystemCmd", "'rm -rf /not/there' exited, result=1"),
                          KHandler.Error("RemoveFolder",
                                         "The folder \"/not/there\" could not be removed")));
}

TEST_F(FileHandlerTest, RemoveFolderThatIsTooLongForACommandRunsNothing) {
  support::ScriptedTools tools;
  tools.Add("rm", "exit 0");
  const std::string folder = "/" + std::string(502, 'x');

  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::RemoveFolder(Bytes(folder)));

  EXPECT_THAT(tools.Calls(), IsEmpty());
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(
          KHandler.Error("RemoveFolder", "RemoveFolder: command too long, not run. Length : 510"),
          KHandler.Error("RemoveFolder", "The folder \"" + folder + "\" could not be removed")));

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::RemoveFolder(Bytes(folder.substr(0, 502))))
      << "509 bytes fit";
}

// Paths become part of a shell command as they stand; the properties reference says so.
TEST_F(FileHandlerTest, PathsReachTheShellAsTheyAre) {
  support::ScriptedTools tools;
  tools.Add("rm", "exit 0");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::RemoveFolder(Bytes("/two words; rm third")));

  EXPECT_THAT(tools.Calls(), ElementsAre("rm -rf /two words", "rm third"));
}

}  // namespace
