// Attributes and extended attributes through a mount.
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

class MountAttributesTest : public MountTest {
 protected:
  struct stat attributesOf(const std::string& path) {
    struct stat attributes {};
    EXPECT_EQ(lstat(at(path).c_str(), &attributes), 0) << path;
    return attributes;
  }
  int setTimes(const std::string& path, int64_t seconds, int flags = 0) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    return errnoOf([&] { return utimensat(AT_FDCWD, at(path).c_str(), times, flags); });
  }
  int changeMode(const std::string& path, mode_t mode) {
    return errnoOf([&] { return chmod(at(path).c_str(), mode); });
  }
};

TEST_F(MountAttributesTest, AttributesAreTheDelegates) {
  iFiles.addFile("/a", "12345", 0640);
  mount();
  const struct stat attributes = attributesOf("/a");
  EXPECT_TRUE(S_ISREG(attributes.st_mode));
  EXPECT_EQ(attributes.st_mode & 07777, 0640u);
  EXPECT_EQ(attributes.st_size, 5);
  EXPECT_EQ(attributes.st_mtime, 1500000000);
  EXPECT_EQ(attributes.st_ino, iFiles.itemAt("/a")->number);
  EXPECT_EQ(attributes.st_uid, getuid());
  EXPECT_EQ(attributes.st_gid, getgid());
}

TEST_F(MountAttributesTest, ProgramsAreAdvisedToCopyInLargePieces) {
  iFiles.addFile("/a", "12345");
  mount();
  EXPECT_EQ(attributesOf("/a").st_blksize, 512 * 1024);
  EXPECT_EQ(attributesOf("/").st_blksize, 4096);
}

TEST_F(MountAttributesTest, AFailureWithoutAnErrorIsAnInputOutputError) {
  iFiles.addFile("/a", "");
  iFiles.failWith("attributes", 0);
  mount();
  struct stat attributes {};
  EXPECT_EQ(errnoOf([&] { return stat(at("/a").c_str(), &attributes); }), EIO);
}

TEST_F(MountAttributesTest, AnExceptionOfTheDelegateIsAnInputOutputErrorAndTheMountGoesOn) {
  iFiles.addFile("/a", "content");
  iFiles.raiseIn("open");
  mount();
  EXPECT_EQ(File(at("/a"), O_RDONLY).error(), EIO);
  EXPECT_EQ(attributesOf("/a").st_size, 7);
}

TEST_F(MountAttributesTest, ModeAndDatesOfAClosedFileAreChangedWithoutItsContent) {
  iFiles.addFile("/a", "content");
  mount();
  EXPECT_EQ(changeMode("/a", 0600), 0);
  EXPECT_EQ(setTimes("/a", 1234567890), 0);
  EXPECT_EQ(attributesOf("/a").st_mode & 07777, 0600u);
  EXPECT_EQ(attributesOf("/a").st_mtime, 1234567890);
  EXPECT_EQ(iFiles.countOf("changeWithoutContent /a"), 2u);
  EXPECT_EQ(iFiles.countOf("setAttributes") + iFiles.countOf("open"), 0u);
}

TEST_F(MountAttributesTest, AnOpenFileIsChangedThroughItsOpenFileObject) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDWR);
  EXPECT_EQ(fchmod(file.get(), 0600), 0);
  EXPECT_EQ(changeMode("/a", 0640), 0);
  EXPECT_EQ(iFiles.countOf("setAttributes /a {NSFilePosixPermissions=0600} open"), 1u);
  EXPECT_EQ(iFiles.countOf("setAttributes /a {NSFilePosixPermissions=0640} open"), 1u);
}

// --- dates of open files

class DatesOfOpenFilesTest : public MountAttributesTest {
 protected:
  static int setDate(const File& file, int64_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    return futimens(file.get(), times);
  }
  size_t positionOf(const std::string& beginning) {
    const std::vector<std::string> calls = iFiles.calls();
    const auto found = std::find_if(calls.begin(), calls.end(),
                                    [&](const std::string& call) { return call.rfind(beginning, 0) == 0; });
    return static_cast<size_t>(found - calls.begin());
  }
};

