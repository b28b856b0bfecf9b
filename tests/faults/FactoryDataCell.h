#pragma once

#include "tests/faults/Cell.h"

namespace faults {

/** The factory data item: one command, in whose dd the fault is. */
class FactoryDataCell : public Cell {
 public:
  FactoryDataCell(const Row& row, Moment moment) : Cell(row, Kind::kFactoryData, moment) {}

 protected:
  void LayOut() override;
  void CommandComes(int number) override;
  bool IsDoneByTools() const override;
  bool TargetIsRight() const override;

 private:
  void MakeFullDisk();
};

}  // namespace faults
