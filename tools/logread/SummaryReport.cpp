// The summary's two reports: text for a person and one JSON object for fleet
// queries. Each session shown is written out when it ends (into a temporary
// file), so that memory does not grow with the logs; the verdict on the
// newest one goes first.
#include "Summary.h"

#include "Console.h"
#include "RecordWriter.h"

#include <json/json.h>

#include <cstdio>
#include <limits>
#include <sstream>

namespace logread {

namespace {

std::string Seconds(std::int64_t ms) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(ms) / 1000.0);
  return text;
}

// "2026-11-14 09:05:07.042".
std::string Readable(Civil when) {
  std::string text = IsoTime(when);
  const std::size_t t = text.find('T');
  if (t != std::string::npos) text[t] = ' ';
  return text;
}

std::string Upper(const std::string& state) {
  return state == "on" ? "ON" : state == "off" ? "OFF" : "UNKNOWN";
}

Json::Value Number(const std::optional<long long>& n) {
  return n ? Json::Value(static_cast<Json::Int64>(*n)) : Json::Value();
}

Json::Value Time(bool timed, Civil when) {
  return timed ? Json::Value(IsoTime(when)) : Json::Value();
}

// The verdict's members, for the verdict and for each session.
void Chain(const Verdict& v, Json::Value& into) {
  into["state"] = v.state;
  into["category"] = v.category;
  into["closed"] = v.closed;
  into["reason"] = v.chain.empty() ? Json::Value() : Json::Value(v.chain.back().key);
  std::optional<long long> code;  // the deepest code of the chain
  for (const Cause& c : v.chain)
    if (c.code) code = c.code;
  into["code"] = Number(code);
  Json::Value causes(Json::arrayValue);
  for (const Cause& c : v.chain) {
    Json::Value item(Json::objectValue);
    item["key"] = c.key;
    item["code"] = Number(c.code);
    item["text"] = c.text;
    causes.append(item);
  }
  into["causes"] = causes;
  Json::Value hazards(Json::arrayValue);
  for (const std::string& h : v.hazards) hazards.append(h);
  into["hazards"] = hazards;
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

}  // namespace

void Summary::Keep(const std::string& text) {
  const std::string piece = (json_ && shown_ > 1 ? "," : "") + text;
  if (!kept_ && kept_in_memory_.empty()) kept_ = std::tmpfile();
  if (kept_)
    std::fwrite(piece.data(), 1, piece.size(), kept_);
  else
    kept_in_memory_ += piece;
}

// Damage per file: what LogSource reported, in the order of the files.
std::vector<std::pair<std::string, std::string>> Summary::Damage() const {
  std::vector<std::pair<std::string, std::string>> out;
  for (std::size_t i = 0; i < timeline_.size(); ++i) {
    const int status = timeline_.status(i);
    const std::vector<std::string> notes = NotesOf(timeline_.name(i));
    if (status == kExitOk && notes.empty()) continue;
    std::string text;
    for (const std::string& note : notes) text += (text.empty() ? "" : "; ") + note;
    text += " (exit " + std::to_string(status) + ")";
    out.emplace_back(timeline_.name(i), text);
  }
  return out;
}

int Summary::Print() {
  if (session_) Close(*session_, true, std::numeric_limits<Civil>::max());
  session_.reset();
  const int verdict = newest_ ? newest_->verdict.exit : kExitVerdictUnknown;
  int files = kExitOk;
  for (std::size_t i = 0; i < timeline_.size(); ++i) files = Worse(files, timeline_.status(i));
  json_ ? PrintJson() : PrintText();
  // The kept reports, after the verdict.
  if (kept_) {
    std::rewind(kept_);
    char buffer[64 * 1024];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, kept_)) > 0;)
      Emit(std::string_view(buffer, n));
  } else {
    Emit(kept_in_memory_);
  }
  if (json_) Emit("]}\n");
  return verdict != kExitOk ? verdict : files;
}

