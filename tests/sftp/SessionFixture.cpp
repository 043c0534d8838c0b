#include "tests/sftp/SessionFixture.h"

#include <sys/mman.h>

namespace ombra::test {

std::unique_ptr<NSFileHandle> makeLocalFile(NSFileHandle::Kind kind, std::string_view content) {
  auto file = std::make_unique<NSFileHandle>(memfd_create("local", MFD_CLOEXEC), kind);
  if (!content.empty()) {
    EXPECT_TRUE(file->writeAll(content.data(), content.size(), 0));
  }
  return file;
}

std::string readLocalFile(const NSFileHandle& file) {
  std::string text(file.fileLength(), '\0');
  EXPECT_EQ(static_cast<ssize_t>(text.size()), file.readAt(text.data(), text.size(), 0));
  return text;
}

std::string pattern(size_t length, unsigned seed) {
  std::string text(length, '\0');
  uint32_t value = seed;
  for (char& c : text) {
    value = value * 1664525 + 1013904223;
    c = static_cast<char>(value >> 24);
  }
  return text;
}

int64_t codeOf(const NSErrorRef& error) { return error ? error->code() : 0; }

void SessionFixture::logIn(size_t cut) {
  auto transport = std::make_unique<PeerTransport>(
      [this](const PeerRequest& request, PeerTransport& to) { server.handle(request, to); });
  peer = transport.get();
  peer->setCut(cut);
  // What a batch holds back comes when the client has nothing more to say.
  peer->setWhenIdle([this](PeerTransport& to) { server.flush(to); });
  SessionEnvironment environment;
  environment.credentials = std::make_shared<KCCredentials>();
  environment.transcript = transcript;
  environment.connectLimit = std::chrono::milliseconds(2000);
  environment.idleLimit = idleLimit;
  session = std::make_unique<SFTPSession>(std::move(transport), environment);
  ASSERT_TRUE(session->logIn(&error)) << error->description();
}

void SessionFixture::TearDown() {
  if (!session) return;
  session->becameIdle();
  session->closeOpenedAhead();
  bool alive = true;
  // With replies cut to single bytes the last close takes a few turns.
  for (int turn = 0; alive && turn < 1000 && server.openHandles() > 0; ++turn) alive = session->isAlive();
  if (alive) {
    EXPECT_EQ(0u, server.openHandles()) << "a remote handle was left open";
  }
}

}  // namespace ombra::test
