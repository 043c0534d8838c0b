// Volumes of each kind that writes its own way, and a local twin to compare the server with.
#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "tests/integration/MountFixture.h"

namespace ombra {

// How what programs write travels: over SFTP in place, to a folder of this machine as a stream of each file.
enum class VolumeKind { kSFTP, kStreaming };
std::ostream& operator<<(std::ostream& stream, VolumeKind kind);
std::string nameOfVolumeKind(const ::testing::TestParamInfo<VolumeKind>& info);

#define OMBRA_EVERY_VOLUME(Suite)                                                                        \
  INSTANTIATE_TEST_SUITE_P(Volumes, Suite, ::testing::Values(VolumeKind::kSFTP, VolumeKind::kStreaming), \
                           nameOfVolumeKind)

// A mounted folder. At the end it is unmounted, and nothing of the program's own may lie on the server or in
// the user's temporary folder then.
class VolumeTest : public MountTest, public ::testing::WithParamInterface<VolumeKind> {
 protected:
  void SetUp() override;
  void TearDown() override;

  bool isSFTP() const { return GetParam() == VolumeKind::kSFTP; }
  // Unmounts; what is compared afterwards is what lasts.
  void unmount();
  // What the server's folder holds that a program which only writes files has not put there.
  std::string leftovers() const;

  std::string volume;
};

// Does everything twice, in the volume and in a folder of this machine, and compares what the server and that
// twin hold: at once, and again after the volume has been unmounted.
class Writing : public VolumeTest {
 protected:
  void TearDown() override;

  // Runs the script in both; its exit status and its standard output must be the same.
  void runInBoth(const std::string& script, double limitSeconds = 120);
  // Calls with the path of each.
  void inBoth(const std::function<void(const std::string& folder)>& change);
  void expectEqual(const std::string& after);

  TemporaryFolder twin;
};

// The bytes of a file; empty when it cannot be read.
std::string bytesOf(const std::string& path);
// Bytes that differ everywhere, the same ones for each `seed`.
std::string someBytes(size_t length, unsigned seed = 1);

}  // namespace ombra
