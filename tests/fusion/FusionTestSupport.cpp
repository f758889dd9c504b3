#include "FusionTestSupport.h"

#include <fstream>
#include <iterator>

namespace fusiontest {
namespace {

std::string LogPath()
{
    char path[MAX_PATH];
    ExpandEnvironmentStringsA("%programdata%\\Vantoq\\SensorFusion\\Logs\\SensorLibLog.log", path, MAX_PATH);
    return path;
}

bool Stamped(const std::string& line) { return !line.empty() && line[0] == '['; }

}  // namespace

std::uint64_t LogSize()
{
    WIN32_FILE_ATTRIBUTE_DATA a;
    if (!GetFileAttributesExA(LogPath().c_str(), GetFileExInfoStandard, &a))
        return 0;
    return (static_cast<std::uint64_t>(a.nFileSizeHigh) << 32) | a.nFileSizeLow;
}

std::vector<std::string> LogLinesSince(std::uint64_t offset)
{
    std::ifstream in(LogPath(), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> lines;
    std::size_t at = 0;
    for (std::size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
        lines.push_back(text.substr(at, end - at));
    if (at < text.size())
        lines.push_back(text.substr(at) + "<no CRLF>");
    return lines;
}

std::string Message(const std::string& line)
{
    const std::size_t close = line.find(']');
    return !Stamped(line) || close == std::string::npos ? line : line.substr(close + 1);
}

int CountMessages(const std::vector<std::string>& lines, const std::string& text)
{
    int n = 0;
    for (const auto& l : lines)
        n += Stamped(l) && Message(l) == text;
    return n;
}

int FindMessage(const std::vector<std::string>& lines, const std::string& text, int from)
{
    for (int i = from; i < static_cast<int>(lines.size()); ++i)
        if (Stamped(lines[i]) && Message(lines[i]) == text)
            return i;
    return -1;
}

DWORD RunChild(const std::string& name, DWORD timeoutMs)
{
    // The service's folder, as its installation makes it: the client creates
    // only "SensorFusion\" (one level) and "Logs\".
    char dir[MAX_PATH];
    ExpandEnvironmentStringsA("%programdata%\\Vantoq", dir, MAX_PATH);
    CreateDirectoryA(dir, nullptr);
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring cmd = L"\"" + std::wstring(self) + L"\" --gtest_filter=Child." + std::wstring(name.begin(), name.end());
    SetEnvironmentVariableW(L"FUSION_TEST_CHILD", L"1");
    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    BOOL started = CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
    SetEnvironmentVariableW(L"FUSION_TEST_CHILD", nullptr);
    if (!started)
        return 0xBADu;
    CloseHandle(pi.hThread);
    DWORD code = 0xDEADu;
    if (WaitForSingleObject(pi.hProcess, timeoutMs) == WAIT_OBJECT_0)
        GetExitCodeProcess(pi.hProcess, &code);
    else
        TerminateProcess(pi.hProcess, 0xDEADu);
    CloseHandle(pi.hProcess);
    return code;
}

std::vector<FusionSimCall> CallsOf(int opnum)
{
    std::vector<FusionSimCall> all, some;
    FusionSimReadCalls(&all);
    for (const auto& c : all)
        if (c.opnum == opnum)
            some.push_back(c);
    return some;
}

}  // namespace fusiontest
