#include "platform/foundation/RunLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSLog.h"

namespace ombra {
namespace {

constexpr uint64_t kForever = UINT64_MAX;

void runLogged(const std::function<void()>& work) {
  try {
    work();
  } catch (const KCException& exception) {
    NSLog("work on the event loop ended by {}: {}", KCException::name(), exception.reason());
  } catch (const std::exception& exception) {
    NSLog("work on the event loop ended by an exception: {}", exception.what());
  }
}

}  // namespace

struct RunLoop::State {
  sd_event* event = nullptr;
  int wakeDescriptor = -1;

  Mutex lock;
  std::vector<std::function<void()>> work GUARDED_BY(lock);
  bool ended GUARDED_BY(lock) = false;
  std::optional<int> stopCode GUARDED_BY(lock);

  void wake() const {
    const uint64_t one = 1;
    // A counter that is full already wakes the loop as well.
    [[maybe_unused]] const ssize_t count = ::write(wakeDescriptor, &one, sizeof one);
  }

  void doWork() EXCLUDES(lock) {
    uint64_t ignored = 0;
    [[maybe_unused]] const ssize_t count = ::read(wakeDescriptor, &ignored, sizeof ignored);
    std::vector<std::function<void()>> todo;
    {
      MutexLock held(lock);
      todo.swap(work);
    }
    for (const auto& one : todo) runLogged(one);
  }

  // The code of the stop that was asked for; with it the loop is marked as ended.
  std::optional<int> takeStop() EXCLUDES(lock) {
    MutexLock held(lock);
    std::optional<int> code = stopCode;
    stopCode.reset();
    if (code) {
      ended = true;
      work.clear();
    }
    return code;
  }
};

RunLoop& RunLoop::mainRunLoop() {
  static NeverDestroyed<RunLoop> sLoop;
  return *sLoop;
}

RunLoop::RunLoop() : iState(std::make_unique<State>()) {
  iState->wakeDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  int result = iState->wakeDescriptor < 0 ? -errno : sd_event_new(&iState->event);
  if (result >= 0) {
    result = sd_event_add_io(
        iState->event, nullptr, iState->wakeDescriptor, EPOLLIN,
        [](sd_event_source*, int, uint32_t, void* state) {
          static_cast<State*>(state)->doWork();
          return 0;
        },
        iState.get());
  }
  if (result < 0) throw KCException(fmt::format("no event loop: {}", std::strerror(-result)));
}

RunLoop::~RunLoop() {
  sd_event_unref(iState->event);
  ::close(iState->wakeDescriptor);
}

int RunLoop::run() {
  {
    MutexLock held(iState->lock);
    iState->ended = false;
  }
  while (true) {
    if (const std::optional<int> code = iState->takeStop()) return *code;
    const int result = sd_event_run(iState->event, kForever);
    if (result < 0 && result != -EINTR) {
      throw KCException(fmt::format("the event loop failed: {}", std::strerror(-result)));
    }
  }
}

void RunLoop::stop(int code) {
  {
    MutexLock held(iState->lock);
    iState->stopCode = code;
  }
  iState->wake();
}

void RunLoop::perform(std::function<void()> work) {
  {
    MutexLock held(iState->lock);
    if (iState->ended) return;
    iState->work.push_back(std::move(work));
  }
  iState->wake();
}

bool RunLoop::runOnce(uint64_t microseconds) {
  {
    MutexLock held(iState->lock);
    iState->ended = false;
  }
  return sd_event_run(iState->event, microseconds) > 0;
}

sd_event* RunLoop::event() { return iState->event; }

}  // namespace ombra
