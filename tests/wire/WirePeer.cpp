#include "WirePeer.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace wire {
namespace {

// Packet types of the connection-oriented protocol.
enum : std::uint8_t {
    kRequest = 0,
    kResponse = 2,
    kFault = 3,
    kBind = 11,
    kBindAck = 12,
    kBindNak = 13,
    kAlterContext = 14,
    kAlterContextResp = 15,
    kAuth3 = 16,
};
constexpr std::uint8_t kFirstFrag = 0x01, kLastFrag = 0x02, kObjectUuid = 0x80;
constexpr std::size_t kHeaderSize = 16;
constexpr std::uint16_t kOurMaxFrag = 4280;
constexpr std::uint32_t kNcaOpRangeError = 0x1c010002;
// bind_nak reason: the peer implements no authentication service.
constexpr std::uint16_t kAuthTypeNotRecognized = 8;
// p_cont_def_result_t and its provider reason.
constexpr std::uint16_t kAcceptance = 0, kProviderRejection = 2, kTransferSyntaxNotSupported = 2;

std::uint16_t Get16(const Bytes& b, std::size_t at) { return static_cast<std::uint16_t>(b[at] | b[at + 1] << 8); }
std::uint32_t Get32(const Bytes& b, std::size_t at)
{
    return static_cast<std::uint32_t>(b[at]) | static_cast<std::uint32_t>(b[at + 1]) << 8 |
           static_cast<std::uint32_t>(b[at + 2]) << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}
void Put16(Bytes& b, std::uint16_t v)
{
    b.push_back(static_cast<std::uint8_t>(v));
    b.push_back(static_cast<std::uint8_t>(v >> 8));
}
void Put32(Bytes& b, std::uint32_t v)
{
    Put16(b, static_cast<std::uint16_t>(v));
    Put16(b, static_cast<std::uint16_t>(v >> 16));
}

// Common header with frag_length left 0 (Finish fills it in); no auth_verifier.
Bytes Header(std::uint8_t ptype, std::uint32_t callId)
{
    Bytes b = {5, 0, ptype, kFirstFrag | kLastFrag, 0x10, 0, 0, 0, 0, 0, 0, 0};
    Put32(b, callId);
    return b;
}
Bytes& Finish(Bytes& b)
{
    b[8] = static_cast<std::uint8_t>(b.size());
    b[9] = static_cast<std::uint8_t>(b.size() >> 8);
    return b;
}

// p_syntax_id_t: a UUID in little-endian NDR form, then the version (major in
// the low 16 bits, minor in the high 16 bits).
std::string SyntaxId(const Bytes& b, std::size_t at)
{
    char text[64];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x v%u.%u", Get32(b, at),
                  Get16(b, at + 4), Get16(b, at + 6), b[at + 8], b[at + 9], b[at + 10], b[at + 11], b[at + 12],
                  b[at + 13], b[at + 14], b[at + 15], Get16(b, at + 16), Get16(b, at + 18));
    return text;
}

bool WaitIo(HANDLE pipe, OVERLAPPED* ov, HANDLE stop, DWORD* bytes, DWORD* error)
{
    HANDLE events[2] = {ov->hEvent, stop};
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0) {
        CancelIo(pipe);
        GetOverlappedResult(pipe, ov, bytes, TRUE);
        *error = ERROR_OPERATION_ABORTED;
        return false;
    }
    *error = GetOverlappedResult(pipe, ov, bytes, FALSE) ? ERROR_SUCCESS : GetLastError();
    return *error == ERROR_SUCCESS || *error == ERROR_MORE_DATA;
}

}  // namespace

Bytes FromHex(const std::string& text)
{
    Bytes out;
    std::string digits;
    for (char c : text)
        if (c != ' ')
            digits += c;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string ToHex(const Bytes& bytes)
{
    std::string out;
    char two[3];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i && i % 4 == 0)
            out += ' ';
        std::snprintf(two, sizeof two, "%02x", bytes[i]);
        out += two;
    }
    return out;
}

