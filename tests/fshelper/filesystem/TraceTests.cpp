// The trace lines of the operations: full signature, arguments, indentation.
#include <any>
#include <functional>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/StAbstractConnectionMissing.h"
#include "platform/foundation/Gestalt.h"
#include "platform/foundation/NSThread.h"
#include "remote/KCTypes.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::SizeIs;

struct Traced {
  std::string line;  // signature and arguments
  std::function<void(OmbraFileSystem& fileSystem, const GMUserData& file)> call;
};

class Trace : public FileSystemTest, public ::testing::WithParamInterface<Traced> {
 protected:
  Trace() {
    server.addFile("/a.txt", "content");
    server.addLink("/l", "a.txt");
    connect();
    file = open("/a.txt");
    read(file);
  }
  GMUserData file;
};

TEST_P(Trace, EntersFirstAndLeavesLastWithoutABlankBefore) {
  RecordedLog log;
  {
    const TracingOn tracing;
    GetParam().call(fileSystem, file);
  }
  const std::vector<std::string> lines = log.lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines.front(), "{ " + GetParam().line);
  EXPECT_EQ(lines.back(), "} " + GetParam().line);
}

NSFileAttributes someAttributes() { return withMode(0640); }

INSTANTIATE_TEST_SUITE_P(
    Operations, Trace,
    ::testing::Values(
        Traced{"-[OmbraFileSystem preflight:] ",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.preflight(nullptr); }},
        Traced{"-[OmbraFileSystem willMount] ",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.willMount(); }},
        Traced{"-[OmbraFileSystem contentsOfDirectoryAtPath:error:] /",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.contentsOfDirectoryAtPath("/", nullptr); }},
        Traced{"-[OmbraFileSystem contentsOfDirectoryAtPath:error:] (null)",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.contentsOfDirectoryAtPath({}, nullptr); }},
        Traced{"-[OmbraFileSystem attributesOfItemAtPath:userData:error:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.attributesOfItemAtPath("/a.txt", nullptr, nullptr);
               }},
        Traced{"-[OmbraFileSystem MacFUSE_1_7_attributesOfItemAtPath:error:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.MacFUSE_1_7_attributesOfItemAtPath("/a.txt", nullptr);
               }},
        Traced{
            "-[OmbraFileSystem attributesOfFileSystemForPath:error:] /",
            [](OmbraFileSystem& fs, const GMUserData&) { fs.attributesOfFileSystemForPath("/", nullptr); }},
        Traced{"-[OmbraFileSystem MacFUSE_1_7_setAttributes:ofItemAtPath:error:] /a.txt, attributes=" +
                   someAttributes().description(),
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.MacFUSE_1_7_setAttributes(someAttributes(), "/a.txt", nullptr);
               }},
        Traced{"-[OmbraFileSystem setAttributes:ofItemAtPath:userData:error:] /a.txt, attributes=" +
                   someAttributes().description(),
               [](OmbraFileSystem& fs, const GMUserData& file) {
                 fs.setAttributes(someAttributes(), "/a.txt", file, nullptr);
               }},
        Traced{"-[OmbraFileSystem extendedAttributesOfItemAtPath:error:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.extendedAttributesOfItemAtPath("/a.txt", nullptr);
               }},
        Traced{
            "-[OmbraFileSystem valueOfExtendedAttribute:ofItemAtPath:position:error:] /a.txt, name=user.x, "
            "position=3",
            [](OmbraFileSystem& fs, const GMUserData&) {
              fs.valueOfExtendedAttribute("user.x", "/a.txt", 3, nullptr);
            }},
        Traced{"-[OmbraFileSystem setExtendedAttribute:ofItemAtPath:value:position:options:error:] /a.txt, "
               "name=user.x, position=3, options=0x12",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.setExtendedAttribute("user.x", "/a.txt", {}, 3, 0x12, nullptr);
               }}));

