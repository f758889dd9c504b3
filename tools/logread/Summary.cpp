#include "Summary.h"

#include "Console.h"
#include "RecordWriter.h"

#include <json/json.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <sstream>

namespace logread {

namespace {

// sscanf over a message (which is not zero-terminated); true when every
// conversion matched.
bool Scan(std::string_view message, int conversions, const char* format, ...) {
  const std::string text(message);
  va_list args;
  va_start(args, format);
  const int n = std::vsscanf(text.c_str(), format, args);
  va_end(args);
  return n == conversions;
}

bool Contains(std::string_view text, std::string_view part) {
  for (std::size_t i = 0; i + part.size() <= text.size(); ++i) {
    bool same = true;
    for (std::size_t k = 0; k < part.size() && same; ++k)
      same = std::tolower(static_cast<unsigned char>(text[i + k])) == part[k];
    if (same) return true;
  }
  return false;
}

std::string Hex(long long code) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(code) & 0xFFFFFFFFull);
  return text;
}

std::string Seconds(std::int64_t ms) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(ms) / 1000.0);
  return text;
}

// The meaning of an {"error_code":n} answer.
std::string ErrorCodeName(int code) {
  switch (code) {
    case -3:
      return "the parameters could not be read";
    case 1:
      return "a value out of range";
    case 4:
      return "an unknown action";
    default:
      return "error code " + std::to_string(code);
  }
}

}  // namespace

std::string Summary::ErrorName(long long code) {
  switch (static_cast<std::uint32_t>(code)) {
    case 5:
      return "access denied";
    case 6:
      return "invalid handle";
    case 1700:
      return "invalid string binding";
    case 1702:
      return "invalid binding handle";
    case 1717:
      return "interface unknown to the server";
    case 1722:
      return "RPC server unavailable (the service is not running, or its pipe is gone)";
    case 1723:
      return "RPC server too busy";
    case 1726:
      return "remote procedure call failed";
    case 1727:
      return "remote procedure call failed and did not run";
    case 1728:
      return "RPC protocol error";
    case 1745:
      return "procedure number out of range (another version of the service)";
    case 1747:
      return "authentication service unknown";
    case 1748:
      return "authentication level unknown";
    case 1753:
      return "no endpoint available from the endpoint mapper";
    case 1780:
      return "null reference pointer";
    case 1783:
      return "the stub received bad data";
    case 1818:
      return "remote procedure call cancelled";
    case 1820:
      return "communication failure";
    case 1825:
      return "security package error";
    case 0xC0000005u:
      return "access violation";
    default:
      return "";
  }
}

std::string Summary::InitFusionName(long long value) {
  const std::uint32_t code = static_cast<std::uint32_t>(value);
  if (code == 1)
    return "the binding to the service failed, or its setting call raised an exception";
  if (code == 0x10000006u)
    return "the attention event could not be opened (the service is not running, or is another "
           "version)";
  if (code >= 0x10000000u && code < 0x10000020u)
    return "the event of sensor " + std::to_string(code - 0x10000000u) + " could not be opened";
  if (code >= 0x20000000u && code < 0x20000020u)
    return "the waiting thread of sensor " + std::to_string(code - 0x20000000u) +
           " could not be started";
  return "the service refused the setting call with its own code " + Hex(code);
}

Summary::Session& Summary::Current(const Record& r) {
  const bool starts = r.parsed && r.form == logrecord::Form::kPlugin &&
                      r.fields.source == "AttentionPlugin.cpp" && r.fields.line == "170";
  if (starts && !sessions_.empty()) NameCommands(sessions_.back(), false);
  if (starts || sessions_.empty()) {
    Session& s = sessions_.emplace_back();
    s.from_init = starts;
    s.file = timeline_.name(r.file);
  }
  return sessions_.back();
}

