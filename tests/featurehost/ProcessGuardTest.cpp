#include <functional>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "featurehost/src/Broker.h"
#include "featurehost/src/ProcessGuard.h"
#include "featurehost/src/Properties.h"
#include "host/FileSystemUtils.h"
#include "host/Logging.h"
#include "host/Platform.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::IsEmpty;

constexpr int kReturned = 42;

/** Runs the action in a forked copy of this process; 127 when the guard has ended it. */
int ExitCodeOfClone(const std::function<void()>& action) {
  const pid_t clone = fork();
  if (clone == 0) {
    action();
    _exit(kReturned);
  }
  int status = 0;
  EXPECT_EQ(clone, waitpid(clone, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Nobody : public IEventObserver {
  void OnEvent(const TEvent& /*event*/) override {}
};

using ProcessGuardTest = HostTest;

TEST_F(ProcessGuardTest, HostGoesOn) {
  EndClone();
  EXPECT_EQ(127, ExitCodeOfClone(EndClone));
}

TEST_F(ProcessGuardTest, AdoptedProcessIsTheHost) {
  EXPECT_EQ(kReturned, ExitCodeOfClone([] {
              AdoptProcess();
              EndClone();
            }));
}

TEST_F(ProcessGuardTest, EveryEntryThatTheModuleCallsEndsACloneBeforeItWrites) {
  {
    EventLoop loop;
    Broker broker(loop);
    Nobody nobody;
    const TEvent filter{EEventUser, 1, 0, nullptr};
    const Properties properties("f", {});
    std::string value;
    const auto path = reinterpret_cast<const TChr*>("/");
    const Tdes good(path);
    const std::vector<std::function<void()>> kEntries = {
        [&] { broker.Subscribe(filter, &nobody); },
        [&] { broker.Unsubscribe(filter, &nobody); },
        [&] { broker.PostEvent(filter); },
        [&] { properties.GetProperty("f", "key", value); },
        [&] { logging::IControl().IsEnabled("m", logging::categories::Error); },
        [&] {
          logging::internals::CLogHandle(logging::internals::ILog(), ETrue,
                                         logging::categories::Error, "m", "f", "s", 1)
              << "written by a clone";
        },
        [&] { Tdes another(path); },
        [&] { Tdes another(nullptr); },
        [&] { FileSystemUtils::InternalFileExists(good); },
        [&] { FileSystemUtils::DirectoryExists(good); },
        [&] { FileSystemUtils::FileWritePerm(good); },
        [&] { FileSystemUtils::CreateDirectory(good); },
        [&] { FileSystemUtils::InternalRemoveFile(good); },
        [&] { FileSystemUtils::InternalMoveFile(good, good); },
        [&] { FileSystemUtils::InternalCopyFile(good, good); },
        [&] { CFileExistsCache::FileExistsCacheInstance(); },
        [&] { platSleep(1); },
    };
    for (std::size_t index = 0; index < kEntries.size(); ++index) {
      EXPECT_EQ(127, ExitCodeOfClone(kEntries[index])) << "entry " << index;
    }
  }
  EXPECT_THAT(LogText(), IsEmpty());
}

TEST_F(ProcessGuardTest, CloneThatReturnsFromOnEventEnds) {
  EventLoop loop;
  Broker broker(loop);
  class Forker : public IEventObserver {
   public:
    void OnEvent(const TEvent& /*event*/) override { clone = fork(); }
    pid_t clone = 0;
  } forker;
  const TEvent filter{EEventUser, 1, 0, nullptr};
  broker.Subscribe(filter, &forker);
  broker.PostEvent(filter);

  broker.DeliverQueue();  // the clone never comes back from here
  int status = 0;
  ASSERT_EQ(forker.clone, waitpid(forker.clone, &status, 0));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(127, WEXITSTATUS(status));
}

}  // namespace
}  // namespace featurehost
