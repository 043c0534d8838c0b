// What the log and the caller get of the failures that the operations find themselves.
#include <functional>

#include "platform/foundation/Gestalt.h"
#include "remote/KCTypes.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;

struct OwnFailure {
  const char* name;
  InterfaceErrno code;
  std::function<bool(OmbraFileSystem& fileSystem, NSErrorRef* error)> fails;
  bool isOverLibraryError = false;
};

class OwnFailures : public FileSystemTest, public ::testing::WithParamInterface<OwnFailure> {
 protected:
  OwnFailures() {
    forgetDebugLogging();
    NewGestaltValue(kSelector, 1);
    for (const char* path : {"/a.txt", "/._a.txt", "/full/x.txt"}) server.addFile(path, "a");
    server.addFolder("/folder");
    server.setHidden("/hidden.txt", true);
    for (const auto& [operation, path] : {std::pair{"changeAttributes", "/folder"},
                                          {"createFolderAtPath", "/refused"},
                                          {"createSymbolicLinkAtPath", "/refused"},
                                          {"moveItemFromPath", "/a.txt"},
                                          {"deleteItemAtPath", "/a.txt"}}) {
      server.failAlways(operation, path, refusal());
    }
    connect();
    list("/");
    fileSystem.setExtendedAttribute("user.x", "/a.txt", {1, 2, 3}, 0, 0, nullptr);
  }
  ~OwnFailures() override { forgetDebugLogging(); }
  static void forgetDebugLogging() {
    DeleteGestaltValue(kSelector);
    ofs_forgetDebugLogging();
  }
  static constexpr uint32_t kSelector = fourCharacterCode("KDbg");
};

TEST_P(OwnFailures, AreLoggedOnceAndAnswered) {
  RecordedLog log;
  EXPECT_TRUE(GetParam().fails(fileSystem, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(error->description()));
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->code(), GetParam().code);
  EXPECT_EQ(error->userInfo().count(), GetParam().isOverLibraryError ? 1u : 0u);
  EXPECT_EQ(underlyingCode(), GetParam().isOverLibraryError ? kQuarnKitRefused : 0);
}

TEST_P(OwnFailures, AreLoggedAlsoWhereNobodyWantsTheError) {
  RecordedLog log;
  EXPECT_TRUE(GetParam().fails(fileSystem, nullptr));
  EXPECT_EQ(log.lines().size(), 1u);
}

using FS = OmbraFileSystem;
using Slot = NSErrorRef*;
constexpr std::nullopt_t kNoPath = std::nullopt;

