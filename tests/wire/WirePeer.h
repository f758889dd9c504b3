// A raw DCE/RPC connection-oriented server on a named pipe, written from the
// protocol and from nothing generated; any PDU but a bind or request is an error.
#pragma once

#include <windows.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wire {

using Bytes = std::vector<std::uint8_t>;
std::string ToHex(const Bytes& bytes);  // a blank after every 4 bytes

class Peer {
 public:
  ~Peer() { Stop(); }
  // Fails when another server owns \\.\pipe\<name>.
  bool Start(const std::wstring& name);
  void Stop();  // one thread still running 30 s later ends the process
  // Replies, handed out in the order requests arrive: "HEX" a response whose
  // stub data is HEX; "fault XXXXXXXX" a fault PDU with that status; "cut N
  // HEX" the response for HEX cut to its first N bytes, then the connection
  // closed. With none left: a fault (nca_s_op_rng_error).
  void Queue(const std::string& reply) {
    std::lock_guard<std::mutex> hold(mutex_);
    replies_.push_back(reply);
  }

  // binds: "bind ctx ID: ABSTRACT [TRANSFER, ...]", then " auth type T level
  // L token HEX" (the credentials' first 12 bytes); requests: "OPNUM: STUB";
  // errors: protocol faults. Get copies one.
  using Seen = std::vector<std::string>;
  Seen Get(const Seen& list) {
    std::lock_guard<std::mutex> hold(mutex_);
    return list;
  }
  Seen binds, requests, errors;

 private:
  void Spawn(std::function<void()> body);
  bool Io(HANDLE pipe, bool read, void* data, DWORD size, DWORD* done);
  bool Send(HANDLE pipe, Bytes pdu, std::size_t cutAt = SIZE_MAX);
  void Listen(HANDLE pipe);
  void Serve(HANDLE pipe);
  bool Handle(HANDLE pipe, const Bytes& pdu);
  void Error(const std::string& text);

  std::wstring path_;
  HANDLE stop_ = nullptr;  // set: every thread ends
  std::vector<std::thread> threads_;
  int running_ = 0;
  std::condition_variable ended_;
  std::mutex mutex_;
  std::deque<std::string> replies_;
  std::uint32_t nextGroup_ = 0x5151;
};

}  // namespace wire
