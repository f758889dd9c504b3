#include "Lifecycle.h"

namespace qxhost {

std::vector<std::string> Lifecycle::Action(const std::string& name) {
  const bool known = name == "ability" || name == "init" || name == "close" ||
                     name == "get_attention" || name == "set_attention_status" ||
                     name == "set_attention_delay";
  std::vector<std::string> breaches;
  const std::string quoted = "\"" + name + "\"";
  if (!pluginInit_) breaches.push_back("action " + quoted + " before qx_plugin_init");
  if (!known) return breaches;
  switch (state_) {
    case State::NotStarted:
      // Before "init": "get_attention" answers -1; "ability" without the
      // machine-wide cache fixes the ability at 0 for the process and stores
      // status 0; "set_attention_status" stores 0; the rest does nothing.
      if (name == "ability" && !machineAbilityCached_)
        breaches.push_back(
            "\"ability\" before \"init\" without the machine-wide \"attention__ability\": the "
            "ability stays 0 for the process");
      else if (name != "init" && name != "get_attention" && name != "ability")
        breaches.push_back("action " + quoted + " before \"init\"");
      break;
    case State::Started:
      if (name == "init") breaches.push_back("\"init\" again without \"close\" in between");
      break;
    case State::Closed:
      // A second "close" and the "set_" actions reach the closed event thread's
      // stale handle value or the released connection.
      if (name == "close")
        breaches.push_back("\"close\" after \"close\"");
      else if (name != "init" && name != "get_attention" && name != "ability")
        breaches.push_back("action " + quoted + " after \"close\"");
      break;
  }
  // A new "init" starts over: what follows it is checked against it.
  if (name == "init") state_ = State::Started;
  if (name == "close") state_ = State::Closed;
  return breaches;
}

}  // namespace qxhost
