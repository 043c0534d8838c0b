// The helper's entry point: prepares the process, starts the application, runs the event loop.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <exception>
#include <memory>

#include "fshelper/OFSController.h"
#include "fshelper/OFSStatus.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSThread.h"
#include "platform/foundation/RunLoop.h"
#include "remote/ftp/FTPEngine.h"
#include "remote/local/LocalEngine.h"
#include "remote/s3/S3Engine.h"
#include "remote/sftp/SFTPEngine.h"
#include "remote/webdav/WebDAVEngine.h"

namespace ombra {
namespace {

// The signals that ask for an unmount.
sigset_t endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, number);
  return signals;
}

// Before any thread is started, so that all of them inherit the mask and only the signal thread takes them.
void prepareSignals() {
  ::signal(SIGPIPE, SIG_IGN);
  const sigset_t signals = endSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// Each open file keeps a descriptor, and so does each session.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Lives as long as the process: the first signal unmounts in peace, a second one no longer waits for the
// server.
void takeSignals(OFSController& controller) {
  NSThread::setName("signals");
  const sigset_t signals = endSignals();
  bool force = false;
  for (;;) {
    int number = 0;
    if (sigwait(&signals, &number) != 0) continue;
    NSLog("Signal {}: unmounting{}", number, force ? " without waiting for the server" : "");
    controller.requestUnmount(force);
    force = true;
  }
}

void launch(OFSController& controller) {
  try {
    controller.finishLaunching();
  } catch (const std::exception& exception) {
    controller.launchDidRaise(exception.what());
  }
}

// Creates the application, starts it, and runs its event loop to the end of the process.
int NSApplicationMain(int argc, const char* const* argv) {
  NSProcessInfo::setArguments(argc, argv);
  prepareSignals();
  raiseDescriptorLimit();
  registerSFTPEngine();
  registerLocalEngine();
  registerFTPEngine();
  registerS3Engine();
  registerWebDAVEngine();

  std::unique_ptr<OFSStatus> status;
  OFSControllerEnvironment environment = OFSControllerEnvironment::system();
  environment.willRequestMount = [&status] {
    if (status != nullptr) status->start(RunLoop::mainRunLoop());
  };
  OFSController controller(std::move(environment));
  status = std::make_unique<OFSStatus>(controller);
  if (!NSThread::detachNewThread([&controller] { takeSignals(controller); })) {
    NSLogMessage("No thread for signals could be started: the helper will not end by one.");
  }
  launch(controller);
  const int code = RunLoop::mainRunLoop().run();
  // Nobody stops the loop: it has failed. The volume serves on until it is unmounted.
  NSLog("The event loop has ended with {}: requests of the front end are no longer heard.", code);
  for (;;) ::pause();
}

}  // namespace
}  // namespace ombra

int main(int argc, char** argv) { return ombra::NSApplicationMain(argc, argv); }
