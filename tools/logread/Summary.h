// --summary: what the records say about each process session of the plug-in
// (a session starts at " attention plugin init... "; records before the first
// one form a session of their own): the "init" actions and how long each
// took, what the service check found and how the service commands ended, the
// ability decisions, the status and delay changes, the telemetry reports sent
// and every failure the records show, with the error codes named. Written as
// text for a person, or as JSON Lines (one object per session).
#pragma once

#include "Timeline.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace logread {

class Summary : public RecordSink {
 public:
  explicit Summary(const Timeline& timeline) : timeline_(timeline) {}
  void Write(const Record& record) override;

  void PrintText();
  void PrintJson();

  // The meaning of a Windows error code as the fusion client's exception
  // lines carry it ("" when it is not one of those the client meets).
  static std::string ErrorName(long long code);
  // The meaning of a result code of the fusion client's InitFusion.
  static std::string InitFusionName(long long code);

 private:
  struct Event {
    std::string time;  // "MM-DD hh:mm:ss.mmm", or "" when the record has none
    std::string text;
  };
  struct Init {
    std::string start;
    bool finished = false;
    std::int64_t took_ms = 0;
    std::int64_t started_when = 0;
  };
  struct Failure {
    std::string text;     // the record's message
    std::string meaning;  // what it means, codes named
    std::string first, last;
    long count = 0;
  };
  struct Session {
    bool from_init = false;
    std::string file;  // the file of the record that started it
    std::string start, end;
    long records = 0;
    std::vector<Init> inits;
    long closes = 0;
    std::vector<Event> service;        // checks and commands
    std::vector<Event> ability;        // decisions
    std::vector<Event> changes;        // status and delay
    std::vector<std::string> reports;  // telemetry reports sent (times)
    std::vector<Failure> failures;
    std::map<std::string, std::size_t> failure_index;
    long pending_delay = 0;
    bool have_pending_delay = false;
    // Exit codes of the service commands of the current "init", named
    // when InitFusion's record shows that the commands are over.
    std::vector<std::pair<std::string, int>> commands;
  };

  Session& Current(const Record& record);
  void NameCommands(Session& s, bool over, bool connected = false);
  void Finish();
  void Fail(Session& s, const std::string& time, std::string_view message, std::string meaning);
  void PluginRecord(Session& s, const Record& r, const std::string& time);
  void SensorRecord(Session& s, const Record& r, const std::string& time);

  const Timeline& timeline_;
  std::vector<Session> sessions_;
};

}  // namespace logread