INSTANTIATE_TEST_SUITE_P(
    Attributes, OwnFailures,
    ::testing::Values(
        OwnFailure{"VolumeWithoutAPath", kEFAULT,
                   [](FS& fs, Slot error) { return !fs.attributesOfFileSystemForPath(kNoPath, error); }},
        OwnFailure{"SetWithoutAPath", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.MacFUSE_1_7_setAttributes({}, kNoPath, error); }},
        OwnFailure{"SetOfNothing", kENOENT,
                   [](FS& fs, Slot error) { return !fs.setAttributes({}, "/nowhere", nullptr, error); }},
        OwnFailure{
            "RefusedFolderMode", kEIO,
            [](FS& fs, Slot error) { return !fs.setAttributes(withMode(0700), "/folder", nullptr, error); },
            true}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    ExtendedAttributes, OwnFailures,
    ::testing::Values(
        OwnFailure{"ListOfACompanion", kEPERM,
                   [](FS& fs, Slot error) { return !fs.extendedAttributesOfItemAtPath("/._a.txt", error); }},
        OwnFailure{"ListOfNothing", kENOENT,
                   [](FS& fs, Slot error) { return !fs.extendedAttributesOfItemAtPath("/nowhere", error); }},
        OwnFailure{"GetWithoutAName", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.valueOfExtendedAttribute("", "/a.txt", 0, error); }},
        OwnFailure{
            "GetOfACompanion", kEPERM,
            [](FS& fs, Slot error) { return !fs.valueOfExtendedAttribute("x", "/._a.txt", 0, error); }},
        OwnFailure{
            "GetOfNothing", kENOENT,
            [](FS& fs, Slot error) { return !fs.valueOfExtendedAttribute("x", "/nowhere", 0, error); }},
        OwnFailure{
            "GetBeyondTheEnd", kERANGE,
            [](FS& fs, Slot error) { return !fs.valueOfExtendedAttribute("user.x", "/a.txt", 4, error); }},
        OwnFailure{"SetOfAnExistingName", kEEXIST,
                   [](FS& fs, Slot error) {
                     return !fs.setExtendedAttribute("user.x", "/a.txt", {}, 0, kXATTR_CREATE, error);
                   }},
        OwnFailure{"SetOfAMissingName", kENOATTR,
                   [](FS& fs, Slot error) {
                     return !fs.setExtendedAttribute("user.y", "/a.txt", {}, 0, kXATTR_REPLACE, error);
                   }}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    NewItems, OwnFailures,
    ::testing::Values(
        OwnFailure{"FolderWithoutAPath", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.createDirectoryAtPath(kNoPath, {}, error); }},
        OwnFailure{"FolderInNothing", kENOENT,
                   [](FS& fs, Slot error) { return !fs.createDirectoryAtPath("/nowhere/x", {}, error); }},
        OwnFailure{"RefusedFolder", kEACCES,
                   [](FS& fs, Slot error) { return !fs.createDirectoryAtPath("/refused", {}, error); }, true},
        OwnFailure{"FileWithoutAPath", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.createFileAtPath(kNoPath, {}, nullptr, error); }},
        OwnFailure{"FileInNothing", kENOENT,
                   [](FS& fs, Slot error) { return !fs.createFileAtPath("/nowhere/x", {}, nullptr, error); }},
        OwnFailure{
            "FileThatIsNotListed", kEIO,
            [](FS& fs, Slot error) { return !fs.createFileAtPath("/hidden.txt", {}, nullptr, error); }},
        OwnFailure{"LinkWithoutAPath", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.createSymbolicLinkAtPath(kNoPath, "x", error); }},
        OwnFailure{"LinkInNothing", kENOENT,
                   [](FS& fs, Slot error) { return !fs.createSymbolicLinkAtPath("/nowhere/x", "x", error); }},
        OwnFailure{"RefusedLink", kEIO,
                   [](FS& fs, Slot error) { return !fs.createSymbolicLinkAtPath("/refused", "x", error); },
                   true}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    LinksMovesAndRemovals, OwnFailures,
    ::testing::Values(
        OwnFailure{"ReadLinkWithoutAPath", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.destinationOfSymbolicLinkAtPath(kNoPath, error); }},
        OwnFailure{"ReadLinkOfNothing", kENOENT,
                   [](FS& fs, Slot error) { return !fs.destinationOfSymbolicLinkAtPath("/nowhere", error); }},
        OwnFailure{"RemovalWithoutAPath", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.removeItemAtPath(kNoPath, error); }},
        OwnFailure{"RemovalOfAFullFolder", kENOTEMPTY,
                   [](FS& fs, Slot error) { return !fs.removeItemAtPath("/full", error); }},
        OwnFailure{"RefusedRemoval", kEACCES,
                   [](FS& fs, Slot error) { return !fs.removeItemAtPath("/a.txt", error); }, true},
        OwnFailure{"MoveWithoutAPath", kEINVAL,
                   [](FS& fs, Slot error) { return !fs.moveItemAtPath("/a.txt", kNoPath, error); }},
        OwnFailure{"MoveOfNothing", kENOENT,
                   [](FS& fs, Slot error) { return !fs.moveItemAtPath("/nowhere", "/b", error); }},
        OwnFailure{"RefusedMove", kEACCES,
                   [](FS& fs, Slot error) { return !fs.moveItemAtPath("/a.txt", "/b", error); }, true}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace ombra
