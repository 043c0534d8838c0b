// What calls on a pooled connection answer, and what happens when the server goes away meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using Nodes = std::vector<std::shared_ptr<KCRemoteFileNode>>;

void listing(FakeEngine& engine, const std::vector<RemoteEntry>& listed) {
  engine.onList = [listed](FakeSession&, const std::string&, std::vector<RemoteEntry>* entries, NSErrorRef*) {
    *entries = listed;
    return true;
  };
}

TEST(PoolListing, MakesANodePerEntryInTheServersOrder) {
  FakePool fake;
  RemoteEntry link = entryNamed("l", kNodeTypeAlias);
  link.targetPath = "../x";
  RemoteEntry file = entryNamed("b.txt");
  file.attributes.fileSize = 5;
  file.attributes.posixPermissions = 0640;
  listing(*fake.engine, {entryNamed("sub", kNodeTypeFolder), file, link});
  fake.with([](AbstractConnection& connection) {
    Nodes nodes;
    ASSERT_TRUE(connection.contentsAtPath("/home//u/", &nodes, nullptr));
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_EQ(nodes[0]->path(), "/home/u/sub");
    EXPECT_NE(dynamic_cast<KCRemoteFolderNode*>(nodes[0].get()), nullptr);
    EXPECT_EQ(nodes[1]->type(), kNodeTypeFile);
    EXPECT_EQ(nodes[1]->filename(), "b.txt");
    EXPECT_EQ(nodes[1]->displayName(), "b.txt");
    EXPECT_EQ(nodes[1]->size(), 5u);
    EXPECT_EQ(nodes[1]->permissions(), FilePermissions(0640));
    EXPECT_EQ(nodes[2]->type(), kNodeTypeAlias);
    EXPECT_EQ(nodes[2]->targetPath(), "../x");
  });
}

TEST(PoolListing, NamesThatAreNoNamesAreNeverShown) {
  FakePool fake;
  listing(*fake.engine,
          {entryNamed("."), entryNamed(".."), entryNamed(""), entryNamed("a/b"), entryNamed("/"),
           entryNamed(std::string("a\0b", 3)), entryNamed("..."), entryNamed("ok")});
  fake.with([](AbstractConnection& connection) {
    Nodes nodes;
    ASSERT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0]->path(), "/...");
    EXPECT_EQ(nodes[1]->path(), "/ok");
  });
}

TEST(PoolListing, ShowsNamesInTheEncodingOfTheCredentials) {
  FakePool fake;
  fake.credentials->setEncoding("ISO-8859-1");
  listing(*fake.engine, {entryNamed("\xFC")});
  fake.with([](AbstractConnection& connection) {
    Nodes nodes;
    ASSERT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    EXPECT_EQ(nodes[0]->displayName(), "ü");
    EXPECT_EQ(nodes[0]->filename(), "\xFC");
    EXPECT_EQ(nodes[0]->path(), "/\xFC");
  });
}

TEST(PoolListing, LinksAreAnsweredFromTheListingOnTheSameAcquisition) {
  FakePool fake;
  RemoteEntry link = entryNamed("l", kNodeTypeAlias);
  link.resolution = LinkResolution{};
  link.resolution->resolved = true;
  link.resolution->exists = true;
  link.resolution->resolvedPath = "/data/x";
  link.resolution->attributes = NSFileAttributes{};
  link.resolution->attributes->fileSize = 7;
  listing(*fake.engine, {link});
  fake.with([&](AbstractConnection& connection) {
    Nodes nodes;
    ASSERT_TRUE(connection.contentsAtPath("/d", &nodes, nullptr));
    std::string resolved;
    bool isDirectory = true;
    EXPECT_TRUE(connection.resolvePath("/d/l", &resolved, &isDirectory, nullptr));
    EXPECT_EQ(resolved, "/data/x");
    EXPECT_FALSE(isDirectory);
    EXPECT_EQ(connection.attributesOfItemAtPath("/data/x", nullptr, nullptr)->fileSize, 7u);
    EXPECT_TRUE(connection.resolvePath("/data/x", &resolved, nullptr, nullptr));
    EXPECT_EQ(resolved, "/data/x");
    EXPECT_EQ(fake.engine->resolves, 0);
    EXPECT_EQ(fake.engine->attributeCalls, 0);
    // A change may have moved the link: the server is asked again.
    EXPECT_TRUE(connection.deleteItemAtPath("/d/l", false, nullptr));
    EXPECT_TRUE(connection.resolvePath("/d/l", &resolved, nullptr, nullptr));
    EXPECT_EQ(fake.engine->resolves, 1);
  });
  fake.with([&](AbstractConnection& later) {
    EXPECT_TRUE(later.resolvePath("/d/l", nullptr, nullptr, nullptr));
    EXPECT_EQ(fake.engine->resolves, 2);
  });
}

