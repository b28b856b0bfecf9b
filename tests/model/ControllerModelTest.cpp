#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include "tests/model/Comparison.h"
#include "tests/support/CleanTest.h"
#include "tests/support/RecordedLog.h"

namespace model {

// How RapidCheck prints a counterexample; found by name.
void showValue(const Scenario& scenario, std::ostream& stream);

void showValue(const Scenario& scenario, std::ostream& stream) {
  stream << Describe(scenario);
}

}  // namespace model

namespace {

using model::Action;
using model::Address;
using model::Reaction;
using model::Scenario;
using support::RecordedLog;

// The same sequences every time; RC_PARAMS in the environment asks for others, or for more:
//   RC_PARAMS="max_success=1000000 max_size=200" build/dev/bin/model_tests
constexpr const char* kQuickRun = "seed=20 max_success=2000 max_size=200";
const int kIsSet = setenv("RC_PARAMS", kQuickRun, 0);

/** Numbers at the edges of a word as often as ones in between. */
rc::Gen<std::uint32_t> Word() {
  return rc::gen::oneOf(rc::gen::element<std::uint32_t>(0, 1, 2, 99, 100, 101, 1000, 0x7fffffff,
                                                        0x80000000, 0xfffffffe, 0xffffffff),
                        rc::gen::inRange<std::uint32_t>(0, 1001),
                        rc::gen::arbitrary<std::uint32_t>());
}

rc::Gen<std::int32_t> Weight() {
  return rc::gen::oneOf(rc::gen::inRange<std::int32_t>(0, 101),
                        rc::gen::element<std::int32_t>(0, -1, -5, 0x7fffffff, -0x7fffffff - 1),
                        rc::gen::arbitrary<std::int32_t>());
}

rc::Gen<Address> AnyAddress() {
  return rc::gen::element(Address::kOwn, Address::kTerminated, Address::kShorter,
                          Address::kOtherLastByte, Address::kNobody, Address::kOwnSizeNoBytes);
}

rc::Gen<Action> Some(Action::Kind kind, rc::Gen<std::uint32_t> first,
                     rc::Gen<std::uint32_t> second = rc::gen::just(0U),
                     rc::Gen<Address> address = rc::gen::just(Address::kOwn)) {
  return rc::gen::build<Action>(
      rc::gen::set(&Action::kind, rc::gen::just(kind)), rc::gen::set(&Action::first, first),
      rc::gen::set(&Action::second, second), rc::gen::set(&Action::address, address));
}

rc::Gen<Action> AnyAction() {
  const auto user = rc::gen::just(3U);
  const auto code = rc::gen::element(201U, 203U, 206U);
  const auto yesMostly = rc::gen::element(1U, 1U, 1U, 0U);
  return rc::gen::weightedOneOf<Action>(
      {{12, Some(Action::Kind::kEvent, user, code)},
       {3, Some(Action::Kind::kEvent, user, code, AnyAddress())},
       {1, Some(Action::Kind::kEvent, rc::gen::element(0U, 1U, 2U, 3U, 4U, 0xffffffffU),
                rc::gen::inRange(199U, 209U), AnyAddress())},
       {6, Some(Action::Kind::kProgress, Word(), Word())},
       {8, Some(Action::Kind::kCompleted, rc::gen::just(1U))},
       {2, Some(Action::Kind::kCompleted, rc::gen::element(0U, 2U, 0xffffffffU))},
       {3, Some(Action::Kind::kAborted, rc::gen::just(0U))},
       {1, Some(Action::Kind::kUpdateList, yesMostly)},
       {1, Some(Action::Kind::kProgressList, yesMostly)}});
}

rc::Gen<Reaction> AnyReaction() {
  return rc::gen::build<Reaction>(
      rc::gen::set(&Reaction::ready, rc::gen::element<std::int32_t>(1, 1, 1, 1, 1, 1, 0, 2, -1)),
      rc::gen::set(&Reaction::actions,
                   rc::gen::resize(3, rc::gen::container<std::vector<Action>>(AnyAction()))));
}

rc::Gen<std::string> AnyId() {
  return rc::gen::weightedOneOf<std::string>(
      {{3, rc::gen::just(std::string("feature"))},
       {1, rc::gen::element(std::string(), std::string(63, 'i'), std::string(64, 'i'),
                            std::string(200, 'i'), std::string("a\0b", 3))},
       {1, rc::gen::container<std::string>(rc::gen::arbitrary<char>())}});
}

rc::Gen<Scenario> AnyScenario() {
  const auto weights = rc::gen::resize(6, rc::gen::container<std::vector<std::int32_t>>(Weight()));
  return rc::gen::build<Scenario>(
      rc::gen::set(&Scenario::featureId, AnyId()),
      rc::gen::set(
          &Scenario::factory,
          rc::gen::resize(4, rc::gen::container<std::vector<std::vector<std::int32_t>>>(weights))),
      rc::gen::set(&Scenario::reactions, rc::gen::container<std::vector<Reaction>>(AnyReaction())),
      rc::gen::set(&Scenario::deliversAtOnce),
      rc::gen::set(&Scenario::actions, rc::gen::container<std::vector<Action>>(AnyAction())));
}

/** The messages of a category that carries results or faults, since the last call. */
std::vector<std::string> TakeLog() {
  auto& log = RecordedLog::Instance();
  const auto texts = log.Lines().empty() ? std::vector<std::string>() : log.Texts();
  log.ForgetLines();
  return texts;
}

class ControllerModelTest : public support::CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    RecordedLog::Instance().Disable(logging::categories::Info);
    RecordedLog::Instance().Disable(logging::categories::Interface);
  }

  /** How often each thing happened in all scenarios, by the beginning of its note. */
  std::map<std::string, std::size_t> seen_;
};

TEST_F(ControllerModelTest, TheControllerDoesWhatTheModelDoesInEverySequence) {
  rc::detail::checkGTest([this] {
    const Scenario scenario = *AnyScenario();
    const auto expected = model::NotesOf<model::ControllerModel>(scenario);
    const auto actual = model::NotesOf<model::RealController>(scenario, TakeLog);
    for (const auto& note : expected) {
      ++seen_[note.substr(0, 10)];
    }
    const auto difference = model::Difference(expected, actual);
    if (!difference.empty()) {
      RC_FAIL(difference);
    }
  });

  if (HasFailure()) {
    return;
  }
  // Sequences that reach nothing would agree about nothing.
  for (const char* event :
       {"post 3/200", "post 3/202", "post 3/204", "post 3/205", "post 3/207", "prepare 1",
        "install 0", "install 1", "install 2", "abort 0", "abort 1", "delete 2", "create fro",
        "look up up", "log SWL: F", "log Failed", "log Unexpe"}) {
    EXPECT_GT(seen_[event], 20U) << event;
  }
}

}  // namespace
