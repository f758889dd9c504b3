#include "SummaryCodes.h"

#include "ServiceNames.h"

#include <cstdint>
#include <cstdio>

namespace logread::codes {

std::string Hex(long long code) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(code) & 0xFFFFFFFFull);
  return text;
}

// The meaning of an {"error_code":n} answer.
std::string ErrorCodeName(long long code) {
  switch (code) {
    case -3:
      return "the parameters could not be read";
    case 1:
      return "a value out of range";
    case 4:
      return "an unknown action";
    default:
      return "error code " + std::to_string(code);
  }
}

// The result of a remote call of the fusion client (starting, stopping,
// the delay, leaving), as the plug-in logs it.
std::string RemoteName(long long value) {
  switch (static_cast<std::uint32_t>(value)) {
    case 1:
      return "the remote call raised an exception, or there was no binding (the sensor library's "
             "log has the exception's code)";
    case 2:
      return "the attention sensor is not followed (no waiting thread)";
    case 0x10000006u:
      return "the attention event could not be opened (the service is not running, or is another "
             "version)";
    case 0x20000006u:
      return "the attention sensor's waiting thread could not be started";
    case 0x30000020u:
      return "the service could not connect to the sensor";
    case 0x60000006u:
      return "the service refused the request";
    default:
      return "the service's own code " + Hex(value);
  }
}

// The status word of the service's status query.
std::string StatusName(long long value) {
  switch (static_cast<std::uint32_t>(value)) {
    case QX_STATUS_SUPPORTED_STOPPED:
      return "supported, sensing stopped";
    case QX_STATUS_SUPPORTED_ACTIVE:
      return "supported, sensing active";
    case 0:
      return "not supported";
    case 0xFFFFFFFFu:
      return "no answer: the service could not be asked";
    default:
      return "an unknown status " + Hex(value);
  }
}

// What to do about a code of the RPC runtime at the root of a chain.
std::string ErrorAdvice(long long code) {
  switch (static_cast<std::uint32_t>(code)) {
    case 2:
    case 53:
    case 109:
    case 231:
    case 1722:
    case 1726:
    case 1727:
    case 1753:
    case 1820:
      return "start the service: \"net start " QX_SERVICE_NAME
             "\" as administrator (\"sc query " QX_SERVICE_NAME "\" shows its state)";
    case 5:
      return "the service refuses this user: check the service's account and the rights on its "
             "pipe";
    case 1717:
    case 1728:
    case 1734:
    case 1745:
    case 1780:
    case 1783:
      return "install a service of the version the plug-in's sensor library expects";
    case 1747:
    case 1748:
    case 1749:
    case 1825:
      return "the service does not accept the client's authentication (Windows, privacy): check "
             "its version and security settings";
    default:
      return "look the code up (" + std::to_string(code) + ", " + Hex(code) + ")";
  }
}

std::string ErrorName(long long code) {
  switch (static_cast<std::uint32_t>(code)) {
    case 2:
      return "file not found: the service's pipe does not exist (the service is not running)";
    case 5:
      return "access denied";
    case 6:
      return "invalid handle";
    case 53:
      return "network path not found: the service's pipe does not exist";
    case 109:
      return "broken pipe: the service went away during the call";
    case 231:
      return "all pipe instances are busy";
    case 1700:
      return "invalid string binding";
    case 1702:
      return "invalid binding handle";
    case 1717:
      return "interface unknown to the server (another version of the service)";
    case 1722:
      return "server unavailable: nothing answers on the service's pipe";
    case 1723:
      return "server too busy";
    case 1726:
      return "remote procedure call failed (the service ended during the call)";
    case 1727:
      return "remote procedure call failed and did not run";
    case 1728:
      return "RPC protocol error";
    case 1734:
      return "array bounds invalid: the service answered with data of another size (another "
             "version of the service)";
    case 1745:
      return "procedure number out of range (another version of the service)";
    case 1747:
      return "authentication service unknown";
    case 1748:
      return "authentication level unknown";
    case 1749:
      return "invalid authentication identity";
    case 1753:
      return "no endpoint: the service's pipe is not there (the service is not running)";
    case 1780:
      return "null reference pointer";
    case 1783:
      return "the stub received bad data (another version of the service)";
    case 1818:
      return "remote procedure call cancelled";
    case 1820:
      return "communication failure";
    case 1825:
      return "security package error";
    case 0xC0000005u:
      return "access violation";
    default:
      return "";
  }
}

std::string InitFusionName(long long value) {
  const std::uint32_t code = static_cast<std::uint32_t>(value);
  if (code == 1)
    return "the binding to the service failed, or its setting call raised an exception";
  if (code == 0x10000006u)
    return "the attention event could not be opened (the service is not running, or is another "
           "version)";
  if (code >= 0x10000000u && code < 0x10000020u)
    return "the event of sensor " + std::to_string(code - 0x10000000u) + " could not be opened";
  if (code >= 0x20000000u && code < 0x20000020u)
    return "the waiting thread of sensor " + std::to_string(code - 0x20000000u) +
           " could not be started";
  return "the service refused the setting call with its own code " + Hex(code);
}

ErrorClass Classify(long long code) {
  switch (static_cast<std::uint32_t>(code)) {
    case 5:
      return ErrorClass::kRights;
    case 1747:
    case 1748:
    case 1749:
    case 1825:
      return ErrorClass::kAuthentication;
    case 2:
    case 53:
    case 109:
    case 231:
    case 1722:
    case 1726:
    case 1727:
    case 1753:
    case 1820:
      return ErrorClass::kNoAnswer;
    case 1717:
    case 1728:
    case 1734:
    case 1745:
    case 1780:
    case 1783:
      return ErrorClass::kVersion;
    default:
      return ErrorClass::kOther;
  }
}

}  // namespace logread::codes
