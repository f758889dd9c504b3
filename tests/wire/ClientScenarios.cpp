// The fusion client run through the scenarios of a file (one GoogleTest case
// each), against the raw DCE/RPC peer of WirePeer.h, against fusion-sim, or
// against nothing. Each scenario runs in a fresh child of this program (the
// client's state is process-wide) with a fresh %ProgramData%: the child makes
// the calls of its steps and prints what each gave back; this process plays
// or starts the service, then compares every answer, every request the client
// sent (peer: byte for byte) or call the simulator recorded, every bind and
// the sensor library log. The file format: tests/wire/peer.txt.
//
//   client_scenarios FILE [GoogleTest options]
#include "FusionClient.h"
#include "FusionClientState.h"
#include "FusionSimCtl.h"
#include "SensorLibLog.h"
#include "TestSupport.h"
#include "WirePeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

using namespace testsupport;

namespace {

// Spelt out again from the wire contract.
constexpr wchar_t kPipe[] = L"Vantoq.SensorFusion.EndPoint_edc08f";
constexpr wchar_t kAttentionEvent[] = L"Global\\Vantoq.SensorFusion.AttentionEVENT";
constexpr char kBind[] =
    "bind ctx 0: 7745c01b-9375-4881-9ab5-bbc087ec41f5 v1.0 [8a885d04-1ceb-11c9-9fe8-08002b104860 v2.0]";

struct Scenario {
    std::string name, service = "none", auth;
    std::vector<std::string> calls, answers, requests, replies, simCalls, log, threadLog, counts;
    bool threads = false, unordered = false;
};

// "x<2046>" in an expected line stands for 2046 x's.
std::string Expand(std::string text)
{
    static const std::regex repeat("(.)<([0-9]+)>");
    for (std::smatch m; std::regex_search(text, m, repeat);)
        text.replace(m.position(), m.length(), std::stoul(m[2]), m.str(1)[0]);
    return text;
}

std::vector<Scenario> Load(const std::string& path)
{
    std::vector<Scenario> all;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        line.erase(0, line.find_first_not_of(' '));
        const std::string word = line.substr(0, line.find(' '));
        const std::string rest = Expand(line.size() > word.size() ? line.substr(word.size() + 1) : "");
        const std::size_t bar = rest.find(" | ");
        const std::string left = rest.substr(0, bar), right = bar == std::string::npos ? "" : rest.substr(bar + 3);
        if (word.empty() || word[0] == '#')
            continue;
        if (word == "==") {
            all.emplace_back().name = rest;
            continue;
        }
        if (all.empty())
            return ADD_FAILURE() << path << ": no \"== NAME\" before " << line, all;
        Scenario& s = all.back();
        const std::map<std::string, std::vector<std::string>*> lists = {
            {"call", &s.simCalls}, {"log", &s.log}, {"thread", &s.threadLog}, {"count", &s.counts}};
        if (word == "service" || word == "auth")
            (word == "service" ? s.service : s.auth) = rest;
        else if (word == "step" || word == "pipe")
            (word == "step" ? s.calls : s.requests).push_back(left), (word == "step" ? s.answers : s.replies).push_back(right);
        else if (lists.count(word))
            lists.at(word)->push_back(rest);
        else if (word == "threads" || word == "unordered")
            (word == "threads" ? s.threads : s.unordered) = true;
        else
            ADD_FAILURE() << path << ": unknown line " << line;
        s.threads = s.threads || word == "thread";
    }
    return all;
}

// ---- the child: makes the calls ---------------------------------------------

struct Capture {
    HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::int32_t id = -1;
    bool null = false, eventThread = false;
    unsigned char record[64];
} g_capture;

void OnSensorData(void*, std::int32_t id, void* data)
{
    g_capture.id = id;
    g_capture.null = data == nullptr;
    g_capture.eventThread = g_fusion.threadHandles[6] && GetThreadId(g_fusion.threadHandles[6]) == GetCurrentThreadId();
    if (data)
        std::memcpy(g_capture.record, data, sizeof g_capture.record);
    SetEvent(g_capture.done);
}

struct HostCall {
    HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::string text;
} g_host;

int OnHost(const char* kind, const char* name, const char* json, std::uintptr_t reserved, std::int32_t flags)
{
    g_host.text = std::string(kind) + '|' + name + '|' + json + '|' + std::to_string(reserved) + '|' +
                  std::to_string(flags);
    SetEvent(g_host.done);
    return 0;
}

struct Plugin {
    int (*init)(void*, decltype(&OnHost)) = nullptr;
    int (*action)(const char*, const char*, char**) = nullptr;
    void (*free)(void*) = nullptr;
} g_plugin;

std::string Hex(std::uint32_t v)
{
    char text[16];
    std::snprintf(text, sizeof text, "%x", v);
    return text;
}

