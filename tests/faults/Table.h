#pragma once

#include <map>
#include <ostream>
#include <string>
#include <tuple>

#include "tests/faults/Matrix.h"

namespace faults {

/** The outcomes of this run of the matrix, as a table for people. */
class Table {
 public:
  struct Cell {
    std::size_t row;
    Kind kind;
    Moment moment;
  };

  static Table& Instance();

  void Record(const Cell& cell, bool passed);

  /** On standard output, and as Markdown into the file that FAULTS_MARKDOWN names. */
  void Print() const;

 private:
  void Write(std::ostream& stream) const;
  void WriteRow(std::ostream& stream, std::size_t row) const;
  void WriteReasons(std::ostream& stream) const;
  void WriteNotes(std::ostream& stream) const;
  std::string Text(std::size_t row, Kind kind) const;

  std::map<std::tuple<std::size_t, Kind, Moment>, bool> outcomes_;
};

}  // namespace faults
