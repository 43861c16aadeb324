#include <chrono>
#include <cstdio>

#include "platform/PropertyListParts.h"

namespace tessard {

namespace {

using Seconds = std::chrono::sys_seconds;

constexpr std::string_view kPattern = "dddd-dd-ddTdd:dd:ddZ";

bool hasPattern(std::string_view text) {
  if (text.size() != kPattern.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kPattern[i] == 'd' ? !digit : text[i] != kPattern[i]) return false;
  }
  return true;
}

int numberIn(std::string_view text, std::size_t at, std::size_t digits) {
  int number = 0;
  for (const char digit : text.substr(at, digits)) number = number * 10 + (digit - '0');
  return number;
}

}  // namespace

std::optional<Date> dateFromText(std::string_view text) {
  if (!hasPattern(text)) return std::nullopt;
  const std::chrono::year_month_day day{std::chrono::year(numberIn(text, 0, 4)),
                                        std::chrono::month(static_cast<unsigned>(numberIn(text, 5, 2))),
                                        std::chrono::day(static_cast<unsigned>(numberIn(text, 8, 2)))};
  const int hour = numberIn(text, 11, 2);
  const int minute = numberIn(text, 14, 2);
  const int second = numberIn(text, 17, 2);
  if (!day.ok() || day.year() < std::chrono::year(1) || hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }
  const Seconds time = std::chrono::sys_days(day) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                       std::chrono::seconds(second);
  return Date{std::chrono::microseconds(time.time_since_epoch()).count()};
}

std::optional<std::string> textOfDate(Date date) {
  const auto seconds =
      std::chrono::floor<std::chrono::seconds>(std::chrono::sys_time<std::chrono::microseconds>(
          std::chrono::microseconds(date.microsecondsSince1970)));
  const auto days = std::chrono::floor<std::chrono::days>(seconds);
  // The calendar type cannot count the years of every moment that 64 bits of microseconds can name.
  constexpr std::int64_t kDaysFromHere = 4'000'000;
  if (days.time_since_epoch().count() < -kDaysFromHere || days.time_since_epoch().count() > kDaysFromHere) {
    return std::nullopt;
  }
  const std::chrono::year_month_day day{days};
  const int year = static_cast<int>(day.year());
  if (year < 1 || year > 9999) return std::nullopt;
  const std::chrono::hh_mm_ss time(seconds - days);
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", year, static_cast<unsigned>(day.month()),
                static_cast<unsigned>(day.day()), static_cast<int>(time.hours().count()),
                static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
  return std::string(text);
}

}  // namespace tessard
