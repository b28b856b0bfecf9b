#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

#include "featurehost/src/Broker.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::Not;
using Clock = std::chrono::steady_clock;

TEvent User(TUint32 code, const std::string& payload = "") {
  return {EEventUser, code, static_cast<TUint32>(payload.size()), payload.data()};
}

TEvent Timer(TUint32 period, bool repeating) {
  return {EEventTimer, 0, period, repeating ? "" : nullptr};
}

TEvent Readable(int descriptor) {
  return {EEventDescriptor, static_cast<TUint32>(descriptor), 0, nullptr};
}

/** Does what the test says, and keeps what it was told. */
class Observer : public IEventObserver {
 public:
  explicit Observer(std::function<void(const TEvent&)> reaction = nullptr)
      : action(std::move(reaction)) {}

  void OnEvent(const TEvent& event) override {
    ++calls;
    last = event;
    texts.push_back(std::to_string(event.iCode) + ":" +
                    std::string(static_cast<const char*>(event.iData), event.iSize));
    if (action) {
      action(event);
    }
  }

  std::function<void(const TEvent&)> action;
  int calls = 0;
  TEvent last{};
  std::vector<std::string> texts;
};

/** Subscribes for its life, as the module's observers do. */
class LivingObserver : public Observer {
 public:
  LivingObserver(Broker& broker, TUint32 code) : broker_(broker), filter_(User(code)) {
    broker_.Subscribe(filter_, this);
  }
  ~LivingObserver() override { broker_.Unsubscribe(filter_, this); }

  LivingObserver(const LivingObserver&) = delete;
  LivingObserver& operator=(const LivingObserver&) = delete;

 private:
  Broker& broker_;
  TEvent filter_;
};

class BrokerTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    loop_ = std::make_unique<EventLoop>();
    broker_ = std::make_unique<Broker>(*loop_);
  }

  void TearDown() override {
    broker_.reset();
    loop_.reset();
    HostTest::TearDown();
  }

  /** Serve the loop until the condition holds, or for 20 s at most. Once for each test. */
  bool RunUntil(const std::function<bool()>& condition) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    loop_->Every(milliseconds(1), [&] {
      if (condition() || Clock::now() > end) {
        loop_->Stop();
      }
    });
    loop_->Run();
    return condition();
  }

  /** Serve for so long, and until the observer was told so often. @return how long it really was.
   */
  milliseconds RunFor(milliseconds duration, const Observer& observer, int calls) {
    const auto start = Clock::now();
    EXPECT_TRUE(
        RunUntil([&] { return Clock::now() >= start + duration && observer.calls >= calls; }));
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  }

  /** How often a source that rests is told at most: after 1, 2, 4 ... 512 ms, then each second. */
  static int MostDeliveries(milliseconds duration) {
    int count = 1;
    milliseconds pause{1};
    for (milliseconds at = pause; at <= duration; at += pause) {
      ++count;
      pause = std::min(pause * 2, milliseconds{1000});
    }
    return count;
  }

  /** Everything that is queued, and what that posts. */
  void DeliverAll() {
    for (int turn = 0; turn < 10; ++turn) {
      broker_->DeliverQueue();
    }
  }

  int OpenFile(const std::string& content) {
    support::WriteFile(folder_ / "file", content);
    return open((folder_ / "file").c_str(), O_RDONLY | O_CLOEXEC);
  }

  std::unique_ptr<EventLoop> loop_;
  std::unique_ptr<Broker> broker_;
};

TEST_F(BrokerTest, PostedEventsAreDeliveredFromTheLoopInTheOrderOfPosting) {
  const TEvent one = User(1);
  const TEvent two = User(2);
  Observer observer;
  broker_->Subscribe(one, &observer);
  broker_->Subscribe(two, &observer);

  broker_->PostEvent(User(2, "a"));
  broker_->PostEvent(User(1, "b"));
  broker_->PostEvent(User(2, "c"));
  EXPECT_EQ(0, observer.calls) << "not before the loop runs";

  EXPECT_TRUE(RunUntil([&] { return observer.calls == 3; }));
  EXPECT_THAT(observer.texts, ElementsAre("2:a", "1:b", "2:c"));
}

