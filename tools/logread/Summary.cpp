#include "Summary.h"

#include "Console.h"
#include "RecordWriter.h"
#include "SensorLibTexts.h"
#include "ServiceNames.h"
#include "SummaryCodes.h"
#include "SummaryRecords.h"

#include <json/json.h>

#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <sstream>

namespace logread {

using namespace codes;

namespace {

constexpr Civil kNever = std::numeric_limits<Civil>::max();

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

constexpr char kAbilityKey[] = "HKLM\\SOFTWARE\\Vantoq\\Quillomatic";

}  // namespace

Summary::Summary(const Timeline& timeline, bool json) : timeline_(timeline), json_(json) {}

Summary::~Summary() {
  if (kept_) std::fclose(kept_);
}

Summary::Session& Summary::Current(const Record& r) {
  const bool starts = r.parsed && r.form == logrecord::Form::kPlugin &&
                      r.fields.source == known::kPluginInit.source &&
                      r.fields.line == std::to_string(known::kPluginInit.line);
  if (starts && session_) Close(*session_, false, r.has_time ? r.when : kNever);
  if (starts || !session_) {
    session_ = std::make_unique<Session>();
    session_->state.from_init = starts;
    session_->number = ++sessions_;
    session_->file = timeline_.name(r.file);
  }
  return *session_;
}

// The set-up of "init" runs "net.exe stop tof service" (twice when the check
// found no running service) and then "net.exe start " QX_SERVICE_NAME; the
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
           "net.exe start " QX_SERVICE_NAME + exited +
               (code && connected ? " (the service was running: InitFusion reached it)"
                : code && s.state.check_ret == 0 && s.state.check_state == 4
                    ? " (the service was running)"
                    : "")});
      // net.exe start fails on a service that runs already: not a failure.
      const bool running = s.state.check_ret == 0 && s.state.check_state == 4;
      if (code != 0 && !connected && !running)
        Fail(s, at, "WaitFor RunProcess Signal On, dwCode " + std::to_string(code),
             "the service could not be started: net.exe start " QX_SERVICE_NAME " exited " +
                 std::to_string(code),
             code);
    }
  }
  s.commands.clear();
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
    // A record may be dated from its neighbour (a line with no stamp of its
    // own, or the first of a log cut at its size limit): its time is then the
    // one the timeline gave it, not the empty stamp of its fields.
    logrecord::Time time = r.fields.time;
    if (!r.fields.has_time) {
      const CivilParts p = FromCivil(r.when);
      time = {p.month, p.day, p.hour, p.minute, p.second, p.millisecond};
    }
    if (!s.timed) {
      s.timed = true;
      s.first = r.when;
      s.first_time = time;
    }
    s.last = r.when;
    s.last_time = time;
  }
  const bool listed = !filter_ || filter_->Matches(r);
  if (r.form == logrecord::Form::kSensorLib) {
    SensorRecord(s, r, listed);
  } else {
    plugin_file_ = true;
    if (r.parsed) {
      s.state.plugin_records = true;
      PluginRecord(s, r, listed);
    }
  }
}