std::string Escaped(std::string s)
{
    for (std::size_t at; (at = s.find('\n')) != std::string::npos;)
        s.replace(at, 1, "\\n");
    return s;
}

HANDLE g_watched, g_spawned;  // the last waiting thread seen; a call on a thread of its own

// What one step (see peer.txt) gives back.
std::string RunStep(const std::string& line)
{
    std::istringstream in(line);
    std::string call, arg;
    in >> call;
    std::getline(in >> std::ws, arg);
    unsigned char out[64];
    std::memset(out, 0xcc, sizeof out);
    const auto number = [&](int base = 10) { return static_cast<std::int32_t>(std::stoul(arg, nullptr, base)); };
    // The result, then the bytes of `out` up to the last one the call changed.
    const auto withOut = [&](std::int32_t result) {
        std::size_t changed = sizeof out;
        while (changed && out[changed - 1] == 0xcc)
            --changed;
        return Hex(result) + (changed ? " " + wire::ToHex(wire::Bytes(out, out + changed)) : "");
    };
    const auto u32 = reinterpret_cast<std::uint32_t*>(out);

    if (call == "open-log")
        return SensorLibLogOpen(), "";
    if (call == "register")
        return RegisterSensorDataCallback(OnSensorData, nullptr), "";
    if (call == "bind")
        return Hex(BindFusionService());
    if (call == "InitFusion")
        return Hex(InitFusion());
    if (call == "UnInitial")
        return Hex(UnInitial());
    if (call == "StartFusion")
        return Hex(StartFusion(nullptr, number()));
    if (call == "SensorDataCallback")
        return Hex(SensorDataCallback(number()));
    if (call == "SetFusionDelay") {
        const std::uint32_t delay = number();
        return Hex(SetFusionDelay(nullptr, &delay));
    }
    if (call == "GetFusionStatus")
        return withOut(GetFusionStatus(nullptr, u32));
    if (call == "GetFusionDelay")
        return withOut(GetFusionDelay(nullptr, u32));
    if (call == "GetSensorData")
        return withOut(GetSensorData(number(), out));
    if (call == "state") {  // the mask, whether the last waiting thread seen has ended, the thread now
        std::string text = Hex(g_fusion.FusionStatus);
        if (g_watched)
            text += WaitForSingleObject(g_watched, 0) == WAIT_OBJECT_0 ? " ended" : " running";
        if (g_watched)
            CloseHandle(g_watched), g_watched = nullptr;
        if (g_fusion.threadHandles[6])
            DuplicateHandle(GetCurrentProcess(), g_fusion.threadHandles[6], GetCurrentProcess(), &g_watched,
                            SYNCHRONIZE, FALSE, 0);
        return text + (g_watched ? " thread" : "");
    }
    if (call == "spawn") {  // GetFusionStatus on a thread of its own
        static std::uint32_t status;
        g_spawned = CreateThread(nullptr, 0, [](void*) -> DWORD { return GetFusionStatus(nullptr, &status); },
                                 nullptr, 0, nullptr);
        return "";
    }
    if (call == "joined")
        return WaitForSingleObject(g_spawned, number()) == WAIT_OBJECT_0 ? "yes" : "no";
    if (call == "signal") {
        HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, kAttentionEvent);
        const bool set = event && SetEvent(event);
        if (event)
            CloseHandle(event);
        return set ? "" : "no event";
    }
    if (call == "wait-callback" || call == "callback") {
        if (WaitForSingleObject(g_capture.done, call == "callback" ? 0 : 10000) != WAIT_OBJECT_0)
            return "none";
        if (g_capture.null)
            return std::to_string(g_capture.id) + " null";
        return Hex(g_capture.id) + " " + wire::ToHex(wire::Bytes(g_capture.record, g_capture.record + number())) +
               (call == "wait-callback" && !g_capture.eventThread ? " not on the waiting thread" : "");
    }
    if (call == "load") {
        HMODULE dll = LoadLibraryW((ExeDir() + Widen(arg)).c_str());
        if (!dll)
            return "no DLL";
        const auto get = [dll](const char* name) { return reinterpret_cast<void*>(GetProcAddress(dll, name)); };
        g_plugin.init = reinterpret_cast<decltype(g_plugin.init)>(get("qx_plugin_init"));
        g_plugin.action = reinterpret_cast<decltype(g_plugin.action)>(get("qx_plugin_action"));
        g_plugin.free = reinterpret_cast<decltype(g_plugin.free)>(get("qx_plugin_delete"));
        return std::to_string(g_plugin.init(nullptr, OnHost));
    }
    if (call == "action") {
        const std::size_t blank = arg.find(' ');
        const std::string params = blank == std::string::npos ? "" : arg.substr(blank + 1);
        char* result = nullptr;
        const int r = g_plugin.action(arg.substr(0, blank).c_str(), params.empty() ? nullptr : params.c_str(), &result);
        const std::string text = result ? Escaped(result) : "(null)";
        g_plugin.free(result);
        return std::to_string(r) + (text.empty() ? "" : " " + text);
    }
    if (call == "wait-host")
        return WaitForSingleObject(g_host.done, 10000) == WAIT_OBJECT_0 ? Escaped(g_host.text) : "none";
    if (call == "sleep")
        return Sleep(number()), "";
    if (call == "env")  // NAME VALUE
        return SetEnvironmentVariableA(arg.substr(0, arg.find(' ')).c_str(), arg.substr(arg.find(' ') + 1).c_str()), "";
    if (call == "write-log") {  // a line of N x's, an E at 2046
        std::string text(number(), 'x');
        text[2046] = 'E';
        return SensorLibLogWrite("%s", text.c_str()), "";
    }
    // The simulator's knobs.
    if (call == "sim-status")
        return FusionSimSetStatus(number(16)) ? "" : "no simulator";
    if (call == "sim-attention")  // the record, then the event signalled
        return FusionSimSetAttention(number(16), true) ? "" : "no simulator";
    if (call == "sim-event")
        return FusionSimDropAttentionEvent(arg == "drop") ? "" : "no simulator";
    if (call == "sim-force")  // OPNUM RESULT
        return FusionSimForceResult(number(), std::stoul(arg.substr(arg.find(' ')), nullptr, 16)) ? "" : "no simulator";
    if (call == "sim-clear")
        return FusionSimClearForced(number()) ? "" : "no simulator";
    return "unknown step " + call;
}

