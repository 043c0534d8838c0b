#include "frontend/MountTable.h"

#include <gtest/gtest.h>

#include "frontend/Volumes.h"

namespace ombra {
namespace {

constexpr const char* kTable =
    "24 30 0:22 / /proc rw,nosuid shared:5 - proc proc rw\n"
    "90 30 0:52 / /Volumes/nas rw,nosuid,nodev,relatime shared:40 - fuse OmbraFS/sftp#anna@nas "
    "rw,user_id=1000,group_id=1000\n"
    "91 30 0:53 / /Volumes/My\\040Photos\\134\\040\\303\\274 rw - fuse.ombra OmbraFS/ftp#b@c@host "
    "rw,user_id=0\n"
    "92 30 0:54 / /Volumes/shared rw master:1 propagate_from:2 - fuse OmbraFS/sftp#team rw,user_id=1001\n"
    "93 30 0:55 / /mnt/else rw - fuse OmbraFS/sftp#a@b rw\n"
    "94 30 0:56 / /Volumes/deep/er rw - fuse OmbraFS/sftp#a@b rw\n"
    "95 30 0:57 / /Volumes/sshfs rw - fuse.sshfs a@b:/ rw\n"
    "96 30 0:58 / /Volumes/faked rw - tmpfs OmbraFS/sftp#a@b rw\n";

TEST(MountTable, HoldsTheVolumesAndNothingElse) {
  const auto volumes = parseMountInfo(kTable, "/Volumes");
  ASSERT_EQ(volumes.size(), 3U);
  EXPECT_EQ(volumes[0].mountPath, "/Volumes/nas");
  EXPECT_EQ(volumes[0].source, "OmbraFS/sftp#anna@nas");
  EXPECT_EQ(volumes[0].protocol, "sftp");
  EXPECT_EQ(volumes[0].username, "anna");
  EXPECT_EQ(volumes[0].address, "nas");
  EXPECT_EQ(volumes[0].identifier, "");
  EXPECT_EQ(volumes[0].owner, 1000U);
  EXPECT_EQ(volumes[0].deviceMinor, 52U);
}

TEST(MountTable, UndoesTheEscapesOfNames) {
  EXPECT_EQ(parseMountInfo(kTable, "/Volumes")[1].mountPath, "/Volumes/My Photos\\ ü");
}

TEST(MountTable, TakesTheLastAtAsTheOneBeforeTheAddress) {
  const auto volume = parseMountInfo(kTable, "/Volumes")[1];
  EXPECT_EQ(volume.username, "b@c");
  EXPECT_EQ(volume.address, "host");
}

TEST(MountTable, TakesASourceWithoutAtAsAPassThroughIdentifier) {
  const auto volume = parseMountInfo(kTable, "/Volumes")[2];
  EXPECT_EQ(volume.identifier, "team");
  EXPECT_EQ(volume.username, "");
  EXPECT_EQ(volume.owner, 1001U);
}

TEST(MountTable, ShowsTheUppermostOfStackedMounts) {
  const auto volumes = parseMountInfo(
      "1 2 0:10 / /Volumes/a rw - fuse OmbraFS/sftp#old@host rw\n"
      "3 4 0:11 / /Volumes/a rw - fuse OmbraFS/sftp#new@host rw\n",
      "/Volumes");
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0].username, "new");
}

class MalformedLines : public testing::TestWithParam<const char*> {};

TEST_P(MalformedLines, ArePassedOver) {
  EXPECT_TRUE(parseMountInfo(GetParam(), "/Volumes").empty()) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Table, MalformedLines,
                         testing::Values("", "\n\n", "90", "90 30 0:52 / /Volumes/a",
                                         "90 30 0:52 / /Volumes/a rw -", "90 30 0:52 / /Volumes/a rw - fuse",
                                         "90 30 0:52 / /Volumes/a rw - fuse OmbraFS/sftp#a@b",
                                         "- fuse OmbraFS/sftp#a@b rw",
                                         "90 30 0:52 / /Volumes/a rw fuse OmbraFS/sftp#a@b rw rw rw",
                                         "90 30 0:52 / /Volumes rw - fuse OmbraFS/sftp#a@b rw"));

