#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "host/Logging.h"

namespace support {

/** One line as the host's log received it. The message includes "(", ")" and the line end. */
struct LogLine {
  std::string category;
  std::string module;
  std::string function;
  std::string source;
  std::string message;
  unsigned line = 0;  // not compared
};

bool operator==(const LogLine& left, const LogLine& right);
std::ostream& operator<<(std::ostream& stream, const LogLine& line);

/** A line being opened: with which answer, and how often the control had been asked until then. */
struct LogOpening {
  std::string category;
  bool enabled;
  std::size_t questionsBefore;
};

/** Writes down what a source file is expected to log. */
class LogSource {
 public:
  LogSource(const char* module, const char* source) : module_(module), source_(source) {}

  LogLine Error(const std::string& function, const std::string& text = "") const {
    return Line(logging::categories::Error, function, text);
  }
  LogLine Warning(const std::string& function, const std::string& text = "") const {
    return Line(logging::categories::Warning, function, text);
  }
  LogLine Info(const std::string& function, const std::string& text = "") const {
    return Line(logging::categories::Info, function, text);
  }
  LogLine Interface(const std::string& function, const std::string& text = "") const {
    return Line(logging::categories::Interface, function, text);
  }
  LogLine Always(const std::string& function, const std::string& text = "") const {
    return Line(logging::categories::Always, function, text);
  }

 private:
  LogLine Line(const char* category, const std::string& function, const std::string& text) const {
    return {category, module_, function, source_, "(" + text + ")\n"};
  }

  std::string module_;
  std::string source_;
};

/**
 * The host's logging facility for tests: keeps every committed line, and every question that the
 * control was asked. One for the process; the fixture clears it.
 */
class RecordedLog {
 public:
  static RecordedLog& Instance();

  void Clear();
  /** Clear, but what is disabled stays so. */
  void ForgetLines();

  /** Committed lines that were enabled, in order. */
  const std::vector<LogLine>& Lines() const { return lines_; }
  /** The same without some categories, for tests that look at fewer. */
  std::vector<LogLine> LinesOf(const std::vector<std::string>& categories) const;
  std::vector<LogLine> Errors() const { return LinesOf({logging::categories::Error}); }
  /** Texts alone, without "(", ")" and the line end. */
  std::vector<std::string> Texts() const;
  bool HasText(const std::string& text) const;

  /** What IControl was asked: module and category. */
  const std::vector<std::pair<std::string, std::string>>& Questions() const { return questions_; }
  /** From now on lines of the category are not wanted. Clear() enables all again. */
  void Disable(const std::string& category) { disabled_.push_back(category); }

  /** Every line that was opened, also the ones that were not enabled. */
  const std::vector<LogOpening>& Openings() const { return openings_; }

  // Called by the logging functions.
  bool Answer(const std::string& module, const std::string& category);
  void Open(const char* category, bool enabled) {
    openings_.push_back({category, enabled, questions_.size()});
  }
  void Commit(const LogLine& line) { lines_.push_back(line); }

 private:
  std::vector<LogLine> lines_;
  std::vector<std::pair<std::string, std::string>> questions_;
  std::vector<LogOpening> openings_;
  std::vector<std::string> disabled_;
};

}  // namespace support
