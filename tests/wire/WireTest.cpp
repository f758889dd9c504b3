// What crosses the pipe, judged by a raw DCE/RPC peer (WirePeer.h) instead of
// the simulator. Each scenario below runs in a fresh child of this program (the
// fusion client's state is process-wide): the child makes the calls of its
// steps and prints what it got back; this process plays the service on the
// pipe and then compares, by hand-written hex, every request the client sent
// and the answer of every step, the binds, and the sensor library log.
//
// Written from the wire contract alone: the pipe, the interface UUID and the
// attention event's name are spelled out here again, and the bytes follow the
// procedures' parameter lists (NDR 2.0: little-endian longs; a conformant byte
// array is its count, the bytes, and padding to 4 before the next long).
#include "FusionClient.h"
#include "SensorLibLog.h"
#include "TestSupport.h"
#include "WirePeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <type_traits>

using namespace testsupport;

namespace {

constexpr wchar_t kPipe[] = L"Vantoq.SensorFusion.EndPoint_edc08f";
constexpr char kInterface[] = "7745c01b-9375-4881-9ab5-bbc087ec41f5 v1.0";
constexpr wchar_t kAttentionEvent[] = L"Global\\Vantoq.SensorFusion.AttentionEVENT";

// What the child does, and what it reports (all numbers in hex):
//   open-log, register            (nothing)
//   bind, InitFusion, UnInitial   result
//   StartFusion P, SetFusionDelay V (decimal), SensorDataCallback ID   result
//   GetFusionStatus, GetFusionDelay, GetSensorData ID
//                                 result, then the out buffer's bytes up to the
//                                 last one that changed (the buffer is 64 bytes
//                                 of 0xcc; a reply must change at most 4 of them)
//   signal                        sets the attention event as the service would
//   wait-callback N               sensor id and the first N bytes of the record
//                                 the waiting thread passed to the callback
//   callback N                    the same for a callback made on this thread
//                                 (by SensorDataCallback): no waiting
//   load DLL                      qx_plugin_init's result
//   action NAME [PARAMS]          qx_plugin_action's result and answer text
//   wait-host                     the host callback's five arguments
struct Step {
    const char* call;
    const char* answer;
};

// One request as the client must send it (opnum, stub data) and the peer's
// reply (WirePeer.h: stub data, "fault STATUS" or "cut N STUB").
struct Exchange {
    int opnum;
    const char* request;
    const char* reply;
};

struct Scenario {
    const char* name;
    std::vector<Step> steps;
    std::vector<Exchange> wire;
    // Sensor library log: the whole of it in order, or, when a waiting thread
    // writes too, the lines of each thread as an ordered subsequence ("*" at
    // the end of a line matches any rest). Either way the number of exception
    // lines must be exactly the number given here.
    std::vector<const char*> log;
    std::vector<const char*> threadLog = {};
    bool threads = false;
    // Every bind's authentication: "" for none, else its type, level and the
    // first 12 bytes of its credentials.
    const char* auth = "";
};

const char kNoLine[] = "";
const char kBadStubData[] = "Runtime reported exception 0x6f7 = 1783";

const std::vector<Scenario>& Scenarios()
{
    static const std::vector<Scenario> all = {
        {"status word",
         {{"open-log", ""}, {"bind", "0"}, {"GetFusionStatus", "0 01000010"}, {"GetFusionStatus", "0 00000010"},
          {"GetFusionStatus", "0 00000000"}},
         {{4, "06000000 04000000", "04000000 01000010 00000000"},
          {4, "06000000 04000000", "04000000 00000010 00000000"},
          {4, "06000000 04000000", "04000000 00000000 00000000"}},
         {"Version:0.0.0.3", "268435457", "268435456", "0"}},

        {"delay",
         {{"open-log", ""}, {"bind", "0"}, {"SetFusionDelay 42", "0"}, {"GetFusionDelay", "0 2a000000"},
          {"SetFusionDelay 60", "30000020"}, {"GetFusionDelay", "60000006 00000000"}},
         {{2, "06000000 04000000 04000000 2a000000", "00000000"},
          {6, "06000000 04000000", "04000000 2a000000 00000000"},
          {2, "06000000 04000000 04000000 3c000000", "20000030"},
          {6, "06000000 04000000", "04000000 00000000 06000060"}},
         {"Version:0.0.0.3"}},

        // Records of every size SensorDataCallback fetches that is not 4: 34
        // bytes (two bytes of padding before the result), 12, and none at all.
        {"record sizes",
         {{"open-log", ""}, {"bind", "0"}, {"register", ""}, {"SensorDataCallback 5", "0"},
          {"callback 34", "5 00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f 2021"},
          {"SensorDataCallback 31", "0"}, {"callback 12", "1f a1a2a3a4 b1b2b3b4 c1c2c3c4"},
          {"SensorDataCallback 7", "0"}, {"callback 0", "7 null"}},
         {{1, "05000000 22000000",
           "22000000 00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f 20210000 00000000"},
          {1, "1f000000 0c000000", "0c000000 a1a2a3a4 b1b2b3b4 c1c2c3c4 00000000"},
          {1, "07000000 00000000", "00000000 00000000"}},
         {"Version:0.0.0.3", "SensorDataCallback,id 5", kNoLine, "SensorDataCallback,end", kNoLine,
          "SensorDataCallback,id 31", kNoLine, "SensorDataCallback,end", kNoLine, "SensorDataCallback,id 7",
          kNoLine, "SensorDataCallback,end", kNoLine}},

        // The event threads: set-up, a signal fetched by the waiting thread,
        // GetSensorData's own sizes, stop, and the goodbye with the bits left.
        {"event thread",
         {{"register", ""},
          {"InitFusion", "0"},
          {"StartFusion 1", "0"},
          {"StartFusion 2", "0"},
          {"signal", ""},
          {"wait-callback 4", "6 78563412"},
          {"GetSensorData 6", "0"},
          {"GetSensorData 3", "2"},
          {"StartFusion 0", "0"},
          {"UnInitial", "0"}},
         {{0, "40000000", "00000000"},
          {3, "06000000 01000000", "00000000"},
          {1, "06000000 04000000", "04000000 78563412 00000000"},
          {1, "06000000 00000000", "00000000 00000000"},
          {3, "06000000 00000000", "00000000"},
          {5, "00000000", "00000000"}},
         {"Version:0.0.0.3", "InitFusion:FusionMask: 0x40", "FusionSetting Mask 0x40",
          "start fusion 6,Param 1,64", "start fusion 6,mask 64,64", "start fusion 6,Param 2,64",
          "start fusion 6,Param 0,64", "start fusion 6,mask 64,64", "UnInitial,FusionStatus:0",
          "UnInitial,FusionMask:0"},
         {"GetSensorDataProc:index 6,FusionFlag 6", "Event!Event occur: *", "SensorDataCallback,id 6",
          "SensorDataCallback,end", "Thread exit 6"},
         true},

        // Replies that break the contract: each call ends in result 1 with one
        // exception line and the caller's buffer untouched, and the next call
        // works again.
        {"bad replies",
         {{"open-log", ""},
          {"bind", "0"},
          {"GetFusionStatus", "1"},  // conformance 8 for a size of 4, and 8 bytes
          {"GetFusionStatus", "1"},  // conformance 2
          {"GetFusionDelay", "1"},   // conformance 0
          {"GetFusionStatus", "1"},  // the result missing
          {"GetFusionDelay", "1"},   // a fault PDU
          {"SetFusionDelay 10", "1"},  // the response cut short, the pipe closed
          {"register", ""},
          {"SensorDataCallback 6", "1"},  // conformance 8 on the event path: no callback
          {"callback 4", "none"},
          {"GetFusionStatus", "0 01000010"}},
         {{4, "06000000 04000000", "08000000 01000010 aaaaaaaa 00000000"},
          {4, "06000000 04000000", "02000000 01000000 00000000"},
          {6, "06000000 04000000", "00000000 00000000"},
          {4, "06000000 04000000", "04000000 01000010"},
          {6, "06000000 04000000", "fault 00000032"},
          {2, "06000000 04000000 04000000 0a000000", "cut 20 00000000"},
          {1, "06000000 04000000", "08000000 78563412 aaaaaaaa 00000000"},
          {4, "06000000 04000000", "04000000 01000010 00000000"}},
         {"Version:0.0.0.3", "GetFusionStatus::Runtime reported exception 0x6f7 = 1783", kNoLine,
          "GetFusionStatus::Runtime reported exception 0x6f7 = 1783", kNoLine, kBadStubData, kNoLine,
          "GetFusionStatus::Runtime reported exception 0x6f7 = 1783", kNoLine,
          "Runtime reported exception 0x32 = 50", kNoLine, "Runtime reported exception 0x6be = 1726", kNoLine,
          kBadStubData, kNoLine, "268435457"}},

        // A host's session through the exports of the test DLL: "init" (the
        // net.exe commands find no service and change nothing), the status and
        // the delay, a look-away, "close". No stored values: status 1, delay 10.
        {"host session",
         {{"load QXAttentionPlugin-noauth.dll", "0"},
          {"action init", "0 "},
          {"action set_attention_status {\"F4010\":{\"status\":2}}",
           "0 {\"cmd\":\"get_attention\",\"delay\":10,\"status\":2}\\n"},
          {"action set_attention_delay {\"F4010\":{\"delay\":30}}",
           "0 {\"cmd\":\"get_attention\",\"delay\":30,\"status\":2}\\n"},
          {"action get_attention", "0 {\"cmd\":\"get_attention\",\"delay\":30,\"status\":2}\\n"},
          {"signal", ""},
          {"wait-host", "BIGDATA|BIGDATA|{\"action\":\"SA0004\",\"type\":\"Report\"}\\n|0|0"},
          {"action close", "0 "}},
         {{0, "40000000", "00000000"},                              // InitFusion
          {4, "06000000 04000000", "04000000 00000010 00000000"},  // ability: stopped
          {3, "06000000 00000000", "00000000"},                    // set-up's stop
          {3, "06000000 00000000", "00000000"},                    // stored status 1: stop
          {2, "06000000 04000000 04000000 0a000000", "00000000"},  // stored delay 10
          {3, "06000000 01000000", "00000000"},                    // status 2: start
          {2, "06000000 04000000 04000000 1e000000", "00000000"},  // delay 30
          {1, "06000000 04000000", "04000000 00000000 00000000"},  // looked away
          {5, "40000000", "00000000"}},                            // close
         {"Version:0.0.0.3", "InitFusion:FusionMask: 0x40", "FusionSetting Mask 0x40", "268435456",
          "UnInitial,FusionMask:64"},
         {"Event!Event occur: *", "SensorDataCallback,id 6", "SensorDataCallback,end"},
         true},
        // The shipped DLL's binding asks for packet privacy over NTLM. The peer
        // implements no authentication and refuses the bind (bind_nak, reason
        // 8: authentication type not recognised): no request reaches a
        // procedure, "init" and "close" each fail with one exception line,
        // and the host sees attention unsupported.
        {"shipped binding",
         {{"load QXAttentionPlugin.dll", "0"},
          {"action init", "0 "},
          {"action get_attention", "0 {\"cmd\":\"get_attention\",\"delay\":10,\"status\":0}\\n"},
          {"action close", "0 "}},
         {},
         {"InitFusion:FusionMask: 0x40", "FusionSetting Mask 0x40", "Runtime reported exception 0x6d3 = 1747",
          "UnInitial,FusionMask:0", "Runtime reported exception 0x6d3 = 1747"},
         {},
         true,
         "type 10 level 6 token 4e544c4d 53535000 01000000"},
    };
    return all;
}

const Scenario* Find(const std::string& name)
{
    for (const Scenario& s : Scenarios())
        if (name == s.name)
            return &s;
    return nullptr;
}

// ---- the child: makes the calls ---------------------------------------------

struct Capture {
    HANDLE done = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::int32_t id = -1;
    bool null = false;
    unsigned char record[64];
} g_capture;

void OnSensorData(void*, std::int32_t id, void* data)
{
    g_capture.id = id;
    g_capture.null = data == nullptr;
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
    std::ostringstream s;
    s << kind << '|' << name << '|' << json << '|' << reserved << '|' << flags;
    g_host.text = s.str();
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

// The result and the bytes of `out` that the call changed.
std::string WithOut(std::int32_t result, const unsigned char* out, std::size_t size)
{
    std::size_t changed = size;
    while (changed && out[changed - 1] == 0xcc)
        --changed;
    std::string text = Hex(static_cast<std::uint32_t>(result));
    if (changed)
        text += " " + wire::ToHex(wire::Bytes(out, out + changed));
    return text;
}

std::string Escaped(const std::string& s)
{
    std::string out;
    for (char c : s)
        out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return out;
}

std::string RunStep(const std::string& line)
{
    std::istringstream in(line);
    std::string call, arg;
    in >> call;
    std::getline(in >> std::ws, arg);
    unsigned char out[64];
    std::memset(out, 0xcc, sizeof out);
    auto number = [&] { return static_cast<std::int32_t>(std::stol(arg)); };

    if (call == "open-log") {
        SensorLibLogOpen();
        return "";
    }
    if (call == "register") {
        RegisterSensorDataCallback(OnSensorData, nullptr);
        return "";
    }
    if (call == "bind")
        return Hex(BindFusionService());
    if (call == "InitFusion")
        return Hex(InitFusion());
    if (call == "UnInitial")
        return Hex(UnInitial());
    if (call == "StartFusion")
        return Hex(StartFusion(nullptr, static_cast<std::uint32_t>(number())));
    if (call == "SensorDataCallback")
        return Hex(SensorDataCallback(number()));
    if (call == "SetFusionDelay") {
        const std::uint32_t delay = static_cast<std::uint32_t>(number());
        return Hex(SetFusionDelay(nullptr, &delay));
    }
    if (call == "GetFusionStatus") {
        const std::int32_t r = GetFusionStatus(nullptr, reinterpret_cast<std::uint32_t*>(out));
        return WithOut(r, out, sizeof out);
    }
    if (call == "GetFusionDelay") {
        const std::int32_t r = GetFusionDelay(nullptr, reinterpret_cast<std::uint32_t*>(out));
        return WithOut(r, out, sizeof out);
    }
    if (call == "GetSensorData") {
        const std::int32_t r = GetSensorData(number(), out);
        return WithOut(r, out, sizeof out);
    }
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
        return Hex(static_cast<std::uint32_t>(g_capture.id)) + " " +
               wire::ToHex(wire::Bytes(g_capture.record, g_capture.record + number()));
    }
    if (call == "load") {
        HMODULE dll = LoadLibraryW((ExeDir() + Widen(arg)).c_str());
        if (!dll)
            return "no DLL";
        auto get = [dll](auto& fn, const char* name) {
            fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(
                reinterpret_cast<void*>(GetProcAddress(dll, name)));
        };
        get(g_plugin.init, "qx_plugin_init");
        get(g_plugin.action, "qx_plugin_action");
        get(g_plugin.free, "qx_plugin_delete");
        return std::to_string(g_plugin.init(nullptr, OnHost));
    }
    if (call == "action") {
        const std::size_t blank = arg.find(' ');
        const std::string name = arg.substr(0, blank);
        const std::string params = blank == std::string::npos ? "" : arg.substr(blank + 1);
        char* result = nullptr;
        const int r = g_plugin.action(name.c_str(), params.empty() ? nullptr : params.c_str(), &result);
        std::string text = std::to_string(r) + " " + Escaped(result ? result : "(null)");
        g_plugin.free(result);
        return text;
    }
    if (call == "wait-host")
        return WaitForSingleObject(g_host.done, 10000) == WAIT_OBJECT_0 ? Escaped(g_host.text) : "none";
    return "unknown step " + call;
}

int RunScenario(const std::string& name)
{
    const Scenario* s = Find(name);
    if (!s)
        return 3;
    for (std::size_t i = 0; i < s->steps.size(); ++i) {
        const std::string answer = RunStep(s->steps[i].call);
        std::printf("answer %zu %s\n", i, answer.c_str());
        std::fflush(stdout);
    }
    return 0;
}

// ---- the parent: the peer and the judgement ---------------------------------

std::vector<std::string> Lines(const std::string& text, const char* end)
{
    std::vector<std::string> lines;
    std::size_t at = 0;
    for (std::size_t e; (e = text.find(end, at)) != std::string::npos; at = e + std::strlen(end))
        lines.push_back(text.substr(at, e - at));
    return lines;
}

std::string Message(const std::string& line)
{
    const std::size_t close = line.find(']');
    return line.empty() || line[0] != '[' || close == std::string::npos ? line : line.substr(close + 1);
}

bool Matches(const std::string& message, const std::string& expected)
{
    if (!expected.empty() && expected.back() == '*')
        return message.compare(0, expected.size() - 1, expected, 0, expected.size() - 1) == 0;
    return message == expected;
}

// `expected` (non-empty lines) appears in `log` in this order.
bool InOrder(const std::vector<std::string>& log, const std::vector<const char*>& expected, std::string* missing)
{
    std::size_t at = 0;
    for (const char* e : expected) {
        if (!*e)
            continue;
        while (at < log.size() && !Matches(log[at], e))
            ++at;
        if (at == log.size()) {
            *missing = e;
            return false;
        }
        ++at;
    }
    return true;
}

struct Outcome {
    int exitCode = -1;
    std::vector<std::string> answers;
    std::vector<wire::Request> requests;
    std::vector<wire::Offer> offers;
    std::vector<std::string> errors;
    std::vector<std::string> log;  // messages of the sensor library log
};

// Runs one scenario's child against a fresh peer and a fresh log folder.
Outcome Play(const Scenario& s)
{
    Outcome o;
    const std::wstring data = TempDir(L"wire-data");
    CreateDirectoryW((data + L"\\Vantoq").c_str(), nullptr);
    const std::wstring out = TempDir(L"wire-out") + L"\\stdout.txt";

    wire::Peer peer;
    if (!peer.Start(kPipe)) {
        ADD_FAILURE() << "another server owns the pipe";
        return o;
    }
    for (const Exchange& e : s.wire)
        peer.Queue(wire::Reply::Parse(e.reply));
    // The service's attention event (auto-reset, as the client never resets it).
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, kAttentionEvent);

