// Stands in where a volume has no delegate: every operation fails.
#pragma once

#include "platform/userfs/GMUserFileSystemDelegate.h"

namespace ombra {

class AbsentDelegate final : public GMUserFileSystemDelegate {
 public:
  // The one there is; it has no state.
  static AbsentDelegate* shared();

  void willMount() override {}
  std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(OptionalPath, NSErrorRef*) override {
    return {};
  }
  std::optional<NSFileAttributes> attributesOfItemAtPath(OptionalPath, const GMUserData&,
                                                         NSErrorRef*) override {
    return {};
  }
  std::optional<NSFileAttributes> attributesOfFileSystemForPath(OptionalPath, NSErrorRef*) override {
    return {};
  }
  bool setAttributes(const NSFileAttributes&, OptionalPath, const GMUserData&, NSErrorRef*) override {
    return false;
  }
  bool createDirectoryAtPath(OptionalPath, const NSFileAttributes&, NSErrorRef*) override { return false; }
  bool createFileAtPath(OptionalPath, const NSFileAttributes&, GMUserData*, NSErrorRef*) override {
    return false;
  }
  bool createSymbolicLinkAtPath(OptionalPath, OptionalPath, NSErrorRef*) override { return false; }
  std::optional<std::string> destinationOfSymbolicLinkAtPath(OptionalPath, NSErrorRef*) override {
    return {};
  }
  bool moveItemAtPath(OptionalPath, OptionalPath, NSErrorRef*) override { return false; }
  bool removeItemAtPath(OptionalPath, NSErrorRef*) override { return false; }
  bool openFileAtPath(OptionalPath, int, GMUserData*, NSErrorRef*) override { return false; }
  int readFileAtPath(OptionalPath, const GMUserData&, void*, size_t, int64_t, NSErrorRef*) override {
    return -1;
  }
  int writeFileAtPath(OptionalPath, const GMUserData&, const void*, size_t, int64_t, NSErrorRef*) override {
    return -1;
  }
  bool truncateFileAtPath(OptionalPath, const GMUserData&, int64_t, NSErrorRef*) override { return false; }
  void releaseFileAtPath(OptionalPath, const GMUserData&) override {}
  std::optional<std::vector<std::string>> extendedAttributesOfItemAtPath(OptionalPath, NSErrorRef*) override {
    return {};
  }
  std::optional<NSData> valueOfExtendedAttribute(std::string_view, OptionalPath, int64_t,
                                                 NSErrorRef*) override {
    return {};
  }
  bool setExtendedAttribute(std::string_view, OptionalPath, const NSData&, int64_t, int,
                            NSErrorRef*) override {
    return false;
  }
};

}  // namespace ombra
