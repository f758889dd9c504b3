#include "SummaryVerdict.h"

#include "ServiceNames.h"
#include "SummaryCodes.h"

#include <cstdint>

namespace logread {

namespace {

constexpr char kAbilityKey[] = "HKLM\\SOFTWARE\\Vantoq\\Quillomatic";
constexpr char kUserKey[] = "HKCU\\SOFTWARE\\Vantoq\\Quillomatic";
constexpr char kStartService[] =
    "start the service: \"net start " QX_SERVICE_NAME
    "\" as administrator (\"sc query " QX_SERVICE_NAME "\" shows its state)";
constexpr char kGiveSensorLog[] =
    "give SensorLibLog.log too (%ProgramData%\\Vantoq\\SensorFusion\\Logs): it holds the codes "
    "behind the failures";

class Builder {
 public:
  explicit Builder(const Facts& f) : f_(f) {}

  void Add(std::string key, std::optional<long long> code, std::string text) {
    v.chain.push_back({std::move(key), code, std::move(text)});
  }
  Verdict& Root(const char* state, std::string category, std::string todo) {
    v.state = state;
    v.category = std::move(category);
    v.exit = v.state == "unknown" ? kExitVerdictUnknown : v.state == "off" ? kExitVerdictOff : 0;
    if (!todo.empty()) v.todo.push_back(std::move(todo));
    return v;
  }

  // What the service check found, and how the start command ended.
  std::string CheckText() const {
    if (f_.check_ret < 0) return "";
    if (f_.check_ret > 0) return "service check: not found, or no access";
    if (f_.check_state == 4) return "service check: running";
    return "service check: not running (state " + std::to_string(f_.check_state) + ")";
  }
  bool CheckNotFound() const { return f_.check_ret > 0; }
  bool CheckNotRunning() const { return f_.check_ret == 0 && f_.check_state != 4; }
  // "net.exe start" failed on a service the check did not find running.
  bool StartFailed() const {
    return (CheckNotRunning() || CheckNotFound()) && !f_.commands.empty() &&
           f_.commands.back() != 0;
  }

  // The root of a failed remote call: the sensor library's exception or
  // binding line, ranked first; then the service check; then net.exe.
  Verdict& CallFailed(const std::vector<Cause>& faults) {
    const std::string check = CheckText();
    auto service = [&]() -> Verdict& {
      if (CheckNotFound()) {
        Add("service_not_found", std::nullopt, check);
        return Root("off", "service_not_installed",
                    "install the service (\"sc query " QX_SERVICE_NAME
                    "\" does not know it), or give this account the right to query it");
      }
      if (StartFailed()) {
        Add("service_start_failed", f_.commands.back(),
            check + "; net.exe start " QX_SERVICE_NAME " exited " +
                std::to_string(f_.commands.back()));
        return Root(
            "off", "service_start_failed",
            "the service does not start: look at its event log entries (\"sc qc " QX_SERVICE_NAME
            "\" shows the program it runs)");
      }
      return v;
    };
    if (!faults.empty()) {
      const Cause& last = faults.back();
      Add(last.key, last.code, last.text);
      if (last.key == "binding_failed") return Root("off", "binding_failed", kStartService);
      switch (codes::Classify(*last.code)) {
        case codes::ErrorClass::kRights:
          if (!check.empty()) Add("service_check", std::nullopt, check);
          return Root("off", "access_denied", codes::ErrorAdvice(*last.code));
        case codes::ErrorClass::kAuthentication:
          if (!check.empty()) Add("service_check", std::nullopt, check);
          return Root("off", "authentication_refused", codes::ErrorAdvice(*last.code));
        case codes::ErrorClass::kVersion:
          return Root("off", "service_version_mismatch", codes::ErrorAdvice(*last.code));
        case codes::ErrorClass::kOther:
          return Root("off", "rpc_error", codes::ErrorAdvice(*last.code));
        case codes::ErrorClass::kNoAnswer:
          if (!service().category.empty()) return v;
          if (!check.empty()) Add("service_check", std::nullopt, check);
          return Root(
              "off", "service_not_answering",
              f_.check_ret == 0 && f_.check_state == 4
                  ? "the service runs but does not answer: restart it (\"net stop " QX_SERVICE_NAME
                    "\", then \"net start " QX_SERVICE_NAME "\") as administrator"
                  : kStartService);
      }
    }
    if (!service().category.empty()) return v;
    if (f_.sensor_lines == 0)
      Add("no_sensor_lines", std::nullopt,
          "no sensor library lines in this session to tell the code");
    return Root("off", "call_failed", f_.sensor_log ? kStartService : kGiveSensorLog);
  }