int RunScenario(const std::string& file, const std::string& name)
{
    for (const Scenario& s : Load(file))
        if (s.name == name) {
            for (std::size_t i = 0; i < s.calls.size(); ++i)
                std::printf("answer %zu %s\n", i, RunStep(s.calls[i]).c_str()), std::fflush(stdout);
            return 0;
        }
    return 3;
}

// ---- the parent: the service and the judgement ------------------------------

std::vector<std::string> Lines(const std::string& text, const std::string& end)
{
    std::vector<std::string> lines;
    std::size_t at = 0;
    for (std::size_t e; (e = text.find(end, at)) != std::string::npos; at = e + end.size())
        lines.push_back(text.substr(at, e - at));
    return lines;
}

// An expected line: alternatives separated by " || ", "*" at the end matches
// any rest.
bool Matches(const std::string& message, const std::string& expected)
{
    for (const std::string& e : Lines(expected + " || ", " || "))
        if (e.empty() || e.back() != '*' ? message == e : message.compare(0, e.size() - 1, e, 0, e.size() - 1) == 0)
            return true;
    return false;
}

// The non-empty lines of `expected` appear in `log` in this order; returns
// the first that does not.
std::string Missing(const std::vector<std::string>& log, const std::vector<std::string>& expected)
{
    auto at = log.begin();
    for (const std::string& e : expected) {
        if (e.empty())
            continue;
        at = std::find_if(at, log.end(), [&](const std::string& m) { return Matches(m, e); });
        if (at++ == log.end())
            return e;
    }
    return "";
}

