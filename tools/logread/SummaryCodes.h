// What the codes in the records mean: the Windows and RPC error codes of the
// fusion client's exception and binding lines, InitFusion's result codes, the
// results of the client's remote calls, the service's status words, and what
// to do about a code at the root of a chain of causes.
#pragma once

#include <string>

namespace logread::codes {

// "0x6ba": the low 32 bits in hexadecimal.
std::string Hex(long long code);
// The meaning of an {"error_code":n} answer.
std::string ErrorCodeName(long long code);
// The result of a remote call of the fusion client (starting, stopping, the
// delay, leaving), as the plug-in logs it.
std::string RemoteName(long long value);
// The status word of the service's status query.
std::string StatusName(long long value);
// What to do about a code of the RPC runtime at the root of a chain.
std::string ErrorAdvice(long long code);
// The meaning of a Windows error code as the fusion client's exception and
// binding lines carry it ("" when it is not one of those the client meets).
std::string ErrorName(long long code);
// The meaning of a result code of the fusion client's InitFusion.
std::string InitFusionName(long long code);

// The classes of the RPC runtime's codes that tell a root cause apart.
enum class ErrorClass { kRights, kAuthentication, kNoAnswer, kVersion, kOther };
ErrorClass Classify(long long code);

}  // namespace logread::codes