  Verdict v;

 private:
  const Facts& f_;
};

}  // namespace

Verdict Decide(const Facts& f) {
  Builder b(f);
  Verdict& v = b.v;
  v.closed = f.closed;
  if (f.ability_before_init)
    v.hazards.push_back(
        "\"ability\" before \"init\": without the machine-wide attention__ability the answer is 0 "
        "for the rest of the process");
  if (f.action_before_init)
    v.hazards.push_back("a \"set_\" action before \"init\": the status was stored as 0");
  if (f.init_twice)
    v.hazards.push_back("\"init\" again without \"close\": the first event thread is orphaned");
  if (f.action_after_close)
    v.hazards.push_back("\"close\" or a \"set_\" action after \"close\": a stale handle is used");

  if (!f.plugin_records) {
    b.Add("no_plugin_log", std::nullopt,
          f.plugin_log ? "no record of the plug-in in this session"
                       : "no plug-in log among the files");
    if (!f.init_faults.empty())
      b.Add(f.init_faults.back().key, f.init_faults.back().code,
            "the sensor library's last failure: " + f.init_faults.back().text);
    return b.Root(
        "unknown", "no_plugin_log",
        "give QXAttentionPlugin.log.logdat too (%ProgramData%\\Vantoq\\Quillomatic\\logs)");
  }
  if (!f.init) {
    if (!f.from_init) {
      // The logger deleted the file at its size limit: the set-up is gone
      // from the plug-in's log, the sensor library's log still has it.
      b.Add("log_cut", std::nullopt,
            "the start of this session was deleted at the plug-in log's size limit");
      if (!f.init_faults.empty()) return b.CallFailed(f.init_faults);
      if (f.status == 2 && f.start_faults.empty()) return b.Root("on", "working", "");
      return b.Root("unknown", "log_cut",
                    f.sensor_log ? (f.sensor_init ? "the sensor library's log shows the set-up "
                                                    "without a failure: collect both logs again "
                                                    "right after the host starts"
                                                  : "collect both logs again right after the "
                                                    "host starts")
                                 : kGiveSensorLog);
    }
    b.Add("no_init", std::nullopt, "no \"init\" action: the host did not set attention up");
    return b.Root("unknown",
                  f.ability_before_init || f.action_before_init ? "action_before_init" : "no_init",
                  "the host must send \"init\" after qx_plugin_init, before any other action");
  }
  if (f.ability < 0) {
    b.Add("init_unfinished", std::nullopt, "the \"init\" action has no ability record");
    return b.Root("unknown", "init_unfinished",
                  "the process may have ended or hung during \"init\": look at the last records");
  }
  if (f.ability == 0) {
    b.Add("ability", 0, "ability 0");
    if (f.init_fusion && *f.init_fusion != 0) {
      b.Add("init_fusion_failed", *f.init_fusion,
            "InitFusion failed " + codes::Hex(*f.init_fusion));
      return b.CallFailed(f.init_faults);
    }
    if (f.cache_flag == 1 && f.cache_word != 1) {
      const bool known = f.cache_word_known;
      b.Add("cached_not_supported", known ? std::optional<long long>(f.cache_word) : std::nullopt,
            "the cached verdict attention__ability" +
                (known ? " = " + std::to_string(f.cache_word) : std::string(" (not 1)")) + " in " +
                kAbilityKey);
      return b.Root("off", "cached_not_supported",
                    std::string("delete the value attention__ability in ") + kAbilityKey +
                        " (reg delete \"" + kAbilityKey +
                        "\" /v attention__ability /f, as administrator); the plug-in asks the "
                        "service again at its next start");
    }
    if ((f.query && *f.query != 0) ||
        (f.answer && static_cast<std::uint32_t>(*f.answer) == 0xFFFFFFFFu)) {
      b.Add("status_query_failed", f.query,
            "status query failed" + (f.query && *f.query ? " " + codes::Hex(*f.query) : ""));
      return b.CallFailed(f.init_faults);
    }
    if ((f.query && *f.query == 0 && !f.answer) || (f.answer && *f.answer == 0)) {
      b.Add("service_not_supported", 0,
            std::string("the service answered \"not supported\" (status 0); the plug-in wrote "
                        "attention__ability = 0 in ") +
                kUserKey + ", which it never reads back");
      return b.Root("off", "not_supported",
                    "the service finds no attention sensor: check the sensor and its driver on "
                    "this machine");
    }
    if (f.answer) {
      b.Add("service_status_unknown", *f.answer,
            "the service answered status " + codes::Hex(*f.answer) + " (" +
                codes::StatusName(*f.answer) + ")");
      return b.Root("off", "service_version_mismatch",
                    "install a service of the version the plug-in's sensor library expects");
    }
    if (f.ability_before_init) {
      b.Add("ability_before_init", std::nullopt,
            "the host asked \"ability\" before \"init\": the answer 0 stays for the process");
      return b.Root("off", "ability_before_init",
                    "the host must send \"init\" before \"ability\" (or its installer write HKLM "
                    "attention__ability); a new process asks again");
    }
    b.Add("ability_unexplained", std::nullopt, "no record tells why");
    return b.Root("unknown", "ability_unexplained",
                  "look at the records of the \"init\" action (DBG records show the registry "
                  "cache: log level 5 in config.ini)");
  }
  if (!f.status) {
    b.Add("init_unfinished", std::nullopt, "the records end before \"init\" set the status");
    return b.Root("unknown", "init_unfinished",
                  "the process may have ended or hung during \"init\", or the log is cut: look "
                  "at the last records");
  }
  const long long status = *f.status;
  if (status == 0) {
    b.Add("status", 0, "status 0");
    b.Add("stored_status_0", f.registry_status.value_or(0),
          std::string("attention_state = 0 in ") + kUserKey +
              " (left by a session without attention)");
    return b.Root("off", "stored_status_0",
                  "switch attention on from the host (set_attention_status 2), or delete "
                  "attention_state in " +
                      std::string(kUserKey));
  }
  if (status != 2) {
    b.Add("switched_off", status,
          "status " + std::to_string(status) + ": the host switched it off");
    Verdict& off = b.Root("off", "switched_off",
                          "nothing is wrong: the user or the host chose off "
                          "(set_attention_status 2 switches it on)");
    off.exit = 0;
    return off;
  }
  if (f.start == 2 || f.enabled == 0) {
    b.Add("not_enabled", f.enabled, "start refused: the host has not enabled attention");
    return b.Root("off", "not_enabled",
                  "the host must allow attention (\"init\" with a stored status above 0) before "
                  "switching it on");
  }
  if (f.start == 3) {
    b.Add("start_failed", f.start_code, "starting the sensor failed " + codes::Hex(f.start_code));
    switch (static_cast<std::uint32_t>(f.start_code)) {
      case 0x30000020u:
        b.Add("sensor_unreachable", f.start_code, "the service could not connect to the sensor");
        return b.Root("off", "sensor_unreachable",
                      "the service cannot reach the attention sensor: check the sensor in Device "
                      "Manager and its driver, then restart the service");
      case 0x60000006u:
        b.Add("start_refused", f.start_code, "the service refused the request");
        return b.Root("off", "start_refused",
                      "the service refuses to start sensing: check its version and its event log");
      default:
        return b.CallFailed(f.start_faults);
    }
  }
  return b.Root("on", "working", "");
}

}  // namespace logread