TEST_F(DatesOfOpenFilesTest, AreStoredAfterTheContent) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDWR);
  ASSERT_EQ(pwrite(file.get(), "C", 1, 0), 1);
  ASSERT_EQ(setDate(file, 1234567890), 0);
  EXPECT_EQ(iFiles.countOf("setAttributes /a"), 1u);
  EXPECT_EQ(iFiles.countOf("changeWithoutContent /a"), 1u);
  EXPECT_LT(positionOf("synchronize /a"), positionOf("changeWithoutContent /a"));
  EXPECT_EQ(attributesOf("/a").st_mtime, 1234567890);
}

TEST_F(DatesOfOpenFilesTest, AreStoredWhoeverHasTheFileOpen) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDONLY);
  EXPECT_EQ(setTimes("/a", 1234567890), 0);
  EXPECT_EQ(iFiles.countOf("changeWithoutContent /a"), 1u);
}

TEST_F(DatesOfOpenFilesTest, ThatCannotBeStoredAreRefused) {
  iFiles.addFile("/a", "content");
  iFiles.failWith("changeWithoutContent", kEACCES);
  mount();
  const File file(at("/a"), O_WRONLY);
  EXPECT_EQ(errnoOf([&] { return setDate(file, 1); }), EACCES);
}

TEST_F(DatesOfOpenFilesTest, AreNotStoredBeforeContentThatCannotBe) {
  iFiles.addFile("/a", "content");
  iFiles.failWith("synchronize", kEIO);
  mount();
  const File file(at("/a"), O_WRONLY);
  EXPECT_EQ(errnoOf([&] { return setDate(file, 1); }), EIO);
  EXPECT_EQ(iFiles.countOf("changeWithoutContent"), 0u);
}

TEST_F(MountAttributesTest, AFoldersModeShowsAtOnce) {
  iFiles.addFolder("/folder");
  mount();
  EXPECT_EQ(changeMode("/folder", 0700), 0);
  EXPECT_EQ(iFiles.itemAt("/folder")->permissions, 0700);
  EXPECT_EQ(iFiles.countOf("changeWithoutContent /folder"), 1u);
}

TEST_F(MountAttributesTest, DatesOfALinkAreTakenAndKeptNowhere) {
  iFiles.addLink("/link", "nowhere");
  mount();
  EXPECT_EQ(setTimes("/link", 1, AT_SYMLINK_NOFOLLOW), 0);
  EXPECT_EQ(iFiles.countOf("setAttributes") + iFiles.countOf("changeWithoutContent"), 0u);
}

TEST_F(MountAttributesTest, OnlyTheOwnerThatIsShownCanBeAskedFor) {
  iFiles.addFile("/a", "");
  mount();
  iFiles.forgetCalls();
  EXPECT_EQ(errnoOf([&] { return chown(at("/a").c_str(), getuid(), getgid()); }), 0);
  EXPECT_EQ(errnoOf([&] { return chown(at("/a").c_str(), static_cast<uid_t>(-1), getgid()); }), 0);
  EXPECT_EQ(errnoOf([&] { return chown(at("/a").c_str(), getuid() + 1, getgid()); }), EPERM);
  EXPECT_EQ(iFiles.countOf("setAttributes") + iFiles.countOf("open"), 0u);
}

TEST_F(MountAttributesTest, SpaceIsTheVolumes) {
  mount();
  struct statvfs space {};
  ASSERT_EQ(statvfs(mountPath().c_str(), &space), 0);
  EXPECT_EQ(space.f_blocks * space.f_frsize, 32212254720u);
  EXPECT_EQ(space.f_bavail * space.f_frsize, 16106127360u);
}

TEST_F(MountAttributesTest, InvalidatingAnItemAsksForItsAttributesAgain) {
  iFiles.addFile("/a", "12345");
  mount();
  EXPECT_EQ(attributesOf("/a").st_size, 5);
  iFiles.erase("/a");
  iFiles.addFile("/a", "123456789");
  EXPECT_EQ(attributesOf("/a").st_size, 5) << "answered from the kernel's memory";
  iFileSystem->invalidateItemAtPath("/a", false);
  while (attributesOf("/a").st_size != 9) std::this_thread::yield();
}

