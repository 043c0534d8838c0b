#include "remote/net/WakeUp.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace ombra {

WakeUp::WakeUp() : iDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

WakeUp::~WakeUp() {
  if (iDescriptor >= 0) close(iDescriptor);
}

void WakeUp::raise() {
  iIsRaised.store(true);
  const uint64_t one = 1;
  // The counter can only be full, and then it is readable already.
  [[maybe_unused]] const ssize_t count = write(iDescriptor, &one, sizeof(one));
}

}  // namespace ombra
