// What the tests of the controller share: a place of their own, a record of what is logged and announced, a
// front end.
#pragma once

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fshelper/OFSControllerMount.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "remote/KCCredentials.h"

namespace ombra {

// A folder that is gone with the object.
class TestFolder {
 public:
  TestFolder();
  ~TestFolder();
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;
  const std::string& path() const { return iPath; }
  std::string path(const std::string& name) const { return iPath + "/" + name; }

 private:
  std::string iPath;
};

std::string readTestFile(const std::string& path);
void writeTestFile(const std::string& path, const std::string& content);

// Sets a variable of the environment for its lifetime.
class TestVariable {
 public:
  TestVariable(std::string name, const std::string& value);
  ~TestVariable();
  TestVariable(const TestVariable&) = delete;
  TestVariable& operator=(const TestVariable&) = delete;

 private:
  const std::string iName;
  std::optional<std::string> iFormer;
};

// Collects log texts for its lifetime. One at a time.
class LogRecord {
 public:
  LogRecord();
  ~LogRecord();
  LogRecord(const LogRecord&) = delete;
  LogRecord& operator=(const LogRecord&) = delete;
  std::vector<std::string> lines() const;
  bool has(const std::string& line) const;
  void clear();

 private:
  static void record(std::string_view text);
};

// The distributed centre of the process for its lifetime: keeps what is posted, delivers what a test says.
class RecordingCenter final : public NSDistributedNotificationCenter {
 public:
  RecordingCenter() { setDefaultCenter(this); }
  ~RecordingCenter() override { setDefaultCenter(nullptr); }

  bool postNotificationName(std::string_view name, std::optional<std::string> object,
                            std::optional<NSDictionary> userInfo) override;
  void addObserver(const void* observer, std::string_view name, NotificationHandler handler) override;
  void removeObserver(const void* observer) override;

  // Called with each notification that is posted, when it has been recorded.
  void setObserver(std::function<void(const NSNotification&)> observer);
  // Calls the handlers of that name, as if another process had posted it.
  void deliver(const NSNotification& notification);
  std::vector<NSNotification> posted() const;
  std::vector<std::string> postedNames() const;
  // The first of that name; fails the test when there is none.
  NSNotification posted(const std::string& name) const;
  size_t observerCount() const;

 private:
  mutable std::mutex iMutex;
  std::function<void(const NSNotification&)> iObserver;
  std::vector<NSNotification> iPosted;
  std::vector<std::pair<const void*, std::pair<std::string, NotificationHandler>>> iHandlers;
};

// The keys of a user info, in order.
std::vector<std::string> keysOf(const NSNotification& notification);

// Records instead of mounting.
class RecordingMount final : public OFSMount {
 public:
  void mountAtPath(std::string path, std::vector<std::string> withOptions, bool shouldForeground,
                   bool detachNewThread) override;
  void unmount() override;
  void setDelegate(GMUserFileSystemDelegate* delegate) override;
  void invalidateDirectoryAtPath(std::string_view path) override { iInvalidated.emplace_back(path); }
  void invalidateItemAtPath(std::string_view, bool) override {}

  // Called inside `unmount`.
  std::function<void()> iWhileUnmounting;
  std::vector<std::string> iCalls;
  std::string iPath;
  std::vector<std::string> iOptions;
  std::vector<std::string> iInvalidated;
};

// The front end's end of the credential socket: takes one connection, reads the name, answers in pieces,
// closes.
class FrontEnd {
 public:
  // `nameLength`: how many bytes of the name to wait for before the answer; 0 for a helper that has none.
  FrontEnd(std::string socketPath, size_t nameLength, std::vector<NSData> pieces);
  ~FrontEnd();
  FrontEnd(const FrontEnd&) = delete;
  FrontEnd& operator=(const FrontEnd&) = delete;

  const std::string& socketPath() const { return iSocketPath; }
  // What the helper wrote, up to its end; waits for the exchange to be over.
  std::string receivedName();
  // Called in the exchange before each piece but the first, and before the end.
  void setBetweenPieces(std::function<void()> between) { iBetween = std::move(between); }
  // Closes the connection with the helper's name unread, which resets it.
  void resetInstead() { iReset = true; }
  // Takes nothing more of the name once it has `nameLength` bytes: what else the helper writes then fails.
  void stopReadingAfterName() { iStopsReading = true; }
  void start();
  // Blocks until the helper has connected and written the first byte of its name.
  void waitForConnection() { iConnected.get_future().wait(); }

 private:
  void serve();

  const std::string iSocketPath;
  const size_t iNameLength;
  const std::vector<NSData> iPieces;
  std::function<void()> iBetween;
  bool iReset = false;
  bool iStopsReading = false;
  int iListener = -1;
  std::promise<void> iConnected;
  std::string iReceived;
  std::thread iThread;
};

// The credentials that tests mount with.
std::shared_ptr<KCCredentials> testCredentials();

}  // namespace ombra