TEST(MountTable, ToleratesOddNumbersAndSources) {
  const auto volumes = parseMountInfo(
      "1 2 x / /Volumes/a rw - fuse OmbraFS/ rw,user_id=x\n1 2 0:99999999999 / /Volumes/b rw - fuse "
      "OmbraFS/# rw",
      "/Volumes");
  ASSERT_EQ(volumes.size(), 2U);
  EXPECT_EQ(volumes[0].deviceMinor, 0U);
  EXPECT_EQ(volumes[0].owner, 0U);
  EXPECT_EQ(volumes[1].deviceMinor, 0U);
  EXPECT_EQ(volumes[1].protocol, "");
}

struct Escape {
  const char* field;
  const char* text;
};

class MountFields : public testing::TestWithParam<Escape> {};

TEST_P(MountFields, AreDecoded) { EXPECT_EQ(decodeMountField(GetParam().field), GetParam().text); }

INSTANTIATE_TEST_SUITE_P(Table, MountFields,
                         testing::Values(Escape{"a\\040b", "a b"}, Escape{"a\\011b\\012", "a\tb\n"},
                                         Escape{"\\134", "\\"}, Escape{"a\\04", "a\\04"},
                                         Escape{"a\\", "a\\"}, Escape{"\\089", "\\089"}, Escape{"", ""}));

HelperOnBus helper(const std::string& name, const std::string& mountPath,
                   const std::string& state = "mounted") {
  HelperStatus status;
  status.busName = "org.ombrafs.helper.pid42";
  status.pid = 42;
  status.volumeName = name;
  status.mountPath = mountPath;
  status.state = state;
  status.json = "{}";
  return {"unix:path=/run/bus", status, {}};
}

// A helper that holds its name on the bus and answers nothing.
HelperOnBus hangingHelper(HelperTraces traces) {
  HelperOnBus hanging = helper("", "", "not answering");
  hanging.status.json.clear();
  hanging.traces = std::move(traces);
  return hanging;
}

MountedVolume mount(const std::string& path) {
  MountedVolume volume;
  volume.mountPath = path;
  volume.username = "anna";
  volume.address = "nas";
  volume.deviceMinor = 7;
  return volume;
}

TEST(JoinedVolumes, AHelperAndItsMountAreOneVolume) {
  const auto volumes = joinVolumes({helper("nas", "/Volumes/nas")}, {mount("/Volumes/nas")});
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0].pid, 42);
  EXPECT_TRUE(volumes[0].mounted);
  EXPECT_EQ(volumes[0].deviceMinor, 7U);
}

TEST(JoinedVolumes, TheFormsOfANameAreOne) {
  const auto volumes = joinVolumes({helper("ü", "/Volumes/\xC3\xBC")}, {mount("/Volumes/u\xCC\x88")});
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0].mountPath, "/Volumes/u\xCC\x88");
}

TEST(JoinedVolumes, AMountWithoutAHelperIsShown) {
  const auto volumes = joinVolumes({}, {mount("/Volumes/nas")});
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0].name, "nas");
  EXPECT_EQ(volumes[0].server(), "anna@nas");
  EXPECT_EQ(volumes[0].pid, 0);
  EXPECT_TRUE(volumes[0].state.empty());  // to be found out
}

TEST(JoinedVolumes, AHelperThatHasNotMountedYetIsShown) {
  const auto volumes = joinVolumes({helper("nas", "", "mounting")}, {mount("/Volumes/other")});
  ASSERT_EQ(volumes.size(), 2U);
  EXPECT_EQ(volumes[0].name, "nas");
  EXPECT_FALSE(volumes[0].mounted);
  EXPECT_EQ(volumes[1].name, "other");
}

TEST(JoinedVolumes, AHelperThatDoesNotAnswerIsKnownByItsConnection) {
  const auto volumes = joinVolumes({hangingHelper({"Disk", 7})}, {mount("/Volumes/Disk 2")});
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0].name, "Disk");
  EXPECT_EQ(volumes[0].mountPath, "/Volumes/Disk 2");
  EXPECT_EQ(volumes[0].pid, 42);
  EXPECT_EQ(volumes[0].server(), "anna@nas");
  EXPECT_EQ(volumes[0].state, "not answering");
}

TEST(JoinedVolumes, AHelperThatDoesNotAnswerIsElseKnownByItsName) {
  EXPECT_EQ(joinVolumes({hangingHelper({"Disk", 0})}, {mount("/Volumes/Disk")}).size(), 1U);
  EXPECT_EQ(joinVolumes({hangingHelper({"Disk", 0})}, {mount("/Volumes/Other")}).size(), 2U);
  EXPECT_EQ(joinVolumes({hangingHelper({"Disk", 8})}, {mount("/Volumes/Disk")}).size(), 2U);
  EXPECT_EQ(joinVolumes({hangingHelper({"", 0})}, {mount("/Volumes/Disk")}).size(), 2U);
}