TEST_F(BrokerTest, OnlySubscribersOfTypeAndCodeAreToldInTheOrderOfSubscribing) {
  const TEvent mine = User(7);
  const TEvent other = User(8);
  const TEvent sameCodeOtherType{9, 7, 0, nullptr};
  std::string order;
  Observer first([&](const TEvent&) { order += "1"; });
  Observer second([&](const TEvent&) { order += "2"; });
  Observer stranger;
  broker_->Subscribe(mine, &first);
  broker_->Subscribe(other, &stranger);
  broker_->Subscribe(sameCodeOtherType, &stranger);
  broker_->Subscribe(mine, &second);

  broker_->PostEvent(User(7));
  DeliverAll();

  EXPECT_EQ("12", order);
  EXPECT_EQ(0, stranger.calls);
}

TEST_F(BrokerTest, PayloadIsCopiedWhenItIsPosted) {
  const TEvent filter = User(1);
  Observer observer;
  broker_->Subscribe(filter, &observer);
  auto payload = std::make_unique<std::string>(std::string("first\0second", 12));

  broker_->PostEvent(User(1, *payload));
  payload->assign("XXXXXXXXXXXX");
  payload.reset();
  DeliverAll();

  EXPECT_THAT(observer.texts, ElementsAre(std::string("1:first\0second", 14)));
}

TEST_F(BrokerTest, EventWithoutPayloadHasNoData) {
  const TEvent filter = User(1);
  Observer observer;
  broker_->Subscribe(filter, &observer);
  broker_->PostEvent(User(1));
  broker_->PostEvent({EEventUser, 1, 4, nullptr});
  DeliverAll();

  EXPECT_EQ(2, observer.calls);
  EXPECT_EQ(0U, observer.last.iSize);
  EXPECT_EQ(nullptr, observer.last.iData);
}

TEST_F(BrokerTest, PostsFromInsideOnEventAreDeliveredAfterWhatIsQueued) {
  const TEvent one = User(1);
  const TEvent two = User(2);
  const TEvent three = User(3);
  Observer observer;
  observer.action = [&](const TEvent& event) {
    if (event.iCode == 1) {
      broker_->PostEvent(User(3, "nested"));
      EXPECT_EQ(1, observer.calls) << "not delivered inside the call";
    }
  };
  for (const TEvent* filter : {&one, &two, &three}) {
    broker_->Subscribe(*filter, &observer);
  }

  broker_->PostEvent(User(1));
  broker_->PostEvent(User(2));
  EXPECT_TRUE(RunUntil([&] { return observer.calls == 3; }));

  EXPECT_THAT(observer.texts, ElementsAre("1:", "2:", "3:nested"));
}

TEST_F(BrokerTest, EndlessPostingLeavesRoomForTimersAndSignals) {
  const TEvent user = User(1);
  const TEvent timer = Timer(1, true);
  Observer poster([&](const TEvent&) { broker_->PostEvent(User(1)); });
  Observer ticks;
  int signals = 0;
  loop_->OnSignal(SIGUSR2, [&] { ++signals; });
  broker_->Subscribe(user, &poster);
  broker_->Subscribe(timer, &ticks);

  broker_->PostEvent(User(1));
  raise(SIGUSR2);
  EXPECT_TRUE(RunUntil([&] { return ticks.calls >= 3 && signals == 1 && poster.calls > 10; }));
}

