// A raw DCE/RPC connection-oriented server on a named pipe, written from the
// protocol itself (common header, bind, bind_ack, bind_nak, alter_context,
// alter_context_resp, request, response, fault) and from nothing generated:
// it knows no interface compiler, no stub and no format string. It accepts a
// presentation context that offers NDR 2.0, records what every bind offered
// (transfer syntaxes, authentication) and every request (opnum, stub bytes),
// and answers each request with the next reply it was given, built by hand.
#pragma once

#include <windows.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wire {

using Bytes = std::vector<std::uint8_t>;

// "06000000 04000000" -> bytes; blanks are ignored.
Bytes FromHex(const std::string& text);
// Bytes as lowercase hex, a blank after every 4 bytes: "06000000 04000000".
std::string ToHex(const Bytes& bytes);

constexpr char kNdr20[] = "8a885d04-1ceb-11c9-9fe8-08002b104860 v2.0";

// What one bind or alter_context offered.
struct Offer {
    std::uint8_t ptype = 0;  // 11 bind, 14 alter_context
    struct Context {
        std::uint16_t id = 0;
        std::string abstractSyntax;                // "uuid vMAJOR.MINOR"
        std::vector<std::string> transferSyntaxes;  // same form
    };
    std::vector<Context> contexts;
    bool authenticated = false;  // an auth_verifier followed the body
    std::uint8_t authType = 0, authLevel = 0;
    std::uint16_t authLength = 0;
    Bytes authValue;  // the credentials (for NTLM, its NEGOTIATE message)
    std::string Describe() const;
};

struct Request {
    std::uint16_t opnum = 0;
    std::uint8_t flags = 0;  // pfc_flags of the (first) fragment
    std::uint16_t authLength = 0;
    Bytes stub;
};

// How the peer answers one request.
//   "HEX"            a response whose stub data is HEX
//   "fault XXXXXXXX" a fault PDU with that status (hex)
//   "cut N HEX"      the response for HEX cut to its first N bytes, then the
//                    connection closed
struct Reply {
    enum Kind { kResponse, kFault, kCut } kind = kResponse;
    Bytes stub;
    std::uint32_t status = 0;
    std::size_t cutAt = 0;
    static Reply Parse(const std::string& text);
};

class Peer {
public:
    Peer() = default;
    ~Peer() { Stop(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Creates the first instance of \\.\pipe\<name> (fails when another server
    // already owns the name) and starts listening.
    bool Start(const std::wstring& name);
    void Stop();

    // Replies are handed out in the order requests arrive, one each. A request
    // with no reply left gets a fault (nca_s_op_rng_error).
    void Queue(const Reply& reply);

    std::vector<Offer> Offers() const;
    std::vector<Request> Requests() const;
    std::vector<std::string> Errors() const;  // protocol faults the peer saw
    int Connections() const;

private:
    void Listen();
    void Serve(HANDLE pipe);
    bool Handle(HANDLE pipe, const Bytes& pdu, Request* pending);
    bool Send(HANDLE pipe, const Bytes& pdu);
    void Error(const std::string& text);

    std::wstring path_;
    HANDLE first_ = INVALID_HANDLE_VALUE;
    HANDLE stop_ = nullptr;
    std::thread listener_;
    std::vector<std::thread> servers_;
    mutable std::mutex mutex_;
    std::deque<Reply> replies_;
    std::vector<Offer> offers_;
    std::vector<Request> requests_;
    std::vector<std::string> errors_;
    int connections_ = 0;
    std::uint32_t nextAssocGroup_ = 0x5151;
};

}  // namespace wire