// The set-up of "init" runs "net.exe stop tof service" (twice when the check
// found no running service) and then "net.exe start VantoqSensorFusion"; the
// stop command names no service and fails wherever it runs, and the start
// command fails when the service is running already. Once InitFusion's record
// shows the commands are over (`over`), the last one is the start, and
// whether InitFusion then reached the service (`connected`) tells a failed
// start from one that found the service running.
void Summary::NameCommands(Session& s, bool over, bool connected) {
  for (std::size_t i = 0; i < s.commands.size(); ++i) {
    const auto& [time, code] = s.commands[i];
    const std::string exited = " exited " + std::to_string(code);
    if (!over) {
      s.service.push_back({time, "command (net.exe)" + exited});
    } else if (i + 1 < s.commands.size()) {
      s.service.push_back(
          {time, "net.exe stop tof service" + exited +
                     (code ? " (it names no service: it fails on every machine)" : "")});
    } else {
      s.service.push_back(
          {time,
           "net.exe start VantoqSensorFusion" + exited +
               (code && connected ? " (the service was running: InitFusion reached it)" : "")});
      if (code != 0 && !connected)
        Fail(s, time, "WaitFor RunProcess Signal On, dwCode " + std::to_string(code),
             "the service could not be started: net.exe start VantoqSensorFusion exited " +
                 std::to_string(code));
    }
  }
  s.commands.clear();
}

void Summary::Finish() {
  if (!sessions_.empty()) NameCommands(sessions_.back(), false);
}

void Summary::Fail(Session& s, const std::string& time, std::string_view message,
                   std::string meaning) {
  std::string text = OneLine(message);
  const std::string key = text + '\x1f' + meaning;
  auto [it, added] = s.failure_index.emplace(key, s.failures.size());
  if (added) {
    Failure& f = s.failures.emplace_back();
    f.text = std::move(text);
    f.meaning = std::move(meaning);
    f.first = time;
  }
  Failure& f = s.failures[it->second];
  f.last = time;
  ++f.count;
}

void Summary::Write(const Record& r) {
  Session& s = Current(r);
  const std::string time = r.fields.has_time ? FormatTime(r.fields.time) : std::string();
  ++s.records;
  if (!time.empty()) {
    if (s.start.empty()) s.start = time;
    s.end = time;
  }
  if (r.form == logrecord::Form::kSensorLib)
    SensorRecord(s, r, time);
  else if (r.parsed)
    PluginRecord(s, r, time);
}

