// The plug-in's lifecycle as a host must keep it: qx_plugin_init once, then
// the action "init", then any actions, and "close" last. qxhost checks every
// run against it and warns, so that integrators find the breaches in their
// own scripts. No Windows API here.
#pragma once

#include <string>
#include <vector>

namespace qxhost {

class Lifecycle {
 public:
  // qx_plugin_init has been called.
  void PluginInit() { pluginInit_ = true; }

  // Records that the action `name` runs now; returns what it breaks (empty
  // when it keeps the lifecycle): an action before qx_plugin_init, "init"
  // again without "close" in between, any action or "close" after "close".
  std::vector<std::string> Action(const std::string& name);

 private:
  enum class State { NotStarted, Started, Closed };
  bool pluginInit_ = false;
  State state_ = State::NotStarted;
};

}  // namespace qxhost
