#include "RecordWriter.h"

#include "Console.h"

#include <json/json.h>

#include <charconv>
#include <cstdio>

namespace logread {

namespace {

constexpr std::string_view kReset = "\x1b[0m";

std::string_view ColourOf(const Record& r) {
  const std::string_view level = r.fields.level;
  if (level == "ERR") return "\x1b[31m";
  if (level == "WAR") return "\x1b[94m";
  if (level == "INF") return "\x1b[92m";
  if (level == "TRA") return "\x1b[93m";
  return "\x1b[37m";
}

// The text without the line end that closes the record ("\n" or "\r\n").
std::string_view WithoutLineEnd(std::string_view text) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
  return text;
}

// Length of the UTF-8 sequence at `s` (1 to 4), or 0 when it is not one.
std::size_t Utf8Length(std::string_view s) {
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char c = b(0);
  if (c < 0x80) return 1;
  std::size_t n = c >= 0xC2 && c <= 0xDF   ? 2
                  : c >= 0xE0 && c <= 0xEF ? 3
                  : c >= 0xF0 && c <= 0xF4 ? 4
                                           : 0;
  if (n == 0 || s.size() < n) return 0;
  for (std::size_t i = 1; i < n; ++i)
    if ((b(i) & 0xC0) != 0x80) return 0;
  // No overlong forms, no surrogates, nothing above U+10FFFF.
  if ((c == 0xE0 && b(1) < 0xA0) || (c == 0xED && b(1) > 0x9F) || (c == 0xF0 && b(1) < 0x90) ||
      (c == 0xF4 && b(1) > 0x8F))
    return 0;
  return n;
}

// A number field as a JSON integer; null when there is none.
Json::Value Number(std::string_view digits) {
  long long value = 0;
  const char* end = digits.data() + digits.size();
  auto [ptr, ec] = std::from_chars(digits.data(), end, value);
  if (digits.empty() || ec != std::errc() || ptr != end) return Json::Value();
  return Json::Value(static_cast<Json::Int64>(value));
}

}  // namespace

void AppendOneLine(std::string_view text, std::string& out) {
  text = WithoutLineEnd(text);
  std::size_t done = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c != '\n' && c != '\r') continue;
    out.append(text.substr(done, i - done));
    if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    out += c == '\r' && text[i] != '\n' ? "\\r" : "\\n";
    done = i + 1;
  }
  out.append(text.substr(done));
}

std::string OneLine(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 1);
  AppendOneLine(text, out);
  return out;
}

std::string CleanMessage(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    if (text.substr(0, 2) == "\r\n") {
      out += '\n';
      text.remove_prefix(2);
      continue;
    }
    const std::size_t n = Utf8Length(text);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      text.remove_prefix(1);
    } else {
      out.append(text.substr(0, n));
      text.remove_prefix(n);
    }
  }
  return out;
}

std::string FormatTime(const logrecord::Time& t) {
  char text[32];
  std::snprintf(text, sizeof text, "%02d-%02d %02d:%02d:%02d.%03d", t.month, t.day, t.hour,
                t.minute, t.second, t.millisecond);
  return text;
}

void RawWriter::Write(const Record& r) {
  if (!colour_) {
    Emit(r.text);
    return;
  }
  const std::string_view body = WithoutLineEnd(r.text);
  Emit(ColourOf(r));
  Emit(body);
  Emit(kReset);
  Emit(std::string_view(r.text).substr(body.size()));
}

LineWriter::LineWriter(const Timeline& timeline, bool colour, bool iso)
    : timeline_(timeline), colour_(colour), iso_(iso), names_(timeline.size() > 1) {}

void LineWriter::Write(const Record& r) {
  line_.clear();
  if (iso_) {
    line_ += r.has_time ? IsoTime(r.when) : std::string(23, '-');
    line_ += ' ';
  }
  if (names_) {
    line_ += timeline_.name(r.file);
    line_ += ": ";
  }
  if (colour_) line_ += ColourOf(r);
  AppendOneLine(r.text, line_);
  if (colour_) line_ += kReset;
  line_ += '\n';
  Emit(line_);
}

JsonWriter::JsonWriter(const Timeline& timeline) : timeline_(timeline) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  writer_.reset(builder.newStreamWriter());
  value_ = std::make_unique<Json::Value>(Json::objectValue);
}

JsonWriter::~JsonWriter() = default;

void JsonWriter::Write(const Record& r) {
  const logrecord::Fields& f = r.fields;
  Json::Value& v = *value_;
  v["file"] = CleanMessage(timeline_.name(r.file));
  v["time"] = f.has_time ? Json::Value(IsoTime(r.when)) : Json::Value();
  v["level"] = f.level.empty() ? Json::Value() : Json::Value(std::string(f.level));
  v["thread"] = Number(f.thread);
  v["source"] = r.parsed && r.form == logrecord::Form::kPlugin ? Json::Value(CleanMessage(f.source))
                                                               : Json::Value();
  v["line"] = Number(f.line);
  v["message"] = CleanMessage(f.message);
  out_.str(std::string());
  writer_->write(v, &out_);
  out_ << '\n';
  Emit(out_.str());
}

TailWriter::TailWriter(std::size_t count, RecordSink& next) : count_(count), next_(next) {}

void TailWriter::Write(const Record& r) {
  if (passing_) {
    next_.Write(r);
    return;
  }
  if (count_ == 0) return;
  if (kept_.size() == count_) kept_.pop_front();
  Record& copy = kept_.emplace_back();
  copy.file = r.file;
  copy.form = r.form;
  copy.text = r.text;
  copy.Parse();
  copy.has_time = r.has_time;
  copy.when = r.when;
  copy.year_step = r.year_step;
}

void TailWriter::Flush() {
  if (!passing_) {
    for (const Record& r : kept_) next_.Write(r);
    kept_.clear();
    passing_ = true;
  }
  next_.Flush();
}

}  // namespace logread
