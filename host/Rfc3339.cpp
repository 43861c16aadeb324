#include "host/Rfc3339.h"

#include <chrono>
#include <cstdint>
#include <cstdio>

namespace tessard {

namespace {

constexpr std::int64_t kMicroseconds = 1'000'000;
constexpr std::int64_t kSecondsPerDay = 86'400;

// Reads a text from the left; once something is not there, every later reading fails as well.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  int number(std::size_t digits) {
    int value = 0;
    for (std::size_t digit = 0; digit < digits; ++digit) {
      if (rest_.empty() || rest_.front() < '0' || rest_.front() > '9') return fail();
      value = value * 10 + (rest_.front() - '0');
      rest_.remove_prefix(1);
    }
    return value;
  }

  bool take(std::string_view oneOf) {
    if (failed_ || rest_.empty() || oneOf.find(rest_.front()) == std::string_view::npos) return false;
    taken_ = rest_.front();
    rest_.remove_prefix(1);
    return true;
  }

  void expect(std::string_view oneOf) {
    if (!take(oneOf)) fail();
  }

  bool atDigit() const { return !rest_.empty() && rest_.front() >= '0' && rest_.front() <= '9'; }
  char taken() const { return taken_; }
  bool complete() const { return !failed_ && rest_.empty(); }
  int fail() {
    failed_ = true;
    return 0;
  }

 private:
  std::string_view rest_;
  char taken_ = 0;
  bool failed_ = false;
};

std::int64_t readFraction(Reader& reader) {
  if (!reader.take(".")) return 0;
  std::int64_t fraction = reader.number(1) * (kMicroseconds / 10);
  for (std::int64_t weight = kMicroseconds / 100; reader.atDigit(); weight /= 10) {
    fraction += reader.number(1) * weight;
  }
  return fraction;
}

// Seconds east of UTC.
std::int64_t readZone(Reader& reader) {
  if (reader.take("Zz")) return 0;
  reader.expect("+-");
  const int sign = reader.taken() == '-' ? -1 : 1;
  const int hours = reader.number(2);
  reader.expect(":");
  const int minutes = reader.number(2);
  if (hours > 23 || minutes > 59) reader.fail();
  return sign * (hours * 3600LL + minutes * 60LL);
}

}  // namespace

std::string formatRfc3339(Date date) {
  using namespace std::chrono;
  const sys_time<microseconds> moment{microseconds(date.microsecondsSince1970)};
  const auto day = floor<days>(moment);
  const year_month_day calendar{day};
  const hh_mm_ss time{moment - day};
  char text[64];
  int length = std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d", int(calendar.year()),
                             unsigned(calendar.month()), unsigned(calendar.day()),
                             static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                             static_cast<int>(time.seconds().count()));
  std::string result(text, static_cast<std::size_t>(length));
  if (time.subseconds().count() != 0) {
    length = std::snprintf(text, sizeof text, ".%06d", static_cast<int>(time.subseconds().count()));
    result.append(text, static_cast<std::size_t>(length));
  }
  return result + "Z";
}

std::optional<Date> parseRfc3339(std::string_view text) {
  using namespace std::chrono;
  Reader reader(text);
  const int yearNumber = reader.number(4);
  reader.expect("-");
  const int monthNumber = reader.number(2);
  reader.expect("-");
  const int dayNumber = reader.number(2);
  reader.expect("Tt");
  const int hour = reader.number(2);
  reader.expect(":");
  const int minute = reader.number(2);
  reader.expect(":");
  const int second = reader.number(2);
  const std::int64_t fraction = readFraction(reader);
  const std::int64_t zone = readZone(reader);
  const year_month_day calendar{year(yearNumber), month(static_cast<unsigned>(monthNumber)),
                                day(static_cast<unsigned>(dayNumber))};
  if (!reader.complete() || !calendar.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const std::int64_t dayCount = sys_days(calendar).time_since_epoch().count();
  const std::int64_t seconds = dayCount * kSecondsPerDay + hour * 3600LL + minute * 60LL + second - zone;
  return Date{seconds * kMicroseconds + fraction};
}

}  // namespace tessard
