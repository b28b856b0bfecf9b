#pragma once

#include "tests/faults/Cell.h"

namespace faults {

/**
 * The end-of-line settings item. Its four commands are its steps: mount, folder, copy, unmount. The
 * device is a folder that is bound to the item's mount point.
 */
class SettingsCell : public Cell {
 public:
  SettingsCell(const Row& row, Moment moment) : Cell(row, Kind::kSettings, moment) {}

 protected:
  void LayOut() override;
  void CommandComes(int number) override;
  bool IsDoneByTools() const override;
  bool TargetIsRight() const override;

 private:
  void MakeFullDisk();
  void MakeTool();
};

}  // namespace faults