    SetEnvironmentVariableW(L"ProgramData", data.c_str());
    o.exitCode = WaitChild(StartSelf(L"scenario", {Widen(s.name)}, out), 120000);
    SetEnvironmentVariableW(L"ProgramData", nullptr);
    peer.Stop();
    CloseHandle(event);

    const std::string printed = ReadFileBytes(out);
    for (std::string line : Lines(printed, "\n")) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();  // the child's stdout is in text mode
        std::istringstream in(line);
        std::string word;
        std::size_t index = 0;
        if (in >> word >> index && word == "answer") {
            std::string rest;
            std::getline(in, rest);
            o.answers.resize(std::max(o.answers.size(), index + 1));
            o.answers[index] = rest.empty() ? rest : rest.substr(1);
        }
    }
    o.requests = peer.Requests();
    o.offers = peer.Offers();
    o.errors = peer.Errors();
    for (const std::string& line :
         Lines(ReadFileBytes(data + L"\\Vantoq\\SensorFusion\\Logs\\SensorLibLog.log"), "\r\n"))
        o.log.push_back(Message(line));
    return o;
}

// Every bind: one presentation context, the interface 1.0, NDR 2.0 only
// (NDR64 is not offered; see docs/fusion-client.md), and the authentication
// the scenario names.
void CheckOffers(const Scenario& s, const Outcome& o)
{
    EXPECT_FALSE(o.offers.empty());
    for (const wire::Offer& b : o.offers) {
        SCOPED_TRACE(b.Describe());
        ASSERT_EQ(1u, b.contexts.size());
        EXPECT_EQ(kInterface, b.contexts[0].abstractSyntax);
        EXPECT_EQ(std::vector<std::string>{wire::kNdr20}, b.contexts[0].transferSyntaxes);
        std::string auth;
        if (b.authenticated)
            auth = "type " + std::to_string(b.authType) + " level " + std::to_string(b.authLevel) + " token " +
                   wire::ToHex(wire::Bytes(b.authValue.begin(), b.authValue.begin() +
                                                                    std::min<std::size_t>(12, b.authValue.size())));
        EXPECT_EQ(s.auth, auth);
    }
}

