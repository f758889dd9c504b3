// Small pieces shared by the action benchmark and the soak: the clock, medians,
// the plug-in loaded through its four exports as a host would, and a way to
// keep the plug-in's console lines out of the figures.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <io.h>
#include <fcntl.h>
#include <string>
#include <vector>

#include "QxPluginLoader.h"

namespace bench {

inline double Seconds() {
  static LARGE_INTEGER frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER c;
  QueryPerformanceCounter(&c);
  return static_cast<double>(c.QuadPart) / static_cast<double>(frequency.QuadPart);
}

inline double Quantile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[static_cast<std::size_t>(q * static_cast<double>(v.size() - 1) + 0.5)];
}
inline double Median(const std::vector<double>& v) { return Quantile(v, 0.5); }

// The plug-in DLL as the host sees it: four exports, nothing else.
struct Plugin : qx_plugin::Exports {
  // `name` is looked up beside the running program.
  bool Load(const wchar_t* name) {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self);
    return qx_plugin::Load(path.substr(0, path.find_last_of(L"\\/") + 1) + name, this).empty();
  }

  // One action as a host runs it: call, read the result, free it.
  std::string Run(const char* name, const char* params = "") {
    char* result = nullptr;
    action(name, params, &result);
    std::string text = result ? result : "";
    release(result);
    return text;
  }
};

// The controller prints three console lines per attention event. Figures go to
// the original standard output; the process's file descriptor 1 (which the
// plug-in's runtime shares) is pointed at NUL, so those lines cost a write to
// a device in the plug-in and in the floor alike, and do not mix with figures.
inline FILE* QuietStdout() {
  std::fflush(stdout);
  const int original = _dup(1);
  const int nul = _open("NUL", _O_WRONLY);
  _dup2(nul, 1);
  _close(nul);
  FILE* out = _fdopen(original, "w");
  setvbuf(out, nullptr, _IONBF, 0);
  return out;
}

}  // namespace bench
