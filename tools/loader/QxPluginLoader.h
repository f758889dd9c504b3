// Loads the plug-in DLL and finds its four exports, typed as qx_plugin.h
// declares them: the one loader of qxhost, the tests and the benchmarks.
#pragma once

#include <windows.h>

#include <string>

#include "qx_plugin.h"

namespace qx_plugin {

struct Exports {
  HMODULE module = nullptr;
  qx_plugin_new_fn create = nullptr;
  qx_plugin_init_fn init = nullptr;
  qx_plugin_action_fn action = nullptr;
  qx_plugin_delete_fn release = nullptr;
};

// GetProcAddress answers a generic function pointer; the cast goes through
// void* so that the compiler does not warn about the signature change.
template <typename Fn>
bool Find(HMODULE module, const char* name, Fn* out) {
  *out = reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
  return *out != nullptr;
}

// Takes the four exports of a loaded module (null: not loaded). Empty when
// all four were found, else what went wrong.
inline std::string Take(HMODULE module, Exports* out) {
  out->module = module;
  if (!module) return "cannot load the DLL (error " + std::to_string(GetLastError()) + ")";
  if (!Find(module, "qx_plugin_new", &out->create)) return "no export qx_plugin_new";
  if (!Find(module, "qx_plugin_init", &out->init)) return "no export qx_plugin_init";
  if (!Find(module, "qx_plugin_action", &out->action)) return "no export qx_plugin_action";
  if (!Find(module, "qx_plugin_delete", &out->release)) return "no export qx_plugin_delete";
  return "";
}
// Loads the DLL at `path` (a full path, so that no search finds another copy).
inline std::string Load(const std::wstring& path, Exports* out) {
  return Take(LoadLibraryW(path.c_str()), out);
}
inline std::string Load(const std::string& ansiPath, Exports* out) {
  return Take(LoadLibraryA(ansiPath.c_str()), out);
}

}  // namespace qx_plugin
