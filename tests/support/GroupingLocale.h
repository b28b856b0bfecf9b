#pragma once

#include <locale>
#include <string>

namespace support {

/** While it lives, streams of this process group digits, as a host's locale may: "1,024". */
class GroupingLocale {
 public:
  GroupingLocale()
      : before_(std::locale::global(std::locale(std::locale::classic(), new Grouping))) {}
  ~GroupingLocale() { std::locale::global(before_); }

  GroupingLocale(const GroupingLocale&) = delete;
  GroupingLocale& operator=(const GroupingLocale&) = delete;

 private:
  class Grouping : public std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };

  std::locale before_;
};

}  // namespace support
