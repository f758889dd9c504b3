#include "Clock.h"

#include <cstdio>
#include <ctime>

#ifdef _WIN32
#include <windows.h>
#endif

namespace logread {

namespace {

constexpr std::int64_t kDay = logrecord::kDayMs;

bool Leap(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

// Days from 1970-01-01 to the date (the usual shift of the year to start in
// March, so that the leap day is the last day of a year).
std::int64_t DaysFromDate(int year, int month, int day) {
  const std::int64_t y = year - (month <= 2);
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t year_of_era = y - era * 400;
  const std::int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t day_of_era =
      year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

void DateFromDays(std::int64_t days, int& year, int& month, int& day) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t day_of_era = days - era * 146097;
  const std::int64_t year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const std::int64_t day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const std::int64_t mp = (5 * day_of_year + 2) / 153;
  day = static_cast<int>(day_of_year - (153 * mp + 2) / 5 + 1);
  month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  year = static_cast<int>(year_of_era + era * 400 + (month <= 2));
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Exactly `count` digits at `at`.
bool Digits(std::string_view s, std::size_t& at, std::size_t count, int& value) {
  if (at + count > s.size()) return false;
  value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!IsDigit(s[at + i])) return false;
    value = value * 10 + (s[at + i] - '0');
  }
  at += count;
  return true;
}

bool Char(std::string_view s, std::size_t& at, char c) {
  if (at >= s.size() || s[at] != c) return false;
  ++at;
  return true;
}

// "hh:mm[:ss[.mmm]]" at `at`; `span` becomes the length of the last field.
bool ClockTime(std::string_view s, std::size_t& at, CivilParts& p, std::int64_t& span,
               bool milliseconds) {
  if (!(Digits(s, at, 2, p.hour) && Char(s, at, ':') && Digits(s, at, 2, p.minute))) return false;
  span = 60000;
  if (Char(s, at, ':')) {
    if (!Digits(s, at, 2, p.second)) return false;
    span = 1000;
    if (milliseconds && Char(s, at, '.')) {
      if (!Digits(s, at, 3, p.millisecond)) return false;
      span = 1;
    }
  }
  return true;
}

std::string CheckParts(const CivilParts& p, int year) {
  char text[64];
  if (p.month < 1 || p.month > 12 || p.day < 1 || p.day > DaysInMonth(year, p.month)) {
    std::snprintf(text, sizeof text, "%02d-%02d is not a date", p.month, p.day);
    return text;
  }
  if (p.hour > 23 || p.minute > 59 || p.second > 59) {
    std::snprintf(text, sizeof text, "%02d:%02d:%02d is not a time of day", p.hour, p.minute,
                  p.second);
    return text;
  }
  return {};
}

}  // namespace

int DaysInMonth(int year, int month) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12) return 0;
  if (month == 2 && (year == 0 || Leap(year))) return 29;
  return kDays[month - 1];
}

Civil ToCivil(const CivilParts& p) {
  return DaysFromDate(p.year, p.month, p.day) * kDay +
         ((p.hour * 60LL + p.minute) * 60 + p.second) * 1000 + p.millisecond;
}

CivilParts FromCivil(Civil when) {
  CivilParts p;
  std::int64_t days = when / kDay, ms = when % kDay;
  if (ms < 0) {
    ms += kDay;
    --days;
  }
  DateFromDays(days, p.year, p.month, p.day);
  p.hour = static_cast<int>(ms / 3600000);
  p.minute = static_cast<int>(ms / 60000 % 60);
  p.second = static_cast<int>(ms / 1000 % 60);
  p.millisecond = static_cast<int>(ms % 1000);
  return p;
}

Civil ToCivil(int year, const logrecord::Time& t) {
  // Impossible dates keep a place in the order: the day runs on into the
  // next month, as 02-29 of a common year does.
  CivilParts p{year, t.month < 1 ? 1 : t.month > 12 ? 12 : t.month, 1, 0, 0, 0, 0};
  const int day = t.day < 1 ? 1 : t.day > 31 ? 31 : t.day;
  return ToCivil(p) + (day - 1) * kDay + ((t.hour * 60LL + t.minute) * 60 + t.second) * 1000 +
         t.millisecond;
}