TEST(PoolListing, ADanglingLinkIsKnownToDangle) {
  FakePool fake;
  RemoteEntry link = entryNamed("l", kNodeTypeAlias);
  link.resolution = LinkResolution{};
  link.resolution->resolved = true;
  link.resolution->resolvedPath = "/gone";
  listing(*fake.engine, {link});
  fake.with([&](AbstractConnection& connection) {
    Nodes nodes;
    ASSERT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    NSErrorRef error;
    EXPECT_FALSE(connection.attributesOfItemAtPath("/gone", nullptr, &error).has_value());
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNoSuchItem));
    EXPECT_EQ(fake.engine->attributeCalls, 0);
  });
}

TEST(PoolListing, ATargetThatMayBeALinkItselfIsAskedFor) {
  FakePool fake;
  RemoteEntry link = entryNamed("l", kNodeTypeAlias);
  link.resolution = LinkResolution{};
  link.resolution->resolved = true;
  link.resolution->isFinal = false;
  link.resolution->resolvedPath = "/next";
  listing(*fake.engine, {link});
  fake.with([&](AbstractConnection& connection) {
    Nodes nodes;
    ASSERT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    EXPECT_TRUE(connection.resolvePath("/l", nullptr, nullptr, nullptr));
    EXPECT_EQ(fake.engine->resolves, 0);
    EXPECT_TRUE(connection.resolvePath("/next", nullptr, nullptr, nullptr));
    EXPECT_EQ(fake.engine->resolves, 1);
  });
}

TEST(PoolCalls, ACircleOfLinksIsAFailure) {
  FakePool fake;
  fake.engine->onResolve = [](FakeSession&, const std::string&, NSErrorRef*) { return LinkResolution{}; };
  fake.with([](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(connection.resolvePath("/l", nullptr, nullptr, &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitRefused));
  });
}

TEST(PoolCalls, TheCurrentFolderIsTheLoginFolderUntilItIsChanged) {
  FakePool fake;
  fake.with([](AbstractConnection& connection) {
    EXPECT_EQ(connection.pwd(nullptr), "/home/u");
    EXPECT_TRUE(connection.changeDir("docs//x/", nullptr));
    EXPECT_EQ(connection.pwd(nullptr), "/home/u/docs/x");
    NSErrorRef error;
    EXPECT_FALSE(connection.changeDir("/a.txt", &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNotAFolder));
    EXPECT_EQ(connection.pwd(nullptr), "/home/u/docs/x");
  });
  fake.with([](AbstractConnection& later) { EXPECT_EQ(later.pwd(nullptr), "/home/u"); });
}