std::string Offer::Describe() const
{
    std::ostringstream s;
    s << (ptype == kBind ? "bind" : "alter_context");
    for (const Context& c : contexts) {
        s << " ctx " << c.id << ": " << c.abstractSyntax << " [";
        for (std::size_t i = 0; i < c.transferSyntaxes.size(); ++i)
            s << (i ? ", " : "") << c.transferSyntaxes[i];
        s << "]";
    }
    if (authenticated)
        s << " auth type " << int(authType) << " level " << int(authLevel) << " (" << authLength
          << " bytes: " << ToHex(authValue) << ")";
    else
        s << " no auth";
    return s.str();
}

Reply Reply::Parse(const std::string& text)
{
    Reply r;
    if (text.rfind("fault ", 0) == 0) {
        r.kind = kFault;
        r.status = static_cast<std::uint32_t>(std::stoul(text.substr(6), nullptr, 16));
    } else if (text.rfind("cut ", 0) == 0) {
        r.kind = kCut;
        std::size_t end = 0;
        r.cutAt = std::stoul(text.substr(4), &end);
        r.stub = FromHex(text.substr(4 + end));
    } else {
        r.stub = FromHex(text);
    }
    return r;
}

bool Peer::Start(const std::wstring& name)
{
    path_ = L"\\\\.\\pipe\\" + name;
    first_ = CreateNamedPipeW(path_.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                              PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                              65536, 65536, 0, nullptr);
    if (first_ == INVALID_HANDLE_VALUE)
        return false;
    stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    listener_ = std::thread(&Peer::Listen, this);
    return true;
}

void Peer::Stop()
{
    if (!stop_)
        return;
    SetEvent(stop_);
    listener_.join();
    for (std::thread& t : servers_)
        t.join();
    servers_.clear();
    CloseHandle(stop_);
    stop_ = nullptr;
}

void Peer::Queue(const Reply& reply)
{
    std::lock_guard<std::mutex> hold(mutex_);
    replies_.push_back(reply);
}

std::vector<Offer> Peer::Offers() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return offers_;
}

std::vector<Request> Peer::Requests() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return requests_;
}

std::vector<std::string> Peer::Errors() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return errors_;
}

int Peer::Connections() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return connections_;
}

void Peer::Error(const std::string& text)
{
    std::lock_guard<std::mutex> hold(mutex_);
    errors_.push_back(text);
}

// One instance waits for a client at a time; each client gets its own thread,
// and a new instance is made for the next.
void Peer::Listen()
{
    HANDLE pipe = first_;
    OVERLAPPED ov{};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    for (;;) {
        if (pipe == INVALID_HANDLE_VALUE) {
            pipe = CreateNamedPipeW(path_.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                    PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                                    65536, 65536, 0, nullptr);
            if (pipe == INVALID_HANDLE_VALUE) {
                Error("CreateNamedPipe failed: " + std::to_string(GetLastError()));
                break;
            }
        }
        ResetEvent(ov.hEvent);
        bool connected = ConnectNamedPipe(pipe, &ov) != FALSE;
        DWORD error = connected ? ERROR_SUCCESS : GetLastError();
        if (error == ERROR_IO_PENDING) {
            DWORD bytes = 0;
            connected = WaitIo(pipe, &ov, stop_, &bytes, &error);
        } else if (error == ERROR_PIPE_CONNECTED) {
            connected = true;
        }
        if (!connected) {
            CloseHandle(pipe);
            if (error != ERROR_OPERATION_ABORTED)
                Error("ConnectNamedPipe failed: " + std::to_string(error));
            break;
        }
        {
            std::lock_guard<std::mutex> hold(mutex_);
            ++connections_;
        }
        servers_.emplace_back(&Peer::Serve, this, pipe);
        pipe = INVALID_HANDLE_VALUE;
    }
    CloseHandle(ov.hEvent);
}

