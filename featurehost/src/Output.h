#pragma once

#include <string_view>

namespace featurehost {

/**
 * Where the results go. A reader that goes away never ends an update: what cannot be written is
 * dropped, and the log says so once.
 */
class Output {
 public:
  /** Takes the descriptor over; -1 drops everything. */
  explicit Output(int descriptor) : descriptor_(descriptor) {}
  ~Output();

  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(std::string_view text);

  bool IsTerminal() const;
  /** Width of the terminal in characters. */
  unsigned Columns() const;

 private:
  void Close();

  int descriptor_;
};

/**
 * A descriptor for the results, and standard output turned over to standard error: what the tools
 * and the module print there must not get between the results. -1 when there is none.
 */
int SeparateStandardOutput();

/** Let failed writes to a closed pipe fail instead of ending the process. */
void SurviveClosedPipes();

}  // namespace featurehost
