// Standard output and standard error of logread: the decoded bytes go out
// unchanged (binary mode on Windows), notes and errors go to standard error
// after what was printed before them, and a write error is remembered so that
// the exit status can report it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace logread {

// Notes are dropped when quiet; errors never are. `name`: the file the text
// is about, or empty.
void SetQuiet(bool quiet);
void Error(const std::string& name, const std::string& text);
void Note(const std::string& name, const std::string& text);
// The notes and errors given so far about `name`, even when quiet (for the
// summary's report of damaged files).
std::vector<std::string> NotesOf(const std::string& name);

// Writes bytes to standard output (nothing more after a write error).
void Emit(std::string_view bytes);
// Flushes; false once any write has failed.
bool FlushOutput();
bool OutputFailed();

// Sets up standard input and output for bytes (no "\n" to "\r\n" on Windows).
void BinaryStdio();

// True when standard output is a terminal that shows ANSI colours (on a
// Windows console this switches its escape-sequence processing on).
bool StdoutIsColourTerminal();

}  // namespace logread