namespace {

void Put(char* at, int value, int digits) {
  for (int i = digits - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
}

}  // namespace

std::string IsoTime(Civil when) {
  // Written by hand: JSON output asks this for every record. The date part is
  // kept from the last call, since records come many a day.
  thread_local std::int64_t last_day = -1;
  thread_local char text[] = "0000-00-00T00:00:00.000";
  std::int64_t day = when / kDay, ms = when % kDay;
  if (ms < 0) {
    ms += kDay;
    --day;
  }
  if (day != last_day) {
    int year, month, mday;
    DateFromDays(day, year, month, mday);
    if (year < 0 || year > 9999) {
      const CivilParts p = FromCivil(when);
      char out[48];
      std::snprintf(out, sizeof out, "%d-%02d-%02dT%02d:%02d:%02d.%03d", p.year, p.month, p.day,
                    p.hour, p.minute, p.second, p.millisecond);
      return out;
    }
    Put(text, year, 4);
    Put(text + 5, month, 2);
    Put(text + 8, mday, 2);
    last_day = day;
  }
  const int t = static_cast<int>(ms);
  Put(text + 11, t / 3600000, 2);
  Put(text + 14, t / 60000 % 60, 2);
  Put(text + 17, t / 1000 % 60, 2);
  Put(text + 20, t % 1000, 3);
  return std::string(text, sizeof text - 1);
}

Civil LocalNow() {
#ifdef _WIN32
  SYSTEMTIME t;
  GetLocalTime(&t);
  return ToCivil(
      CivilParts{t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds});
#else
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm local{};
  localtime_r(&now.tv_sec, &local);
  return ToCivil(CivilParts{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                            local.tm_min, local.tm_sec, static_cast<int>(now.tv_nsec / 1000000)});
#endif
}

int YearEndingBy(const logrecord::Time& time, Civil reference) {
  // The year after the reference's counts too: a record of 01-01 00:28 in a
  // file modified 12-31 23:10 (or read in a time zone behind the writer's).
  int year = FromCivil(reference).year + 1;
  while (ToCivil(year, time) > reference + kDay) --year;
  return year;
}

std::string ParseTimeLimit(std::string_view s, Civil now, TimeLimit& limit) {
  limit = TimeLimit();
  const Civil midnight = now - ((now % kDay) + kDay) % kDay;
  if (s == "now") {
    limit.start = now;
    return {};
  }
  if (s == "today" || s == "yesterday") {
    limit.start = s == "today" ? midnight : midnight - kDay;
    limit.span = kDay;
    return {};
  }
  std::size_t at = 0;
  if (Char(s, at, '-') && at < s.size() && IsDigit(s[at])) {
    // Relative: "-1h30m".
    std::int64_t back = 0;
    while (at < s.size()) {
      std::int64_t n = 0;
      std::size_t digits = 0;
      for (; at < s.size() && IsDigit(s[at]) && digits < 9; ++at, ++digits)
        n = n * 10 + (s[at] - '0');
      const char unit = at < s.size() ? s[at++] : '\0';
      const std::int64_t size = unit == 's'   ? 1000
                                : unit == 'm' ? 60000
                                : unit == 'h' ? 3600000
                                : unit == 'd' ? kDay
                                              : 0;
      if (digits == 0 || size == 0) return "a relative time is -N followed by s, m, h or d";
      back += n * size;
    }
    limit.start = now - back;
    return {};
  }
  CivilParts p;
  at = 0;
  if (Digits(s, at, 4, p.year) && Char(s, at, '-')) {
    // "YYYY-MM-DD[( |T)hh:mm[:ss[.mmm]]]"
    if (!(Digits(s, at, 2, p.month) && Char(s, at, '-') && Digits(s, at, 2, p.day)))
      return "not a date";
    limit.span = kDay;
    if (at < s.size() &&
        !((Char(s, at, ' ') || Char(s, at, 'T')) && ClockTime(s, at, p, limit.span, true)))
      return "not a time";
    if (at != s.size()) return "unexpected text after the time";
    if (std::string error = CheckParts(p, p.year); !error.empty()) return error;
    limit.start = ToCivil(p);
    return {};
  }
  // "MM-DD[ hh:mm[:ss]]", the records' own form, without a year; the date
  // alone is that whole day.
  at = 0;
  limit.span = kDay;
  if (!(Digits(s, at, 2, p.month) && Char(s, at, '-') && Digits(s, at, 2, p.day) &&
        (at == s.size() || ((Char(s, at, ' ') || Char(s, at, 'T')) &&
                            ClockTime(s, at, p, limit.span, false) && at == s.size()))))
    return "not a time";
  if (std::string error = CheckParts(p, 0); !error.empty()) return error;
  limit.yearless = true;
  limit.time = logrecord::Time{p.month, p.day, p.hour, p.minute, p.second, 0};
  return {};
}

}  // namespace logread