std::string Summary::SessionText(const Session& s, const Verdict& v) const {
  std::ostringstream out;
  const Facts& st = s.state;
  out << "\nSession " << s.number << ": " << (s.timed ? FormatTime(s.first_time) : std::string("?"))
      << " to " << (s.timed ? FormatTime(s.last_time) : std::string("?")) << ", " << s.records
      << " records";
  if (!st.from_init)
    out << " (before any \" attention plugin init... \" record: the start is not in these files)";
  else
    out << " (from " << s.file << ")";
  out << "\n  attention: " << v.state;
  for (std::size_t i = 0; i < v.chain.size(); ++i) out << (i ? " <- " : ": ") << v.chain[i].text;
  if (v.closed) out << "; then closed by the host";
  out << " [" << v.category << "]\n";
  for (const std::string& h : v.hazards) out << "  hazard: " << h << "\n";

  out << "  \"init\": " << s.inits.size();
  if (!s.inits.empty()) {
    out << ", took";
    const char* comma = " ";
    s.inits.Each(
        [&](const Init& i) {
          out << comma << (i.finished ? Seconds(i.took_ms) : "(did not finish)");
          comma = ", ";
        },
        [&](std::size_t n) { out << comma << "... " << n << " more"; });
  }
  out << "; \"close\": " << s.closes << "\n";

  auto events = [&](const char* title, const Bounded<Event>& list) {
    out << "  " << title << ":" << (list.empty() ? " none\n" : "\n");
    list.Each(
        [&](const Event& e) {
          out << "    " << (e.time.empty() ? std::string(18, ' ') : e.time) << "  " << e.text
              << "\n";
        },
        [&](std::size_t n) { out << "    ... " << n << " more\n"; });
  };
  events("service", s.service);
  events("ability", s.ability);
  events("status and delay", s.changes);

  out << "  telemetry reports sent: " << s.reports << "\n";
  out << "  sensor library: ";
  if (st.sensor_lines == 0)
    out << "no lines in this session"
        << (sensor_file_ ? "" : " (no sensor library log among the files)") << "\n";
  else
    out << st.sensor_lines << " lines"
        << (s.sensor_version.empty() ? "" : ", version " + s.sensor_version) << "\n";

  out << "  failures:"
      << (s.failures.empty() ? (st.sensor_lines ? " none\n" : " none in the plug-in's log\n")
                             : "\n");
  for (const Failure& f : s.failures) {
    out << "    " << (f.first.time.empty() ? std::string(18, ' ') : f.first.time) << "  " << f.text
        << "\n"
        << "    " << std::string(18, ' ') << "  -> " << f.meaning;
    if (f.count > 1) out << " (" << f.count << " times, last " << f.last.time << ")";
    out << "\n";
  }
  return out.str();
}

int Summary::PrintText() {
  std::ostringstream out;
  if (!machine_.empty()) out << "Machine: " << machine_ << "\n";
  if (!newest_) {
    out << "Verdict: UNKNOWN: no session "
        << (sessions_ == 0 ? "in these files" : "in the time window") << " [no_session]\n";
  } else {
    const Verdict& v = newest_->verdict;
    out << "Verdict: attention " << Upper(v.state) << " in the newest session (session "
        << newest_->number;
    if (newest_->timed) out << ", from " << Readable(newest_->first);
    out << ")" << (v.closed ? ", then closed by the host" : "") << "\n";
    if (!v.chain.empty()) {
      out << "  why: " << v.state;
      for (std::size_t i = 0; i < v.chain.size(); ++i)
        out << (i ? " <- " : ": ") << v.chain[i].text;
      out << "\n";
    }
    out << "  category: " << v.category << "\n";
    for (const std::string& h : v.hazards) out << "  hazard: " << h << "\n";
    for (const std::string& todo : v.todo) out << "  do:  " << todo << "\n";
  }
  for (const auto& [file, text] : Damage()) out << "Damage: " << file << ": " << text << "\n";

  out << "\nSummary of";
  for (std::size_t i = 0; i < timeline_.size(); ++i) out << (i ? ", " : " ") << timeline_.name(i);
  out << ": " << sessions_ << " sessions";
  if (shown_ != sessions_) out << ", " << shown_ << " in the time window";
  out << "\n";
  Emit(out.str());
  return 0;
}