void Judge(const Scenario& s)
{
    SCOPED_TRACE(s.name);
    const Outcome o = Play(s);
    EXPECT_EQ(0, o.exitCode) << "the child crashed, hung or failed";
    EXPECT_TRUE(o.errors.empty()) << o.errors.front();
    CheckOffers(s, o);

    // Client to service: every request, byte for byte, in order.
    std::vector<std::string> sent, want;
    for (const wire::Request& r : o.requests)
        sent.push_back(std::to_string(r.opnum) + ": " + wire::ToHex(r.stub));
    for (const Exchange& e : s.wire)
        want.push_back(std::to_string(e.opnum) + ": " + e.request);
    EXPECT_EQ(want, sent);

    // Service to client: what each step made of its reply.
    ASSERT_EQ(s.steps.size(), o.answers.size());
    for (std::size_t i = 0; i < s.steps.size(); ++i)
        EXPECT_EQ(s.steps[i].answer, o.answers[i]) << "step " << i << ": " << s.steps[i].call;

    int exceptions = 0, wanted = 0;
    for (const std::string& m : o.log)
        exceptions += m.find("Runtime reported exception") != std::string::npos;
    for (const char* m : s.log)
        wanted += std::strstr(m, "Runtime reported exception") != nullptr;
    EXPECT_EQ(wanted, exceptions) << "exception lines";
    if (!s.threads) {
        EXPECT_EQ(std::vector<std::string>(s.log.begin(), s.log.end()), o.log);
    } else {
        std::string missing;
        EXPECT_TRUE(InOrder(o.log, s.log, &missing)) << "not in the log, or out of order: " << missing;
        EXPECT_TRUE(InOrder(o.log, s.threadLog, &missing)) << "not in the log, or out of order: " << missing;
    }
}

