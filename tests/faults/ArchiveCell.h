#pragma once

#include <memory>
#include <set>

#include "tests/faults/Cell.h"
#include "tests/support/PrivateMounts.h"

namespace faults {

/**
 * The archive item with the real zcat and tar. Its mount is a folder bound to the mount point.
 *
 * The steps are made exact: after each of them the decompressor is waited for until it has filled
 * the pipe with the next step's bytes or has ended.
 */
class ArchiveCell : public Cell {
 public:
  ArchiveCell(const Row& row, Moment moment) : Cell(row, Kind::kArchive, moment) {}

 protected:
  void LayOut() override;
  void Posted(const std::string& event) override;
  void Subscribed(TUint32 type) override;
  bool IsDoneByTools() const override;
  bool TargetIsRight() const override;
  std::optional<std::size_t> ProgressEvents() const override;
  void FillTarget() override;

 private:
  void CoverTools();
  std::string UnpackerText() const;
  std::size_t BytesUntilTheFault() const;
  void FindPipe();
  void Settle() const;

  std::set<int> before_;
  std::size_t progress_ = 0;
  int pipe_ = -1;
  std::unique_ptr<support::CoveredTool> tool_;
};

}  // namespace faults
