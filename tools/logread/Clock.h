// Times with a year, for logs that write none.
//
// Both logs write local time without a year. logread puts every time on one
// axis: milliseconds since 1970-01-01 00:00:00.000 of local civil time, on the
// Gregorian calendar, with no time zone (a "civil" time). Durations across a
// year's end or a leap day are true on that axis; the hour that a clock
// change repeats or skips is not, as in the logs themselves.
//
// This file also reads the times that --since and --until accept.
#pragma once

#include "LogRecord.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace logread {

using Civil = std::int64_t;

struct CivilParts {
  int year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0, millisecond = 0;
};

Civil ToCivil(const CivilParts& parts);
CivilParts FromCivil(Civil when);
// A record's time in `year` (02-29 of a common year falls on 03-01).
Civil ToCivil(int year, const logrecord::Time& time);

// "2026-11-14T09:05:07.042".
std::string IsoTime(Civil when);

// The local time now.
Civil LocalNow();

// The year that a year-less time belongs to when it is the last of a log
// that ended by `reference` (the file's modification time, or now): the
// latest year in which the time is at most a day after `reference` (a day
// for a log collected in another time zone).
int YearEndingBy(const logrecord::Time& time, Civil reference);

// Days in `month` of `year`; year 0 stands for any year (29 for February).
int DaysInMonth(int year, int month);

// A value of --since or --until:
//   "MM-DD[ hh:mm[:ss]]"                year-less, as the records write it
//   "YYYY-MM-DD[ hh:mm[:ss[.mmm]]]"     also with "T" between date and time
//   "today", "yesterday", "now"
//   "-N<unit>..." relative to now        units s, m, h, d: "-1h", "-30m", "-1h30m"
// `start` is the first moment the value names and `span` how long it lasts
// (a day, a minute, a second, a millisecond, or 0 for a moment such as "now"
// or "-1h"). A year-less value keeps its `time` until it is placed.
struct TimeLimit {
  bool yearless = false;
  logrecord::Time time;
  Civil start = 0;
  std::int64_t span = 0;
};

// Empty on success, else what is wrong with `text` (for the message of
// `option`).
std::string ParseTimeLimit(std::string_view text, Civil now, TimeLimit& limit);

}  // namespace logread
