// The ways logread writes records to standard output:
//  - as written: the records' bytes unchanged (a single file, no filter);
//  - one line each: line feeds inside a message shown as "\n", the file's
//    name first when several files are read;
//  - JSON Lines: one object per record (file, time with the year, level,
//    thread, source, line, message), written with jsoncpp.
// The first two can colour each record by its level as the logger's console
// echo does: ERR red, WAR bright blue, INF bright green, TRA yellow, others
// grey.
#pragma once

#include "Timeline.h"

#include <deque>
#include <memory>
#include <sstream>
#include <string>

namespace Json {
class StreamWriter;
class Value;
}  // namespace Json

namespace logread {

class RawWriter : public RecordSink {
 public:
  explicit RawWriter(bool colour) : colour_(colour) {}
  void Write(const Record& record) override;

 private:
  bool colour_;
};

// `iso`: each line starts with the record's time with its year
// ("2026-11-14T09:05:07.042 ").
class LineWriter : public RecordSink {
 public:
  LineWriter(const Timeline& timeline, bool colour, bool iso);
  void Write(const Record& record) override;

 private:
  const Timeline& timeline_;
  bool colour_;
  bool iso_;
  bool names_;
  std::string line_;
};

class JsonWriter : public RecordSink {
 public:
  explicit JsonWriter(const Timeline& timeline);
  ~JsonWriter() override;
  void Write(const Record& record) override;

 private:
  const Timeline& timeline_;
  std::unique_ptr<Json::StreamWriter> writer_;
  std::unique_ptr<Json::Value> value_;  // kept: its members are assigned anew for each record
  std::ostringstream out_;
};

// -n N: only the last N records of what there is at the first Flush (the
// files read once, or the first look at the files followed); after it every
// record passes.
class TailWriter : public RecordSink {
 public:
  TailWriter(std::size_t count, RecordSink& next);
  void Write(const Record& record) override;
  void Flush() override;

 private:
  std::size_t count_;
  RecordSink& next_;
  std::deque<Record> kept_;
  bool passing_ = false;
};

// The record's text on one line: the line end that closes it dropped, line feeds and
// carriage returns inside it written as "\n" and "\r".
std::string OneLine(std::string_view text);
void AppendOneLine(std::string_view text, std::string& out);

// `text` with every byte sequence that is not UTF-8 replaced by U+FFFD, and
// "\r\n" as "\n" (the sensor library's log is written in text mode).
std::string CleanMessage(std::string_view text);

// "MM-DD hh:mm:ss.mmm".
std::string FormatTime(const logrecord::Time& time);

}  // namespace logread