void Judge(const std::string& file, const Scenario& s)
{
    const std::wstring data = TempDir(L"scenario-data");
    CreateDirectoryW((data + L"\\Vantoq").c_str(), nullptr);
    const std::wstring out = TempDir(L"scenario-out") + L"\\stdout.txt";
    for (const wchar_t* value : {L"attention_state", L"attention_delay"})
        RegDeleteKeyValueW(HKEY_CURRENT_USER, L"SOFTWARE\\Vantoq\\Quillomatic", value);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Vantoq\\Quillomatic", L"attention__ability");
    // "init" starts the service with net.exe: none may be registered.
    ASSERT_EQ(0u, FusionSimServiceState()) << "the service is installed in this prefix";
    ASSERT_FALSE(FusionSimWaitReady(0)) << "a simulator is running";

    wire::Peer peer;
    FusionSimProcess sim;
    if (s.service == "peer") {
        for (const std::string& reply : s.replies)
            peer.Queue(reply);
        ASSERT_TRUE(peer.Start(kPipe)) << "another server owns the pipe";
    } else if (s.service.rfind("sim", 0) == 0) {
        ASSERT_TRUE(FusionSimLaunch(Widen(s.service.substr(3)), 20000, &sim));
    }
    // The service's attention event (auto-reset) for the peer: the simulator makes its own.
    HANDLE event = s.service == "peer" ? CreateEventW(nullptr, FALSE, FALSE, kAttentionEvent) : nullptr;
    SetEnvironmentVariableW(L"ProgramData", data.c_str());
    const int exitCode = WaitChild(StartSelf(L"scenario", {Widen(file), Widen(s.name)}, out), 120000);
    SetEnvironmentVariableW(L"ProgramData", nullptr);
    std::vector<FusionSimCall> calls;
    if (sim.process) {
        EXPECT_TRUE(FusionSimReadCalls(&calls));
        FusionSimQuit(10000, &sim);
    }
    peer.Stop();
    if (event)
        CloseHandle(event);
    EXPECT_EQ(0, exitCode) << "the child crashed, hung or failed";

    // What each step gave back.
    std::vector<std::string> answers(s.calls.size(), "(no answer)");
    for (std::string line : Lines(ReadFileBytes(out), "\n")) {
        std::size_t index = 0, end = 0;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();  // the child's stdout is in text mode
        if (line.rfind("answer ", 0) == 0 && (index = std::stoul(line.substr(7), &end)) < answers.size())
            answers[index] = line.substr(std::min(line.size(), 8 + end));
    }
    for (std::size_t i = 0; i < answers.size(); ++i)
        EXPECT_EQ(s.answers[i], answers[i]) << "step " << i << ": " << s.calls[i];

    // Client to service: every request (peer) or call (simulator), in order.
    EXPECT_EQ(std::vector<std::string>(), peer.errors);
    EXPECT_EQ(s.requests, peer.requests);
    for (const std::string& bind : peer.binds)
        EXPECT_EQ(kBind + std::string(s.auth.empty() ? "" : " auth " + s.auth), bind);
    EXPECT_EQ(s.service == "peer", !peer.binds.empty());
    std::vector<std::string> recorded, expected = s.simCalls;
    for (const FusionSimCall& c : calls)
        recorded.push_back(std::to_string(c.opnum) + " " + Hex(c.arg0) + " " + std::to_string(c.arg1) +
                           (c.dataLen ? " " + wire::ToHex(wire::Bytes(c.data, c.data + c.dataLen)) : ""));
    if (s.unordered)
        std::sort(recorded.begin(), recorded.end()), std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, recorded);

    // The sensor library log: stamped lines but the version line; the exact
    // number of exception lines; the expected lines, all of them in order, or
    // when other threads write too, each list as an ordered subsequence.
    std::vector<std::string> log;
    const std::regex stamp(R"(\[\d\d-\d\d-\d\d-\d\d-\d\d:\d{1,3}\](.*))");
    int exceptions = 0, wanted = 0;
    for (const std::string& line : Lines(ReadFileBytes(data + L"\\Vantoq\\SensorFusion\\Logs\\SensorLibLog.log"), "\r\n")) {
        std::smatch m;
        EXPECT_TRUE(line.empty() || line.rfind("Version:", 0) == 0 || std::regex_match(line, m, stamp)) << line;
        log.push_back(m.empty() ? line : m.str(1));
        exceptions += log.back().find("Runtime reported exception") != std::string::npos;
    }
    for (const auto* list : {&s.log, &s.threadLog})
        for (const std::string& e : *list)
            wanted += e.find("Runtime reported exception") != std::string::npos;
    EXPECT_EQ(wanted, exceptions) << "exception lines";
    if (!s.threads) {
        std::vector<std::string> shown = log;
        for (std::size_t i = 0; i < std::min(log.size(), s.log.size()); ++i)
            shown[i] = Matches(log[i], s.log[i]) ? s.log[i] : log[i];
        EXPECT_EQ(s.log, shown);
    }
    std::string all;
    for (const std::string& m : log)
        all += m + "\n";
    for (const auto* list : {&s.log, &s.threadLog})
        EXPECT_EQ("", Missing(log, *list)) << "not in the log, or out of order; the log:\n" << all;
    for (const std::string& c : s.counts) {
        const std::string text = c.substr(c.find(' ') + 1);
        EXPECT_EQ(std::stoi(c), std::count_if(log.begin(), log.end(), [&](auto& m) { return Matches(m, text); }))
            << text;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    SetArgs(argc, argv);
    if (argc >= 5 && std::string(argv[1]) == "--role")
        return RunScenario(argv[3], argv[4]);
    ::testing::InitGoogleTest(&argc, argv);
    if (argc < 2)
        return std::fprintf(stderr, "usage: client_scenarios FILE\n"), 2;
    const std::string file = argv[1];
    for (const Scenario& s : Load(file)) {
        std::string name = s.name;
        std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
        testing::RegisterTest("Scenario", name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                              [file, s]() -> testing::Test* {
                                  struct Case : testing::Test {
                                      std::string file;
                                      Scenario s;
                                      void TestBody() override { Judge(file, s); }
                                  }* c = new Case;
                                  c->file = file;
                                  c->s = s;
                                  return c;
                              });
    }
    return RUN_ALL_TESTS();
}