// Reads bytes as they come (a PDU may span reads, or a read several PDUs) and
// handles every complete PDU, until the client closes or the peer stops.
void Peer::Serve(HANDLE pipe)
{
    OVERLAPPED ov{};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    Bytes stream;
    Request pending;
    bool open = true;
    while (open) {
        std::uint8_t chunk[8192];
        ResetEvent(ov.hEvent);
        DWORD bytes = 0, error = ERROR_SUCCESS;
        if (!ReadFile(pipe, chunk, sizeof chunk, nullptr, &ov)) {
            error = GetLastError();
            if (error != ERROR_IO_PENDING && error != ERROR_MORE_DATA)
                break;
        }
        if (!WaitIo(pipe, &ov, stop_, &bytes, &error))
            break;
        stream.insert(stream.end(), chunk, chunk + bytes);
        while (open && stream.size() >= kHeaderSize) {
            const std::size_t length = Get16(stream, 8);
            if (length < kHeaderSize) {
                Error("frag_length " + std::to_string(length));
                open = false;
                break;
            }
            if (stream.size() < length)
                break;
            Bytes pdu(stream.begin(), stream.begin() + length);
            stream.erase(stream.begin(), stream.begin() + length);
            open = Handle(pipe, pdu, &pending);
        }
    }
    if (open)
        DisconnectNamedPipe(pipe);
    CloseHandle(pipe);
    CloseHandle(ov.hEvent);
}

bool Peer::Send(HANDLE pipe, const Bytes& pdu)
{
    OVERLAPPED ov{};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    DWORD bytes = 0, error = ERROR_SUCCESS;
    bool ok = WriteFile(pipe, pdu.data(), static_cast<DWORD>(pdu.size()), nullptr, &ov) != FALSE;
    if (!ok && GetLastError() == ERROR_IO_PENDING)
        ok = WaitIo(pipe, &ov, stop_, &bytes, &error);
    else if (ok)
        ok = GetOverlappedResult(pipe, &ov, &bytes, FALSE) != FALSE;
    CloseHandle(ov.hEvent);
    return ok;
}

