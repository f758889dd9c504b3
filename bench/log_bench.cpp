// Per-record cost of Logger::Write against its floor, with 1, 2 and 4 processes
// writing the same obfuscated file.
//
// The floor is what a record cannot avoid: wait for the named mutex, open the
// file, seek to its end, write a frame of the same size, close, release. A
// second floor adds the reparse-point test and the every-hundredth size check
// that each record must also take. All three loops run in the same run, in
// child processes started together, in rounds whose order turns so that the
// machine's drift hits them alike; the figure is the median
// of the rounds of wall time divided by the records written by all processes.
//
//   log_bench [records-per-process] [rounds]
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "BenchPlugin.h"
#include "LogFrame.h"
#include "Logger.h"

namespace {

constexpr wchar_t kLogSource[] = L"AttentionPlugin.cpp";

std::wstring BenchFile() {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  return std::wstring(temp) + L"qx-log-bench.log";
}

int ChildLogger(int records) {
  Logger::Instance().Setup(nullptr, BenchFile().c_str(), 0x100000, 1, 1);
  HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, L"qx-log-bench-go");
  WaitForSingleObject(go, 30000);
  for (int i = 0; i < records; ++i)
    QX_LOG(LogInfo, 341, L"resp: %s", L"{\"cmd\":\"get_attention\",\"delay\":10,\"status\":2}\n");
  return 0;
}

// `checks`: also the two steps a record must take that the bare floor leaves
// out: the reparse-point test on the path before writing, and the size check
// of every hundredth record.
int ChildFloor(int records, bool checks) {
  // Same mutex and file as the logger's, a frame of a typical record's size.
  const std::wstring path = BenchFile() + L".logdat";
  HANDLE mutex = CreateMutexW(nullptr, FALSE, L"Global\\VQMLOG_qx-log-bench.log.logdat");
  const std::string frame = logframe::EncodeFrame(
      std::string("11-22 10:11:12:123 : [INF][00032] AttentionPlugin.cpp(341) resp: "
                  "{\"cmd\":\"get_attention\",\"delay\":10,\"status\":2}\n\n"));
  HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, L"qx-log-bench-go");
  WaitForSingleObject(go, 30000);
  for (int i = 0; i < records; ++i) {
    WaitForSingleObject(mutex, INFINITE);
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (checks) {
      if ((i + 1) % 100 == 0) {
        HANDLE probe = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        LARGE_INTEGER size = {};
        GetFileSizeEx(probe, &size);
        CloseHandle(probe);
      }
      if (GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) std::exit(3);
    }
    SetFilePointer(file, 0, nullptr, FILE_END);
    DWORD written;
    WriteFile(file, frame.data(), 4, &written, nullptr);
    WriteFile(file, frame.data() + 4, static_cast<DWORD>(frame.size() - 4), &written, nullptr);
    CloseHandle(file);
    ReleaseMutex(mutex);
  }
  return 0;
}

// Runs `processes` children in `role` together; returns seconds per record.
double Round(const char* role, int processes, int records) {
  DeleteFileW((BenchFile() + L".logdat").c_str());
  HANDLE go = CreateEventW(nullptr, TRUE, FALSE, L"qx-log-bench-go");
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::vector<HANDLE> children;
  for (int p = 0; p < processes; ++p) {
    std::wstring command = L"\"" + std::wstring(self) + L"\" --child " +
                           std::wstring(role, role + strlen(role)) + L" " +
                           std::to_wstring(records);
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi;
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si,
                        &pi)) {
      std::fprintf(stderr, "cannot start a child: %lu\n", GetLastError());
      std::exit(1);
    }
    CloseHandle(pi.hThread);
    children.push_back(pi.hProcess);
  }
  Sleep(500 + 100 * processes);  // let every child reach the start line
  const double start = bench::Seconds();
  SetEvent(go);
  WaitForMultipleObjects(static_cast<DWORD>(children.size()), children.data(), TRUE, INFINITE);
  const double elapsed = bench::Seconds() - start;
  for (HANDLE h : children) CloseHandle(h);
  CloseHandle(go);
  return elapsed / (static_cast<double>(processes) * records);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && std::string(argv[1]) == "--child") {
    const int records = std::atoi(argv[3]);
    const std::string role = argv[2];
    return role == "logger" ? ChildLogger(records) : ChildFloor(records, role == "checks");
  }
  const int records = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
  std::printf(
      "Logger::Write per record, obfuscated file, size check on; %d records per process, "
      "median of %d rounds\n",
      records, rounds);
  std::printf("%-10s %12s %12s %8s %6s  %18s %8s\n", "processes", "write (us)", "floor (us)",
              "ratio", "1.10x", "floor+checks (us)", "ratio");
  for (int processes : {1, 2, 4}) {
    std::vector<double> write, floor, checks;
    for (int r = 0; r < rounds; ++r) {
      // The order turns every round so that no kind always follows another.
      const char* order[3] = {"floor", "logger", "checks"};
      std::rotate(order, order + r % 3, order + 3);
      for (const char* role : order) {
        const double t = Round(role, processes, records);
        (std::string(role) == "floor"    ? floor
         : std::string(role) == "logger" ? write
                                         : checks)
            .push_back(t);
      }
    }
    const double w = bench::Median(write) * 1e6, f = bench::Median(floor) * 1e6,
                 c = bench::Median(checks) * 1e6;
    std::printf("%-10d %12.1f %12.1f %8.3f %6s  %18.1f %8.3f\n", processes, w, f, w / f,
                w / f <= 1.10 ? "met" : "MISS", c, w / c);
  }
  DeleteFileW((BenchFile() + L".logdat").c_str());
  return 0;
}
