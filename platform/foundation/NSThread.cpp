#include "platform/foundation/NSThread.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NeverDestroyed.h"
#include "platform/foundation/ThreadPark.h"
#include "platform/foundation/Unicode.h"

namespace ombra {
namespace {

struct ThreadData {
  std::string name;
  std::map<std::string, std::any, std::less<>> dictionary;
};

// A plain pointer instead of a thread_local object: the main thread's would be destroyed at the start of
// exit(), while handlers that run later still trace and log. The key's destructor frees it when any other
// thread ends.
thread_local ThreadData* tData = nullptr;

void freeThreadData(void* data) {
  tData = nullptr;
  std::unique_ptr<ThreadData> owned(static_cast<ThreadData*>(data));
}

pthread_key_t threadDataKey() {
  static const pthread_key_t sKey = [] {
    pthread_key_t key{};
    pthread_key_create(&key, freeThreadData);
    return key;
  }();
  return sKey;
}

ThreadData& threadData() {
  if (tData == nullptr) {
    tData = std::make_unique<ThreadData>().release();
    pthread_setspecific(threadDataKey(), tData);
  }
  return *tData;
}

void runBody(const std::function<void()>& body) {
  try {
    body();
  } catch (const KCException& exception) {
    NSLog("thread \"{}\" ended by {}: {}", NSThread::name(), KCException::name(), exception.reason());
  } catch (const std::exception& exception) {
    NSLog("thread \"{}\" ended by an exception: {}", NSThread::name(), exception.what());
  }
}

// The longest whole characters of `name` within the kernel's 15 bytes.
std::string shortName(std::string_view name) {
  constexpr size_t kKernelNameLength = 15;
  size_t length = 0;
  while (length < name.size()) {
    const size_t next = std::max<size_t>(utf8CharacterLength(name.substr(length)), 1);
    if (length + next > kKernelNameLength) break;
    length += next;
  }
  return std::string(name.substr(0, length));
}

// What the thread's next body must not find: its name, also the one that the system shows, and its
// dictionary.
void becomeNew() {
  if (tData == nullptr) return;
  const bool hasName = !tData->name.empty();
  pthread_setspecific(threadDataKey(), nullptr);
  freeThreadData(tData);
  if (hasName) pthread_setname_np(pthread_self(), "parked");
}

void carryOut(std::function<void()> body) {
  runBody(body);
  // What it captured goes while the thread still has the body's name.
  body = nullptr;
  becomeNew();
}

// As many as work at once while small files follow one another: their transfers and what closes them.
constexpr size_t kParkedThreads = 4;

ThreadPark& park() {
  static NeverDestroyed<ThreadPark> sPark(kParkedThreads, &carryOut);
  return *sPark;
}

}  // namespace

bool NSThread::detachNewThread(std::function<void()> body) {
  try {
    park().run(std::move(body));
    return true;
  } catch (const std::system_error& error) {
    NSLog("cannot start a thread: {}", error.what());
    return false;
  }
}

const std::string& NSThread::name() { return threadData().name; }

void NSThread::setName(std::string name) {
  // The main thread's name in the kernel is the name of the process in process lists; that one stays.
  if (gettid() != getpid()) pthread_setname_np(pthread_self(), shortName(name).c_str());
  threadData().name = std::move(name);
}

std::any& NSThread::threadDictionary(std::string_view key) {
  auto& dictionary = threadData().dictionary;
  const auto found = dictionary.find(key);
  return found != dictionary.end() ? found->second : dictionary[std::string(key)];
}

}  // namespace ombra