// Handles one PDU; false when the connection is to be closed.
bool Peer::Handle(HANDLE pipe, const Bytes& pdu, Request* pending)
{
    const std::uint8_t ptype = pdu[2], flags = pdu[3];
    const std::uint16_t authLength = Get16(pdu, 10);
    const std::uint32_t callId = Get32(pdu, 12);
    if (pdu[0] != 5 || pdu[1] != 0 || pdu[4] != 0x10) {
        Error("header " + ToHex(Bytes(pdu.begin(), pdu.begin() + kHeaderSize)));
        return false;
    }
    // The auth_verifier trailer, when there is one: 8 bytes of sec_trailer
    // (auth_type, auth_level, auth_pad_length, reserved, context id) and the
    // credentials; the pad before it belongs to the body.
    std::size_t bodyEnd = pdu.size();
    std::uint8_t authType = 0, authLevel = 0;
    if (authLength) {
        if (pdu.size() < kHeaderSize + 8u + authLength) {
            Error("auth_length " + std::to_string(authLength));
            return false;
        }
        const std::size_t trailer = pdu.size() - authLength - 8;
        authType = pdu[trailer];
        authLevel = pdu[trailer + 1];
        bodyEnd = trailer - std::min<std::size_t>(pdu[trailer + 2], trailer);
    }

    if (ptype == kBind || ptype == kAlterContext) {
        // max_xmit_frag, max_recv_frag, assoc_group_id, then p_cont_list_t.
        if (bodyEnd < 28) {
            Error("short bind");
            return false;
        }
        Offer offer;
        offer.ptype = ptype;
        offer.authenticated = authLength != 0;
        offer.authType = authType;
        offer.authLevel = authLevel;
        offer.authLength = authLength;
        if (authLength)
            offer.authValue.assign(pdu.end() - authLength, pdu.end());
        const std::uint16_t maxXmit = Get16(pdu, 16), maxRecv = Get16(pdu, 18);
        const std::uint32_t group = Get32(pdu, 20);
        const std::size_t count = pdu[24];
        std::size_t at = 28;
        Bytes results;
        for (std::size_t i = 0; i < count; ++i) {
            if (at + 24 > bodyEnd) {
                Error("short presentation context");
                return false;
            }
            Offer::Context c;
            c.id = Get16(pdu, at);
            const std::size_t syntaxes = pdu[at + 2];
            c.abstractSyntax = SyntaxId(pdu, at + 4);
            at += 24;
            std::size_t ndr20 = 0;
            for (std::size_t s = 0; s < syntaxes && at + 20 <= bodyEnd; ++s, at += 20) {
                c.transferSyntaxes.push_back(SyntaxId(pdu, at));
                if (c.transferSyntaxes.back() == kNdr20)
                    ndr20 = at;
            }
            // p_result_t: result, reason, the accepted transfer syntax.
            Put16(results, ndr20 ? kAcceptance : kProviderRejection);
            Put16(results, ndr20 ? 0 : kTransferSyntaxNotSupported);
            if (ndr20)
                results.insert(results.end(), pdu.begin() + ndr20, pdu.begin() + ndr20 + 20);
            else
                results.insert(results.end(), 20, 0);
            offer.contexts.push_back(c);
        }
        {
            std::lock_guard<std::mutex> hold(mutex_);
            offers_.push_back(offer);
        }
        if (authLength && ptype == kBind) {
            // No authentication service here: refuse the association.
            Bytes nak = Header(kBindNak, callId);
            Put16(nak, kAuthTypeNotRecognized);
            nak.push_back(1);  // versions supported: 5.0
            nak.push_back(5);
            nak.push_back(0);
            return Send(pipe, Finish(nak));
        }
        Bytes ack = Header(ptype == kBind ? kBindAck : kAlterContextResp, callId);
        Put16(ack, std::min(maxRecv, kOurMaxFrag));
        Put16(ack, std::min(maxXmit, kOurMaxFrag));
        std::uint32_t assoc = group;
        if (!assoc) {
            std::lock_guard<std::mutex> hold(mutex_);
            assoc = nextAssocGroup_++;
        }
        Put32(ack, assoc);
        // sec_addr: the port the client reached (none in alter_context_resp),
        // then padding to 4.
        const std::string port = ptype == kBind ? "\\PIPE\\Vantoq.SensorFusion.EndPoint_edc08f" : "";
        Put16(ack, static_cast<std::uint16_t>(port.empty() ? 0 : port.size() + 1));
        if (!port.empty()) {
            ack.insert(ack.end(), port.begin(), port.end());
            ack.push_back(0);
        }
        while (ack.size() % 4)
            ack.push_back(0);
        ack.push_back(static_cast<std::uint8_t>(count));
        ack.insert(ack.end(), 3, 0);
        ack.insert(ack.end(), results.begin(), results.end());
        return Send(pipe, Finish(ack));
    }

    if (ptype == kRequest) {
        // alloc_hint, p_cont_id, opnum, [object UUID], stub data.
        std::size_t at = 24 + ((flags & kObjectUuid) ? 16 : 0);
        if (bodyEnd < at) {
            Error("short request");
            return false;
        }
        if (flags & kFirstFrag) {
            *pending = Request();
            pending->opnum = Get16(pdu, 22);
            pending->flags = flags;
            pending->authLength = authLength;
        }
        pending->stub.insert(pending->stub.end(), pdu.begin() + at, pdu.begin() + bodyEnd);
        if (!(flags & kLastFrag))
            return true;
        const std::uint16_t context = Get16(pdu, 20);
        Reply reply;
        reply.kind = Reply::kFault;
        reply.status = kNcaOpRangeError;
        {
            std::lock_guard<std::mutex> hold(mutex_);
            requests_.push_back(*pending);
            if (!replies_.empty()) {
                reply = replies_.front();
                replies_.pop_front();
            }
        }
        Bytes out = Header(reply.kind == Reply::kFault ? kFault : kResponse, callId);
        Put32(out, reply.kind == Reply::kFault ? 0 : static_cast<std::uint32_t>(reply.stub.size()));
        Put16(out, context);
        out.push_back(0);  // cancel_count
        out.push_back(0);
        if (reply.kind == Reply::kFault) {
            Put32(out, reply.status);
            Put32(out, 0);
        } else {
            out.insert(out.end(), reply.stub.begin(), reply.stub.end());
        }
        Finish(out);
        if (reply.kind == Reply::kCut) {
            out.resize(std::min(reply.cutAt, out.size()));
            Send(pipe, out);
            return false;
        }
        return Send(pipe, out);
    }

    if (ptype != kAuth3)
        Error("unexpected PDU type " + std::to_string(ptype));
    return true;
}

}  // namespace wire
