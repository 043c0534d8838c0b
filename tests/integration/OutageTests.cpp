// A server that stops answering: what needs it waits or fails, what does not goes on.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "tests/integration/MountFixture.h"

namespace ombra {
namespace {

class Outage : public MountTest {};

// Stops, and at its end continues, the server and the processes that serve its connections.
class StalledServer {
 public:
  explicit StalledServer(const SshdFixture& server) {
    const std::string daemon = "$(pgrep -f " + shellWord("sshd.*" + server.folder()) + ")";
    iProcesses =
        shell(
            "all=" + daemon +
            "; for round in 1 2 3 4; do for p in $all; do all=\"$all $(pgrep -P $p)\"; done; done; echo $all")
            .output;
    shell("kill -STOP $(echo " + shellWord(iProcesses) + ")");
  }
  ~StalledServer() { shell("kill -CONT $(echo " + shellWord(iProcesses) + ")"); }
  StalledServer(const StalledServer&) = delete;
  StalledServer& operator=(const StalledServer&) = delete;

 private:
  std::string iProcesses;
};

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
    ASSERT_TRUE(
        eventually("test $(ls /proc/" + std::to_string(user->helperOf(volume)) + "/task | wc -l) -gt 150"));
    const auto start = std::chrono::steady_clock::now();
    struct stat info {};
    for (int i = 0; i < 100; ++i)
      EXPECT_EQ(stat((volume + "/listed/f" + std::to_string(i)).c_str(), &info), 0);
    EXPECT_EQ(user->run("ls " + shellWord(volume + "/listed") + " > /dev/null").status, 0);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(seconds, 0.25) << "100 attributes and one ls, starting its shell included";
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
