#include "WirePeer.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace wire {
namespace {

// Packet types of the connection-oriented protocol, and pfc_flags.
enum : std::uint8_t {
  kRequest = 0,
  kResponse = 2,
  kFault = 3,
  kBind = 11,
  kBindAck = 12,
  kBindNak = 13
};
enum : std::uint8_t { kFirstFrag = 0x01, kLastFrag = 0x02 };
constexpr char kNdr20[] = "8a885d04-1ceb-11c9-9fe8-08002b104860 v2.0";

std::uint16_t Get16(const Bytes& b, std::size_t at) {
  return static_cast<std::uint16_t>(b[at] | b[at + 1] << 8);
}
std::uint32_t Get32(const Bytes& b, std::size_t at) {
  return Get16(b, at) | std::uint32_t{Get16(b, at + 2)} << 16;
}
void Put32(Bytes& b, std::uint32_t v, int bytes = 4) {
  for (int i = 0; i < bytes; ++i) b.push_back(static_cast<std::uint8_t>(v >> 8 * i));
}

// The common header (5.0, one fragment, little-endian, no authentication;
// Send fills in frag_length), then `body`.
Bytes Header(std::uint8_t ptype, std::uint32_t callId, const Bytes& body = {}) {
  Bytes b = {5, 0, ptype, kFirstFrag | kLastFrag, 0x10, 0, 0, 0, 0, 0, 0, 0};
  Put32(b, callId);
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

// p_syntax_id_t: a UUID in little-endian NDR form, then major and minor version.
std::string SyntaxId(const Bytes& b, std::size_t at) {
  char text[64];
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x v%u.%u",
                Get32(b, at), Get16(b, at + 4), Get16(b, at + 6), b[at + 8], b[at + 9], b[at + 10],
                b[at + 11], b[at + 12], b[at + 13], b[at + 14], b[at + 15], Get16(b, at + 16),
                Get16(b, at + 18));
  return text;
}

// "06000000 04000000": pairs of digits, blanks ignored.
Bytes FromHex(const std::string& text) {
  Bytes out;
  for (std::size_t i = 0; (i = text.find_first_not_of(' ', i)) != std::string::npos; i += 2)
    out.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  return out;
}

HANDLE NewInstance(const std::wstring& path, DWORD first) {
  return CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | first,
                          PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, PIPE_UNLIMITED_INSTANCES,
                          65536, 65536, 0, nullptr);
}

}  // namespace

// False when the connection is to be closed.
bool Peer::Send(HANDLE pipe, Bytes pdu, std::size_t cutAt) {
  pdu[8] = static_cast<std::uint8_t>(pdu.size());
  pdu[9] = static_cast<std::uint8_t>(pdu.size() >> 8);
  pdu.resize(std::min(cutAt, pdu.size()));
  DWORD written = 0;
  return Io(pipe, false, pdu.data(), static_cast<DWORD>(pdu.size()), &written) && cutAt == SIZE_MAX;
}

std::string ToHex(const Bytes& bytes) {
  std::string out;
  char two[4];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(two, sizeof two, "%02x", bytes[i]);
    out += (i && i % 4 == 0 ? " " : "") + std::string(two);
  }
  return out;
}

bool Peer::Start(const std::wstring& name) {
  path_ = L"\\\\.\\pipe\\" + name;
  stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  HANDLE first = NewInstance(path_, FILE_FLAG_FIRST_PIPE_INSTANCE);
  if (first == INVALID_HANDLE_VALUE) return false;
  Spawn([this, first] { Listen(first); });
  for (int i = 1; i < 4; ++i) Spawn([this] { Listen(NewInstance(path_, 0)); });
  return true;
}

void Peer::Spawn(std::function<void()> body) {
  std::lock_guard<std::mutex> hold(mutex_);
  ++running_;
  threads_.emplace_back([this, body] {
    body();
    std::lock_guard<std::mutex> hold(mutex_);
    --running_;
    ended_.notify_all();
  });
}

// A thread still running 30 s after the stop event is fatal: it uses this object.
void Peer::Stop() {
  if (!stop_) return;
  SetEvent(stop_);
  std::unique_lock<std::mutex> hold(mutex_);
  if (!ended_.wait_for(hold, std::chrono::seconds(30), [this] { return running_ == 0; })) {
    std::fprintf(stderr, "wire peer: %d thread(s) still running 30 s after the stop\n", running_);
    std::fflush(stderr);
    std::_Exit(3);
  }
  hold.unlock();
  for (std::thread& t : threads_) t.join();
  threads_.clear();
  CloseHandle(stop_);
  stop_ = nullptr;
}