TEST_F(BrokerTest, SignalThatCameDuringADeliveryIsServedBeforeTheNext) {
  const TEvent filter = User(1);
  int signals = 0;
  std::vector<int> signalsAtCall;
  Observer observer([&](const TEvent&) {
    signalsAtCall.push_back(signals);
    if (signalsAtCall.size() == 1) {
      broker_->PostEvent(User(1));
      raise(SIGUSR2);
    }
  });
  loop_->OnSignal(SIGUSR2, [&] { ++signals; });
  broker_->Subscribe(filter, &observer);
  broker_->PostEvent(User(1));

  EXPECT_TRUE(RunUntil([&] { return observer.calls == 2; }));
  EXPECT_THAT(signalsAtCall, ElementsAre(0, 1));
}

TEST_F(BrokerTest, ObserverThatUnsubscribesItselfIsNotCalledWithWhatIsQueued) {
  const TEvent filter = User(1);
  Observer observer;
  observer.action = [&](const TEvent&) { broker_->Unsubscribe(filter, &observer); };
  broker_->Subscribe(filter, &observer);

  broker_->PostEvent(User(1));
  broker_->PostEvent(User(1));
  DeliverAll();

  EXPECT_EQ(1, observer.calls);
  EXPECT_EQ(0U, broker_->SubscriptionCount());
}

TEST_F(BrokerTest, ObserverThatAnotherUnsubscribesIsNotCalledForTheSameEvent) {
  const TEvent filter = User(1);
  Observer victim;
  Observer killer([&](const TEvent&) { broker_->Unsubscribe(filter, &victim); });
  broker_->Subscribe(filter, &killer);
  broker_->Subscribe(filter, &victim);

  broker_->PostEvent(User(1));
  DeliverAll();

  EXPECT_EQ(1, killer.calls);
  EXPECT_EQ(0, victim.calls);
}

TEST_F(BrokerTest, ObserverMayBeDestroyedDuringDelivery) {
  const TEvent filter = User(1);
  std::unique_ptr<LivingObserver> later;
  Observer killer([&](const TEvent&) { later.reset(); });
  broker_->Subscribe(filter, &killer);
  later = std::make_unique<LivingObserver>(*broker_, 1);

  auto own = std::make_unique<LivingObserver>(*broker_, 1);
  own->action = [&](const TEvent&) { own.reset(); };
  broker_->PostEvent(User(1));
  broker_->PostEvent(User(1));
  DeliverAll();

  EXPECT_EQ(2, killer.calls);
  EXPECT_EQ(nullptr, own);
  EXPECT_EQ(1U, broker_->SubscriptionCount());
}

TEST_F(BrokerTest, SubscriberThatJoinsDuringDeliveryHearsTheNextEvent) {
  const TEvent filter = User(1);
  const TEvent late = User(1);
  Observer newcomer;
  Observer host([&](const TEvent&) {
    if (broker_->SubscriptionCount() == 1) {
      broker_->Subscribe(late, &newcomer);
    }
  });
  broker_->Subscribe(filter, &host);

  broker_->PostEvent(User(1, "a"));
  broker_->PostEvent(User(1, "b"));
  DeliverAll();

  EXPECT_THAT(newcomer.texts, ElementsAre("1:b"));
}

TEST_F(BrokerTest, UnsubscribingWhatWasNeverSubscribedIsSilent) {
  const TEvent filter = User(1);
  const TEvent equalButOtherRecord = User(1);
  Observer observer;
  Observer stranger;
  broker_->Unsubscribe(filter, &observer);
  broker_->Subscribe(filter, &observer);

  broker_->Unsubscribe(equalButOtherRecord, &observer);
  broker_->Unsubscribe(filter, &stranger);
  EXPECT_EQ(1U, broker_->SubscriptionCount());

  broker_->Unsubscribe(filter, &observer);
  broker_->Unsubscribe(filter, &observer);
  EXPECT_EQ(0U, broker_->SubscriptionCount());
  EXPECT_THAT(LogText(), IsEmpty());
}

