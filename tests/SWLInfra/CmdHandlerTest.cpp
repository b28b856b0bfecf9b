#include <csignal>
#include <gmock/gmock.h>

#include "SWLInfra/src/CmdHandler.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/CleanTest.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SystemHook.h"
#include "tests/support/TempDir.h"

namespace {

using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KCommands(logging::SWLInfra, "SWLInfra/src/CmdHandler");

class CmdHandlerTest : public support::CleanTest {
 protected:
  static int Run(const std::string& command) { return ICmdHandler::SystemCmd(Bytes(command)); }

  /** What a command whose status is this word results in. */
  static int RunWithStatus(int status) {
    RecordedLog::Instance().Clear();
    const support::SystemHook hook([status](const std::string&) { return status; });
    return Run("tool");
  }

  static void ExpectError(const std::string& text) {
    EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KCommands.Error("SystemCmd", text)));
  }
};

// Real commands

TEST_F(CmdHandlerTest, SuccessIsZeroAndLogsNothing) {
  EXPECT_EQ(0, Run("true"));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

TEST_F(CmdHandlerTest, AnExitCodeIsReturnedAndLogged) {
  EXPECT_EQ(1, Run("false"));
  ExpectError("'false' exited, result=1");
}

TEST_F(CmdHandlerTest, TheLargestExitCodeIs255) {
  EXPECT_EQ(255, Run("exit 255"));
  ExpectError("'exit 255' exited, result=255");
}

TEST_F(CmdHandlerTest, ACommandThatIsNotFoundIsTheShellsExitCode127) {
  EXPECT_EQ(127, Run("no-such-command-here 2>/dev/null"));
  ExpectError("'no-such-command-here 2>/dev/null' exited, result=127");
}

TEST_F(CmdHandlerTest, ACommandThatCannotBeExecutedIsTheShellsExitCode126) {
  EXPECT_EQ(126, Run("/etc/passwd 2>/dev/null"));
  ExpectError("'/etc/passwd 2>/dev/null' exited, result=126");
}

TEST_F(CmdHandlerTest, AKilledCommandIsLoggedAndCountsAsSuccess) {
  EXPECT_EQ(0, Run("kill -9 $$"));
  ExpectError("'kill -9 $$' killed by signal 9");
}

TEST_F(CmdHandlerTest, ATerminatedCommandIsLoggedAndCountsAsSuccess) {
  EXPECT_EQ(0, Run("kill -TERM $$"));
  ExpectError("'kill -TERM $$' killed by signal 15");
}

TEST_F(CmdHandlerTest, ASystemThatFailsIsLoggedAndCountsAsSuccess) {
  // With SIGCHLD ignored the kernel keeps no status, so there is none to wait for.
  struct sigaction ignored {};
  struct sigaction before {};
  ignored.sa_handler = SIG_IGN;
  ASSERT_EQ(0, sigaction(SIGCHLD, &ignored, &before));

  const int result = Run("exit 5");

  sigaction(SIGCHLD, &before, nullptr);
  EXPECT_EQ(0, result);
  ExpectError("failed to spawn 'exit 5', sysres=-1");
}

TEST_F(CmdHandlerTest, TheShellsSyntaxIsAvailable) {
  const support::TempDir directory;

  EXPECT_EQ(0, Run("printf 'b\\na\\n' | sort > " + directory / "out" + " && test -s " +
                   directory / "out"));
  EXPECT_EQ("a\nb\n", support::ReadFile(directory / "out"));
  EXPECT_EQ(1, Run("false && touch " + directory / "never"));
}

TEST_F(CmdHandlerTest, TheCallReturnsAfterTheCommandHasEnded) {
  const support::TempDir directory;

  EXPECT_EQ(0, Run("sleep 0.1; echo done > " + directory / "out"));
  EXPECT_EQ("done\n", support::ReadFile(directory / "out"));
}

TEST_F(CmdHandlerTest, TheEnvironmentAndTheWorkingFolderAreTheHosts) {
  ASSERT_EQ(0, setenv("CMD_HANDLER_TEST", "from the host", 1));
  EXPECT_EQ(0, Run("test \"$CMD_HANDLER_TEST\" = 'from the host'"));
  unsetenv("CMD_HANDLER_TEST");
  EXPECT_EQ(0, Run("test \"$(pwd -P)\" = \"$(readlink /proc/$PPID/cwd)\""));
}

// Every status word

TEST_F(CmdHandlerTest, TheCommandIsHandedOverUnchanged) {
  const std::string line = "a 'b' \"$c\" | d\\e > f; \xc3\xa4 %s\n";
  std::vector<std::string> commands;
  const support::SystemHook hook([&commands](const std::string& command) {
    commands.push_back(command);
    return 0x0100;
  });

  EXPECT_EQ(1, Run(line));
  EXPECT_THAT(commands, ElementsAre(line));
  ExpectError("'" + line + "' exited, result=1");
}

TEST_F(CmdHandlerTest, EveryExitCodeIsReturned) {
  EXPECT_EQ(0, RunWithStatus(0));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
  for (int code = 1; code <= 255; ++code) {
    EXPECT_EQ(code, RunWithStatus(code << 8));
    ExpectError("'tool' exited, result=" + std::to_string(code));
  }
}

TEST_F(CmdHandlerTest, OnlyTheSecondByteOfANormalEndCounts) {
  EXPECT_EQ(0, RunWithStatus(0x10000));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
  EXPECT_EQ(2, RunWithStatus(0x10280));
  ExpectError("'tool' exited, result=2");
}

TEST_F(CmdHandlerTest, EverySignalCountsAsSuccess) {
  for (int signal = 1; signal < 0x7f; ++signal) {
    EXPECT_EQ(0, RunWithStatus(signal));
    ExpectError("'tool' killed by signal " + std::to_string(signal));
  }
}

TEST_F(CmdHandlerTest, ACoreDumpDoesNotChangeTheSignal) {
  EXPECT_EQ(0, RunWithStatus(0x80 | 6));
  ExpectError("'tool' killed by signal 6");
}

TEST_F(CmdHandlerTest, AStoppedCommandIsLoggedAndCountsAsSuccess) {
  EXPECT_EQ(0, RunWithStatus(0x137f));
  ExpectError("'tool' stopped by signal 19");
  EXPECT_EQ(0, RunWithStatus(0x7f));
  ExpectError("'tool' stopped by signal 0");
  EXPECT_EQ(0, RunWithStatus(0x3ff7f));
  ExpectError("'tool' stopped by signal 255");
}

TEST_F(CmdHandlerTest, AnyOtherStatusIsLoggedWholeAndCountsAsSuccess) {
  EXPECT_EQ(0, RunWithStatus(-1));
  ExpectError("failed to spawn 'tool', sysres=-1");
  EXPECT_EQ(0, RunWithStatus(0xffff));
  ExpectError("failed to spawn 'tool', sysres=65535");
  EXPECT_EQ(0, RunWithStatus(0x2ff));
  ExpectError("failed to spawn 'tool', sysres=767");
}

TEST_F(CmdHandlerTest, TheLogDoesNotDecideTheResult) {
  const support::SystemHook hook([](const std::string&) { return 0x0300; });
  RecordedLog::Instance().Disable(logging::categories::Error);

  EXPECT_EQ(3, Run("tool"));
  EXPECT_THAT(RecordedLog::Instance().Lines(), IsEmpty());
}

}  // namespace
