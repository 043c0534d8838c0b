// A session with this machine.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <string>

#include "remote/Session.h"

namespace ombra {

// System calls instead of a conversation. Whole files arrive under a temporary name in their folder, which is
// never listed, and are renamed; where that would change more than the content (another name of the same
// file, a folder that takes no new names) they are written in place. `interrupt` ends a transfer after the
// piece in hand.
class LocalSession final : public Session {
 public:
  explicit LocalSession(const SessionEnvironment& environment) : iEnvironment(environment) {}

  bool logIn(NSErrorRef* error) override;
  std::string loginPath() const override { return iLoginPath; }
  bool isAlive() override { return !iInterrupted.load(); }
  void interrupt() override { iInterrupted.store(true); }

  std::optional<std::string> realPath(std::string_view path, std::string_view base, bool* isDirectory,
                                      NSErrorRef* error) override;
  std::optional<LinkResolution> resolveLink(std::string_view path, NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributes(std::string_view path, bool* isDirectory,
                                             NSErrorRef* error) override;
  std::optional<NSFileAttributes> fileSystemAttributes(std::string_view path, NSErrorRef* error) override;
  bool list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) override;

  bool createFolder(std::string_view path, NSErrorRef* error) override;
  bool createSymbolicLink(std::string_view path, std::string_view target, NSErrorRef* error) override;
  bool move(std::string_view from, bool isDirectory, std::string_view to, NSErrorRef* error) override;
  bool remove(std::string_view path, bool isDirectory, NSErrorRef* error) override;
  bool changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                        NSErrorRef* error) override;

  bool download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                TransferControl& control, NSErrorRef* error) override;
  bool upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
              NSErrorRef* error) override;
  bool flushFile(std::string_view path, NSErrorRef* error) override;
  bool stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
              TransferControl& control, NSErrorRef* error) override;

  static NSFileAttributes attributesFromStat(const struct stat& status);

 private:
  bool mayGoOn(NSErrorRef* error) const;
  bool uploadWhole(NSFileHandle& from, const std::string& path, TransferControl& control, NSErrorRef* error);
  bool uploadExtents(NSFileHandle& from, const std::string& path, uint64_t offset, TransferControl& control,
                     NSErrorRef* error);
  bool sendPieces(const std::function<size_t(std::byte*, size_t)>& next, int descriptor,
                  const std::string& path, TransferControl& control, NSErrorRef* error);

  const SessionEnvironment iEnvironment;
  std::string iLoginPath = "/";
  std::atomic<bool> iInterrupted{false};
};

}  // namespace ombra
