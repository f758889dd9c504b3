// Common helpers of the host framework; only the process runner is built.
#pragma once

#include <cstdint>

// Runs `program` with `parameters` (null counts as empty) hidden, through the
// shell; when `wait` is set, waits for it without a time limit. Returns the
// exit code, or 0 when it is not known.
std::uint32_t RunProcess(const wchar_t* program, const wchar_t* parameters, bool wait);
