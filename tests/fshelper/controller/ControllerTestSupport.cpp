#include "tests/fshelper/controller/ControllerTestSupport.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/foundation/NSLog.h"
#include "remote/KCTypes.h"

namespace ombra {
namespace {

std::mutex gLogMutex;
std::vector<std::string> gLogLines;

}  // namespace

TestFolder::TestFolder() : iPath("/tmp/ombra-controller-XXXXXX") {
  if (::mkdtemp(iPath.data()) == nullptr) ADD_FAILURE() << "no temporary folder: " << std::strerror(errno);
}

TestFolder::~TestFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(iPath, ignored);
}

std::string readTestFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) ADD_FAILURE() << path << " cannot be read";
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeTestFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) ADD_FAILURE() << path << " cannot be written";
}

TestVariable::TestVariable(std::string name, const std::string& value) : iName(std::move(name)) {
  if (const char* former = std::getenv(iName.c_str())) iFormer = former;
  ::setenv(iName.c_str(), value.c_str(), 1);
}

TestVariable::~TestVariable() {
  if (iFormer) {
    ::setenv(iName.c_str(), iFormer->c_str(), 1);
  } else {
    ::unsetenv(iName.c_str());
  }
}

LogRecord::LogRecord() {
  clear();
  setLogSink(&LogRecord::record);
}

LogRecord::~LogRecord() { setLogSink(nullptr); }

void LogRecord::record(std::string_view text) {
  const std::lock_guard lock(gLogMutex);
  gLogLines.emplace_back(text);
}

std::vector<std::string> LogRecord::lines() const {
  const std::lock_guard lock(gLogMutex);
  return gLogLines;
}

bool LogRecord::has(const std::string& line) const {
  const std::vector<std::string> all = lines();
  return std::find(all.begin(), all.end(), line) != all.end();
}

void LogRecord::clear() {
  const std::lock_guard lock(gLogMutex);
  gLogLines.clear();
}

bool RecordingCenter::postNotificationName(std::string_view name, std::optional<std::string> object,
                                           std::optional<NSDictionary> userInfo) {
  const NSNotification notification{std::string(name), std::move(object), std::move(userInfo)};
  std::function<void(const NSNotification&)> observer;
  {
    const std::lock_guard lock(iMutex);
    iPosted.push_back(notification);
    observer = iObserver;
  }
  if (observer) observer(notification);
  return true;
}

void RecordingCenter::setObserver(std::function<void(const NSNotification&)> observer) {
  const std::lock_guard lock(iMutex);
  iObserver = std::move(observer);
}

void RecordingCenter::addObserver(const void* observer, std::string_view name, NotificationHandler handler) {
  const std::lock_guard lock(iMutex);
  iHandlers.emplace_back(observer, std::pair(std::string(name), std::move(handler)));
}

void RecordingCenter::removeObserver(const void* observer) {
  const std::lock_guard lock(iMutex);
  std::erase_if(iHandlers, [observer](const auto& entry) { return entry.first == observer; });
}

void RecordingCenter::deliver(const NSNotification& notification) {
  std::vector<NotificationHandler> handlers;
  {
    const std::lock_guard lock(iMutex);
    for (const auto& [observer, registration] : iHandlers) {
      if (registration.first == notification.name) handlers.push_back(registration.second);
    }
  }
  for (const NotificationHandler& handler : handlers) handler(notification);
}

std::vector<NSNotification> RecordingCenter::posted() const {
  const std::lock_guard lock(iMutex);
  return iPosted;
}

std::vector<std::string> RecordingCenter::postedNames() const {
  std::vector<std::string> names;
  for (const NSNotification& notification : posted()) names.push_back(notification.name);
  return names;
}

NSNotification RecordingCenter::posted(const std::string& name) const {
  for (const NSNotification& notification : posted()) {
    if (notification.name == name) return notification;
  }
  ADD_FAILURE() << name << " was not posted";
  return {};
}

size_t RecordingCenter::observerCount() const {
  const std::lock_guard lock(iMutex);
  return iHandlers.size();
}

std::vector<std::string> keysOf(const NSNotification& notification) {
  std::vector<std::string> keys;
  if (!notification.userInfo) return keys;
  for (const auto& entry : *notification.userInfo) keys.push_back(entry.first);
  return keys;
}

void RecordingMount::mountAtPath(std::string path, std::vector<std::string> withOptions,
                                 bool shouldForeground, bool detachNewThread) {
  iCalls.push_back(std::string("mountAtPath") + (shouldForeground ? " YES" : " NO") +
                   (detachNewThread ? " YES" : " NO"));
  iPath = std::move(path);
  iOptions = std::move(withOptions);
}

void RecordingMount::unmount() {
  iCalls.emplace_back("unmount");
  if (iWhileUnmounting) iWhileUnmounting();
}

void RecordingMount::setDelegate(GMUserFileSystemDelegate* delegate) {
  iCalls.emplace_back(delegate == nullptr ? "setDelegate none" : "setDelegate");
}

FrontEnd::FrontEnd(std::string socketPath, size_t nameLength, std::vector<NSData> pieces)
    : iSocketPath(std::move(socketPath)), iNameLength(nameLength), iPieces(std::move(pieces)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, iSocketPath.data(),
              std::min(iSocketPath.size(), sizeof address.sun_path - 1));
  iListener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(::bind(iListener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  EXPECT_EQ(::listen(iListener, 1), 0);
}

FrontEnd::~FrontEnd() {
  // Wakes an accept that nobody came for.
  ::shutdown(iListener, SHUT_RDWR);
  if (iThread.joinable()) iThread.join();
  ::close(iListener);
}

void FrontEnd::start() {
  iThread = std::thread([this] { serve(); });
}

std::string FrontEnd::receivedName() {
  if (iThread.joinable()) iThread.join();
  return iReceived;
}

void FrontEnd::serve() {
  const int helper = ::accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
  if (helper < 0) return;
  if (iNameLength > 0 || iReset) {
    pollfd name{helper, POLLIN, 0};
    ::poll(&name, 1, -1);
  }
  iConnected.set_value();
  if (iReset) {
    ::close(helper);
    return;
  }
  char buffer[512];
  while (iReceived.size() < iNameLength) {
    const ssize_t count = ::read(helper, buffer, sizeof buffer);
    if (count <= 0) break;
    iReceived.append(buffer, static_cast<size_t>(count));
  }
  if (iStopsReading) ::shutdown(helper, SHUT_RD);
  for (size_t index = 0; index < iPieces.size(); ++index) {
    if (index > 0 && iBetween) iBetween();
    size_t done = 0;
    while (done < iPieces[index].size()) {
      const ssize_t count =
          ::send(helper, iPieces[index].data() + done, iPieces[index].size() - done, MSG_NOSIGNAL);
      if (count <= 0) break;
      done += static_cast<size_t>(count);
    }
  }
  if (iBetween) iBetween();
  ::shutdown(helper, SHUT_WR);
  // What else the helper wrote, up to its close.
  for (ssize_t count = 0; (count = ::read(helper, buffer, sizeof buffer)) > 0;) {
    iReceived.append(buffer, static_cast<size_t>(count));
  }
  ::close(helper);
}

std::shared_ptr<KCCredentials> testCredentials() {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  credentials->setAddress("files.example.org");
  credentials->setUsername("anna");
  credentials->setPassword("secret");
  return credentials;
}

}  // namespace ombra