TEST(PoolCalls, NamesWithNULNeverReachTheServer) {
  FakePool fake;
  const std::string bad("/a\0b", 4);
  fake.with([&](AbstractConnection& connection) {
    const auto expectInvalid = [](bool result, const NSErrorRef& error) {
      EXPECT_FALSE(result);
      EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNameInvalid));
    };
    NSErrorRef error;
    Nodes nodes;
    expectInvalid(connection.contentsAtPath(bad, &nodes, &error), error);
    expectInvalid(connection.createFolderAtPath(bad, &error), error);
    expectInvalid(connection.createSymbolicLinkAtPath("/l", bad, &error), error);
    expectInvalid(connection.moveItemFromPath("/a", false, bad, &error), error);
    expectInvalid(connection.deleteItemAtPath(bad, false, &error), error);
    expectInvalid(connection.changeDir(bad, &error), error);
    expectInvalid(connection.resolvePath(bad, nullptr, nullptr, &error), error);
    expectInvalid(connection.attributesOfItemAtPath(bad, nullptr, &error).has_value(), error);
    const auto file = temporaryFile();
    expectInvalid(connection.downloadFileAtPath(bad, *file, 0, nullptr, &error), error);
    expectInvalid(connection.uploadFileHandle(*file, "a", bad, 0, nullptr, &error), error);
  });
  EXPECT_EQ(fake.engine->made, 0);
}

struct AnyCall {
  const char* name;
  bool (*make)(AbstractConnection& connection, NSErrorRef* error);
  bool isAboutLogin = false;  // fails with the login alone here
};

class Streaming final : public ConnectionDelegate {
 public:
  using ConnectionDelegate::connection;
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
};

constexpr AnyCall kCalls[] = {
    {"list",
     [](AbstractConnection& c, NSErrorRef* e) {
       Nodes nodes;
       return c.contentsAtPath("/", &nodes, e);
     }},
    {"resolve",
     [](AbstractConnection& c, NSErrorRef* e) { return c.resolvePath("/l", nullptr, nullptr, e); }},
    {"createFolder", [](AbstractConnection& c, NSErrorRef* e) { return c.createFolderAtPath("/a", e); }},
    {"createLink",
     [](AbstractConnection& c, NSErrorRef* e) { return c.createSymbolicLinkAtPath("/a", "b", e); }},
    {"move", [](AbstractConnection& c, NSErrorRef* e) { return c.moveItemFromPath("/a", false, "/b", e); }},
    {"remove", [](AbstractConnection& c, NSErrorRef* e) { return c.deleteItemAtPath("/a", false, e); }},
    {"attributes", [](AbstractConnection& c, NSErrorRef* e) { return c.changeAttributes({}, "/a", e); }},
    {"download", [](AbstractConnection& c,
                    NSErrorRef* e) { return c.downloadFileAtPath("/a", *temporaryFile(), 0, nullptr, e); }},
    {"upload", [](AbstractConnection& c,
                  NSErrorRef* e) { return c.uploadFileHandle(*temporaryFile(), "a", "/a", 0, nullptr, e); }},
    {"uploadOfAPath", [](AbstractConnection& c,
                         NSErrorRef* e) { return c.uploadFileAtPath("/dev/null", "/a", 0, nullptr, e); }},
    {"stream",
     [](AbstractConnection& c, NSErrorRef* e) {
       Streaming handler;
       return c.streamBytesWithFilename("a", "/a", handler, e);
     }},
    {"connect", [](AbstractConnection& c, NSErrorRef* e) { return c.connect(e); }, true},
    {"changeDir", [](AbstractConnection& c, NSErrorRef* e) { return c.changeDir("/", e); }, true},
    {"pwd", [](AbstractConnection& c, NSErrorRef* e) { return c.pwd(e).has_value(); }, true},
    {"attributesOf",
     [](AbstractConnection& c, NSErrorRef* e) {
       return c.attributesOfItemAtPath("/a", nullptr, e).has_value();
     },
     true},
    {"volume",
     [](AbstractConnection& c, NSErrorRef* e) { return c.fileSystemAttributesAtPath("/", e).has_value(); },
     true},
};

void expectReason(AbstractConnection& connection, const AnyCall& call, QuarnKitErrorCode code) {
  NSErrorRef error;
  EXPECT_FALSE(call.make(connection, &error)) << call.name;
  EXPECT_TRUE(QuarnKitError::isCode(error, code)) << call.name;
  EXPECT_FALSE(call.make(connection, nullptr)) << call.name;
}