TEST_F(BrokerTest, RepeatingTimerTicksUntilItIsUnsubscribedFromItsOwnTick) {
  const TEvent filter = Timer(2, true);
  Observer observer;
  observer.action = [&](const TEvent& event) {
    EXPECT_EQ(static_cast<TUint32>(EEventTimer), event.iType);
    EXPECT_EQ(0U, event.iCode);
    if (observer.calls == 3) {
      broker_->Unsubscribe(filter, &observer);
    }
  };
  broker_->Subscribe(filter, &observer);

  const auto start = Clock::now();
  EXPECT_TRUE(
      RunUntil([&] { return observer.calls >= 3 && Clock::now() > start + milliseconds(30); }));
  EXPECT_EQ(3, observer.calls);
}

TEST_F(BrokerTest, TimerPeriodIsInMilliseconds) {
  const TEvent filter = Timer(50, true);
  Observer observer;
  const auto start = Clock::now();
  broker_->Subscribe(filter, &observer);

  EXPECT_TRUE(RunUntil([&] { return observer.calls == 3; }));
  EXPECT_THAT(Clock::now() - start, Ge(milliseconds(140)));
}

TEST_F(BrokerTest, OneShotTimerFiresOnceAndStaysSubscribed) {
  const TEvent filter = Timer(1, false);
  Observer observer;
  broker_->Subscribe(filter, &observer);

  RunFor(milliseconds(50), observer, 1);
  EXPECT_EQ(1, observer.calls);
  EXPECT_EQ(1U, broker_->SubscriptionCount());
}

TEST_F(BrokerTest, EachTimerSubscriptionHasATimerOfItsOwn) {
  const TEvent fast = Timer(1, true);
  const TEvent slow = Timer(10000, true);
  Observer often;
  Observer seldom;
  broker_->Subscribe(slow, &seldom);
  broker_->Subscribe(fast, &often);

  EXPECT_TRUE(RunUntil([&] { return often.calls >= 5; }));
  EXPECT_EQ(0, seldom.calls);
}

TEST_F(BrokerTest, TimerOfPeriodZeroIsTakenAsOneMillisecond) {
  const TEvent filter = Timer(0, true);
  Observer observer;
  broker_->Subscribe(filter, &observer);

  const auto duration = RunFor(milliseconds(100), observer, 1);
  EXPECT_THAT(observer.calls, Le(duration.count() + 2));
}

TEST_F(BrokerTest, TimerThatIsSetAfterALongCallIsNotDueAtOnce) {
  const TEvent user = User(1);
  const TEvent timer = Timer(100, false);
  Clock::time_point set;
  Clock::duration waited{};
  Observer ticks([&](const TEvent&) { waited = Clock::now() - set; });
  Observer busy([&](const TEvent&) {
    usleep(150000);
    set = Clock::now();
    broker_->Subscribe(timer, &ticks);
  });
  broker_->Subscribe(user, &busy);
  broker_->PostEvent(User(1));

  EXPECT_TRUE(RunUntil([&] { return ticks.calls == 1; }));
  EXPECT_THAT(waited, Ge(milliseconds(99)));
}

TEST_F(BrokerTest, DescriptorIsLevelTriggered) {
  int pipe[2] = {};
  ASSERT_EQ(0, pipe2(pipe, O_CLOEXEC));
  ASSERT_EQ(4, write(pipe[1], "abcd", 4));
  const TEvent filter = Readable(pipe[0]);
  std::string text;
  Observer observer([&](const TEvent& event) {
    EXPECT_EQ(static_cast<TUint32>(EEventDescriptor), event.iType);
    EXPECT_EQ(static_cast<TUint32>(pipe[0]), event.iCode);
    char byte = 0;
    ASSERT_EQ(1, read(pipe[0], &byte, 1));
    text += byte;
  });
  broker_->Subscribe(filter, &observer);

  EXPECT_TRUE(RunUntil([&] { return text == "abcd"; }));
  EXPECT_EQ(4, observer.calls) << "told while there is something, and not after";
  broker_->Unsubscribe(filter, &observer);
  close(pipe[0]);
  close(pipe[1]);
}