std::string Summary::SessionJson(const Session& s, const Verdict& verdict) const {
  const Facts& st = s.state;
  Json::Value v(Json::objectValue);
  v["session"] = static_cast<Json::UInt64>(s.number);
  v["from_init"] = st.from_init;
  v["file"] = CleanMessage(s.file);
  v["start"] = Time(s.timed, s.first);
  v["end"] = Time(s.timed, s.last);
  v["records"] = static_cast<Json::Int64>(s.records);
  Chain(verdict, v);
  v["ability"] = st.ability < 0 ? Json::Value() : Json::Value(st.ability);
  v["ability_cache"] = st.cache_flag == 1 && st.cache_word_known
                           ? Json::Value(static_cast<Json::Int64>(st.cache_word))
                           : Json::Value();
  v["service_answer"] = Number(st.answer);
  v["init_fusion"] = Number(st.init_fusion);
  Json::Value service(Json::objectValue);
  service["check"] = st.check_ret < 0      ? Json::Value()
                     : st.check_ret > 0    ? Json::Value("not_found")
                     : st.check_state == 4 ? Json::Value("running")
                                           : Json::Value("not_running");
  service["state"] = st.check_ret == 0 ? Json::Value(st.check_state) : Json::Value();
  Json::Value commands(Json::arrayValue);
  for (int c : st.commands) commands.append(c);
  service["commands"] = commands;
  v["service"] = service;
  v["status"] = Number(st.status);
  v["delay"] = Number(st.delay);
  v["enabled"] = st.enabled < 0 ? Json::Value() : Json::Value(st.enabled);
  Json::Value inits(Json::arrayValue);
  s.inits.Each(
      [&](const Init& i) {
        Json::Value item(Json::objectValue);
        item["start"] = Time(i.timed, i.start);
        item["took_ms"] =
            i.finished ? Json::Value(static_cast<Json::Int64>(i.took_ms)) : Json::Value();
        inits.append(item);
      },
      [](std::size_t) {});
  v["inits"] = inits;
  v["inits_omitted"] = static_cast<Json::UInt64>(s.inits.omitted());
  v["closes"] = static_cast<Json::Int64>(s.closes);
  Json::Value changes(Json::arrayValue);
  s.change_values.Each(
      [&](const Change& c) {
        Json::Value item(Json::objectValue);
        item["time"] = Time(c.timed, c.when);
        item["what"] = c.what;
        item["value"] = static_cast<Json::Int64>(c.value);
        item["by"] = c.by;
        changes.append(item);
      },
      [](std::size_t) {});
  v["changes"] = changes;
  v["changes_omitted"] = static_cast<Json::UInt64>(s.change_values.omitted());
  v["telemetry_reports"] = static_cast<Json::Int64>(s.reports);
  v["sensor_lines"] = static_cast<Json::Int64>(st.sensor_lines);
  v["sensor_version"] = s.sensor_version.empty() ? Json::Value() : Json::Value(s.sensor_version);
  Json::Value failures(Json::arrayValue);
  for (const Failure& f : s.failures) {
    Json::Value item(Json::objectValue);
    item["message"] = CleanMessage(f.text);
    item["meaning"] = f.meaning;
    item["code"] = Number(f.code);
    item["count"] = static_cast<Json::Int64>(f.count);
    item["first"] = Time(!f.first.time.empty(), f.first.when);
    item["last"] = Time(!f.last.time.empty(), f.last.when);
    failures.append(item);
  }
  v["failures"] = failures;
  return Compact(v);
}

// {"machine":...,"files":[...],"verdict":{...},"sessions":[ then the kept
// sessions, then ]}.
int Summary::PrintJson() {
  Json::Value files(Json::arrayValue);
  for (std::size_t i = 0; i < timeline_.size(); ++i) {
    Json::Value item(Json::objectValue);
    item["name"] = CleanMessage(timeline_.name(i));
    item["exit"] = timeline_.status(i);
    Json::Value notes(Json::arrayValue);
    for (const std::string& note : NotesOf(timeline_.name(i))) notes.append(CleanMessage(note));
    item["notes"] = notes;
    files.append(item);
  }
  Json::Value verdict(Json::objectValue);
  if (!newest_) {
    verdict["state"] = "unknown";
    verdict["category"] = "no_session";
    verdict["closed"] = false;
    verdict["session"] = Json::Value();
    verdict["reason"] = "no_session";
    verdict["code"] = Json::Value();
    verdict["causes"] = Json::Value(Json::arrayValue);
    verdict["hazards"] = Json::Value(Json::arrayValue);
    verdict["do"] = Json::Value(Json::arrayValue);
    verdict["exit"] = kExitVerdictUnknown;
  } else {
    const Verdict& v = newest_->verdict;
    verdict["session"] = static_cast<Json::UInt64>(newest_->number);
    Chain(v, verdict);
    Json::Value todo(Json::arrayValue);
    for (const std::string& t : v.todo) todo.append(t);
    verdict["do"] = todo;
    verdict["exit"] = v.exit;
  }
  const Json::Value machine =
      machine_.empty() ? Json::Value() : Json::Value(CleanMessage(machine_));
  Emit("{\"machine\":" + Compact(machine) + ",\"files\":" + Compact(files) +
       ",\"verdict\":" + Compact(verdict) + ",\"sessions\":[");
  return 0;
}

}  // namespace logread
