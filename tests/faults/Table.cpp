#include "tests/faults/Table.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>

#include "tests/faults/Expectation.h"

namespace faults {

namespace {

std::set<char> ReasonsOf(std::size_t row, Kind kind) {
  std::set<char> reasons;
  for (std::size_t number = 0; number < kMoments; ++number) {
    const auto expected = Expectation::Of(Rows()[row], kind, static_cast<Moment>(number));
    if (!expected.run) {
      reasons.insert(expected.reason);
    }
  }
  return reasons;
}

}  // namespace

Table& Table::Instance() {
  static Table table;
  return table;
}

void Table::Record(const Cell& cell, bool passed) {
  outcomes_[{cell.row, cell.kind, cell.moment}] = passed;
}

void Table::Print() const {
  if (outcomes_.size() > kMoments) {
    std::cout << "\n";
    Write(std::cout);
  }
  const char* path = std::getenv("FAULTS_MARKDOWN");  // NOLINT(concurrency-mt-unsafe)
  if (path != nullptr) {
    std::ofstream file(path);
    Write(file);
  }
}

void Table::Write(std::ostream& stream) const {
  stream << "| fault |";
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    stream << " " << NameOf(static_cast<Kind>(kind)) << " |";
  }
  stream << "\n|---|---|---|---|---|---|\n";
  for (std::size_t row = 0; row < Rows().size(); ++row) {
    WriteRow(stream, row);
  }
  const auto passed = std::count_if(outcomes_.begin(), outcomes_.end(),
                                    [](const auto& outcome) { return outcome.second; });
  stream << "\nPassed: " << passed << " of " << outcomes_.size() << " cells that were run.\n";
  WriteReasons(stream);
  WriteNotes(stream);
}

void Table::WriteRow(std::ostream& stream, std::size_t row) const {
  stream << "| " << Rows()[row].name << " |";
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    stream << " " << Text(row, static_cast<Kind>(kind)) << " |";
  }
  stream << "\n";
}

/** "4/4 –e": passed and run moments, and why the others were not run. */
std::string Table::Text(std::size_t row, Kind kind) const {
  int run = 0;
  int passed = 0;
  for (std::size_t number = 0; number < kMoments; ++number) {
    const auto outcome = outcomes_.find({row, kind, static_cast<Moment>(number)});
    if (outcome != outcomes_.end()) {
      ++run;
      passed += outcome->second ? 1 : 0;
    }
  }
  std::string text = run == 0 ? "" : std::to_string(passed) + "/" + std::to_string(run);
  const auto reasons = ReasonsOf(row, kind);
  if (!reasons.empty()) {
    text += (text.empty() ? "–" : " –") + std::string(reasons.begin(), reasons.end());
  }
  return text.empty() ? "not run" : text;
}

void Table::WriteReasons(std::ostream& stream) const {
  stream << "\nMoments that are not run, and count nowhere:\n\n";
  for (const auto& [letter, reason] : Reasons()) {
    stream << "- –" << letter << ": " << reason << "\n";
  }
}

void Table::WriteNotes(std::ostream& stream) const {
  stream << "\nNotes:\n\n";
  for (const Row& row : Rows()) {
    if (*row.note != '\0') {
      stream << "- " << row.name << ": " << row.note << "\n";
    }
  }
}

}  // namespace faults