INSTANTIATE_TEST_SUITE_P(
    NameSpaceAndFileOperations, Trace,
    ::testing::Values(
        Traced{"-[OmbraFileSystem createDirectoryAtPath:attributes:error:] /new, attributes=" +
                   someAttributes().description(),
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.createDirectoryAtPath("/new", someAttributes(), nullptr);
               }},
        Traced{"-[OmbraFileSystem createFileAtPath:attributes:userData:error:] /new, attributes=" +
                   someAttributes().description(),
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.createFileAtPath("/new", someAttributes(), nullptr, nullptr);
               }},
        Traced{"-[OmbraFileSystem createSymbolicLinkAtPath:withDestinationPath:error:] /new -> ../x",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.createSymbolicLinkAtPath("/new", "../x", nullptr);
               }},
        Traced{"-[OmbraFileSystem destinationOfSymbolicLinkAtPath:error:] /l",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.destinationOfSymbolicLinkAtPath("/l", nullptr);
               }},
        Traced{
            "-[OmbraFileSystem moveItemAtPath:toPath:error:] /a.txt /b.txt",
            [](OmbraFileSystem& fs, const GMUserData&) { fs.moveItemAtPath("/a.txt", "/b.txt", nullptr); }},
        Traced{"-[OmbraFileSystem removeItemAtPath:error:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.removeItemAtPath("/a.txt", nullptr); }},
        Traced{
            "-[OmbraFileSystem openFileAtPath:mode:userData:error:] /a.txt",
            [](OmbraFileSystem& fs, const GMUserData&) { fs.openFileAtPath("/a.txt", 0, nullptr, nullptr); }},
        Traced{"-[OmbraFileSystem readFileAtPath:userData:buffer:size:offset:error:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData& file) {
                 char byte = 0;
                 fs.readFileAtPath("/a.txt", file, &byte, 1, 0, nullptr);
               }},
        Traced{"-[OmbraFileSystem writeFileAtPath:userData:buffer:size:offset:error:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData& file) {
                 fs.writeFileAtPath("/a.txt", file, "x", 1, 0, nullptr);
               }},
        Traced{"-[OmbraFileSystem truncateFileAtPath:userData:offset:error:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData& file) {
                 fs.truncateFileAtPath("/a.txt", file, 0, nullptr);
               }},
        Traced{"-[OmbraFileSystem releaseFileAtPath:userData:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData& file) { fs.releaseFileAtPath("/a.txt", file); }}));

INSTANTIATE_TEST_SUITE_P(
    PathsAndProperties, Trace,
    ::testing::Values(
        Traced{"-[OmbraFileSystem setConnectionPool:] 0x0",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.setConnectionPool(nullptr); }},
        Traced{"-[OmbraFileSystem _nodeForPath:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) { fs._nodeForPath("/a.txt"); }},
        Traced{"-[OmbraFileSystem nodeForPath:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.nodeForPath("/a.txt"); }},
        Traced{"-[OmbraFileSystem remotePathForPath:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.remotePathForPath("/a.txt"); }},
        Traced{"-[OmbraFileSystem remotePathForFullPath:] /Volumes/a",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.remotePathForFullPath("/Volumes/a"); }},
        Traced{"-[OmbraFileSystem pathForRemotePath:] /a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.pathForRemotePath("/a.txt"); }},
        Traced{"-[OmbraFileSystem _remoteFileForNode:path:] /server/path",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs._remoteFileForNode(fs.rootNode(), "/server/path");
               }},
        Traced{"-[OmbraFileSystem _comparisonNodeWithDisplayName:] a.txt",
               [](OmbraFileSystem& fs, const GMUserData&) { fs._comparisonNodeWithDisplayName("a.txt"); }},
        Traced{"-[OmbraFileSystem connection:isWorthyTrust:] ",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.connection(missingConnection(), {}); }},
        Traced{"-[KCConnectionPool(OFSAdditions) ofs_acquireConnectionForFileSystem:error:] ",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 const auto pool = fs.connectionPool();
                 pool->releaseConnection(ofs_acquireConnectionForFileSystem(*pool, fs, nullptr));
               }},
        Traced{"-[AbstractConnection(OFSAdditions) "
               "ofs_resolvedPathForNode:isDirectory:targetExists:error:] /l",
               [](OmbraFileSystem&, const GMUserData&) {
                 const KCRemoteFileNode link("/l", nullptr);
                 ofs_resolvedPathForNode(missingConnection(), link, nullptr, nullptr, nullptr);
               }},
        Traced{"-[OmbraFileSystem fileSystemAttributesNeedUpdate:] 1",
               [](OmbraFileSystem& fs, const GMUserData&) { fs.fileSystemAttributesNeedUpdate(true); }},
        Traced{"-[OmbraFileSystem openTranscriptLogAtPath:] /proc/nowhere/x.log",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.openTranscriptLogAtPath("/proc/nowhere/x.log");
               }},
        Traced{"-[OmbraFileSystem connectionUUID:appendTranscript:isOutgoing:] "
               "6FA459EA-EE8A-4CA4-894E-DB77E160355E",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.connectionUUID(*KCUUID::uuidWithString("6FA459EA-EE8A-4CA4-894E-DB77E160355E"), "secret",
                                   true);
               }},
        Traced{"-[OmbraFileSystem connectionUUIDFlushTranscript:] 6FA459EA-EE8A-4CA4-894E-DB77E160355E",
               [](OmbraFileSystem& fs, const GMUserData&) {
                 fs.connectionUUIDFlushTranscript(
                     *KCUUID::uuidWithString("6FA459EA-EE8A-4CA4-894E-DB77E160355E"));
               }}));

