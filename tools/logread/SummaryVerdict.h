// The verdict on one process session, from what its records prove: a pure
// function of the facts the records gave (Summary.cpp gathers them), tested
// through a table of its causes (tests/native/data/verdicts.txt).
//
// Causes rank by evidence: the code of the fusion client's exception first,
// then what the service check found, then how net.exe ended ("net.exe start"
// exits 2 on a service that already runs: not a failure). Each root cause has
// a stable category for fleet queries and at least one thing to do.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace logread {

// One link of a chain of causes: a key, the code it carries, what it means.
struct Cause {
  std::string key;
  std::optional<long long> code;
  std::string text;
};

// What the records of one session say about attention.
struct Facts {
  bool from_init = false;                // the session starts at " attention plugin init... "
  bool plugin_records = false;           // the plug-in's log has records in it
  bool plugin_log = true;                // a plug-in log is among the files
  bool sensor_log = false;               // a sensor library log is among the files
  long sensor_lines = 0;                 // the sensor library's lines in this session
  bool sensor_init = false;              // one of them shows the client being set up
  bool init = false;                     // an "init" began
  int ability = -1;                      // "ability: %d" of "init"
  int cache_flag = -1, cache_word = 0;   // "CheckAttentionAbility  begin reg=%d dw:%d"
  bool cache_word_known = false;         // that record was written (DBG)
  std::optional<long long> query;        // "CheckAttentionAbility InitFusion %x"
  std::optional<long long> answer;       // the status the service answered (-1: none)
  std::optional<long long> init_fusion;  // the last "attention_init initfusion(2) %x"
  int check_ret = -1;                    // the service check: 0 found, else not found
  unsigned check_state = 0;              // its state (4 running)
  std::vector<int> commands;             // net.exe exit codes of this "init"
  std::vector<Cause> init_faults, start_faults;  // the sensor library's failures
  bool starting = false;                         // a start is the latest operation
  std::optional<long long> registry_status, status, delay;
  int enabled = -1;
  int start = 0;  // 0 none, 1 started, 2 refused (not enabled), 3 failed
  long long start_code = 0;
  bool closed = false;
  // The host's order hazards seen in the session (docs/integration.md).
  bool ability_before_init = false;  // "ability" before "init"
  bool action_before_init = false;   // a "set_" action before "init"
  bool init_twice = false;           // "init" again without "close"
  bool action_after_close = false;   // "close" or a "set_" action after "close"
};

struct Verdict {
  std::string state;     // "on", "off", "unknown"
  std::string category;  // the root cause's stable name
  int exit = 0;          // the summary's exit status (kExitVerdict*)
  bool closed = false;   // the host closed attention after what the chain says
  std::vector<Cause> chain;
  std::vector<std::string> todo;
  std::vector<std::string> hazards;  // the host's order hazards, named
};

// The summary's exit statuses for its verdict (damage and I/O errors keep
// theirs, 1 to 3, when the verdict finds nothing wrong).
constexpr int kExitVerdictOff = 4;      // attention off, and the records say why
constexpr int kExitVerdictUnknown = 5;  // the records cannot tell

Verdict Decide(const Facts& facts);

}  // namespace logread
