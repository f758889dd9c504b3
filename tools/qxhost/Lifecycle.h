// The plug-in's lifecycle as a host must keep it (the same contract as the
// comment in qx_plugin.h and "Calling order" in docs/integration.md):
// qx_plugin_init before any action; "init" before any other action, with
// only "get_attention" (and "ability" where the machine-wide ability cache
// answers it) harmless before it; "close" once per "init", and after it only
// "get_attention", "ability" or a new "init". qxhost checks every run against
// it and warns, so that integrators find the breaches in their own scripts.
// No Windows API here.
#pragma once

#include <string>
#include <vector>

namespace qxhost {

class Lifecycle {
 public:
  // qx_plugin_init has been called.
  void PluginInit() { pluginInit_ = true; }

  // The machine-wide ability cache ("attention__ability" in HKLM) is set, so
  // that "ability" before "init" answers from it instead of fixing 0.
  void SetMachineAbilityCached(bool cached) { machineAbilityCached_ = cached; }

  // Records that the action `name` runs now; returns what it breaks (empty
  // when it keeps the lifecycle). Names that are no action of the plug-in
  // change nothing there and are never a breach.
  std::vector<std::string> Action(const std::string& name);

 private:
  enum class State { NotStarted, Started, Closed };
  bool pluginInit_ = false;
  bool machineAbilityCached_ = false;
  State state_ = State::NotStarted;
};

}  // namespace qxhost