void Summary::PluginRecord(Session& s, const Record& r, const std::string& time) {
  const std::string_view source = r.fields.source;
  const std::string_view m = r.fields.message;
  int line = 0;
  Scan(r.fields.line, 1, "%d", &line);
  int a = 0, b = 0;
  unsigned x = 0;
  const bool plugin = source == "AttentionPlugin.cpp";
  const bool control = source == "AttentionFuntion";

  if (plugin && line == 188) {
    NameCommands(s, false);
    Init& init = s.inits.emplace_back();
    init.start = time;
    init.started_when = r.when;
    return;
  }
  if (plugin && line == 236) {
    if (!s.inits.empty() && !s.inits.back().finished) {
      s.inits.back().finished = true;
      s.inits.back().took_ms = r.when - s.inits.back().started_when;
    }
    if (Scan(m, 2, " attention status: %d, attention delay:%d", &a, &b))
      s.changes.push_back(
          {time, "after \"init\": status " + std::to_string(a) + ", delay " + std::to_string(b)});
    return;
  }
  if (plugin && (line == 196 || line == 75) &&
      Scan(m, 2, "register attention status: %d, register attention delay:%d", &a, &b)) {
    s.changes.push_back({time, "read from the registry: status " + std::to_string(a) + ", delay " +
                                   std::to_string(b) +
                                   (a == -1 || b == -1 ? " (-1: no value)" : "")});
    return;
  }
  if (plugin && (line == 193 || line == 72) && Scan(m, 1, "ability: %d", &a)) {
    s.ability.push_back({time, std::string("ability ") + std::to_string(a) +
                                   (a ? " (attention supported)" : " (attention not supported)")});
    return;
  }
  if (plugin && line == 281 && Scan(m, 1, "status value: %d", &a)) {
    s.changes.push_back(
        {time, "status set to " + std::to_string(a) + (a == 2 ? " (on)" : " (off)")});
    return;
  }
  if (plugin && line == 312 && Scan(m, 1, "delay value: %d", &a)) {
    s.pending_delay = a;
    s.have_pending_delay = true;
    return;
  }
  if (plugin && line == 325) {
    if (s.have_pending_delay)
      s.changes.push_back({time, "delay set to " + std::to_string(s.pending_delay)});
    s.have_pending_delay = false;
    return;
  }
  if (plugin && line == 49) {
    s.reports.push_back(time);
    return;
  }
  if (plugin && line == 241) {
    ++s.closes;
    return;
  }
  if (plugin && line == 341) {
    if (Scan(m, 1, "resp: {\"error_code\":%d", &a))
      Fail(
          s, time, m,
          "the action was answered with error_code " + std::to_string(a) + ": " + ErrorCodeName(a));
    return;
  }
  if (plugin && (line == 254 || line == 261 || line == 294 || line == 301)) {
    Fail(s, time, m, "the host's parameters are not a JSON object with an object \"F4010\"");
    return;
  }
  if (plugin && (line == 268 || line == 308)) {
    Fail(s, time, m, "the host asked for a value out of range");
    return;
  }
  if (plugin && (line == 233 || line == 329)) {
    Fail(s, time, m, "the service did not take the delay");
    return;
  }
  if (plugin && (line == 275 || line == 316)) {
    Fail(s, time, m, "attention is not supported here, so the setting was not applied");
    return;
  }

  if (control && line == 25 && Scan(m, 2, "ServiceInstall ret=%d s:%x", &a, &x)) {
    std::string found = a != 0   ? "the service was not found, or could not be queried (no access)"
                        : x == 4 ? "the service is running"
                                 : "the service is not running (state " + std::to_string(x) + ")";
    s.service.push_back({time, "check: " + found});
    return;
  }
  if (control && line == 54) {
    s.service.push_back({time, "stop command run, as the check found no running service"});
    return;
  }
  if (control && line == 81) {
    s.service.push_back({time, "restart: stop and start commands"});
    return;
  }
  if (source == "CommonHelper" && line == 3188 &&
      Scan(m, 1, "WaitFor RunProcess Signal On, dwCode %d", &a)) {
    s.commands.emplace_back(time, a);
    return;
  }
  if (control && line == 93 && Scan(m, 2, "CheckAttentionAbility  begin reg=%d dw:%d", &a, &b)) {
    if (a == 1 && b == 1)
      s.ability.push_back({time, "supported: the registry cache says 1"});
    else if (a == 1)
      s.ability.push_back({time, "not supported: the registry cache says " + std::to_string(b)});
    else
      s.ability.push_back({time, "no registry cache: the service is asked"});
    return;
  }
  if (control && line == 99) return;  // the warning of the cached "not supported" above
  if (control && line == 105 && Scan(m, 1, "CheckAttentionAbility InitFusion %x", &x)) {
    if (x != 0)
      Fail(s, time, m,
           "the status query failed: " + Hex(x) + (x == 1 ? " (exception or no binding)" : ""));
    return;
  }
  if (control && line == 109) {
    s.ability.push_back({time, "supported: the service answered \"stopped\""});
    return;
  }
  if (control && line == 115) {
    s.ability.push_back({time, "supported: the service answered \"active\""});
    return;
  }
  if (control && line == 124 && Scan(m, 1, "Attention active :%d", &a)) {
    s.ability.push_back({time, a == -1 ? "not supported: the service could not be asked (status -1)"
                                       : "not supported: the service answered status " + Hex(a)});
    return;
  }
  if (control && line == 229)
    NameCommands(s, true, Scan(m, 1, "attention_init initfusion %x", &x) && x != 1);
  if (control && (line == 229 || line == 234) &&
      Scan(m, 1, line == 229 ? "attention_init initfusion %x" : "attention_init initfusion2 %x",
           &x)) {
    if (x != 0)
      Fail(s, time, m,
           "InitFusion failed: " + InitFusionName(x) +
               (x == 0x10000000u && line == 229 ? "; tried once more after 400 ms" : ""));
    return;
  }
  if (control && line == 250 && Scan(m, 1, "attention_un_init %x", &x)) {
    if (x != 0) Fail(s, time, m, "UnInitial failed: " + Hex(x));
    return;
  }
  if (control && line == 261) {
    Fail(s, time, m, "attention was not started: the host had not enabled it");
    return;
  }
  if (control && line == 267 && Scan(m, 1, "tof_start end%d", &a)) {
    if (a != 0) Fail(s, time, m, "starting the sensor failed: " + Hex(a));
    return;
  }
  if (control && line == 276 && Scan(m, 1, "attention_stop =%d", &a)) {
    if (a != 0) Fail(s, time, m, "stopping the sensor failed: " + Hex(a));
    return;
  }
  if (control && (line == 165 || line == 169 || line == 173)) {
    Fail(s, time, m, "reading the delay failed");
    return;
  }
  if (control && line == 182) {
    const std::size_t at = m.rfind("resp:");
    if (at != std::string_view::npos && Scan(m.substr(at), 1, "resp:%d", &a) && a != 0)
      Fail(s, time, m, "the service refused the delay: " + Hex(a));
    return;
  }
  // Any other warning or error, or a record that says it failed.
  if (r.fields.level == "ERR" || r.fields.level == "WAR" || Contains(m, "fail"))
    Fail(s, time, m,
         std::string(r.fields.level == "ERR"   ? "an error"
                     : r.fields.level == "WAR" ? "a warning"
                                               : "a failure") +
             " of " + std::string(source));
}

