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
#include "SummaryVerdict.h"
#include "Timeline.h"

#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace logread {

// At most kHead first and kTail last entries of a list that may grow with
// the size of the logs, and how many were left out between them: the summary
// of 100 MiB of logs stays small.
template <class T>
class Bounded {
 public:
  static constexpr std::size_t kHead = 20, kTail = 30;
  void push_back(T item) {
    if (head_.size() < kHead) return head_.push_back(std::move(item));
    tail_.push_back(std::move(item));
    if (tail_.size() > kTail) tail_.pop_front(), ++omitted_;
  }
  bool empty() const { return head_.empty(); }
  T& back() { return tail_.empty() ? head_.back() : tail_.back(); }
  std::size_t size() const { return head_.size() + tail_.size() + omitted_; }
  std::size_t omitted() const { return omitted_; }
  // Calls f(item) on the kept entries in order, and gap(n) where n were left out.
  template <class F, class G>
  void Each(F f, G gap) const {
    for (const T& item : head_) f(item);
    if (omitted_) gap(omitted_);
    for (const T& item : tail_) f(item);
  }

 private:
  std::vector<T> head_;
  std::deque<T> tail_;
  std::size_t omitted_ = 0;
};

class Summary : public RecordSink {
 public:
  // `json`: the report is one JSON object, else text for a person.
  Summary(const Timeline& timeline, bool json);
  ~Summary() override;
  // The command line's filters (placed on the timeline before the records
  // come), or none.
  void SetFilter(const RecordFilter* filter) { filter_ = filter; }
  // The machine's folder the files came from ("": the files were named).
  void SetMachine(std::string folder) { machine_ = std::move(folder); }
  void Write(const Record& record) override;

  // Writes the report; returns the verdict's exit status (SummaryVerdict.h).
  int Print();

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
  struct Session {
    std::size_t number = 0;
    std::string file;  // the file of the record that started it
    bool timed = false;
    Civil first = 0, last = 0;
    logrecord::Time first_time, last_time;
    long records = 0;
    std::string sensor_version;
    Bounded<Init> inits;
    long closes = 0;
    Bounded<Event> service, ability, changes;
    Bounded<Change> change_values;
    long reports = 0;
    std::vector<Failure> failures;  // one per message and meaning
    std::map<std::string, std::size_t> failure_index;
    std::optional<long long> pending_delay;
    // The service commands of the current "init" listed, named when
    // InitFusion's record shows that they are over.
    std::vector<std::pair<Event, int>> commands;
    Facts state;
  };
  // What the report keeps of the newest session shown, for the verdict.
  struct Newest {
    std::size_t number = 0;
    bool timed = false;
    Civil first = 0;
    Verdict verdict;
  };

  Session& Current(const Record& record);
  void NameCommands(Session& s, bool over, bool connected);
  // A session is over: it is reported (when shown) and forgotten.
  void Close(Session& s, bool newest, Civil next_start);
  void Fail(Session& s, const Event& at, std::string_view message, std::string meaning,
            std::optional<long long> code = std::nullopt);
  void PluginRecord(Session& s, const Record& r, bool listed);
  void SensorRecord(Session& s, const Record& r, bool listed);
  Facts FactsOf(const Session& s) const;
  std::vector<std::pair<std::string, std::string>> Damage() const;
  // The reports (SummaryReport.cpp).
  std::string SessionText(const Session& s, const Verdict& v) const;
  std::string SessionJson(const Session& s, const Verdict& v) const;
  void Keep(const std::string& text);  // a session's report, until the verdict is out
  int PrintText();
  int PrintJson();

  const Timeline& timeline_;
  const bool json_;
  const RecordFilter* filter_ = nullptr;
  std::string machine_;
  bool sensor_file_ = false;          // a sensor library log is among the files
  bool plugin_file_ = false;          // a plug-in log is among the files
  std::unique_ptr<Session> session_;  // the session being read
  std::size_t sessions_ = 0, shown_ = 0;
  std::optional<Newest> newest_;
  std::FILE* kept_ = nullptr;   // the reports of the sessions shown (a temporary file)
  std::string kept_in_memory_;  // or here, when no temporary file can be made
};

}  // namespace logread