TEST(PoolCalls, AFailureOfTheServerAlwaysHasAReason) {
  FakePool fake;
  fake.engine->onList = [](auto&&...) { return false; };
  fake.engine->onResolve = [](auto&&...) { return std::nullopt; };
  fake.engine->onChange = [](auto&&...) { return false; };
  fake.engine->onDownload = [](auto&&...) { return false; };
  fake.engine->onUpload = [](auto&&...) { return false; };
  fake.engine->onStream = [](auto&&...) { return false; };
  fake.with([](AbstractConnection& connection) {
    for (const AnyCall& call : kCalls) {
      if (!call.isAboutLogin) expectReason(connection, call, kQuarnKitRefused);
    }
  });
}

TEST(PoolCalls, AFailureOfTheLoginAlwaysHasAReason) {
  FakePool fake;
  fake.engine->onLogIn = [](auto&&...) { return false; };
  fake.with([](AbstractConnection& connection) {
    for (const AnyCall& call : kCalls) expectReason(connection, call, kQuarnKitLoginFailed);
  });
}

// ---- outages

TEST(PoolCalls, AfterNonsenseFromTheServerTheNextCallHasAFreshSession) {
  FakePool fake;
  fake.engine->onIsAlive = [](FakeSession& session) { return session.number > 1; };
  fake.engine->onList = [](FakeSession& session, const std::string&, std::vector<RemoteEntry>*,
                           NSErrorRef* error) {
    return session.number > 1 || failWith(kQuarnKitProtocolError, error);
  };
  fake.with([&](AbstractConnection& connection) {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    NSErrorRef error;
    EXPECT_FALSE(connection.contentsAtPath("/", &nodes, &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitProtocolError));
    EXPECT_EQ(fake.engine->lists, 1) << "nonsense is not asked for again";
    EXPECT_TRUE(connection.contentsAtPath("/", &nodes, &error));
  });
}

TEST(PoolRetry, AListingIsRepeatedOnFreshSessionsUntilTheServerIsBack) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onList = [&](FakeSession& session, const std::string&, std::vector<RemoteEntry>* entries,
                            NSErrorRef* error) {
    entries->push_back(entryNamed("half"));
    if (session.number < 4) return failWith(kQuarnKitConnectionLost, error);
    entries->push_back(entryNamed("whole"));
    return true;
  };
  std::thread caller([&] {
    fake.with([](AbstractConnection& connection) {
      Nodes nodes;
      NSErrorRef error;
      EXPECT_TRUE(connection.contentsAtPath("/", &nodes, &error));
      EXPECT_EQ(error, nullptr);
      EXPECT_EQ(nodes.size(), 2u) << "what a broken listing had brought is not listed twice";
    });
  });
  sitOut(clock, {0.25, 0.5, 1.0}, fake.engine->lists);
  caller.join();
  EXPECT_EQ(fake.engine->lists, 4);
  EXPECT_EQ(fake.engine->made, 4);
  EXPECT_EQ(fake.engine->living, 1);
}

TEST(PoolRetry, AfterFivePausesTheErrorIsTold) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onList = [&](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef* error) {
    return failWith(kQuarnKitTimedOut, error);
  };
  NSErrorRef error;
  std::thread caller([&] { EXPECT_FALSE(fake.list(&error)); });
  sitOut(clock, {0.25, 0.5, 1.0, 2.0, 4.0}, fake.engine->lists);
  caller.join();
  EXPECT_EQ(fake.engine->lists, 6);
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitTimedOut));
}

TEST(PoolRetry, AMinuteOfFailingIsEnough) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onList = [&](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef* error) {
    clock.advance(30);  // the silence that makes a lost session
    return failWith(kQuarnKitTimedOut, error);
  };
  std::thread caller([&] { EXPECT_FALSE(fake.list()); });
  sitOut(clock, {0.25, 0.5}, fake.engine->lists);
  caller.join();
  EXPECT_EQ(fake.engine->lists, 3);
}

