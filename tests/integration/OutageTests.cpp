// A server that stops answering: what needs it waits or fails, what does not goes on.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/MountFixture.h"
#include "tests/integration/StalledServer.h"

namespace ombra {
namespace {

class Outage : public MountTest {};

// What an answer may take at its best, or so many times what it takes when nobody waits, and what no load
// explains: the server is given up after 30 s.
constexpr double kPleasant = 0.2;
constexpr double kTimes = 10;
constexpr double kUnbearable = 25;

// Takes a list, attributes, and names that are not there, which the kernel does not know of: another `round`,
// other names.
double secondsToLookInto(const std::string& folder, int round) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 100);
  struct stat info {};
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(stat((folder + "/f" + std::to_string(i)).c_str(), &info), 0);
    EXPECT_NE(stat((folder + "/none" + std::to_string(100 * round + i)).c_str(), &info), 0);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(Outage, AListedFolderAnswersWhileTwoHundredReadersWaitForAStalledServer) {
  std::filesystem::create_directory(data() + "/listed");
  for (int i = 0; i < 100; ++i) std::ofstream(data() + "/listed/f" + std::to_string(i)) << i;

  for (int i = 0; i < 200; ++i) {
    std::ofstream file(data() + "/big" + std::to_string(i));
    file << std::string(200000, 'x');
  }
  const std::string volume = user->mount(mountArguments(data()));
  ASSERT_EQ(
      user->run("ls -l " + shellWord(volume) + " " + shellWord(volume + "/listed") + " > /dev/null").status,
      0);
  const double pleasant = std::max(kPleasant, kTimes * secondsToLookInto(volume + "/listed", 0));

  std::vector<std::thread> readers;
  {
    StalledServer stalled(*server);
    for (int i = 0; i < 200; ++i) {
      readers.emplace_back([path = volume + "/big" + std::to_string(i)] {
        const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        char byte = 0;
        if (descriptor >= 0) (void)!read(descriptor, &byte, 1);
        close(descriptor);
      });
    }
    EXPECT_TRUE(
        eventually("test $(ls /proc/" + std::to_string(user->helperOf(volume)) + "/task | wc -l) -gt 150"));
    // A busy machine makes any look slow, but not each of them; one that waits for the server lasts until
    // that is given up.
    double fastest = kUnbearable;
    for (int round = 1; round <= 20 && fastest >= pleasant; ++round) {
      const double seconds = secondsToLookInto(volume + "/listed", round);
      EXPECT_LT(seconds, kUnbearable);
      fastest = std::min(fastest, seconds);
    }
    EXPECT_LT(fastest, pleasant);
  }
  for (std::thread& reader : readers) reader.join();
}

TEST_F(Outage, AKilledServerThatComesBackIsUsedAgain) {
  std::ofstream(data() + "/file") << "text";
  const std::string volume = user->mount(mountArguments(data()));
  ASSERT_EQ(user->run("cat " + shellWord(volume + "/file")).output, "text");
  std::ofstream(data() + "/later") << "later";
  server->dropConnections();
  server->stop();
  server->start();
  EXPECT_EQ(user->ombra("refresh " + shellWord(volume)).status, 0);
  EXPECT_TRUE(eventually("cat " + shellWord(volume + "/later"), 20));
  EXPECT_EQ(user->run("cat " + shellWord(volume + "/later")).output, "later");
}

}  // namespace
}  // namespace ombra
