#include "Lifecycle.h"

namespace qxhost {

std::vector<std::string> Lifecycle::Action(const std::string& name) {
  std::vector<std::string> breaches;
  const std::string quoted = "\"" + name + "\"";
  if (!pluginInit_) breaches.push_back("action " + quoted + " before qx_plugin_init");
  if (state_ == State::Closed)
    breaches.push_back(name == "close" ? "\"close\" after \"close\""
                                       : "action " + quoted + " after \"close\"");
  else if (name == "init" && state_ == State::Started)
    breaches.push_back("\"init\" again without \"close\" in between");
  // A new "init" starts over: what follows it is checked against it.
  if (name == "init") state_ = State::Started;
  if (name == "close") state_ = State::Closed;
  return breaches;
}

}  // namespace qxhost