TEST(HelperTraces, AreReadFromWhatTheSystemShows) {
  using std::string_view_literals::operator""sv;
  EXPECT_EQ(nameInCommandLine("helper\0--sock=/s\0--name=My Disk\0--icon=/i\0"sv), "My Disk");
  EXPECT_EQ(nameInCommandLine("helper\0--name=a\0--name=b"sv), "b");
  EXPECT_EQ(nameInCommandLine("helper\0x--name=a\0"sv), "");
  EXPECT_EQ(nameInCommandLine(""), "");
  EXPECT_EQ(connectionInDescriptorFacts("pos:\t0\nino:\t90\nfuse_connection:\t39\n"), 39U);
  EXPECT_EQ(connectionInDescriptorFacts("fuse_connection:\tx"), 0U);
  EXPECT_EQ(connectionInDescriptorFacts("pos:\t0\n"), 0U);
}

class FindVolume : public testing::Test {
 protected:
  const Volume* find(const std::string& target, const std::string& folder = "/Volumes") {
    return findVolume(iVolumes, target, folder, &iFailure);
  }
  std::vector<Volume> iVolumes = joinVolumes(
      {helper("nas", "/Volumes/nas"), helper("nas", "/Volumes/nas 2"), helper("Phötos", "/Volumes/Photos")},
      {});
  Failure iFailure;
};

TEST_F(FindVolume, TakesAPathAsTheOneThatIsMeant) {
  ASSERT_NE(find("/Volumes/nas"), nullptr);
  EXPECT_EQ(find("/Volumes/nas")->mountPath, "/Volumes/nas");
  EXPECT_EQ(find("/Volumes/nas 2/")->mountPath, "/Volumes/nas 2");
}

TEST_F(FindVolume, TakesARelativePath) {
  ASSERT_NE(find("nas 2"), nullptr);
  ASSERT_NE(find("../Volumes/./nas 2", "/Volumes"), nullptr);
  ASSERT_NE(find(".", "/Volumes/nas"), nullptr);
}

TEST_F(FindVolume, TakesAVolumesNameInAnyForm) {
  ASSERT_NE(find("Pho\xCC\x88tos", "/"), nullptr);
  EXPECT_EQ(find("Pho\xCC\x88tos", "/")->mountPath, "/Volumes/Photos");
}

TEST_F(FindVolume, TakesAMountPointsName) { ASSERT_NE(find("Photos", "/"), nullptr); }

TEST_F(FindVolume, RefusesANameThatTwoHave) {
  EXPECT_EQ(find("nas", "/"), nullptr);
  EXPECT_EQ(iFailure.code, kExitUsage);
  EXPECT_NE(iFailure.text().find("/Volumes/nas 2"), std::string::npos);
}

TEST_F(FindVolume, SaysWhatIsMountedWhenThereIsNoneOfThatName) {
  EXPECT_EQ(find("nass", "/"), nullptr);
  EXPECT_EQ(iFailure.code, kExitNotFound);
  EXPECT_NE(iFailure.text().find("Phötos"), std::string::npos);
}

TEST(HelperStatus, IsReadFromItsJSON) {
  const auto status = parseHelperStatus(
      R"({"volumeName":"n","mountPath":null,"registeredName":"r","address":"a","username":"u","protocol":"sftp","pid":7,"state":"mounted","more":[1]})");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->volumeName, "n");
  EXPECT_EQ(status->mountPath, "");
  EXPECT_EQ(status->state, "mounted");
  EXPECT_EQ(status->pid, 0) << "the number comes from the bus, not from what the helper says";
}

class BadStatus : public testing::TestWithParam<std::string> {};

TEST_P(BadStatus, IsRefused) { EXPECT_FALSE(parseHelperStatus(GetParam())); }

INSTANTIATE_TEST_SUITE_P(Table, BadStatus,
                         testing::Values("", "[]", "7", "{", "{\"a\":\"" + std::string(70000, 'x') + "\"}",
                                         "{} x"));

TEST(HelperStatus, MembersOfTheWrongTypeCountAsAbsent) {
  const auto status = parseHelperStatus(R"({"volumeName":7,"mountPath":["x"],"state":{}})");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->volumeName + status->mountPath + status->state, "");
}

}  // namespace
}  // namespace ombra
