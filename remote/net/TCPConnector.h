// A TCP connection made within a limit.
#pragma once

#include <chrono>
#include <string>

#include "platform/foundation/NSError.h"
#include "remote/net/WakeUp.h"

namespace ombra {

// Looks the host up and tries its addresses in the system's order. A connected, non-blocking socket without
// Nagle's delay, or -1 with the error filled: could not resolve, could not connect, or connection lost when
// `wakeUp` was raised.
int connectTCP(const std::string& host, int port, std::chrono::steady_clock::time_point deadline,
               const WakeUp& wakeUp, NSErrorRef* error);

// Waits until `descriptor` is ready for `events` (as poll takes them). False at the deadline or when woken.
bool waitForDescriptor(int descriptor, short events, std::chrono::steady_clock::time_point deadline,
                       const WakeUp& wakeUp);

}  // namespace ombra
