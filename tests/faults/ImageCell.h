#pragma once

#include "tests/faults/Cell.h"
#include "tests/faults/Gate.h"

namespace faults {

/**
 * The image item with the real zcat and dd. Where the moment is the host's, the target is a pipe or
 * a terminal that takes only as much as it is let, so that dd stands still at a known block, and is
 * asked for its progress there.
 */
class ImageCell : public Cell {
 public:
  ImageCell(const Row& row, Moment moment) : Cell(row, Kind::kImage, moment) {}
  ~ImageCell() override;

 protected:
  void LayOut() override;
  void Posted(const std::string& event) override;
  void Subscribed(TUint32 type) override;
  void Turn() override;
  bool IsDoneByTools() const override;
  bool TargetIsRight() const override;
  void BreakTarget() override;

 private:
  void MakeFifo();
  void MakeTerminal();
  void MakeFullDisk();
  void MakeTool();
  std::size_t BytesUntilTheMoment() const;
  std::size_t Allowed() const;
  bool DDStandsStill() const;
  void GoOn();

  bool isTerminal_ = false;
  std::unique_ptr<Gate> gate_;
  int terminal_ = -1;  // the side of dd, kept open
  bool asked_ = false;
};

}  // namespace faults