void Summary::SensorRecord(Session& s, const Record& r, const std::string& time) {
  const std::string_view m = r.fields.message;
  unsigned long code = 0;
  long value = 0;
  const std::size_t at = m.find("Runtime reported exception ");
  if (at != std::string_view::npos &&
      Scan(m.substr(at), 2, "Runtime reported exception 0x%lx = %ld", &code, &value)) {
    const std::string name = ErrorName(value);
    const std::string call = at > 0 ? std::string(m.substr(0, at)) : std::string("a remote call");
    Fail(s, time, m,
         call + " raised exception " + std::to_string(value) + (name.empty() ? "" : ": " + name));
    return;
  }
  if (Scan(m, 1, "RpcStringBindingCompos err!%lu", &code)) {
    const std::string name = ErrorName(static_cast<long long>(code));
    Fail(s, time, m,
         "the binding to the service could not be made: " + std::to_string(code) +
             (name.empty() ? "" : " " + name));
    return;
  }
  if (Scan(m, 1, "RpcBindingSetAuthInfo:%lu", &code)) {
    const std::string name = ErrorName(static_cast<long long>(code));
    Fail(s, time, m,
         "the binding's authentication could not be set: " + std::to_string(code) +
             (name.empty() ? "" : " " + name));
    return;
  }
  if (Contains(m, "err") || Contains(m, "fail")) Fail(s, time, m, "an error of the sensor library");
}

