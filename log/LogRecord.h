// Reading side of the log records: the fields of one record of the plug-in's
// log and of one line of the sensor library's log, their time as a number
// that orders them, and a splitter that cuts plain text into records. No
// Windows API and no I/O: logread does the files, and the same code is what
// the tests and the fuzzer drive.
//
// The plug-in's record (one frame of a ".logdat" file, or one line of a plain
// log; a message may hold line feeds of its own, as "resp: %s" does with the
// JSON's final line feed):
//   MM-DD hh:mm:ss:mmm : [TAG][THREAD] SOURCE(LINE) MESSAGE\n
// The sensor library's line ("%02d" fields, milliseconds not padded; lines end
// with "\r\n" when the Windows runtime wrote them; a message that ends with a
// line feed of its own is followed by an empty line):
//   [MM-DD-hh-mm-ss:ms]MESSAGE
// and, at each opening of that log, the line "Version:0.0.0.3" without a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace logrecord {

// The two kinds of log text.
enum class Form { kPlugin, kSensorLib };

// A time as the records carry it: no year.
struct Time {
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;

  // Milliseconds since 01-01 00:00:00.000 of a year of 365 days. Differences
  // are true durations within a year (02-29 counts as 03-01); impossible
  // dates are clamped, so that every time still has a place in the order.
  std::int64_t Key() const;
};

constexpr std::int64_t kDayMs = 24LL * 60 * 60 * 1000;
constexpr std::int64_t kYearMs = 365 * kDayMs;

// The fields of one record. The views point into the text that was parsed;
// an empty view means the record has no such field (a sensor library line
// has no level, thread, source or line).
struct Fields {
  bool has_time = false;
  Time time;
  std::string_view level;   // the tag without brackets: "ERR", "INF", "NONE", ...
  std::string_view thread;  // the digits as written ("04242")
  std::string_view source;  // "AttentionPlugin.cpp"
  std::string_view line;    // the digits of the line number
  // The text after the fields, without the line end that closes the record
  // (its own line feeds stay, "\r\n" as written).
  std::string_view message;
};

// Parses the text of one plug-in record. On false the text is not such a
// record and `fields` holds only its message (the text without the final
// line end).
bool ParsePluginRecord(std::string_view text, Fields& fields);

// Parses one sensor library record (its line, and any lines that continue
// it). "Version:..." parses with no time. On false as above.
bool ParseSensorRecord(std::string_view text, Fields& fields);

bool ParseRecord(Form form, std::string_view text, Fields& fields);

// True when `line` (a line of plain text) starts a record of `form`; any other
// line continues the record before it.
bool StartsRecord(Form form, std::string_view line);

// Parses "MM-DD hh:mm" or "MM-DD hh:mm:ss" (the form of --since and --until).
bool ParseTimeArgument(std::string_view text, Time& time);

// Cuts plain log text, fed in pieces of any size, into records: a line that
// starts a record, and the lines after it that do not. Each record is handed
// back byte for byte as it was fed, so the records put together are the input.
class RecordSplitter {
 public:
  explicit RecordSplitter(Form form = Form::kPlugin) : form_(form) {}

  // Appends to `records` every record that more bytes have closed (a record
  // closes when the next one starts).
  void Feed(const char* data, std::size_t size, std::vector<std::string>& records);
  // Hands back the record still open, as far as its last line feed. A line
  // that the next bytes continue stays.
  void FlushLines(std::vector<std::string>& records);
  // Hands back everything, an unfinished last line included.
  void Flush(std::vector<std::string>& records);
  void Reset();

 private:
  void TakeLine(std::string_view line, std::vector<std::string>& records);

  Form form_;
  std::string current_;  // the open record: whole lines
  std::string partial_;  // the bytes after the last line feed
};

}  // namespace logrecord