void DeleteStoredState()
{
    RegDeleteKeyValueW(HKEY_CURRENT_USER, L"SOFTWARE\\Vantoq\\Quillomatic", L"attention_state");
    RegDeleteKeyValueW(HKEY_CURRENT_USER, L"SOFTWARE\\Vantoq\\Quillomatic", L"attention_delay");
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Vantoq\\Quillomatic", L"attention__ability");
}

TEST(Wire, Wrappers)
{
    for (const char* name : {"status word", "delay", "record sizes"})
        Judge(*Find(name));
}

TEST(Wire, EventThread)
{
    Judge(*Find("event thread"));
}

TEST(Wire, BadRepliesFailCleanly)
{
    Judge(*Find("bad replies"));
}

TEST(Wire, HostSessionThroughTheExports)
{
    // "init" starts the service with net.exe: none may be registered, or it
    // would serve the pipe beside the peer.
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    SC_HANDLE service = manager ? OpenServiceW(manager, L"VantoqSensorFusion", SERVICE_QUERY_STATUS) : nullptr;
    if (service)
        CloseServiceHandle(service);
    if (manager)
        CloseServiceHandle(manager);
    ASSERT_EQ(nullptr, service) << "the service VantoqSensorFusion is installed in this prefix";
    DeleteStoredState();
    Judge(*Find("host session"));
    DeleteStoredState();
}

TEST(Wire, ShippedBindingAsksForPacketPrivacy)
{
    DeleteStoredState();
    Judge(*Find("shipped binding"));
    DeleteStoredState();
}

}  // namespace

int main(int argc, char** argv)
{
    SetArgs(argc, argv);
    if (argc >= 4 && std::string(argv[1]) == "--role" && std::string(argv[2]) == "scenario")
        return RunScenario(argv[3]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
