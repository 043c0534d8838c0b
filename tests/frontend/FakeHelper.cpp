#include "tests/frontend/FakeHelper.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/userfs/GMUserFileSystem.h"
#include "remote/KCCredentials.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

class FakeHelper {
 public:
  FakeHelper(int argc, char** argv) : iArguments(argv + 1, argv + argc) {
    const char* behaviour = std::getenv("FAKE_HELPER");
    const char* folder = std::getenv("FAKE_HELPER_FOLDER");
    iBehaviour = behaviour == nullptr ? "mount" : behaviour;
    iFolder = folder == nullptr ? "/tmp" : folder;
  }

  int run() {
    std::ofstream arguments(iFolder + "/arguments.txt");
    for (const std::string& argument : iArguments) arguments << argument << "\n";
    arguments.close();
    // Where the test waits for the start, it waits at a pipe.
    if (access((iFolder + "/started").c_str(), F_OK) == 0) std::ofstream(iFolder + "/started") << "yes";
    if (iBehaviour == "dies") {
      fprintf(stderr, "one line\nout of luck today\n");
      return 0;
    }
    if (iBehaviour == "silent") return waitForSignal();
    fetchCredentials();
    return announce();
  }

 private:
  std::string argument(const std::string& prefix) const {
    for (const std::string& candidate : iArguments) {
      if (candidate.starts_with(prefix)) return candidate.substr(prefix.size());
    }
    return {};
  }

  void fetchCredentials() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, argument("--sock=").c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return;
    const std::string name = argument("--uuid=");
    if (write(fd, name.data(), name.size()) < 0) return;
    NSData data;
    uint8_t buffer[100];
    for (ssize_t count = read(fd, buffer, sizeof(buffer)); count > 0;
         count = read(fd, buffer, sizeof(buffer))) {
      data.insert(data.end(), buffer, buffer + count);
    }
    close(fd);
    std::ofstream(iFolder + "/credentials.bin", std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    std::string reason;
    iCredentials = KCCredentials::credentialsWithArchivedData(data, &reason);
  }

  void post(const char* name, NSDictionary info) {
    NSDistributedNotificationCenter::defaultCenter().postNotificationName(name, argument("--uuid="),
                                                                          std::move(info));
  }

  int fail(const NSErrorRef& error) {
    NSDictionary info{{"volumeName", "Fake"}};
    if (error) info.setObject(NSKeyedArchiver::archivedDataWithRootObject(error), "errorData");
    post("OFSMountFailed", info);
    post("OFSDidUnmount", {{"volumeName", "Fake"}});
    return 0;
  }

  int announce() {
    const auto library = [](QuarnKitErrorCode code) {
      return QuarnKitError::errorWithCode(code, "said the fake");
    };
    if (iBehaviour == "plain-failure") return fail(nullptr);
    if (iBehaviour == "untrusted") return fail(library(kQuarnKitUntrusted));
    if (iBehaviour == "pinned" &&
        !(iCredentials && iCredentials->option("fingerprint").value_or("").empty())) {
      return fail(library(kQuarnKitUntrusted));
    }
    if (iBehaviour == "no-fuse")
      return fail(NSError::errorWithDomain(kGMUserFileSystemErrorDomain, kGMNoFuseDevice));
    if (iBehaviour == "taken-once" && !std::filesystem::exists(iFolder + "/taken")) {
      std::ofstream(iFolder + "/taken") << "by another helper";
      return fail(NSError::errorWithDomain(kGMUserFileSystemErrorDomain, kGMMountPointInUse));
    }
    if (iBehaviour == "login-refused" && !(iCredentials && iCredentials->password() == "right")) {
      return fail(library(kQuarnKitLoginFailed));
    }
    if (iBehaviour == "already") {
      post("OFSAlreadyMounted", {{"rootPath", "/"}, {"passthrough", argument("--passthrough=")}});
      return 0;
    }
    return serve();
  }

  int serve() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) return 1;
    static const sd_bus_vtable kMethods[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Status", "", "s", &answerStatus, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Unmount", "b", "", &answerUnmount, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};
    sd_bus_add_object_vtable(bus, nullptr, "/org/ombrafs/Helper", "org.ombrafs.Helper1", kMethods, this);
    sd_bus_request_name(bus, ("org.ombrafs.helper.pid" + std::to_string(getpid())).c_str(), 0);
    // SIGTERM and the bus are waited for together.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    sd_event* loop = nullptr;
    sd_event_default(&loop);
    sd_event_add_signal(loop, nullptr, SIGTERM, nullptr, nullptr);
    sd_bus_attach_event(bus, loop, 0);
    iLoop = loop;
    post("OFSDidMount", {{"volumeName", argument("--name=")},
                         {"mountPath", mountPath()},
                         {"rootPath", "/"},
                         {"address", iCredentials ? iCredentials->address() : ""}});
    sd_event_loop(loop);
    if (iBehaviour == "loses") {
      post("OFSUndelivered",
           {{"volumeName", "Fake"}, {"files", NSArray{"/a b.txt\t/home/kept/a b.txt\tthe disk is full"}}});
    }
    post("OFSDidUnmount", {{"volumeName", argument("--name=")}, {"mountPath", mountPath()}});
    sd_bus_flush_close_unref(bus);
    sd_event_unref(loop);
    return 0;
  }

  static int waitForSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int number = 0;
    sigwait(&signals, &number);
    return 0;
  }

  std::string mountPath() const {
    const char* volumes = std::getenv("OMBRAFS_VOLUMES");
    return (volumes == nullptr ? "" : volumes) + ("/fake-" + argument("--name="));
  }

  static int answerStatus(sd_bus_message* message, void* self, sd_bus_error*) {
    const auto* helper = static_cast<FakeHelper*>(self);
    nlohmann::json status = {{"volumeName", helper->argument("--name=")},
                             {"mountPath", helper->mountPath()},
                             {"registeredName", helper->argument("--uuid=")},
                             {"address", "fake.test"},
                             {"username", "anna"},
                             {"protocol", "sftp"},
                             {"pid", getpid()},
                             {"state", "mounted"}};
    std::ifstream more(helper->iFolder + "/status.json");
    if (more) status.update(nlohmann::json::parse(more, nullptr, false));
    return sd_bus_reply_method_return(message, "s", status.dump().c_str());
  }

  static int answerUnmount(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* helper = static_cast<FakeHelper*>(self);
    const int result = sd_bus_reply_method_return(message, "");
    if (helper->iBehaviour != "stays") sd_event_exit(helper->iLoop, 0);
    return result;
  }

  std::vector<std::string> iArguments;
  std::string iBehaviour;
  std::string iFolder;
  std::shared_ptr<KCCredentials> iCredentials;
  sd_event* iLoop = nullptr;
};

}  // namespace

bool isFakeHelper(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "--sock=", 7) == 0) return true;
  }
  return false;
}

int runFakeHelper(int argc, char** argv) { return FakeHelper(argc, argv).run(); }

}  // namespace ombra