// Waits for the transfer or the stop event. A part of a message counts as read.
bool Peer::Io(HANDLE pipe, bool read, void* data, DWORD size, DWORD* done) {
  OVERLAPPED o = {};
  o.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  BOOL ok =
      read ? ReadFile(pipe, data, size, nullptr, &o) : WriteFile(pipe, data, size, nullptr, &o);
  if (!ok && GetLastError() == ERROR_IO_PENDING) {
    const HANDLE both[] = {o.hEvent, stop_};
    if (WaitForMultipleObjects(2, both, FALSE, INFINITE) != WAIT_OBJECT_0) CancelIo(pipe);
    ok = TRUE;
  }
  ok = ok && (GetOverlappedResult(pipe, &o, done, TRUE) || GetLastError() == ERROR_MORE_DATA);
  CloseHandle(o.hEvent);
  return ok;
}

void Peer::Error(const std::string& text) {
  std::lock_guard<std::mutex> hold(mutex_);
  errors.push_back(text);
}

// Four instances wait at once, so that a client reconnecting after a cut
// reply finds one; each starts a successor as its client comes.
void Peer::Listen(HANDLE pipe) {
  if (pipe == INVALID_HANDLE_VALUE)
    return Error("CreateNamedPipe failed: " + std::to_string(GetLastError()));
  OVERLAPPED o = {};
  o.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  DWORD ignored = 0;
  // ERROR_PIPE_CONNECTED: the client came before ConnectNamedPipe.
  bool connected = ConnectNamedPipe(pipe, &o) || GetLastError() == ERROR_PIPE_CONNECTED;
  if (!connected && GetLastError() == ERROR_IO_PENDING) {
    const HANDLE both[] = {o.hEvent, stop_};
    if (WaitForMultipleObjects(2, both, FALSE, INFINITE) != WAIT_OBJECT_0) CancelIo(pipe);
    connected = GetOverlappedResult(pipe, &o, &ignored, TRUE);
  }
  const DWORD error = GetLastError();
  CloseHandle(o.hEvent);
  if (connected) {
    Spawn([this] { Listen(NewInstance(path_, 0)); });
    return Serve(pipe);
  }
  if (WaitForSingleObject(stop_, 0) != WAIT_OBJECT_0)
    Error("ConnectNamedPipe failed: " + std::to_string(error));
  CloseHandle(pipe);
}

// A PDU may span reads, or a read hold several.
void Peer::Serve(HANDLE pipe) {
  Bytes stream;
  std::uint8_t chunk[8192];
  DWORD got = 0;
  bool open = true;
  while (open && Io(pipe, true, chunk, sizeof chunk, &got)) {
    stream.insert(stream.end(), chunk, chunk + got);
    for (std::size_t length;
         open && stream.size() >= 16 && stream.size() >= (length = Get16(stream, 8));) {
      if (length < 16) Error("frag_length " + std::to_string(length));
      open = length >= 16 && Handle(pipe, Bytes(stream.begin(), stream.begin() + length));
      stream.erase(stream.begin(), stream.begin() + length);
    }
  }
  CloseHandle(pipe);
}

