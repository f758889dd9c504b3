// The fusion client's own text log, "SensorLibLog.log" in the "Logs\" subfolder
// of the expanded "%programdata%\Vantoq\SensorFusion\". One process-wide narrow
// output file stream, closed at load; SensorLibLogOpen opens it (the first call
// of a process only: opening an open stream fails and puts it into its failed
// state, so a second InitFusion silences the log for the rest of the process).
// Each line: "[MM-DD-hh-mm-ss:ms]" + message, flushed at once. Lines of two
// threads written at the same moment come out in either order; a small lock
// inside keeps the stream itself consistent (see SensorLibLog.cpp).
#pragma once

#include <cstdio>  // __MINGW_PRINTF_FORMAT: the C99 formats of std::vsnprintf

void SensorLibLogOpen();
void SensorLibLogWrite(const char* format, ...)
    __attribute__((format(__MINGW_PRINTF_FORMAT, 1, 2)));
