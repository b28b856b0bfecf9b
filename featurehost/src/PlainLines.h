#pragma once

#include <string>

#include "featurehost/src/Items.h"
#include "featurehost/src/Output.h"
#include "featurehost/src/RunReport.h"

namespace featurehost {

/** Lines of text for files and pipes: a line when the percentage has changed, and the result. */
class PlainLines : public RunReport {
 public:
  PlainLines(Output& output, Items items);

  void Event(const RunEvent& event) override;
  void Result(const Outcome& outcome) override;

 private:
  Output& output_;
  Items items_;
  std::string lastLine_;
};

}  // namespace featurehost