bool Peer::Handle(HANDLE pipe, const Bytes& pdu) {
  const std::uint8_t ptype = pdu[2], flags = pdu[3];
  const std::uint16_t authLength = Get16(pdu, 10);
  const std::uint32_t callId = Get32(pdu, 12);
  if (pdu[0] != 5 || pdu[1] != 0 || pdu[4] != 0x10) return Error("header " + ToHex(pdu)), false;
  // auth_verifier (a bind's, refused): sec_trailer (auth_type, auth_level,
  // pad length, reserved, context id), then the credentials.
  const std::size_t verifier = authLength ? 8u + authLength : 0;
  if (pdu.size() < 16 + verifier) return Error("auth_length " + std::to_string(authLength)), false;
  const std::size_t end = pdu.size() - verifier;
  const std::uint8_t* trailer = authLength ? &pdu[end] : nullptr;

  if (ptype == kBind) {
    // max_xmit_frag, max_recv_frag, assoc_group_id, then p_cont_list_t: per
    // context its id, the count of transfer syntaxes, the abstract syntax
    // and the transfer syntaxes.
    if (end < 28) return Error("short bind"), false;
    std::string offer = "bind";
    Bytes results;
    std::size_t at = 28;
    for (std::size_t i = 0; i < pdu[24]; ++i) {
      const std::size_t syntaxes = at + 24 <= end ? pdu[at + 2] : 0;
      if (at + 24 + 20 * syntaxes > end) return Error("short presentation context"), false;
      offer += " ctx " + std::to_string(Get16(pdu, at)) + ": " + SyntaxId(pdu, at + 4) + " [";
      std::size_t ndr20 = 0;
      for (std::size_t s = 0, syntax = at + 24; s < syntaxes; ++s, syntax += 20) {
        offer += (s ? ", " : "") + SyntaxId(pdu, syntax);
        if (SyntaxId(pdu, syntax) == kNdr20) ndr20 = syntax;
      }
      offer += "]";
      at += 24 + 20 * syntaxes;
      // p_result_t: acceptance with the transfer syntax, or a provider
      // rejection (2, reason 2: transfer syntaxes not supported).
      Put32(results, ndr20 ? 0 : 0x00020002);
      const Bytes syntax = ndr20 ? Bytes(&pdu[ndr20], &pdu[ndr20] + 20) : Bytes(20);
      results.insert(results.end(), syntax.begin(), syntax.end());
    }
    if (trailer) {
      char auth[40];
      std::snprintf(auth, sizeof auth, " auth type %u level %u token ", trailer[0], trailer[1]);
      offer += auth + ToHex(Bytes(trailer + 8, trailer + 8 + std::min<int>(12, authLength)));
    }
    std::lock_guard<std::mutex> hold(mutex_);
    binds.push_back(offer);
    // No authentication service here: bind_nak, reason 8 (authentication
    // type not recognised), protocol versions supported: 5.0.
    if (trailer) return Send(pipe, Header(kBindNak, callId, {8, 0, 1, 5, 0}));
    Bytes ack = Header(kBindAck, callId);
    // The client's fragment sizes, its receive size as ours to send: the
    // PDUs here are small.
    Put32(ack, Get16(pdu, 18), 2);
    Put32(ack, Get16(pdu, 16), 2);
    Put32(ack, Get32(pdu, 20) ? Get32(pdu, 20) : nextGroup_++);
    // sec_addr: the port the client reached, with its NUL; padding to 4; the results.
    const std::string port("\\PIPE\\Vantoq.SensorFusion.EndPoint_edc08f", 42);
    Put32(ack, static_cast<std::uint32_t>(port.size()), 2);
    ack.insert(ack.end(), port.begin(), port.end());
    ack.resize((ack.size() + 3) / 4 * 4);
    Put32(ack, pdu[24]);
    ack.insert(ack.end(), results.begin(), results.end());
    return Send(pipe, ack);
  }

  if (ptype == kRequest) {
    // alloc_hint, p_cont_id, opnum, stub data: in one fragment, as these
    // requests are small, and with no object UUID (no other flag).
    if (end < 24 || flags != (kFirstFrag | kLastFrag))
      return Error("short or fragmented request " + ToHex(pdu)), false;
    std::string reply = "fault 1c010002";  // nca_s_op_rng_error
    {
      std::lock_guard<std::mutex> hold(mutex_);
      requests.push_back(std::to_string(Get16(pdu, 22)) + ": " +
                         ToHex(Bytes(pdu.begin() + 24, pdu.begin() + end)));
      if (!replies_.empty()) reply = replies_.front(), replies_.pop_front();
    }
    // alloc_hint, p_cont_id, cancel_count, reserved; then the stub data, or
    // the fault's status and 4 reserved bytes.
    const bool fault = reply.rfind("fault ", 0) == 0, cut = reply.rfind("cut ", 0) == 0;
    std::size_t cutAt = SIZE_MAX, digits = 0;
    if (cut) cutAt = std::stoul(reply.substr(4), &digits);
    const Bytes data = fault ? Bytes(4) : FromHex(reply.substr(cut ? 4 + digits : 0));
    Bytes out = Header(fault ? kFault : kResponse, callId);
    Put32(out, fault ? 0 : static_cast<std::uint32_t>(data.size()));
    Put32(out, Get16(pdu, 20));
    if (fault) Put32(out, static_cast<std::uint32_t>(std::stoul(reply.substr(6), nullptr, 16)));
    out.insert(out.end(), data.begin(), data.end());
    return Send(pipe, out, cutAt);
  }
  Error("unexpected PDU type " + std::to_string(ptype));
  return true;
}

}  // namespace wire