std::string valueOf(const std::string& path, const char* name) {
  char buffer[256];
  const ssize_t size = getxattr(path.c_str(), name, buffer, sizeof buffer);
  return size < 0 ? "errno " + std::to_string(errno) : std::string(buffer, static_cast<size_t>(size));
}

int setValue(const std::string& path, const char* name, std::string_view value, int flags = 0) {
  return errnoOf([&] { return setxattr(path.c_str(), name, value.data(), value.size(), flags); });
}

TEST_F(MountAttributesTest, ExtendedAttributesAreSetReadAndListed) {
  iFiles.addFile("/a", "");
  mount();
  EXPECT_EQ(setValue(at("/a"), "user.colour", "green"), 0);
  EXPECT_EQ(setValue(at("/a"), "user.empty", ""), 0);
  EXPECT_EQ(valueOf(at("/a"), "user.colour"), "green");
  EXPECT_EQ(valueOf(at("/a"), "user.empty"), "");
  char list[256];
  const ssize_t size = listxattr(at("/a").c_str(), list, sizeof list);
  EXPECT_EQ(std::string(list, static_cast<size_t>(size)), std::string("user.colour\0user.empty\0", 23));
}

TEST_F(MountAttributesTest, AMissingExtendedAttributeHasThisSystemsNumber) {
  iFiles.addFile("/a", "");
  mount();
  EXPECT_EQ(valueOf(at("/a"), "user.none"), "errno 61");
}

TEST_F(MountAttributesTest, ExtendedAttributeOptionsArriveAsTheInterfaceNumbersThem) {
  iFiles.addFile("/a", "");
  mount();
  EXPECT_EQ(setValue(at("/a"), "user.x", "1", XATTR_REPLACE), 61);
  EXPECT_EQ(setValue(at("/a"), "user.x", "1", XATTR_CREATE), 0);
  EXPECT_EQ(setValue(at("/a"), "user.x", "1", XATTR_CREATE), 17);
  EXPECT_EQ(iFiles.countOf("setxattr /a user.x 0x4"), 1u);
  EXPECT_EQ(iFiles.countOf("setxattr /a user.x 0x2"), 2u);
}

TEST_F(MountAttributesTest, AValueLargerThanTheBufferIsToldByItsSize) {
  iFiles.addFile("/a", "");
  mount();
  ASSERT_EQ(setValue(at("/a"), "user.x", "0123456789"), 0);
  char small[4];
  EXPECT_EQ(getxattr(at("/a").c_str(), "user.x", nullptr, 0), 10);
  EXPECT_EQ(errnoOf([&] { return static_cast<int>(getxattr(at("/a").c_str(), "user.x", small, 4)); }),
            ERANGE);
}

TEST_F(MountAttributesTest, AttributesOfTheSystemNeverReachTheDelegate) {
  iFiles.addFile("/a", "");
  mount();
  // The kernel itself refuses the first to anyone but root.
  EXPECT_EQ(setValue(at("/a"), "security.test", "x"), geteuid() == 0 ? EOPNOTSUPP : EPERM);
  EXPECT_EQ(valueOf(at("/a"), "security.test"), "errno " + std::to_string(EOPNOTSUPP));
  EXPECT_EQ(valueOf(at("/a"), "system.posix_acl_access"), "errno " + std::to_string(EOPNOTSUPP));
  EXPECT_EQ(iFiles.countOf("setxattr") + iFiles.countOf("getxattr"), 0u);
}

TEST_F(MountAttributesTest, RemovalOfAnExtendedAttributeIsNotSupported) {
  iFiles.addFile("/a", "");
  mount();
  ASSERT_EQ(setValue(at("/a"), "user.x", "1"), 0);
  EXPECT_EQ(errnoOf([&] { return removexattr(at("/a").c_str(), "user.x"); }), EOPNOTSUPP);
  EXPECT_EQ(valueOf(at("/a"), "user.x"), "1");
}