TEST_F(BrokerTest, RegularFileThatIsReadIsDeliveredBackToBack) {
  constexpr int kBytes = 3000;
  const int file = OpenFile(std::string(kBytes, 'x'));
  const TEvent descriptor = Readable(file);
  const TEvent timer = Timer(1, true);
  // Posts itself once in each turn of the loop, and so counts the turns.
  const TEvent user = User(1);
  Observer turns([&](const TEvent&) { broker_->PostEvent(User(1)); });
  int turnsAtEnd = 0;
  int signals = 0;
  int read = 0;
  Observer reader([&](const TEvent&) {
    char byte = 0;
    read += static_cast<int>(::read(file, &byte, 1));
    turnsAtEnd = read < kBytes ? turns.calls : turnsAtEnd;
  });
  Observer ticks;
  loop_->OnSignal(SIGUSR2, [&] { ++signals; });
  broker_->Subscribe(descriptor, &reader);
  broker_->Subscribe(timer, &ticks);
  broker_->Subscribe(user, &turns);
  broker_->PostEvent(User(1));
  raise(SIGUSR2);

  EXPECT_TRUE(RunUntil([&] { return read == kBytes && ticks.calls > 0; }));
  // With a pause after each there would be many turns for every byte.
  EXPECT_EQ(1, signals);
  EXPECT_THAT(turnsAtEnd, Le(kBytes + 10));
  close(file);
}

TEST_F(BrokerTest, PostsOfABusyDescriptorAreDeliveredBetweenItsTurns) {
  const int file = OpenFile(std::string(100, 'x'));
  const TEvent descriptor = Readable(file);
  const TEvent user = User(1);
  int turns = 0;
  std::vector<int> turnsAtDelivery;
  Observer reader([&](const TEvent&) {
    char byte = 0;
    turns += static_cast<int>(::read(file, &byte, 1));
    broker_->PostEvent(User(1));
  });
  Observer listener([&](const TEvent&) { turnsAtDelivery.push_back(turns); });
  broker_->Subscribe(descriptor, &reader);
  broker_->Subscribe(user, &listener);

  EXPECT_TRUE(RunUntil([&] { return listener.calls >= 100; }));
  ASSERT_GE(turnsAtDelivery.size(), 10U);
  for (int post = 0; post < 10; ++post) {
    // At the latest in the turn behind the one that posted.
    EXPECT_THAT(turnsAtDelivery.at(static_cast<std::size_t>(post)), Le(post + 2));
  }
  close(file);
}

TEST_F(BrokerTest, RegularFileThatRestsIsPolledEverMoreSlowly) {
  const int file = OpenFile("content");
  const TEvent filter = Readable(file);
  Observer observer;
  broker_->Subscribe(filter, &observer);

  const auto duration = RunFor(milliseconds(500), observer, 2);
  EXPECT_THAT(observer.calls, Le(MostDeliveries(duration)));
  close(file);
}

TEST_F(BrokerTest, RestingFileThatMovesIsAtFullSpeedAtOnce) {
  const int file = OpenFile("content");
  const TEvent descriptor = Readable(file);
  const TEvent user = User(1);
  off_t position = 0;
  // Moves the file in the first of its turns, and has one in every turn of the loop.
  Observer turns([&](const TEvent&) {
    if (turns.calls == 1) {
      lseek(file, ++position, SEEK_SET);
    }
    broker_->PostEvent(User(1));
  });
  std::vector<int> turnsAtCall;
  Observer reader([&](const TEvent&) {
    if (turns.calls > 0) {
      turnsAtCall.push_back(turns.calls);
      lseek(file, ++position, SEEK_SET);
    }
  });
  broker_->Subscribe(descriptor, &reader);
  broker_->Subscribe(user, &turns);

  // Once it rests for 256 ms; left alone it would be delivered thousands of turns later.
  bool posted = false;
  EXPECT_TRUE(RunUntil([&] {
    if (!posted && reader.calls >= 9) {
      posted = true;
      broker_->PostEvent(User(1));
    }
    return turnsAtCall.size() >= 2;
  }));
  EXPECT_THAT(turnsAtCall, testing::SizeIs(Ge(2)));
  EXPECT_THAT(turnsAtCall.at(1), Le(10));
  close(file);
}

