#pragma once

#include <memory>

#include "tests/faults/Cell.h"
#include "tests/support/PrivateMounts.h"

namespace faults {

/** The check of an image on a file, with the real zcat: four steps, three of them with progress. */
class CheckCell : public Cell {
 public:
  CheckCell(const Row& row, Moment moment) : Cell(row, Kind::kCheck, moment) {}

 protected:
  void LayOut() override;
  void Posted(const std::string& event) override;
  void Subscribed(TUint32 type) override;
  bool IsDoneByTools() const override;
  bool TargetIsRight() const override;
  std::optional<std::size_t> ProgressEvents() const override;
  void BreakTarget() override;

 private:
  std::size_t BytesUntilTheFault() const;

  std::size_t progress_ = 0;
  std::unique_ptr<support::CoveredTool> tool_;
};

}  // namespace faults