void Summary::PluginRecord(Session& s, const Record& r, bool listed) {
  const std::string_view source = r.fields.source;
  const std::string_view m = r.fields.message;
  int line = 0;
  std::from_chars(r.fields.line.data(), r.fields.line.data() + r.fields.line.size(), line);
  const bool plugin = source == known::kPluginInit.source;
  const bool control = source == known::kServiceCheck.source;
  Facts& st = s.state;
  int a = 0, b = 0;
  unsigned x = 0;
  // Only the records this summary lists pay for their time's text.
  auto at = [&]() -> Event {
    return {r.fields.has_time ? FormatTime(r.fields.time) : std::string(), r.when, ""};
  };
  auto event = [&](Bounded<Event>& list, std::string text) {
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
      case known::kInitBegin.line: {
        NameCommands(s, false, false);
        const Facts before = st;
        st = Facts();  // what the session knew before this "init" stays
        st.from_init = before.from_init;
        st.plugin_records = before.plugin_records;
        st.sensor_lines = before.sensor_lines;
        st.sensor_init = before.sensor_init;
        st.ability_before_init = before.ability_before_init;
        st.action_before_init = before.action_before_init;
        st.action_after_close = before.action_after_close;
        st.init_twice = before.init_twice || (before.init && !before.closed);
        st.init = true;
        s.inits.push_back({r.when, r.has_time});
        return;
      }
      case known::kInitEnd.line:
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
      case known::kInitRegistry.line:
      case known::kEarlyRegistry.line:
        if (Scan(m, 2, "register attention status: %d, register attention delay:%d", &a, &b)) {
          st.registry_status = a;
          change("status", a, "registry");
          change("delay", b, "registry");
          event(s.changes, "read from the registry: status " + std::to_string(a) + ", delay " +
                               std::to_string(b) + (a == -1 || b == -1 ? " (-1: no value)" : ""));
        }
        return;
      case known::kInitAbility.line:
      case known::kEarlyAbility.line:
        if (Scan(m, 1, known::kInitAbility.text.data(), &a)) {
          if (line == known::kEarlyAbility.line && !st.init) st.ability_before_init = true;
          st.ability = a;
          event(s.ability, std::string("ability ") + std::to_string(a) +
                               (a ? " (attention supported)" : " (attention not supported)"));
        }
        return;
      case known::kStatusValue.line:
        if (!st.init) st.action_before_init = true;
        if (st.closed) st.action_after_close = true;
        if (Scan(m, 1, known::kStatusValue.text.data(), &a)) {
          st.status = a;
          change("status", a, "host");
          event(s.changes, "status set to " + std::to_string(a) + (a == 2 ? " (on)" : " (off)"));
        }
        return;
      case known::kDelayValue.line:
        if (!st.init) st.action_before_init = true;
        if (st.closed) st.action_after_close = true;
        if (Scan(m, 1, known::kDelayValue.text.data(), &a)) s.pending_delay = a;
        return;
      case known::kDelaySet.line:
        if (s.pending_delay) {
          st.delay = *s.pending_delay;
          change("delay", *s.pending_delay, "host");
          event(s.changes, "delay set to " + std::to_string(*s.pending_delay));
        }
        s.pending_delay.reset();
        return;
      case known::kReport.line:
        ++s.reports;
        return;
      case known::kClose.line:
        if (st.closed) st.action_after_close = true;
        st.closed = true;
        ++s.closes;
        return;
      case known::kResp.line:
        // The answer to the host tells the status it sees (evidence that
        // stays when the log's start was deleted at its size limit).
        if (const std::size_t at_status = m.find("\"status\":");
            at_status != std::string_view::npos &&
            Scan(m.substr(at_status), 1, "\"status\":%d", &a))
          st.status = a;
        if (Scan(m, 1, "resp: {\"error_code\":%d", &a))
          fail("the action was answered with error_code " + std::to_string(a) + ": " +
                   ErrorCodeName(a),
               a);
        return;
      case known::kParseStatus.line:
      case known::kParseStatusObject.line:
      case known::kParseDelay.line:
      case known::kParseDelayObject.line:
        fail("the host's parameters are not a JSON object with an object \"F4010\"");
        return;
      case known::kBadStatus.line:
      case known::kBadDelay.line:
        fail("the host asked for a value out of range");
        return;
      case known::kStoredDelayFail.line:
        if (Scan(m, 1, " set attention delay fail: %d", &a))
          fail("the service did not take the stored delay: " + RemoteName(a), a);
        return;
      case known::kDelayFail.line:
        if (Scan(m, 1, "set attention delay fail,resp: %d", &a))
          fail("the service did not take the delay: " + RemoteName(a), a);
        return;
      case known::kStatusUnsupported.line:
        st.status = 0;
        fail("attention is not supported here, so the status was stored as 0");
        return;
      case known::kDelayUnsupported.line:
        fail("attention is not supported here, so the delay was not applied");
        return;
      default:
        break;
    }
  }

  if (control) {
    switch (line) {
      case known::kServiceCheck.line:
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
      case known::kCheckStop.line:
        event(s.service, "stop command run, as the check found no running service");
        return;
      case known::kRestart.line:
        event(s.service, "restart: stop and start commands");
        return;
      case known::kCacheBegin.line:
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
      case known::kCacheNot
          .line:  // the cached "not supported" (the record above is DBG: often not written)
        if (!st.cache_word_known) {
          st.cache_flag = 1;
          st.cache_word = -1;
          event(s.ability, std::string("not supported: the registry cache attention__ability (") +
                               kAbilityKey + ") says so");
        }
        return;
      case known::kQuery.line:
        if (Scan(m, 1, "CheckAttentionAbility InitFusion %x", &x)) {
          st.query = x;
          if (x != 0) fail("the status query failed: " + Hex(x) + ": " + RemoteName(x), x);
        }
        return;
      case known::kAnswerStopped.line:
      case known::kAnswerActive.line:
        st.answer = line == known::kAnswerStopped.line ? QX_STATUS_SUPPORTED_STOPPED
                                                       : QX_STATUS_SUPPORTED_ACTIVE;
        event(s.ability, std::string("supported: the service answered \"") +
                             (line == known::kAnswerStopped.line ? "stopped\"" : "active\""));
        return;
      case known::kAnswerOther.line:
        if (Scan(m, 1, "Attention active :%d", &a)) {
          st.answer = a;
          event(s.ability, "not supported: the service answered status " + std::to_string(a) +
                               " (" + StatusName(a) + ")");
        }
        return;
      case known::kInitFusion.line:
      case known::kInitFusion2.line:
        if (Scan(m, 1,
                 line == known::kInitFusion.line ? known::kInitFusion.text.data()
                                                 : known::kInitFusion2.text.data(),
                 &x)) {
          if (line == known::kInitFusion.line) NameCommands(s, true, x != 1);
          st.init_fusion = x;
          if (x != 0)
            fail("InitFusion failed: " + Hex(x) + ": " + InitFusionName(x) +
                     (x == 0x10000000u && line == known::kInitFusion.line
                          ? "; tried once more after 400 ms"
                          : ""),
                 x);
        }
        return;
      case known::kUnInit.line:
        if (Scan(m, 1, "attention_un_init %x", &x) && x != 0)
          fail("UnInitial failed: " + Hex(x) + ": " + RemoteName(x), x);
        return;
      case known::kStartBegin.line:
        st.starting = true;
        st.start_faults.clear();
        return;
      case known::kStartRefused.line:
        st.start = 2;
        fail("attention was not started: the host had not enabled it");
        return;
      case known::kStartEnd.line:
        if (Scan(m, 1, "tof_start end%d", &a)) {
          st.start = a == 0 ? 1 : 3;
          st.start_code = a;
          if (a != 0) fail("starting the sensor failed: " + Hex(a) + ": " + RemoteName(a), a);
        }
        return;
      case known::kStop.line:
        st.starting = false;
        if (Scan(m, 1, "attention_stop =%d", &a) && a != 0)
          fail("stopping the sensor failed: " + Hex(a) + ": " + RemoteName(a), a);
        return;
      case known::kEnable.line:
        if (Scan(m, 1, "attention_set_enable %d", &a)) st.enabled = a > 0;
        return;
      case known::kDriverFailed.line:
      case known::kDriverFailedAgain.line:
      case known::kSetFailed.line: {
        const std::size_t at_resp = m.rfind("resp:");
        long long code = 1;
        if (at_resp != std::string_view::npos && Scan(m.substr(at_resp), 1, "resp:%d", &a))
          code = a;
        fail("reading the delay failed: " + Hex(code) + ": " + RemoteName(code), code);
        return;
      }
      case known::kSetDelay.line: {
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
  if (source == known::kRunProcess.source && line == known::kRunProcess.line &&
      Scan(m, 1, known::kRunProcess.text.data(), &a)) {
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
  Facts& st = s.state;
  ++st.sensor_lines;
  sensor_file_ = true;
  if (!r.fields.has_time) {
    if (m.rfind("Version:", 0) == 0) s.sensor_version = std::string(m.substr(8));
    return;
  }
  if (m.rfind("InitFusion:", 0) == 0) st.sensor_init = true;
  unsigned long code = 0;
  long value = 0;
  unsigned status = 0;
  std::optional<Cause> cause;
  std::string meaning;
  const std::size_t at = m.find("Runtime reported exception ");
  if (at != std::string_view::npos && Scan(m.substr(at), 2, QX_SENSOR_EXCEPTION, &code, &value) &&
      (code & 0xFFFFFFFFul) == (static_cast<unsigned long>(value) & 0xFFFFFFFFul)) {
    // Both forms of the code agree: the line is whole, not cut inside the number.
    const std::string name = ErrorName(value);
    const std::string call =
        at > 0 ? std::string(m.substr(0, at - (at >= 2 ? 2 : 0))) : std::string("a remote call");
    meaning = call + " raised exception " + std::to_string(value) + " (" + Hex(value) + ")" +
              (name.empty() ? "" : ": " + name);
    cause = Cause{"exception", value,
                  std::to_string(value) + (name.empty() ? " (" + Hex(value) + ")" : " " + name)};
  } else if (Scan(m, 1, QX_SENSOR_BINDING_FAILED, &status) ||
             Scan(m, 1, QX_SENSOR_AUTH_FAILED, &status)) {
    code = status;
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
  if (cause)  // the last one counts
    (st.starting ? st.start_faults : st.init_faults) = std::vector<Cause>{*cause};
  if (listed)
    Fail(s, {FormatTime(r.fields.time), r.when, ""}, m, meaning,
         cause ? cause->code : std::nullopt);
}

// The sessions shown are those that overlap the time window: a session
// lasts until the next one starts (`next_start`), the newest one beyond the
// end of the files.
void Summary::Close(Session& s, bool newest, Civil next_start) {
  NameCommands(s, false, false);
  constexpr Civil kMin = std::numeric_limits<Civil>::min();
  const bool window = filter_ && (filter_->since() != kMin || filter_->until() != kNever);
  if (window) {
    if (!s.timed) return;
    const Civil end = newest ? kNever : next_start;
    if (!(s.first < filter_->until() && end > filter_->since())) return;
  }
  ++shown_;
  const Verdict v = Decide(FactsOf(s));
  Keep(json_ ? SessionJson(s, v) : SessionText(s, v));
  newest_ = Newest{s.number, s.timed, s.first, v};
}

Facts Summary::FactsOf(const Session& s) const {
  Facts f = s.state;
  f.sensor_log = sensor_file_;
  f.plugin_log = plugin_file_;
  return f;
}

}  // namespace logread