TEST_F(BrokerTest, EndedPipeIsToldButDoesNotSpin) {
  int pipe[2] = {};
  ASSERT_EQ(0, pipe2(pipe, O_CLOEXEC));
  close(pipe[1]);
  const TEvent filter = Readable(pipe[0]);
  Observer observer;
  broker_->Subscribe(filter, &observer);

  const auto duration = RunFor(milliseconds(300), observer, 1);
  EXPECT_THAT(observer.calls, Le(duration.count() + 2));
  close(pipe[0]);
}

TEST_F(BrokerTest, PipeThatNobodyReadsIsToldOnceAMillisecondAtMost) {
  int pipe[2] = {};
  ASSERT_EQ(0, pipe2(pipe, O_CLOEXEC));
  ASSERT_EQ(1, write(pipe[1], "x", 1));
  const TEvent filter = Readable(pipe[0]);
  Observer observer;
  broker_->Subscribe(filter, &observer);

  const auto duration = RunFor(milliseconds(300), observer, 1);
  EXPECT_THAT(observer.calls, Le(duration.count() + 2));
  close(pipe[0]);
  close(pipe[1]);
}

TEST_F(BrokerTest, ObserverMayEndItsDescriptorSubscriptionDuringItsTurn) {
  const int file = OpenFile("content");
  auto filter = std::make_unique<TEvent>(Readable(file));
  Observer observer;
  observer.action = [&](const TEvent&) {
    broker_->Unsubscribe(*filter, &observer);
    filter.reset();
    close(file);
  };
  broker_->Subscribe(*filter, &observer);

  RunFor(milliseconds(30), observer, 1);
  EXPECT_EQ(1, observer.calls);
  EXPECT_EQ(0U, broker_->SubscriptionCount());
  EXPECT_THAT(LogText(), IsEmpty());
}

TEST_F(BrokerTest, TwoObserversOfOneDescriptorAreBothTold) {
  const int counter = eventfd(1, EFD_CLOEXEC);
  const TEvent filter = Readable(counter);
  Observer first;
  Observer second;
  broker_->Subscribe(filter, &first);
  broker_->Subscribe(filter, &second);

  EXPECT_TRUE(RunUntil([&] { return first.calls > 0 && second.calls > 0; }));
  close(counter);
}

TEST_F(BrokerTest, DescriptorThatIsNotOpenIsReportedAndStaysSilent) {
  const TEvent none = Readable(-1);
  const TEvent closed = Readable(9999);
  Observer observer;
  broker_->Subscribe(none, &observer);
  broker_->Subscribe(closed, &observer);

  RunFor(milliseconds(30), observer, 0);
  EXPECT_EQ(0, observer.calls);
  EXPECT_THAT(LogText(), HasSubstr("error featurehost Subscribe descriptor -1 is not open"));
  EXPECT_THAT(LogText(), HasSubstr("descriptor 9999 is not open"));
  broker_->Unsubscribe(none, &observer);
  broker_->Unsubscribe(closed, &observer);
}

TEST_F(BrokerTest, NothingIsDeliveredAfterTheLoopHasBeenStopped) {
  const TEvent filter = User(1);
  Observer observer([&](const TEvent&) { loop_->Stop(); });
  broker_->Subscribe(filter, &observer);
  broker_->PostEvent(User(1));
  broker_->PostEvent(User(1));

  loop_->Run();
  EXPECT_EQ(1, observer.calls);
}

}  // namespace
}  // namespace featurehost