TEST_F(MountAttributesTest, WithoutTheOptionThereAreNoExtendedAttributes) {
  iFiles.addFile("/a", "");
  mount({});
  EXPECT_EQ(setValue(at("/a"), "user.x", "1"), EOPNOTSUPP);
  EXPECT_EQ(valueOf(at("/a"), "user.x"), "errno " + std::to_string(EOPNOTSUPP));
}

// Every process but those with CAP_FSETID takes these bits away by changing a file: runs `body` as one of
// them.
template <typename Body>
int asOrdinaryProcess(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (syscall(SYS_capget, &header, data) != 0) _exit(120);
    data[0].effective &= ~(1u << CAP_FSETID);
    if (syscall(SYS_capset, &header, data) != 0) _exit(121);
    _exit(body());
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(MountAttributesTest, WritesOfOneFileDoNotAskForItsCapabilitiesEachTime) {
  iFiles.addFile("/a", "");
  mount();
  File file(at("/a"), O_WRONLY);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(write(file.get(), "x", 1), 1);
  EXPECT_EQ(iFiles.countOf("write /a"), 50u);
  EXPECT_LT(iFiles.countOf("getxattr /a"), 10u);
}

TEST_F(MountAttributesTest, AWriteTakesTheSetUserIDBitAway) {
  iFiles.addFile("/a", "content", 06755);
  mount();
  const std::string path = at("/a");
  EXPECT_EQ(asOrdinaryProcess([&] {
              const int file = open(path.c_str(), O_WRONLY);
              return write(file, "x", 1) == 1 && write(file, "y", 1) == 1 && close(file) == 0 ? 0 : 1;
            }),
            0);
  EXPECT_EQ(iFiles.itemAt("/a")->permissions, 0755);
  EXPECT_EQ(iFiles.contentOf("/a"), "xyntent");
}

TEST_F(MountAttributesTest, ATruncationTakesTheSetUserIDBitAway) {
  iFiles.addFile("/a", "content", 04755);
  iFiles.addFile("/b", "content", 04755);
  mount();
  const std::string path = at("/a");
  const std::string opened = at("/b");
  EXPECT_EQ(asOrdinaryProcess([&] { return truncate(path.c_str(), 3) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(iFiles.itemAt("/a")->permissions, 0755);
  EXPECT_EQ(asOrdinaryProcess([&] {
              const int file = open(opened.c_str(), O_WRONLY | O_TRUNC);
              return file >= 0 && close(file) == 0 ? 0 : 1;
            }),
            0);
  EXPECT_EQ(iFiles.itemAt("/b")->permissions, 0755);
}

TEST_F(MountAttributesTest, ASetGroupIDBitWithoutExecutionStays) {
  iFiles.addFile("/a", "content", 02644);
  mount();
  const std::string path = at("/a");
  EXPECT_EQ(asOrdinaryProcess([&] {
              const int file = open(path.c_str(), O_WRONLY);
              return write(file, "x", 1) == 1 && close(file) == 0 ? 0 : 1;
            }),
            0);
  EXPECT_EQ(iFiles.itemAt("/a")->permissions, 02644);
}

TEST_F(MountAttributesTest, ABitSetWhileTheFileIsOpenIsTakenByTheNextWrite) {
  iFiles.addFile("/a", "content", 0755);
  mount();
  const std::string path = at("/a");
  EXPECT_EQ(asOrdinaryProcess([&] {
              const int file = open(path.c_str(), O_WRONLY);
              if (write(file, "x", 1) != 1 || fchmod(file, 04755) != 0) return 1;
              return write(file, "y", 1) == 1 && close(file) == 0 ? 0 : 2;
            }),
            0);
  EXPECT_EQ(iFiles.itemAt("/a")->permissions, 0755);
}

TEST_F(MountAttributesTest, ARefusedChangeOfTheModeStopsTheWrite) {
  iFiles.addFile("/a", "content", 04755);
  mount();
  const std::string path = at("/a");
  File file(path, O_WRONLY);
  iFiles.failWith("setAttributes", kEIO);
  EXPECT_EQ(asOrdinaryProcess([&] { return write(file.get(), "x", 1) == 1 ? 0 : errno; }), EIO);
  EXPECT_EQ(iFiles.contentOf("/a"), "content");
}

}  // namespace
}  // namespace ombra
