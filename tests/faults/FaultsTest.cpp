#include <cctype>
#include <gtest/gtest.h>

#include "tests/faults/Cell.h"
#include "tests/faults/CellProcess.h"
#include "tests/faults/Inputs.h"
#include "tests/faults/Table.h"
#include "tests/support/CleanTest.h"
#include "tests/support/PrivateMounts.h"

namespace {

using faults::Expectation;
using faults::Kind;
using faults::Moment;
using faults::Row;
using faults::Table;

/** One fault of one kind of item: a cell for every moment. */
struct Place {
  std::size_t row;
  Kind kind;

  const Row& TheRow() const { return faults::Rows()[row]; }
};

void PrintTo(const Place& place, std::ostream* stream) {
  *stream << place.TheRow().name << ", " << NameOf(place.kind);
}

std::vector<Moment> MomentsThatRun(const Place& place) {
  std::vector<Moment> moments;
  for (std::size_t number = 0; number < faults::kMoments; ++number) {
    const auto moment = static_cast<Moment>(number);
    if (Expectation::Of(place.TheRow(), place.kind, moment).run) {
      moments.push_back(moment);
    }
  }
  return moments;
}

std::vector<Place> PlacesThatRun() {
  std::vector<Place> places;
  for (std::size_t row = 0; row < faults::Rows().size(); ++row) {
    for (std::size_t kind = 0; kind < faults::kKinds; ++kind) {
      const Place place{row, static_cast<Kind>(kind)};
      if (!MomentsThatRun(place).empty()) {
        places.push_back(place);
      }
    }
  }
  return places;
}

std::string InCamelCase(const std::string& text) {
  std::string name;
  bool begins = true;
  for (const char letter : text) {
    const auto character = static_cast<unsigned char>(letter);
    if (std::isalnum(character) != 0) {
      name += static_cast<char>(begins ? std::toupper(character) : character);
    }
    begins = std::isalnum(character) == 0;
  }
  return name;
}

class FaultsTest : public support::CleanTest, public testing::WithParamInterface<Place> {
 protected:
  void SetUp() override {
    support::CleanTest::SetUp();
    const std::string why = support::EnterPrivateMounts();
    if (!why.empty()) {
      GTEST_SKIP() << why;
    }
    faults::MakeInputOf(GetParam().kind);
  }
};

TEST_P(FaultsTest, GivesWhatTheRulesSayAtEveryMoment) {
  const Place place = GetParam();
  // Told at the end: a cell's process must begin without a failure.
  std::string failures;
  for (const Moment moment : MomentsThatRun(place)) {
    const auto verdict = faults::RunInCellProcess(
        [&] { faults::Cell::Make(place.TheRow(), place.kind, moment)->Run(); });
    Table::Instance().Record({place.row, place.kind, moment}, verdict.passed);
    if (!verdict.passed) {
      failures += std::string(NameOf(moment)) + ": " + verdict.why + "\n";
    }
  }
  EXPECT_TRUE(failures.empty()) << failures;
}

INSTANTIATE_TEST_SUITE_P(Matrix, FaultsTest, testing::ValuesIn(PlacesThatRun()),
                         [](const auto& test) {
                           return InCamelCase(test.param.TheRow().name) + "_" +
                                  InCamelCase(NameOf(test.param.kind));
                         });

/** Prints the table when more than one test has run. */
class TableAtTheEnd : public testing::Environment {
 public:
  void TearDown() override { Table::Instance().Print(); }
};

const auto* const tableAtTheEnd = testing::AddGlobalTestEnvironment(new TableAtTheEnd);

}  // namespace
