#include "platform/userfs/DetachedThread.h"

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSThread.h"

namespace ombra {

bool startDetachedThread(const char* name, std::function<void()> body) {
  try {
    std::thread([name, work = std::move(body)] {
      NSThread::setName(name);
      try {
        work();
      } catch (const std::exception& exception) {
        NSLog("{}: the thread ends with an exception: {}", name, exception.what());
      }
    }).detach();
    return true;
  } catch (const std::system_error& exception) {
    NSLog("{}: no thread to be had: {}", name, exception.what());
    return false;
  }
}

}  // namespace ombra
