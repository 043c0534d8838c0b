// Runs the tests; or, started by one of them, plays another program of the user.
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/foundation/NSNotificationCenter.h"

namespace {

// Posts from a thread that is not the main one and ends the process right behind it, as a failed mount does.
[[noreturn]] void postAndExit(const char* name, const char* object) {
  std::thread([name, object] {
    const bool posted = ombra::NSDistributedNotificationCenter::defaultCenter().postNotificationName(
        name, std::string(object), ombra::NSDictionary{{"volumeName", "nas"}});
    std::exit(posted ? 0 : 1);
  }).join();
  std::abort();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--post-and-exit") == 0) postAndExit(argv[2], argv[3]);
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
