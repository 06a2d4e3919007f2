#include "requests/event_service/time_stamp_form.h"

#include <algorithm>
#include <chrono>

#include "foundation/characters.h"

namespace event_service {
namespace {

/// Takes the text apart from its beginning; fails once and for all at the first character that does not fit.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  void Take(char expected) {
    if (!rest_.starts_with(expected)) return Fail();
    rest_.remove_prefix(1);
  }
  int TakeNumber(size_t digits) {
    const std::string_view text = rest_.substr(0, digits);
    if (text.size() != digits || !std::ranges::all_of(text, IsDigit)) return Fail(), 0;
    rest_.remove_prefix(digits);
    int number = 0;
    for (const char c : text) number = number * 10 + (c - '0');
    return number;
  }
  void TakeDigits() { rest_.remove_prefix(std::min(rest_.find_first_not_of("0123456789"), rest_.size())); }
  void TakeSign() { rest_.starts_with('-') ? Take('-') : Take('+'); }

  bool StartsWith(char c) const { return rest_.starts_with(c); }
  bool IsAtEnd() const { return !failed_ && rest_.empty(); }

 private:
  void Fail() {
    failed_ = true;
    rest_ = {};
  }

  std::string_view rest_;
  bool failed_ = false;
};

bool TakeDate(Scanner& scanner) {
  const std::chrono::year year(scanner.TakeNumber(4));
  scanner.Take('-');
  const std::chrono::month month(static_cast<unsigned>(scanner.TakeNumber(2)));
  scanner.Take('-');
  const std::chrono::day day(static_cast<unsigned>(scanner.TakeNumber(2)));
  return std::chrono::year_month_day(year, month, day).ok();
}

bool TakeHoursAndMinutes(Scanner& scanner) {
  const int hours = scanner.TakeNumber(2);
  scanner.Take(':');
  const int minutes = scanner.TakeNumber(2);
  return hours < 24 && minutes < 60;
}

bool TakeSeconds(Scanner& scanner) {
  const int seconds = scanner.TakeNumber(2);
  if (scanner.StartsWith('.')) {
    scanner.Take('.');
    scanner.TakeNumber(1);  // one digit at least
    scanner.TakeDigits();
  }
  return seconds <= 60;  // a leap second
}

}  // namespace

bool IsTimeStamp(std::string_view text) {
  Scanner scanner(text);
  if (!TakeDate(scanner)) return false;
  scanner.Take('T');
  if (!TakeHoursAndMinutes(scanner)) return false;
  scanner.Take(':');
  if (!TakeSeconds(scanner)) return false;
  if (scanner.StartsWith('Z')) {
    scanner.Take('Z');
  } else {
    scanner.TakeSign();
    if (!TakeHoursAndMinutes(scanner)) return false;
  }
  return scanner.IsAtEnd();
}

}  // namespace event_service
