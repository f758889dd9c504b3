#include "Summary.h"

#include "Console.h"
#include "RecordWriter.h"

#include <json/json.h>

#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <limits>
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

// "2026-11-14 09:05:07.042".
std::string Readable(Civil when) {
  std::string text = IsoTime(when);
  const std::size_t t = text.find('T');
  if (t != std::string::npos) text[t] = ' ';
  return text;
}

// The meaning of an {"error_code":n} answer.
std::string ErrorCodeName(long long code) {
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

// The result of a remote call of the fusion client (starting, stopping,
// the delay, leaving), as the plug-in logs it.
std::string RemoteName(long long value) {
  switch (static_cast<std::uint32_t>(value)) {
    case 1:
      return "the remote call raised an exception, or there was no binding (the sensor library's "
             "log has the exception's code)";
    case 2:
      return "the attention sensor is not followed (no waiting thread)";
    case 0x10000006u:
      return "the attention event could not be opened (the service is not running, or is another "
             "version)";
    case 0x20000006u:
      return "the attention sensor's waiting thread could not be started";
    case 0x30000020u:
      return "the service could not connect to the sensor";
    case 0x60000006u:
      return "the service refused the request";
    default:
      return "the service's own code " + Hex(value);
  }
}

// The status word of the service's status query.
std::string StatusName(long long value) {
  switch (static_cast<std::uint32_t>(value)) {
    case 0x10000000u:
      return "supported, sensing stopped";
    case 0x10000001u:
      return "supported, sensing active";
    case 0:
      return "not supported";
    case 0xFFFFFFFFu:
      return "no answer: the service could not be asked";
    default:
      return "an unknown status " + Hex(value);
  }
}

// What to do about a code of the RPC runtime at the root of a chain.
std::string ErrorAdvice(long long code) {
  switch (static_cast<std::uint32_t>(code)) {
    case 2:
    case 53:
    case 109:
    case 231:
    case 1722:
    case 1726:
    case 1727:
    case 1753:
    case 1820:
      return "start the service: \"net start VantoqSensorFusion\" as administrator "
             "(\"sc query VantoqSensorFusion\" shows its state)";
    case 5:
      return "the service refuses this user: check the service's account and the rights on its "
             "pipe";
    case 1717:
    case 1728:
    case 1734:
    case 1745:
    case 1780:
    case 1783:
      return "install a service of the version the plug-in's sensor library expects";
    case 1747:
    case 1748:
    case 1749:
    case 1825:
      return "the service does not accept the client's authentication (Windows, privacy): check "
             "its version and security settings";
    default:
      return "look the code up (" + std::to_string(code) + ", " + Hex(code) + ")";
  }
}

constexpr char kAbilityKey[] = "HKLM\\SOFTWARE\\Vantoq\\Quillomatic";
constexpr char kUserKey[] = "HKCU\\SOFTWARE\\Vantoq\\Quillomatic";

}  // namespace

