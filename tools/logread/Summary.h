// --summary: what the records say about one machine's logs.
//
// First a verdict: is attention working in the newest process session of the
// plug-in, and if not, the chain of causes the records show (from the state
// the host sees down to the code at its root) and what to do about it. Then
// the files with any damage found in them, and per session (a session starts
// at " attention plugin init... "; records before the first one form a
// session of their own): the "init" actions and how long each took, what the
// service check found and how the service commands ended, the ability
// decisions, the status and delay changes, the telemetry reports sent, the
// sensor library's lines and version, and every failure the records show,
// with each code named. Written as text for a person, or as one JSON object
// (on one line) that a fleet query can aggregate.
//
// Sessions come from every record, whatever the filters say: --level,
// --thread and --source choose the records that are listed and counted as
// failures; --since and --until choose the sessions shown (those that overlap
// the window; a session lasts until the next one starts, the newest one
// beyond the end of the files), and the verdict is about the newest of them.
#pragma once

#include "RecordFilter.h"
#include "Timeline.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace logread {

class Summary : public RecordSink {
 public:
  explicit Summary(const Timeline& timeline) : timeline_(timeline) {}
  // The command line's filters (placed on the timeline before the records
  // come), or none.
  void SetFilter(const RecordFilter* filter) { filter_ = filter; }
  void Write(const Record& record) override;

  void PrintText();
  void PrintJson();

  // The meaning of a Windows error code as the fusion client's exception and
  // binding lines carry it ("" when it is not one of those the client meets).
  static std::string ErrorName(long long code);
  // The meaning of a result code of the fusion client's InitFusion.
  static std::string InitFusionName(long long code);

  // One link of a chain of causes: a key for queries, the code it carries,
  // and what it means.
  struct Cause {
    std::string key;
    std::optional<long long> code;
    std::string text;
  };

 private:
  struct Event {
    std::string time;  // "MM-DD hh:mm:ss.mmm", or "" when the record has none
    Civil when = 0;
    std::string text;
  };
  struct Change {
    Civil when = 0;
    bool timed = false;
    std::string what;  // "status" or "delay"
    long long value = 0;
    std::string by;  // "registry", "init" or "host"
  };
  struct Init {
    Civil start = 0;
    bool timed = false;
    bool finished = false;
    std::int64_t took_ms = 0;
  };
  struct Failure {
    std::string text;     // the record's message
    std::string meaning;  // what it means, codes named
    std::optional<long long> code;
    Event first, last;
    long count = 0;
  };
  // What the records of a session say about attention, from every record.
  struct State {
    bool init = false;  // an "init" began
    bool init_finished = false;
    int ability = -1;                      // "ability: %d"
    int cache_flag = -1, cache_word = 0;   // "CheckAttentionAbility  begin reg=%d dw:%d"
    bool cache_word_known = false;         // that record was written (DBG)
    std::optional<long long> query;        // "CheckAttentionAbility InitFusion %x"
    std::optional<long long> answer;       // the status the service answered (-1: none)
    std::optional<long long> init_fusion;  // the last "attention_init initfusion(2) %x"
    bool retried = false;
    int check_ret = -1;
    unsigned check_state = 0;
    std::vector<int> commands;                     // net.exe exit codes of this "init"
    std::vector<Cause> init_faults, start_faults;  // the sensor library's failures
    bool starting = false;                         // a start is the latest operation
    std::optional<long long> registry_status, registry_delay;
    std::optional<long long> status, delay;
    int enabled = -1;
    int start = 0;  // 0 none, 1 started, 2 refused (not enabled), 3 failed
    long long start_code = 0;
    bool closed = false;
  };
  struct Session {
    bool from_init = false;
    std::size_t number = 0;
    std::string file;  // the file of the record that started it
    bool timed = false;
    Civil first = 0, last = 0;
    logrecord::Time first_time, last_time;
    long records = 0;
    long sensor_lines = 0;
    std::string sensor_version;
    std::vector<Init> inits;
    long closes = 0;
    std::vector<Event> service, ability, changes;
    std::vector<Change> change_values;
    std::vector<Civil> reports;
    std::vector<Failure> failures;
    std::map<std::string, std::size_t> failure_index;
    std::optional<long long> pending_delay;
    // The service commands of the current "init" listed, named when
    // InitFusion's record shows that they are over.
    std::vector<std::pair<Event, int>> commands;
    State state;
  };
  struct Verdict {
    std::string state;  // "on", "off", "unknown"
    std::vector<Cause> chain;
    std::vector<std::string> todo;
  };

  Session& Current(const Record& record);
  void NameCommands(Session& s, bool over, bool connected);
  void Finish();
  void Fail(Session& s, const Event& at, std::string_view message, std::string meaning,
            std::optional<long long> code = std::nullopt);
  void PluginRecord(Session& s, const Record& r, bool listed);
  void SensorRecord(Session& s, const Record& r, bool listed);
  std::vector<const Session*> Shown() const;
  Verdict Decide(const Session& s) const;
  std::vector<std::pair<std::string, std::string>> Damage() const;

  const Timeline& timeline_;
  const RecordFilter* filter_ = nullptr;
  bool sensor_file_ = false;  // a sensor library log is among the files
  std::vector<Session> sessions_;
  bool finished_ = false;
};

}  // namespace logread
