// The name of the machine the agent runs on, used as the dnstap identity of the events of the
// local DNS Server. Thread-safe.
#pragma once

#include <string>

namespace vantrelo::etw {

// The local host name (the DNS host name on Windows). Throws EtwError when the system cannot
// give one.
std::string localHostName();

}  // namespace vantrelo::etw
