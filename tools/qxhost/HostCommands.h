// The command language of qxhost: one command per command-line argument,
// script line or interactive line. No Windows API here.
#pragma once

#include <string>

namespace qxhost {

struct Command {
  enum Kind {
    Nothing,       // empty line or comment
    Action,        // qx_plugin_action(name, params)
    Sleep,         // sleep `ms`
    WaitCallback,  // wait up to `ms` for a host callback (of kind `filter` if set)
    Help,
    Quit,
    Invalid,  // `error` says why
  };
  Kind kind = Nothing;
  std::string name;
  std::string params;
  bool nullParams = false;  // pass a null parameter pointer
  unsigned long ms = 0;
  std::string filter;
  std::string error;
};

// Grammar (leading and trailing blanks are dropped first):
//   # text                      comment
//   sleep MS
//   wait-callback MS [KIND]
//   help | quit | exit
//   NAME                        action with empty parameter text ""
//   NAME=PARAMS | NAME PARAMS   action with PARAMS as parameter text (verbatim)
//   NAME=@null                  action with a null parameter pointer
//   "NAME WITH BLANKS" [PARAMS] quoted action name, taken byte for byte
// The words sleep, wait-callback, help, quit and exit are commands, not action
// names; quote them to send them as actions.
Command ParseCommand(const std::string& line);

// The command summary printed by --help and the interactive "help".
const char* CommandHelp();

// Text with control characters escaped C-style (\n, \r, \t, \xNN), so that
// trailing line feeds and odd bytes in results stay visible. Quotes are kept
// as they are, so JSON stays readable.
std::string Escape(const std::string& text);

}  // namespace qxhost