void Summary::PrintText() {
  Finish();
  std::ostringstream out;
  out << "Summary of";
  for (std::size_t i = 0; i < timeline_.size(); ++i) out << (i ? ", " : " ") << timeline_.name(i);
  out << "\n";
  if (sessions_.empty()) out << "\nNo records.\n";
  for (std::size_t n = 0; n < sessions_.size(); ++n) {
    const Session& s = sessions_[n];
    out << "\nSession " << n + 1 << ": " << (s.start.empty() ? "?" : s.start) << " to "
        << (s.end.empty() ? "?" : s.end) << ", " << s.records << " records";
    if (!s.from_init)
      out << " (before any \" attention plugin init... \" record: the start is not in these files)";
    else
      out << " (from " << s.file << ")";
    out << "\n";

    out << "  \"init\": " << s.inits.size();
    if (!s.inits.empty()) {
      out << ", took";
      for (std::size_t i = 0; i < s.inits.size(); ++i)
        out << (i ? ", " : " ")
            << (s.inits[i].finished ? Seconds(s.inits[i].took_ms) : "(did not finish)");
    }
    out << "; \"close\": " << s.closes << "\n";

    auto events = [&](const char* title, const std::vector<Event>& list) {
      out << "  " << title << ":" << (list.empty() ? " none\n" : "\n");
      for (const Event& e : list)
        out << "    " << (e.time.empty() ? std::string(18, ' ') : e.time) << "  " << e.text << "\n";
    };
    events("service", s.service);
    events("ability", s.ability);
    events("status and delay", s.changes);

    out << "  telemetry reports sent: " << s.reports.size();
    if (s.reports.size() == 1)
      out << " (" << s.reports.front() << ")";
    else if (!s.reports.empty())
      out << " (" << s.reports.front() << " to " << s.reports.back() << ")";
    out << "\n";

    out << "  failures:" << (s.failures.empty() ? " none\n" : "\n");
    for (const Failure& f : s.failures) {
      out << "    " << (f.first.empty() ? std::string(18, ' ') : f.first) << "  " << f.text << "\n"
          << "    " << std::string(18, ' ') << "  -> " << f.meaning;
      if (f.count > 1) out << " (" << f.count << " times, last " << f.last << ")";
      out << "\n";
    }
  }
  Emit(out.str());
}

void Summary::PrintJson() {
  Finish();
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  auto time = [](const std::string& t) { return t.empty() ? Json::Value() : Json::Value(t); };
  auto events = [&](const std::vector<Event>& list) {
    Json::Value array(Json::arrayValue);
    for (const Event& e : list) {
      Json::Value item(Json::objectValue);
      item["time"] = time(e.time);
      item["what"] = e.text;
      array.append(item);
    }
    return array;
  };
  std::ostringstream out;
  for (std::size_t n = 0; n < sessions_.size(); ++n) {
    const Session& s = sessions_[n];
    Json::Value v(Json::objectValue);
    v["session"] = static_cast<Json::UInt64>(n + 1);
    v["from_init"] = s.from_init;
    v["file"] = CleanMessage(s.file);
    v["start"] = time(s.start);
    v["end"] = time(s.end);
    v["records"] = static_cast<Json::Int64>(s.records);
    Json::Value inits(Json::arrayValue);
    for (const Init& i : s.inits) {
      Json::Value item(Json::objectValue);
      item["start"] = time(i.start);
      item["took_ms"] =
          i.finished ? Json::Value(static_cast<Json::Int64>(i.took_ms)) : Json::Value();
      inits.append(item);
    }
    v["inits"] = inits;
    v["closes"] = static_cast<Json::Int64>(s.closes);
    v["service"] = events(s.service);
    v["ability"] = events(s.ability);
    v["changes"] = events(s.changes);
    Json::Value reports(Json::arrayValue);
    for (const std::string& t : s.reports) reports.append(time(t));
    v["telemetry_reports"] = reports;
    Json::Value failures(Json::arrayValue);
    for (const Failure& f : s.failures) {
      Json::Value item(Json::objectValue);
      item["message"] = CleanMessage(f.text);
      item["meaning"] = f.meaning;
      item["count"] = static_cast<Json::Int64>(f.count);
      item["first"] = time(f.first);
      item["last"] = time(f.last);
      failures.append(item);
    }
    v["failures"] = failures;
    writer->write(v, &out);
    out << '\n';
  }
  Emit(out.str());
}

}  // namespace logread