TEST(PoolRetry, AServerThatCannotBeReachedIsTriedAgainEvenForAChange) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onLogIn = [&](FakeSession& session, NSErrorRef* error) {
    return session.number >= 3 || failWith(kQuarnKitCouldNotConnect, error);
  };
  std::thread caller([&] {
    fake.with(
        [](AbstractConnection& connection) { EXPECT_TRUE(connection.createFolderAtPath("/a", nullptr)); });
  });
  sitOut(clock, {0.25, 0.5}, fake.engine->logins);
  caller.join();
  EXPECT_EQ(fake.engine->changes, 1);
}

TEST(PoolRetry, ARefusedLoginIsNotTriedAgain) {
  for (const QuarnKitErrorCode code : {kQuarnKitLoginFailed, kQuarnKitUntrusted}) {
    FakePool fake;
    fake.engine->onLogIn = [code](FakeSession&, NSErrorRef* error) { return failWith(code, error); };
    NSErrorRef error;
    EXPECT_FALSE(fake.list(&error));
    EXPECT_TRUE(QuarnKitError::isCode(error, code));
    EXPECT_EQ(fake.engine->logins, 1);
  }
}

struct Change {
  const char* name;
  std::function<bool(AbstractConnection&, NSErrorRef*)> call;
};

class PoolChange : public testing::TestWithParam<Change> {};
INSTANTIATE_TEST_SUITE_P(
    Calls, PoolChange,
    testing::Values(Change{"createFolder", [](auto& c, auto* e) { return c.createFolderAtPath("/a", e); }},
                    Change{"createLink",
                           [](auto& c, auto* e) { return c.createSymbolicLinkAtPath("/a", "b", e); }},
                    Change{"move", [](auto& c, auto* e) { return c.moveItemFromPath("/a", false, "/b", e); }},
                    Change{"remove", [](auto& c, auto* e) { return c.deleteItemAtPath("/a", false, e); }},
                    Change{"attributes", [](auto& c, auto* e) { return c.changeAttributes({}, "/a", e); }}),
    [](const auto& tested) { return tested.param.name; });

TEST_P(PoolChange, IsNeverRepeatedWhenTheSessionIsLost) {
  FakePool fake;
  fake.engine->onChange = [](FakeSession&, const std::string&, NSErrorRef* error) {
    return failWith(kQuarnKitConnectionLost, error);
  };
  fake.with([&](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(GetParam().call(connection, &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
    EXPECT_EQ(fake.engine->changes, 1);
    // The next call has a session of its own.
    EXPECT_EQ(fake.engine->living, 0);
    fake.engine->onChange = {};
    EXPECT_TRUE(GetParam().call(connection, &error));
  });
  EXPECT_EQ(fake.engine->made, 2);
}

TEST_P(PoolChange, KeepsTheSessionWhenTheServerRefuses) {
  FakePool fake;
  fake.engine->onChange = [](FakeSession&, const std::string&, NSErrorRef* error) {
    return failWith(kQuarnKitPermissionDenied, error);
  };
  fake.with([&](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(GetParam().call(connection, &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitPermissionDenied));
  });
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(fake.engine->made, 1);
}

TEST(PoolRetry, ShutDownEndsAPause) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onList = [&](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef* error) {
    return failWith(kQuarnKitConnectionLost, error);
  };
  std::thread caller([&] { EXPECT_FALSE(fake.list()); });
  clock.waitForSleepers(1);
  fake.pool->shutDown();
  caller.join();
  EXPECT_EQ(fake.engine->lists, 1);
}

TEST(PoolRetry, NothingIsHeldDuringAPause) {
  ManualClock clock;
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  fake.engine->onList = [&](FakeSession& session, const std::string&, std::vector<RemoteEntry>*,
                            NSErrorRef* error) {
    return session.number > 1 || failWith(kQuarnKitConnectionLost, error);
  };
  std::thread caller([&] { EXPECT_TRUE(fake.list()); });
  clock.waitForSleepers(1);
  EXPECT_TRUE(fake.list()) << "the only session is free while the other call pauses";
  clock.waitForSleepers(2);  // the pause, and the closer of idle sessions
  clock.advance(0.3);
  caller.join();
}

}  // namespace
}  // namespace ombra