std::string Summary::ErrorName(long long code) {
  switch (static_cast<std::uint32_t>(code)) {
    case 2:
      return "file not found: the service's pipe does not exist (the service is not running)";
    case 5:
      return "access denied";
    case 6:
      return "invalid handle";
    case 53:
      return "network path not found: the service's pipe does not exist";
    case 109:
      return "broken pipe: the service went away during the call";
    case 231:
      return "all pipe instances are busy";
    case 1700:
      return "invalid string binding";
    case 1702:
      return "invalid binding handle";
    case 1717:
      return "interface unknown to the server (another version of the service)";
    case 1722:
      return "server unavailable: the service is not running";
    case 1723:
      return "server too busy";
    case 1726:
      return "remote procedure call failed (the service ended during the call)";
    case 1727:
      return "remote procedure call failed and did not run";
    case 1728:
      return "RPC protocol error";
    case 1734:
      return "array bounds invalid: the service answered with data of another size (another "
             "version of the service)";
    case 1745:
      return "procedure number out of range (another version of the service)";
    case 1747:
      return "authentication service unknown";
    case 1748:
      return "authentication level unknown";
    case 1749:
      return "invalid authentication identity";
    case 1753:
      return "no endpoint: the service's pipe is not there (the service is not running)";
    case 1780:
      return "null reference pointer";
    case 1783:
      return "the stub received bad data (another version of the service)";
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
  const bool starts = r.parsed && r.form == logrecord::Form::kPlugin && r.fields.line == "170" &&
                      r.fields.source == "AttentionPlugin.cpp";
  if (starts && !sessions_.empty()) {
    Session& before = sessions_.back();
    NameCommands(before, false, false);
  }
  if (starts || sessions_.empty()) {
    Session& s = sessions_.emplace_back();
    s.from_init = starts;
    s.number = sessions_.size();
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
    const auto& [at, code] = s.commands[i];
    const std::string exited = " exited " + std::to_string(code);
    if (!over) {
      s.service.push_back({at.time, at.when, "command (net.exe)" + exited});
    } else if (i + 1 < s.commands.size()) {
      s.service.push_back({at.time, at.when,
                           "net.exe stop tof service" + exited +
                               (code ? " (it names no service: it fails on every machine)" : "")});
    } else {
      s.service.push_back(
          {at.time, at.when,
           "net.exe start VantoqSensorFusion" + exited +
               (code && connected ? " (the service was running: InitFusion reached it)" : "")});
      if (code != 0 && !connected)
        Fail(s, at, "WaitFor RunProcess Signal On, dwCode " + std::to_string(code),
             "the service could not be started: net.exe start VantoqSensorFusion exited " +
                 std::to_string(code),
             code);
    }
  }
  s.commands.clear();
}

void Summary::Finish() {
  if (finished_) return;
  finished_ = true;
  if (!sessions_.empty()) NameCommands(sessions_.back(), false, false);
}

void Summary::Fail(Session& s, const Event& at, std::string_view message, std::string meaning,
                   std::optional<long long> code) {
  std::string text = OneLine(message);
  const std::string key = text + '\x1f' + meaning;
  auto [it, added] = s.failure_index.emplace(key, s.failures.size());
  if (added) {
    Failure& f = s.failures.emplace_back();
    f.text = std::move(text);
    f.meaning = std::move(meaning);
    f.code = code;
    f.first = at;
  }
  Failure& f = s.failures[it->second];
  f.last = at;
  ++f.count;
}

void Summary::Write(const Record& r) {
  Session& s = Current(r);
  ++s.records;
  if (r.has_time) {
    if (!s.timed) {
      s.timed = true;
      s.first = r.when;
      s.first_time = r.fields.time;
    }
    s.last = r.when;
    if (r.fields.has_time) s.last_time = r.fields.time;
  }
  const bool listed = !filter_ || filter_->Matches(r);
  if (r.form == logrecord::Form::kSensorLib)
    SensorRecord(s, r, listed);
  else if (r.parsed)
    PluginRecord(s, r, listed);
}

void Summary::PluginRecord(Session& s, const Record& r, bool listed) {
  const std::string_view source = r.fields.source;
  const std::string_view m = r.fields.message;
  int line = 0;
  std::from_chars(r.fields.line.data(), r.fields.line.data() + r.fields.line.size(), line);
  const bool plugin = source == "AttentionPlugin.cpp";
  const bool control = source == "AttentionFuntion";
  State& st = s.state;
  int a = 0, b = 0;
  unsigned x = 0;
  // Only the records this summary lists pay for their time's text.
  auto at = [&]() -> Event {
    return {r.fields.has_time ? FormatTime(r.fields.time) : std::string(), r.when, ""};
  };
  auto event = [&](std::vector<Event>& list, std::string text) {
    if (listed) list.push_back({at().time, r.when, std::move(text)});
  };
  auto change = [&](const char* what, long long value, const char* by) {
    if (listed) s.change_values.push_back({r.when, r.has_time, what, value, by});
  };
  auto fail = [&](std::string meaning, std::optional<long long> code = std::nullopt) {
    if (listed) Fail(s, at(), m, std::move(meaning), code);
  };

  if (plugin) {
    switch (line) {
      case 188: {
        NameCommands(s, false, false);
        st = State();
        st.init = true;
        s.inits.push_back({r.when, r.has_time});
        return;
      }
      case 236:
        st.init_finished = true;
        if (!s.inits.empty() && !s.inits.back().finished) {
          s.inits.back().finished = true;
          s.inits.back().took_ms = r.when - s.inits.back().start;
        }
        if (Scan(m, 2, " attention status: %d, attention delay:%d", &a, &b)) {
          st.status = a;
          st.delay = b;
          change("status", a, "init");
          change("delay", b, "init");
          event(s.changes,
                "after \"init\": status " + std::to_string(a) + ", delay " + std::to_string(b));
        }
        return;
      case 196:
      case 75:
        if (Scan(m, 2, "register attention status: %d, register attention delay:%d", &a, &b)) {
          st.registry_status = a;
          st.registry_delay = b;
          change("status", a, "registry");
          change("delay", b, "registry");
          event(s.changes, "read from the registry: status " + std::to_string(a) + ", delay " +
                               std::to_string(b) + (a == -1 || b == -1 ? " (-1: no value)" : ""));
        }
        return;
      case 193:
      case 72:
        if (Scan(m, 1, "ability: %d", &a)) {
          st.ability = a;
          event(s.ability, std::string("ability ") + std::to_string(a) +
                               (a ? " (attention supported)" : " (attention not supported)"));
        }
        return;
      case 281:
        if (Scan(m, 1, "status value: %d", &a)) {
          st.status = a;
          change("status", a, "host");
          event(s.changes, "status set to " + std::to_string(a) + (a == 2 ? " (on)" : " (off)"));
        }
        return;
      case 312:
        if (Scan(m, 1, "delay value: %d", &a)) s.pending_delay = a;
        return;
      case 325:
        if (s.pending_delay) {
          st.delay = *s.pending_delay;
          change("delay", *s.pending_delay, "host");
          event(s.changes, "delay set to " + std::to_string(*s.pending_delay));
        }
        s.pending_delay.reset();
        return;
      case 49:
        s.reports.push_back(r.when);
        return;
      case 241:
        st.closed = true;
        ++s.closes;
        return;
      case 341:
        if (Scan(m, 1, "resp: {\"error_code\":%d", &a))
          fail("the action was answered with error_code " + std::to_string(a) + ": " +
                   ErrorCodeName(a),
               a);
        return;
      case 254:
      case 261:
      case 294:
      case 301:
        fail("the host's parameters are not a JSON object with an object \"F4010\"");
        return;
      case 268:
      case 308:
        fail("the host asked for a value out of range");
        return;
      case 233:
        if (Scan(m, 1, " set attention delay fail: %d", &a))
          fail("the service did not take the stored delay: " + RemoteName(a), a);
        return;
      case 329:
        if (Scan(m, 1, "set attention delay fail,resp: %d", &a))
          fail("the service did not take the delay: " + RemoteName(a), a);
        return;
      case 275:
        st.status = 0;
        fail("attention is not supported here, so the status was stored as 0");
        return;
      case 316:
        fail("attention is not supported here, so the delay was not applied");
        return;
      default:
        break;
    }
  }

  if (control) {
    switch (line) {
      case 25:
        if (Scan(m, 2, "ServiceInstall ret=%d s:%x", &a, &x)) {
          st.check_ret = a;
          st.check_state = x;
          event(s.service,
                "check: " + std::string(a != 0   ? "the service was not found, or could not be "
                                                   "queried (no access)"
                                        : x == 4 ? "the service is running"
                                                 : "the service is not running (state " +
                                                       std::to_string(x) + ")"));
        }
        return;
      case 54:
        event(s.service, "stop command run, as the check found no running service");
        return;
      case 81:
        event(s.service, "restart: stop and start commands");
        return;
      case 93:
        if (Scan(m, 2, "CheckAttentionAbility  begin reg=%d dw:%d", &a, &b)) {
          st.cache_flag = a;
          st.cache_word = b;
          st.cache_word_known = true;
          event(s.ability, a == 1 && b == 1 ? "supported: the registry cache says 1"
                           : a == 1 ? "not supported: the registry cache attention__ability says " +
                                          std::to_string(b) + " (" + kAbilityKey + ")"
                                    : std::string("no registry cache: the service is asked"));
        }
        return;
      case 99:  // the cached "not supported" (the record above is DBG: often not written)
        if (!st.cache_word_known) {
          st.cache_flag = 1;
          st.cache_word = -1;
          event(s.ability, std::string("not supported: the registry cache attention__ability (") +
                               kAbilityKey + ") says so");
        }
        return;
      case 105:
        if (Scan(m, 1, "CheckAttentionAbility InitFusion %x", &x)) {
          st.query = x;
          if (x != 0) fail("the status query failed: " + Hex(x) + ": " + RemoteName(x), x);
        }
        return;
      case 109:
      case 115:
        st.answer = line == 109 ? 0x10000000 : 0x10000001;
        event(s.ability, std::string("supported: the service answered \"") +
                             (line == 109 ? "stopped\"" : "active\""));
        return;
      case 124:
        if (Scan(m, 1, "Attention active :%d", &a)) {
          st.answer = a;
          event(s.ability, "not supported: the service answered status " + std::to_string(a) +
                               " (" + StatusName(a) + ")");
        }
        return;
      case 229:
      case 234:
        if (Scan(m, 1,
                 line == 229 ? "attention_init initfusion %x" : "attention_init initfusion2 %x",
                 &x)) {
          if (line == 229) NameCommands(s, true, x != 1);
          st.init_fusion = x;
          st.retried = line == 234;
          if (x != 0)
            fail("InitFusion failed: " + Hex(x) + ": " + InitFusionName(x) +
                     (x == 0x10000000u && line == 229 ? "; tried once more after 400 ms" : ""),
                 x);
        }
        return;
      case 250:
        if (Scan(m, 1, "attention_un_init %x", &x) && x != 0)
          fail("UnInitial failed: " + Hex(x) + ": " + RemoteName(x), x);
        return;
      case 258:
        st.starting = true;
        st.start_faults.clear();
        return;
      case 261:
        st.start = 2;
        fail("attention was not started: the host had not enabled it");
        return;
      case 267:
        if (Scan(m, 1, "tof_start end%d", &a)) {
          st.start = a == 0 ? 1 : 3;
          st.start_code = a;
          if (a != 0) fail("starting the sensor failed: " + Hex(a) + ": " + RemoteName(a), a);
        }
        return;
      case 276:
        st.starting = false;
        if (Scan(m, 1, "attention_stop =%d", &a) && a != 0)
          fail("stopping the sensor failed: " + Hex(a) + ": " + RemoteName(a), a);
        return;
      case 283:
        if (Scan(m, 1, "attention_set_enable %d", &a)) st.enabled = a > 0;
        return;
      case 165:
      case 169:
      case 173: {
        const std::size_t at_resp = m.rfind("resp:");
        long long code = 1;
        if (at_resp != std::string_view::npos && Scan(m.substr(at_resp), 1, "resp:%d", &a))
          code = a;
        fail("reading the delay failed: " + Hex(code) + ": " + RemoteName(code), code);
        return;
      }
      case 182: {
        const std::size_t at_resp = m.rfind("resp:");
        if (at_resp != std::string_view::npos && Scan(m.substr(at_resp), 1, "resp:%d", &a) &&
            a != 0)
          fail("the service refused the delay: " + Hex(a) + ": " + RemoteName(a), a);
        return;
      }
      default:
        break;
    }
  }
  if (source == "CommonHelper" && line == 3188 &&
      Scan(m, 1, "WaitFor RunProcess Signal On, dwCode %d", &a)) {
    st.commands.push_back(a);
    if (listed) s.commands.emplace_back(at(), a);  // named by NameCommands
    return;
  }
  // Any other warning or error, or a record that says it failed.
  if (listed && (r.fields.level == "ERR" || r.fields.level == "WAR" || Contains(m, "fail")))
    fail(std::string(r.fields.level == "ERR"   ? "an error"
                     : r.fields.level == "WAR" ? "a warning"
                                               : "a failure") +
         " of " + std::string(source));
}

void Summary::SensorRecord(Session& s, const Record& r, bool listed) {
  const std::string_view m = r.fields.message;
  State& st = s.state;
  ++s.sensor_lines;
  sensor_file_ = true;
  if (!r.fields.has_time) {
    if (m.rfind("Version:", 0) == 0) s.sensor_version = std::string(m.substr(8));
    return;
  }
  unsigned long code = 0;
  long value = 0;
  std::optional<Cause> cause;
  std::string meaning;
  const std::size_t at = m.find("Runtime reported exception ");
  if (at != std::string_view::npos &&
      Scan(m.substr(at), 2, "Runtime reported exception 0x%lx = %ld", &code, &value)) {
    const std::string name = ErrorName(value);
    const std::string call =
        at > 0 ? std::string(m.substr(0, at - (at >= 2 ? 2 : 0))) : std::string("a remote call");
    meaning = call + " raised exception " + std::to_string(value) + " (" + Hex(value) + ")" +
              (name.empty() ? "" : ": " + name);
    cause = Cause{"exception", value,
                  std::to_string(value) + (name.empty() ? " (" + Hex(value) + ")" : " " + name)};
  } else if (Scan(m, 1, "RpcStringBindingCompos err!%lu", &code) ||
             Scan(m, 1, "RpcBindingSetAuthInfo:%lu", &code)) {
    const std::string name = ErrorName(static_cast<long long>(code));
    const bool auth = m[3] == 'B';
    meaning = std::string(auth ? "the binding's authentication could not be set: "
                               : "the binding to the service could not be made: ") +
              std::to_string(code) + (name.empty() ? "" : " " + name);
    cause = Cause{"binding_failed", static_cast<long long>(code), meaning};
  } else if (Contains(m, "err") || Contains(m, "fail")) {
    meaning = "an error of the sensor library";
  } else {
    return;
  }
  if (cause) (st.starting ? st.start_faults : st.init_faults).push_back(*cause);
  if (listed)
    Fail(s, {FormatTime(r.fields.time), r.when, ""}, m, meaning,
         cause ? cause->code : std::nullopt);
}

// The sessions that overlap the time window: a session lasts until the next
// one starts, the newest one beyond the end of the files.
std::vector<const Summary::Session*> Summary::Shown() const {
  std::vector<const Session*> out;
  constexpr Civil kMin = std::numeric_limits<Civil>::min(),
                  kMax = std::numeric_limits<Civil>::max();
  const bool window = filter_ && (filter_->since() != kMin || filter_->until() != kMax);
  for (std::size_t i = 0; i < sessions_.size(); ++i) {
    const Session& s = sessions_[i];
    if (window && !s.timed) continue;
    if (window) {
      const bool newest = i + 1 == sessions_.size() || !sessions_[i + 1].timed;
      const Civil end = newest ? kMax : sessions_[i + 1].first;
      if (!(s.first < filter_->until() && end > filter_->since())) continue;
    }
    out.push_back(&s);
  }
  return out;
}

// The chain of causes for the state of attention at the end of a session:
// from what the host sees down to the root the records show.
Summary::Verdict Summary::Decide(const Session& s) const {
  const State& st = s.state;
  Verdict v;
  auto add = [&](std::string key, std::optional<long long> code, std::string text) {
    v.chain.push_back({std::move(key), code, std::move(text)});
  };
  // The sensor library's failures behind a failed call, then what the
  // service check found.
  auto faults = [&](const std::vector<Cause>& list, bool init) {
    if (!list.empty()) {
      const Cause& last = list.back();
      add(last.key, last.code, last.text);
      v.todo.push_back(last.key == "exception" ? ErrorAdvice(*last.code)
                                               : "start the service: \"net start "
                                                 "VantoqSensorFusion\" as administrator");
    } else if (s.sensor_lines == 0) {
      add("no_sensor_lines", std::nullopt,
          "no sensor library lines in this session to tell the code (give SensorLibLog.log)");
    }
    if (!init) return;
    if (st.check_ret > 0)
      add("service_not_found", std::nullopt, "service check: not found, or no access");
    else if (st.check_ret == 0 && st.check_state != 4)
      add("service_not_running", st.check_state,
          "service check: not running (state " + std::to_string(st.check_state) + ")");
    if (!st.commands.empty() && st.commands.back() != 0)
      add("service_start_failed", st.commands.back(),
          "net.exe start VantoqSensorFusion exited " + std::to_string(st.commands.back()));
    if (list.empty())
      v.todo.push_back("start the service: \"net start VantoqSensorFusion\" as administrator");
    if (st.check_ret > 0)
      v.todo.push_back("if \"sc query VantoqSensorFusion\" does not know the service, install it");
  };

  if (!st.init) {
    v.state = "unknown";
    add("no_init", std::nullopt,
        "no \"init\" action in this session: the host did not set attention up");
    v.todo.push_back(
        "look for the host's \"init\" action (the log may have been cut at its "
        "size limit: give the older files too)");
    return v;
  }
  if (st.closed) {
    v.state = "off";
    add("closed", std::nullopt, "the host closed attention (action \"close\")");
    v.todo.push_back("nothing is wrong: the host ends attention with \"close\"");
    return v;
  }
  if (st.ability < 0) {
    v.state = "unknown";
    add("init_unfinished", std::nullopt, "the \"init\" action has no ability record");
    v.todo.push_back("the process may have ended during \"init\": look at the last records");
    return v;
  }
  if (st.ability == 0) {
    v.state = "off";
    add("ability", 0, "ability 0");
    if (st.init_fusion && *st.init_fusion != 0) {
      add("init_fusion_failed", *st.init_fusion, "InitFusion failed " + Hex(*st.init_fusion));
      faults(st.init_faults, true);
    } else if (st.cache_flag == 1 && st.cache_word != 1) {
      const bool known = st.cache_word_known;
      add("cached_not_supported", known ? std::optional<long long>(st.cache_word) : std::nullopt,
          "the cached verdict attention__ability" +
              (known ? " = " + std::to_string(st.cache_word) : std::string(" (not 1)")) + " in " +
              kAbilityKey);
      v.todo.push_back(std::string("delete the value attention__ability in ") + kAbilityKey +
                       " (reg delete \"" + kAbilityKey +
                       "\" /v attention__ability /f, as administrator); the plug-in asks the "
                       "service again at its next start");
    } else if ((st.query && *st.query != 0) ||
               (st.answer && static_cast<std::uint32_t>(*st.answer) == 0xFFFFFFFFu)) {
      add("status_query_failed", st.query, "status query failed");
      if (st.query && *st.query != 0 && st.init_faults.empty())
        v.chain.back().text += " " + Hex(*st.query);
      faults(st.init_faults, false);
    } else if ((st.query && *st.query == 0 && !st.answer) || (st.answer && *st.answer == 0)) {
      add("service_not_supported", 0,
          std::string("the service answered \"not supported\" (status 0); the plug-in wrote "
                      "attention__ability = 0 in ") +
              kUserKey + ", which it never reads back");
      v.todo.push_back(
          "the service finds no attention sensor: check the sensor and its "
          "driver on this machine");
    } else if (st.answer) {
      add("service_status_unknown", *st.answer,
          "the service answered status " + Hex(*st.answer) + " (" + StatusName(*st.answer) + ")");
      v.todo.push_back("install a service of the version the plug-in's sensor library expects");
    } else {
      add("ability_unexplained", std::nullopt, "no record tells why");
      v.todo.push_back(
          "look at the records of the \"init\" action (DBG records show the "
          "registry cache: log level 5 in config.ini)");
    }
    return v;
  }
  const long long status = st.status.value_or(-1);
  if (status == 0) {
    v.state = "off";
    add("status", 0, "status 0");
    add("stored_status_0", st.registry_status.value_or(0),
        std::string("attention_state = 0 in ") + kUserKey +
            " (left by a session without attention)");
    v.todo.push_back(
        "switch attention on from the host (set_attention_status 2), or delete "
        "attention_state in " +
        std::string(kUserKey));
    return v;
  }
  if (status != 2) {
    v.state = "off";
    add("switched_off", status, "status " + std::to_string(status) + ": the host switched it off");
    v.todo.push_back(
        "nothing is wrong: the user or the host chose off (set_attention_status 2 "
        "switches it on)");
    return v;
  }
  if (st.start == 2 || st.enabled == 0) {
    v.state = "off";
    add("not_enabled", st.enabled, "start refused: the host has not enabled attention");
    v.todo.push_back(
        "the host must allow attention (\"init\" with a stored status above 0) "
        "before switching it on");
    return v;
  }
  if (st.start == 3) {
    v.state = "off";
    add("start_failed", st.start_code, "starting the sensor failed " + Hex(st.start_code));
    faults(st.start_faults, false);
    return v;
  }
  v.state = "on";
  return v;
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

void Summary::PrintText() {
  Finish();
  std::ostringstream out;
  const std::vector<const Session*> shown = Shown();

  // The verdict first.
  if (shown.empty()) {
    out << "Verdict: unknown: no session "
        << (sessions_.empty() ? "in these files"
                              : "in the time "
                                "window")
        << "\n";
  } else {
    const Session& s = *shown.back();
    const Verdict v = Decide(s);
    out << "Verdict: attention "
        << (v.state == "on"    ? "ON"
            : v.state == "off" ? "OFF"
                               : "UNKNOWN")
        << " in the newest session (session " << s.number;
    if (s.timed) out << ", from " << Readable(s.first);
    out << ")\n";
    if (!v.chain.empty()) {
      out << "  why: " << v.state;
      for (std::size_t i = 0; i < v.chain.size(); ++i)
        out << (i ? " <- " : ": ") << v.chain[i].text;
      out << "\n";
    }
    for (const std::string& todo : v.todo) out << "  do:  " << todo << "\n";
  }
  for (const auto& [file, text] : Damage()) out << "Damage: " << file << ": " << text << "\n";

  out << "\nSummary of";
  for (std::size_t i = 0; i < timeline_.size(); ++i) out << (i ? ", " : " ") << timeline_.name(i);
  out << ": " << sessions_.size() << " sessions";
  if (shown.size() != sessions_.size()) out << ", " << shown.size() << " in the time window";
  out << "\n";
  for (const Session* p : shown) {
    const Session& s = *p;
    out << "\nSession " << s.number << ": "
        << (s.timed ? FormatTime(s.first_time) : std::string("?")) << " to "
        << (s.timed ? FormatTime(s.last_time) : std::string("?")) << ", " << s.records
        << " records";
    if (!s.from_init)
      out << " (before any \" attention plugin init... \" record: the start is not in these files)";
    else
      out << " (from " << s.file << ")";
    const Verdict v = Decide(s);
    out << "\n  attention: " << v.state;
    for (std::size_t i = 0; i < v.chain.size(); ++i) out << (i ? " <- " : ": ") << v.chain[i].text;
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

    out << "  telemetry reports sent: " << s.reports.size() << "\n";
    out << "  sensor library: ";
    if (s.sensor_lines == 0)
      out << "no lines in this session"
          << (sensor_file_ ? "" : " (no sensor library log among the files)") << "\n";
    else
      out << s.sensor_lines << " lines"
          << (s.sensor_version.empty() ? "" : ", version " + s.sensor_version) << "\n";

    out << "  failures:"
        << (s.failures.empty() ? (s.sensor_lines ? " none\n" : " none in the plug-in's log\n")
                               : "\n");
    for (const Failure& f : s.failures) {
      out << "    " << (f.first.time.empty() ? std::string(18, ' ') : f.first.time) << "  "
          << f.text << "\n"
          << "    " << std::string(18, ' ') << "  -> " << f.meaning;
      if (f.count > 1) out << " (" << f.count << " times, last " << f.last.time << ")";
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
  auto time = [](bool timed, Civil when) {
    return timed ? Json::Value(IsoTime(when)) : Json::Value();
  };
  auto number = [](const std::optional<long long>& n) {
    return n ? Json::Value(static_cast<Json::Int64>(*n)) : Json::Value();
  };
  auto chain = [&](const Verdict& v, Json::Value& into) {
    into["state"] = v.state;
    into["reason"] = v.chain.empty() ? Json::Value() : Json::Value(v.chain.back().key);
    std::optional<long long> code;  // the deepest code of the chain
    for (const Cause& c : v.chain)
      if (c.code) code = c.code;
    into["code"] = number(code);
    Json::Value causes(Json::arrayValue);
    for (const Cause& c : v.chain) {
      Json::Value item(Json::objectValue);
      item["key"] = c.key;
      item["code"] = number(c.code);
      item["text"] = c.text;
      causes.append(item);
    }
    into["causes"] = causes;
  };

  Json::Value root(Json::objectValue);
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
  root["files"] = files;

  const std::vector<const Session*> shown = Shown();
  Json::Value verdict(Json::objectValue);
  if (shown.empty()) {
    verdict["state"] = "unknown";
    verdict["session"] = Json::Value();
    verdict["reason"] = "no_session";
    verdict["code"] = Json::Value();
    verdict["causes"] = Json::Value(Json::arrayValue);
    verdict["do"] = Json::Value(Json::arrayValue);
  } else {
    const Verdict v = Decide(*shown.back());
    verdict["session"] = static_cast<Json::UInt64>(shown.back()->number);
    chain(v, verdict);
    Json::Value todo(Json::arrayValue);
    for (const std::string& t : v.todo) todo.append(t);
    verdict["do"] = todo;
  }
  root["verdict"] = verdict;

  Json::Value sessions(Json::arrayValue);
  for (const Session* p : shown) {
    const Session& s = *p;
    const State& st = s.state;
    Json::Value v(Json::objectValue);
    v["session"] = static_cast<Json::UInt64>(s.number);
    v["from_init"] = s.from_init;
    v["file"] = CleanMessage(s.file);
    v["start"] = time(s.timed, s.first);
    v["end"] = time(s.timed, s.last);
    v["records"] = static_cast<Json::Int64>(s.records);
    const Verdict verdict_of = Decide(s);
    chain(verdict_of, v);
    v["ability"] = st.ability < 0 ? Json::Value() : Json::Value(st.ability);
    v["ability_cache"] = st.cache_flag == 1 && st.cache_word_known
                             ? Json::Value(static_cast<Json::Int64>(st.cache_word))
                             : Json::Value();
    v["service_answer"] = number(st.answer);
    v["init_fusion"] = number(st.init_fusion);
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
    v["status"] = number(st.status);
    v["delay"] = number(st.delay);
    v["enabled"] = st.enabled < 0 ? Json::Value() : Json::Value(st.enabled);
    Json::Value inits(Json::arrayValue);
    for (const Init& i : s.inits) {
      Json::Value item(Json::objectValue);
      item["start"] = time(i.timed, i.start);
      item["took_ms"] =
          i.finished ? Json::Value(static_cast<Json::Int64>(i.took_ms)) : Json::Value();
      inits.append(item);
    }
    v["inits"] = inits;
    v["closes"] = static_cast<Json::Int64>(s.closes);
    Json::Value changes(Json::arrayValue);
    for (const Change& c : s.change_values) {
      Json::Value item(Json::objectValue);
      item["time"] = time(c.timed, c.when);
      item["what"] = c.what;
      item["value"] = static_cast<Json::Int64>(c.value);
      item["by"] = c.by;
      changes.append(item);
    }
    v["changes"] = changes;
    v["telemetry_reports"] = static_cast<Json::Int64>(s.reports.size());
    v["sensor_lines"] = static_cast<Json::Int64>(s.sensor_lines);
    v["sensor_version"] = s.sensor_version.empty() ? Json::Value() : Json::Value(s.sensor_version);
    Json::Value failures(Json::arrayValue);
    for (const Failure& f : s.failures) {
      Json::Value item(Json::objectValue);
      item["message"] = CleanMessage(f.text);
      item["meaning"] = f.meaning;
      item["code"] = number(f.code);
      item["count"] = static_cast<Json::Int64>(f.count);
      item["first"] = time(!f.first.time.empty(), f.first.when);
      item["last"] = time(!f.last.time.empty(), f.last.when);
      failures.append(item);
    }
    v["failures"] = failures;
    sessions.append(v);
  }
  root["sessions"] = sessions;
  std::ostringstream out;
  writer->write(root, &out);
  out << '\n';
  Emit(out.str());
}

}  // namespace logread
