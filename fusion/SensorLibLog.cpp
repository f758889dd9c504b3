#include "SensorLibLog.h"

#include <windows.h>
#include <shlwapi.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

// Constructed closed at module load, destroyed (closing the file) at unload.
std::ofstream SensorLibLogStream;

constexpr char kLibVersion[] = "0.0.0.3";

// Lines of two threads may come out in either order, but two threads must not
// be inside the stream at once: an unsynchronised std::ofstream is a data race
// (seen under test: a line written twice while another thread flushed). The
// lock covers only the stream operations; nothing else is taken under it, and
// it is a static SRW lock, usable from load to unload without set-up.
SRWLOCK g_streamLock = SRWLOCK_INIT;

// Creates `dir` (one level) when it does not exist; false when it cannot be made.
bool EnsureFolder(const char* dir) {
  if (PathIsDirectoryA(dir)) return true;
  return CreateDirectoryA(dir, nullptr) != 0;
}

// Appends `part` to `path` (MAX_PATH characters in all); false when nothing fits.
bool AppendPart(char* path, const char* part) {
  std::size_t used = std::strlen(path);
  if (used >= MAX_PATH - 1) return false;
  int n = std::snprintf(path + used, MAX_PATH - used, "%s", part);
  return n > 0 && static_cast<std::size_t>(n) < MAX_PATH - used;
}

}  // namespace

void SensorLibLogOpen() {
  char path[MAX_PATH] = {};
  DWORD n = ExpandEnvironmentStringsA("%programdata%\\Vantoq\\SensorFusion\\", path, MAX_PATH);
  // A result longer than the buffer (or a failure) leaves no usable path.
  if (n == 0 || n > MAX_PATH) return;
  if (!EnsureFolder(path)) return;
  if (!AppendPart(path, "Logs\\")) return;
  if (!EnsureFolder(path)) return;
  if (!AppendPart(path, "SensorLibLog.log")) return;
  // msvcrt's fopen underneath shares the file for reading and writing. On a
  // stream that is already open, open() fails and sets failbit, which stays:
  // nothing more reaches the file in this process (kept so on purpose).
  AcquireSRWLockExclusive(&g_streamLock);
  SensorLibLogStream.open(path, std::ios::out | std::ios::app);
  if (SensorLibLogStream.is_open() && SensorLibLogStream.good())
    SensorLibLogStream << "Version:" << kLibVersion << std::endl;
  ReleaseSRWLockExclusive(&g_streamLock);
}

void SensorLibLogWrite(const char* format, ...) {
  if (!SensorLibLogStream.is_open()) return;
  SYSTEMTIME t;
  GetLocalTime(&t);
  char prefix[512];
  int p = std::snprintf(prefix, sizeof prefix, "[%02d-%02d-%02d-%02d-%02d:%d]", t.wMonth, t.wDay,
                        t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  if (p <= 0) return;
  char message[2048];
  va_list args;
  va_start(args, format);
  int m = std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
  if (m < 0) message[0] = '\0';
  // The bound is checked on the prefix only; it always holds.
  if (std::strlen(prefix) < sizeof message) {
    AcquireSRWLockExclusive(&g_streamLock);
    SensorLibLogStream << prefix << message << std::endl;
    SensorLibLogStream.flush();
    ReleaseSRWLockExclusive(&g_streamLock);
  }
}
