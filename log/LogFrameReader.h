// Reading side of the ".logdat" framing (see LogFrame.h): an incremental
// decoder that is fed the file's bytes in pieces of any size and hands back
// whole records, plus the guess whether a file is a ".logdat" file or a plain
// text log. No Windows API and no I/O here: the logread tool does the file
// handling, and the same code is what the tests and the fuzzer drive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace logframe {

// Largest record length a frame may announce. A record is one formatted line
// (time, level, thread, source position and one message), and the logger
// deletes its file at 1 MiB, so a real frame is a few hundred bytes at most.
// Anything near this cap is a corrupt length field or a file that is not a
// ".logdat" file at all; without a cap such a length would swallow the rest
// of the file as one "unfinished" frame and the damage would go unreported.
constexpr std::uint32_t kMaxRecordLength = 16u * 1024u * 1024u;

// One decoded record: its text (the logger's UTF-8 bytes, final line feed
// included) and the file offset of the frame that held it.
struct Record {
  std::uint64_t offset = 0;
  std::string text;
};

class FrameDecoder {
 public:
  enum class Status {
    kOk,          // all bytes so far are whole frames or the start of one
    kBadLength,   // a length field above kMaxRecordLength
    kNotARecord,  // a complete frame whose text does not end in a line feed
                  // (an empty frame included: every record ends with one)
  };

  // Decodes `size` more bytes of the file. Every frame completed by them is
  // appended to `records`. After an error the decoder stops: this and later
  // calls append nothing more and return the same error. Records completed
  // before the bad frame in the same call are still appended.
  Status Feed(const void* data, std::size_t size, std::vector<Record>& records);

  // Starts again at offset 0 (a new or truncated file), dropping any partial
  // frame and any error.
  void Reset();

  Status status() const { return status_; }
  // Offset of the frame that is incomplete or bad: where the next record starts.
  std::uint64_t frame_offset() const { return frame_offset_; }
  // Total bytes fed so far.
  std::uint64_t bytes_fed() const { return frame_offset_ + pending_.size(); }

  // A partial frame waits for more bytes: at the end of a file this is a torn
  // frame. pending_bytes() tells how many bytes of it are there, and
  // expected_frame_size() how many the whole frame needs (its header plus the
  // length it announces; 0 while even the 4-byte header is incomplete).
  bool has_partial_frame() const { return status_ == Status::kOk && !pending_.empty(); }
  std::size_t pending_bytes() const { return pending_.size(); }
  std::uint64_t expected_frame_size() const;

  // A one-line English description of the error, naming the offset.
  std::string ErrorMessage() const;

 private:
  Status Fail(Status status);

  Status status_ = Status::kOk;
  std::uint64_t frame_offset_ = 0;
  std::uint32_t bad_length_ = 0;
  // Bytes of the current frame received so far, header included; never more
  // than were fed, so a huge length field cannot make us allocate.
  std::string pending_;
};

// The forms a log file can have: the plug-in's log, framed or plain, and the
// sensor library's plain log.
enum class LogFormat { kLogdat, kPlain, kSensorLib };

enum class Detection {
  kLogdat,     // starts like a frame: small length, complemented text starts with a digit
  kPlain,      // starts like a plain record "MM-DD ..."
  kSensorLib,  // starts like a sensor library line "[MM-DD-..." or its "Version:" line
  kUndecided,  // too few bytes to tell (fewer than 5), but could be any
  kNeither,    // none of the forms: not a log file
};

// Tells the form of a log file from its first bytes. A plain record starts
// with the date "MM-DD"; a frame starts with a little-endian length below the
// cap (so its fourth byte is 0 or 1, never a digit as in "MM-DD") followed by the
// complement of a record, whose first byte is a digit of the date; a sensor
// library log starts with "[MM-D" or "Versi" (of "Version:"), whose fourth byte
// is neither. Five bytes decide; an empty head is kUndecided.
Detection DetectFormat(std::string_view head);

}  // namespace logframe