class TraceMessage : public FileSystemTest {
 protected:
  RecordedLog log;
  const TracingOn tracing;
};

TEST_F(TraceMessage, AnItemsModeIsToldInOctal) {
  server.addFile("/a.txt", "");
  server.setPermissions("/a.txt", 0640);
  connect();
  fileSystem.attributesOfItemAtPath("/a.txt", nullptr, nullptr);
  EXPECT_THAT(log.lines(), Contains(::testing::MatchesRegex(".*Attributes\\.cpp:[0-9]+: mode=0640")));
}

TEST_F(TraceMessage, BothFormsOfAPathAreTold) {
  connectAt("/home/u");
  fileSystem.remotePathForPath("/a");
  EXPECT_THAT(log.lines(), Contains(EndsWith(": path=/a, remotePath=/home/u/a")));
}

TEST_F(TraceMessage, AMissingItemsPathIsTold) {
  connect();
  fileSystem.nodeForPath("/nowhere");
  EXPECT_THAT(log.lines(), Contains(::testing::MatchesRegex(".*NodeTree\\.cpp:[0-9]+: path=/nowhere")));
}

TEST_F(TraceMessage, AResolvedLinkIsTold) {
  server.addFile("/a", "a");
  server.addLink("/l", "a");
  connect();
  list("/");
  EXPECT_THAT(log.lines(), Contains(EndsWith(": symlinkPath=/l targetPath=a")));
  EXPECT_THAT(log.lines(), Contains(EndsWith(": path=/l, target=/a, isDirectory=0")));
}

TEST_F(TraceMessage, WhetherTheFileSystemIsConnectedIsTold) {
  connect();
  EXPECT_THAT(log.lines(), Contains(EndsWith(": isConnected=1")));
}

TEST_F(TraceMessage, AFailedLoginIsTold) {
  server.fail("connect", kAnyPath, refusal(kQuarnKitLoginFailed));
  fileSystem.preflight(&error);
  EXPECT_THAT(log.lines(), Contains(EndsWith(": connect error " + error->description())));
  EXPECT_THAT(log.lines(), Contains(EndsWith(": isConnected=0")));
}

TEST_F(TraceMessage, TheRootsWayDownIsTold) {
  server.addFolder("/a/b");
  connect();
  fileSystem.setInitialPath("/a/b");
  server.failAlways("contentsAtPath", "/", refusal(kQuarnKitListingNotPermitted));
  fileSystem.willMount();
  EXPECT_THAT(log.lines(), Contains(EndsWith(": rootPath=/, initialPath=/a/b")));
  EXPECT_THAT(log.lines(), Contains(EndsWith(": rootPath=/a, initialPath=/b")));
}

TEST_F(TraceMessage, AnErrorIsLoggedBeforeItIsAnswered) {
  connect();
  fileSystem.contentsOfDirectoryAtPath(std::nullopt, &error);
  EXPECT_THAT(log.linesWith(": " + error->description()), SizeIs(1));
}

TEST_F(TraceMessage, WithoutTracingNothingIsWritten) {
  gTracingEnabled.store(false);
  server.addFile("/a.txt", "a");
  connect();
  log.clear();
  list("/");
  open("/a.txt");
  EXPECT_THAT(log.lines(), ::testing::IsEmpty());
}

TEST_F(TraceMessage, TheBeginningAndTheEndOfTheObjectAreTold) {
  log.clear();
  { const OmbraFileSystem other; }
  EXPECT_THAT(log.lines(),
              ::testing::ElementsAre("{ -[OmbraFileSystem init] ", "} -[OmbraFileSystem init] ",
                                     "{ -[OmbraFileSystem dealloc] ", "} -[OmbraFileSystem dealloc] "));
}

TEST_F(TraceMessage, TheThreadsNestingLevelIsInItsDictionary) {
  connect();
  const auto level = [] {
    const long* value = std::any_cast<long>(&NSThread::threadDictionary("OFSDebugNestingLevel"));
    return value == nullptr ? 0 : *value;
  };
  long during = 0;
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name == "contentsAtPath") during = level();
  });
  const long before = level();
  list("/");
  EXPECT_EQ(during, before + 1);
  EXPECT_EQ(level(), before);
}

// Debug logging without tracing.
class DebugLogging : public FileSystemTest {
 protected:
  DebugLogging() {
    forget();
    NewGestaltValue(kSelector, 1);
    server.addFile("/a.txt", "a");
    connect();
    list("/");
    log.clear();
  }
  ~DebugLogging() override { forget(); }
  static void forget() {
    DeleteGestaltValue(kSelector);
    ofs_forgetDebugLogging();
  }
  static constexpr uint32_t kSelector = fourCharacterCode("KDbg");
  RecordedLog log;
};

TEST_F(DebugLogging, AnErrorIsLoggedAsItsBareDescription) {
  fileSystem.removeItemAtPath("/nowhere", &error);
  ASSERT_NE(error, nullptr);
  EXPECT_THAT(log.lines(), ::testing::ElementsAre(error->description()));
}

TEST_F(DebugLogging, WhatProgramsAskForAllTheTimeIsNotLogged) {
  fileSystem.attributesOfItemAtPath("/nowhere", nullptr, &error);
  EXPECT_EQ(code(), kENOENT);
  fileSystem.valueOfExtendedAttribute("user.x", "/a.txt", 0, &error);
  EXPECT_EQ(code(), kENOATTR);
  EXPECT_THAT(log.lines(), ::testing::IsEmpty());
}

TEST_F(DebugLogging, TheReasonsOfARefusedMoveAreLoggedInTheirOrder) {
  server.addFile("/b.txt", "b");
  makeStale("/");
  list("/");
  log.clear();
  server.fail("deleteItemAtPath", "/b.txt", refusal(kQuarnKitPermissionDenied));
  EXPECT_FALSE(fileSystem.moveItemAtPath("/a.txt", "/b.txt", &error));
  EXPECT_THAT(log.lines(), ::testing::ElementsAre(::testing::HasSubstr("NSPOSIXErrorDomain 13 "),
                                                  ::testing::HasSubstr("NSPOSIXErrorDomain 5 "),
                                                  ::testing::HasSubstr("NSPOSIXErrorDomain 13 ")));
}

}  // namespace
}  // namespace ombra
