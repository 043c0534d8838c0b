// Logging in, listing, changing, and being sent elsewhere.
#include <thread>

#include "tests/webdav/SessionFixture.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST_F(WebDAVSessionTest, LogsInAtTheFolderThatIsToBeMounted) {
  serve([](const HTTPSeen& seen) { return davAnswer({davItem(seen.target)}); });
  credentials->setInitialPath("remote files/../dav");
  EXPECT_TRUE(session->logIn(&error));
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /dav/"));
  EXPECT_EQ(server->seen().at(0).header("depth"), "0");
  EXPECT_THAT(server->seen().at(0).header("content-type"), HasSubstr("application/xml"));
}

TEST_F(WebDAVSessionTest, TheStartFolderIsNotAskedForAgainAfterTheLogin) {
  serve([](const HTTPSeen& seen) { return davAnswer({davItem(seen.target)}); });
  credentials->setInitialPath("/dav/");
  EXPECT_TRUE(session->logIn(&error));
  bool isDirectory = false;
  EXPECT_EQ(session->realPath("dav", "/", &isDirectory, &error), "/dav");
  EXPECT_TRUE(isDirectory);
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /dav/"));
  EXPECT_EQ(session->realPath("dav", "/", &isDirectory, &error), "/dav") << "later it may be another one";
  EXPECT_FALSE(isDirectory);
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /dav/", "PROPFIND /dav"));
}

TEST_F(WebDAVSessionTest, WhatALoginHasFoundIsForgottenWithTheNextRequest) {
  serve([](const HTTPSeen& seen) { return davAnswer({davItem(seen.target)}); });
  credentials->setInitialPath("/dav");
  EXPECT_TRUE(session->logIn(&error));
  EXPECT_TRUE(session->attributes("/x", nullptr, &error));
  EXPECT_EQ(session->realPath("/dav", "/", nullptr, &error), "/dav");
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /dav/", "PROPFIND /x", "PROPFIND /dav"));
}

TEST_F(WebDAVSessionTest, AStartThatIsNoFolderIsAskedForAgain) {
  serve([](const HTTPSeen& seen) { return davAnswer({davItem(seen.target.substr(0, 5))}); });
  credentials->setInitialPath("/file");
  EXPECT_TRUE(session->logIn(&error));
  bool isDirectory = true;
  EXPECT_EQ(session->realPath("/file", "/", &isDirectory, &error), "/file");
  EXPECT_FALSE(isDirectory);
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /file/", "PROPFIND /file"));
}

struct LoginCase {
  std::string name;
  int status;
  QuarnKitErrorCode code;  // 0 for a login that is good
};

class WebDAVLogin : public WebDAVSessionTest, public testing::WithParamInterface<LoginCase> {};

TEST_P(WebDAVLogin, IsJudgedByTheAnswer) {
  serve([](const HTTPSeen&) { return httpReply(GetParam().status, "<html>words</html>"); });
  EXPECT_EQ(session->logIn(&error), GetParam().code == 0);
  EXPECT_EQ(code(), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Answers, WebDAVLogin,
                         testing::Values(LoginCase{"Refused", 401, kQuarnKitLoginFailed},
                                         LoginCase{"Missing", 404, {}}, LoginCase{"Forbidden", 403, {}},
                                         LoginCase{"NoWebDAV", 405, kQuarnKitNotSupported},
                                         LoginCase{"APage", 200, kQuarnKitProtocolError},
                                         LoginCase{"NoAnswerOfWebDAV", 207, kQuarnKitProtocolError},
                                         LoginCase{"TooMany", 503, kQuarnKitTooManyConnections},
                                         LoginCase{"Broken", 500, kQuarnKitRefused}),
                         [](const auto& test) { return test.param.name; });

TEST_F(WebDAVSessionTest, AFileAsTheStartIsNoLoginThatFailed) {
  serve([](const HTTPSeen& seen) {
    return seen.target.ends_with('/') ? httpReply(400) : davAnswer({davItem(seen.target)});
  });
  credentials->setInitialPath("/file");
  EXPECT_TRUE(session->logIn(&error)) << error->description();
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /file/", "PROPFIND /file"));
}

TEST_F(WebDAVSessionTest, ALoginThatIsSentToAnotherServerNamesIt) {
  serve([](const HTTPSeen&) { return httpReply(301, "", "Location: https://elsewhere/dav/\r\n"); });
  EXPECT_FALSE(session->logIn(&error));
  EXPECT_THAT(error->localizedDescription(), HasSubstr("https://elsewhere/dav/"));
  EXPECT_EQ(server->seen().size(), 1u);
}

// The names in the "prop" of a question.
std::vector<std::string> propertiesIn(const std::string& body) {
  std::vector<std::string> names;
  for (size_t end = body.find("/>"); end != std::string::npos; end = body.find("/>", end + 1)) {
    const size_t begin = body.rfind("<D:", end) + 3;
    names.push_back(body.substr(begin, end - begin));
  }
  return names;
}

TEST_F(WebDAVSessionTest, NoMoreIsAskedForThanIsUsed) {
  serve([](const HTTPSeen& seen) { return davAnswer({davItem(seen.target)}); });
  std::vector<RemoteEntry> entries;
  EXPECT_TRUE(session->list("/a", &entries, &error)) << error->description();
  EXPECT_TRUE(session->attributes("/a", nullptr, &error)) << error->description();
  EXPECT_FALSE(session->fileSystemAttributes("/a", &error)) << "the answer told no quota";
  const std::vector<HTTPSeen> seen = server->seen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].header("depth"), "1");
  EXPECT_EQ(seen[1].header("depth"), "0");
  EXPECT_EQ(seen[2].header("depth"), "0");
  for (const size_t look : {size_t{0}, size_t{1}}) {
    EXPECT_THAT(propertiesIn(seen[look].body),
                ElementsAre("resourcetype", "getcontentlength", "getlastmodified", "creationdate"));
  }
  EXPECT_THAT(propertiesIn(seen[2].body),
              ElementsAre("resourcetype", "quota-available-bytes", "quota-used-bytes"));
}

TEST_F(WebDAVSessionTest, AFolderWithoutItsSlashIsFollowedToTheOneWith) {
  serve([](const HTTPSeen& seen) {
    if (!seen.target.ends_with('/')) return httpReply(301, "", "Location: " + seen.target + "/\r\n");
    return davAnswer({davItem(seen.target)});
  });
  bool isDirectory = false;
  EXPECT_TRUE(session->attributes("/a b", &isDirectory, &error)) << error->description();
  EXPECT_TRUE(isDirectory);
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /a%20b", "PROPFIND /a%20b/"));
  EXPECT_NE(server->seen().at(1).body, "");
}

TEST_F(WebDAVSessionTest, CapitalsInTheServersNameDoNotMakeItAnotherServer) {
  for (const bool isAbsolute : {false, true}) {
    serve([this, isAbsolute](const HTTPSeen& seen) {
      const std::string start =
          isAbsolute ? "http://localhost:" + std::to_string(credentials->port()) : std::string();
      if (!seen.target.ends_with('/'))
        return httpReply(301, "", "Location: " + start + seen.target + "/\r\n");
      return davAnswer({davItem(seen.target)});
    });
    credentials->setAddress("LocalHost");
    WebDAVSession other(environment(), facts);
    bool isDirectory = false;
    EXPECT_TRUE(other.attributes("/a", &isDirectory, &error)) << error->description();
    EXPECT_TRUE(isDirectory);
  }
}

TEST_F(WebDAVSessionTest, RedirectsDoNotGoOnForEver) {
  serve([](const HTTPSeen& seen) { return httpReply(302, "", "Location: " + seen.target + "x\r\n"); });
  EXPECT_FALSE(session->attributes("/a", nullptr, &error));
  EXPECT_EQ(code(), kQuarnKitRefused);
  EXPECT_LE(server->seen().size(), 6u);
}

TEST_F(WebDAVSessionTest, WhatChangesSomethingIsNotSentOnToAnotherItem) {
  serve([](const HTTPSeen& seen) { return httpReply(307, "", "Location: " + seen.target + "/\r\n"); });
  EXPECT_FALSE(session->remove("/a", false, &error));
  EXPECT_FALSE(session->move("/a", false, "/b", &error));
  EXPECT_FALSE(upload("/a", "x"));
  EXPECT_FALSE(download("/a"));
  EXPECT_THAT(lines(), ElementsAre("DELETE /a", "MOVE /a", "PUT /a", "GET /a"));
}

TEST_F(WebDAVSessionTest, AListingThatMakesNoSenseIsAProtocolError) {
  for (const std::string& body : {std::string("<html/>"), std::string("<D:multistatus xmlns:D='DAV:'>"),
                                  std::string("<D:multistatus xmlns:D='DAV:'/>"), std::string()}) {
    serve([&](const HTTPSeen&) { return httpReply(207, body); });
    std::vector<RemoteEntry> entries;
    EXPECT_FALSE(session->list("/a", &entries, &error));
    EXPECT_EQ(code(), kQuarnKitProtocolError) << body;
    EXPECT_TRUE(session->isAlive());
  }
}

TEST_F(WebDAVSessionTest, AfterAListingThatMakesNoSenseTheConnectionIsStillOfUse) {
  serve([](const HTTPSeen& seen) {
    const std::string nonsense = "<html><p></html>" + std::string(600'000, ' ');
    return seen.header("depth") == "1" ? httpReply(207, nonsense) : davAnswer({davItem(seen.target)});
  });
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list("/a", &entries, &error));
  EXPECT_EQ(code(), kQuarnKitProtocolError);
  EXPECT_TRUE(session->attributes("/a", nullptr, &error));
  EXPECT_EQ(server->connections(), 1);
}

TEST_F(WebDAVSessionTest, AListingThatBreaksOffIsALostConnectionWhateverHasCome) {
  const std::string items = davItem("/a/") + davItem("/a/b");
  for (const std::string& begin :
       {"<D:multistatus xmlns:D='DAV:'>" + items, "<html>" + items, std::string("</x>")}) {
    serve([&](const HTTPSeen&) {
      HTTPReply reply = httpReply(207, begin + "</D:multistatus>");
      reply.bytes.pop_back();
      reply.closes = true;
      return reply;
    });
    std::vector<RemoteEntry> entries;
    EXPECT_FALSE(session->list("/a", &entries, &error));
    EXPECT_EQ(code(), kQuarnKitConnectionLost) << begin.substr(0, 40);
    EXPECT_TRUE(entries.empty());
    EXPECT_FALSE(session->isAlive());
  }
}

TEST_F(WebDAVSessionTest, AFolderThatMayNotBeListedIsToldFromAFile) {
  serve([](const HTTPSeen& seen) {
    return seen.header("depth") == "1" ? httpReply(403) : davAnswer({davItem("/folder/")});
  });
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list("/folder", &entries, &error));
  EXPECT_EQ(code(), kQuarnKitListingNotPermitted);
  serve([](const HTTPSeen& seen) {
    return seen.header("depth") == "1" ? httpReply(400) : davAnswer({davItem("/file")});
  });
  EXPECT_FALSE(session->list("/file", &entries, &error));
  EXPECT_EQ(code(), kQuarnKitNotAFolder);
}

TEST_F(WebDAVSessionTest, AStatusInsideTheAnswerCounts) {
  serve([](const HTTPSeen&) {
    return httpReply(207,
                     "<D:multistatus xmlns:D='DAV:'><D:response><D:href>/a</D:href>"
                     "<D:status>HTTP/1.1 404 Not Found</D:status></D:response></D:multistatus>");
  });
  EXPECT_FALSE(session->attributes("/a", nullptr, &error));
  EXPECT_EQ(code(), kQuarnKitNoSuchItem);
}

TEST_F(WebDAVSessionTest, ThePathsOfFilesAreTheirNamesWithoutASlashAndThoseOfFoldersHaveOne) {
  serve([](const HTTPSeen& seen) {
    return seen.method == "PROPFIND" ? davAnswer({davItem(seen.target)}) : httpReply(201);
  });
  EXPECT_TRUE(session->createFolder("/new", &error));
  EXPECT_TRUE(session->remove("/file", false, &error));
  EXPECT_TRUE(session->remove("/folder", true, &error));
  EXPECT_TRUE(session->move("/f\xC3\xA9", false, "/g", &error));
  EXPECT_TRUE(session->move("/a", true, "/b", &error));
  EXPECT_THAT(lines(), ElementsAre("MKCOL /new/", "DELETE /file", "PROPFIND /folder/", "DELETE /folder/",
                                   "MOVE /f%C3%A9", "MOVE /a/"));
  EXPECT_EQ(server->seen().at(1).header("depth"), "0") << "a folder in the file's place must stay";
  EXPECT_EQ(server->seen().at(4).header("destination"), server->url("/g"));
  EXPECT_EQ(server->seen().at(5).header("destination"), server->url("/b/"));
}

TEST_F(WebDAVSessionTest, AFullFolderIsNotRemoved) {
  serve([](const HTTPSeen&) { return davAnswer({davItem("/folder/"), davItem("/folder/a%2Fb")}); });
  EXPECT_FALSE(session->remove("/folder", true, &error));
  EXPECT_EQ(code(), kQuarnKitFolderNotEmpty);
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /folder/"));
}

TEST_F(WebDAVSessionTest, AFileIsNotRemovedAsAFolder) {
  serve([](const HTTPSeen&) { return davAnswer({davItem("/file")}); });
  EXPECT_FALSE(session->remove("/file", true, &error));
  EXPECT_EQ(code(), kQuarnKitNotAFolder);
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /file/"));
}

TEST_F(WebDAVSessionTest, ARemovalThatFailedInPartFailed) {
  serve([](const HTTPSeen& seen) {
    if (seen.method == "PROPFIND") return davAnswer({davItem("/folder/")});
    return httpReply(207,
                     "<D:multistatus xmlns:D='DAV:'><D:response><D:href>/folder/x</D:href>"
                     "<D:status>HTTP/1.1 423 Locked</D:status></D:response></D:multistatus>");
  });
  EXPECT_FALSE(session->remove("/folder", true, &error));
  EXPECT_EQ(code(), kQuarnKitPermissionDenied);
}

TEST_F(WebDAVSessionTest, AMoveReplacesAFileButNeverAFolder) {
  const auto script = [](const std::string& there) {
    return [there](const HTTPSeen& seen) {
      if (seen.method == "PROPFIND") return davAnswer({davItem(there)});
      return httpReply(seen.header("overwrite") == "T" ? 204 : 412);
    };
  };
  serve(script("/b"));
  EXPECT_TRUE(session->move("/a", false, "/b", &error));
  EXPECT_THAT(lines(), ElementsAre("MOVE /a", "PROPFIND /b", "MOVE /a"));
  serve(script("/b/"));
  EXPECT_FALSE(session->move("/a", false, "/b", &error));
  EXPECT_EQ(code(), kQuarnKitItemExists);
  EXPECT_THAT(lines(), ElementsAre("MOVE /a", "PROPFIND /b"));
  serve(script("/b/"));
  EXPECT_FALSE(session->move("/a", true, "/b", &error));
  EXPECT_EQ(code(), kQuarnKitItemExists);
  EXPECT_THAT(lines(), ElementsAre("MOVE /a/"));
}

TEST_F(WebDAVSessionTest, AMoveToWhatHasGoneMeanwhileIsTriedAgain) {
  int moves = 0;
  serve([&](const HTTPSeen& seen) {
    if (seen.method == "PROPFIND") return httpReply(404);
    return httpReply(++moves == 1 ? 412 : 201);
  });
  EXPECT_TRUE(session->move("/a", false, "/b", &error));
  EXPECT_THAT(lines(), ElementsAre("MOVE /a", "PROPFIND /b", "MOVE /a"));
  EXPECT_EQ(server->seen().back().header("overwrite"), "F");
}

TEST_F(WebDAVSessionTest, ABusyServerIsAskedAgainAFewTimes) {
  const auto script = [](int refusals) {
    const auto left = std::make_shared<int>(refusals);
    return [left](const HTTPSeen& seen) {
      if ((*left)-- > 0) return httpReply(503, "", "Retry-After: 0\r\n");
      return seen.method == "PROPFIND" ? davAnswer({davItem(seen.target)}) : httpReply(201);
    };
  };
  serve(script(3));
  EXPECT_TRUE(session->createFolder("/a", &error)) << error->description();
  EXPECT_EQ(server->seen().size(), 4u);
  serve(script(100));
  EXPECT_FALSE(session->createFolder("/a", &error));
  EXPECT_EQ(code(), kQuarnKitRefused);
  EXPECT_EQ(server->seen().size(), 4u);
  serve(script(1));
  EXPECT_TRUE(upload("/a", std::string(1'000'000, 'x'))) << "a body is sent from its beginning";
  EXPECT_THAT(lines(), ElementsAre("PUT /TEMP", "PUT /TEMP", "MOVE /TEMP"));
  EXPECT_EQ(server->seen().at(1).body.size(), 1'000'000u);
  serve(script(1));
  EXPECT_FALSE(stream("/a", "hello")) << "what can be given once only is not sent twice";
  EXPECT_EQ(server->seen().size(), 1u);
}

TEST_F(WebDAVSessionTest, AnInterruptEndsAPauseAtOnce) {
  serve([](const HTTPSeen&) { return httpReply(503, "", "Retry-After: 3600\r\n"); });
  std::thread interrupts([this] {
    server->waitForRequests(1);
    session->interrupt();
  });
  EXPECT_FALSE(session->createFolder("/a", &error));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  interrupts.join();
  EXPECT_EQ(server->seen().size(), 1u);
}

TEST_F(WebDAVSessionTest, AQuotaIsAVolume) {
  const auto script = [](const std::string& properties) {
    return [properties](const HTTPSeen&) {
      return httpReply(207,
                       "<D:multistatus xmlns:D='DAV:'><D:response><D:href>/a/</D:href><D:propstat><D:prop>"
                       "<D:resourcetype><D:collection/></D:resourcetype>" +
                           properties +
                           "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>"
                           "</D:multistatus>");
    };
  };
  serve(script(
      "<D:quota-available-bytes>700</D:quota-available-bytes><D:quota-used-bytes>300</D:quota-used-bytes>"));
  const auto volume = session->fileSystemAttributes("/a", &error);
  ASSERT_TRUE(volume.has_value());
  EXPECT_EQ(volume->systemSize, 1000u);
  EXPECT_EQ(volume->systemFreeSize, 700u);
  for (const char* unknown : {"", "<D:quota-available-bytes>-3</D:quota-available-bytes>",
                              "<D:quota-used-bytes>300</D:quota-used-bytes>"}) {
    serve(script(unknown));
    EXPECT_FALSE(session->fileSystemAttributes("/a", &error).has_value());
    EXPECT_EQ(code(), kQuarnKitNotSupported) << unknown;
  }
}

TEST_F(WebDAVSessionTest, WhatTheProtocolCannotDoIsSaidWithoutAsking) {
  serve([](const HTTPSeen&) { return httpReply(200); });
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  EXPECT_FALSE(session->changeAttributes(mode, "/a", &error));
  EXPECT_EQ(code(), kQuarnKitAttributeChangeNotSupported);
  EXPECT_TRUE(session->changeAttributes({}, "/a", &error));
  EXPECT_FALSE(session->createSymbolicLink("/a", "b", &error));
  EXPECT_EQ(code(), kQuarnKitNotSupported);
  EXPECT_TRUE(session->flushFile("/a", &error));
  EXPECT_TRUE(server->lines().empty());
}

TEST_F(WebDAVSessionTest, PathsAreInOneNormalForm) {
  serve([](const HTTPSeen& seen) { return davAnswer({davItem(seen.target)}); });
  const std::pair<const char*, const char*> table[] = {
      {"b", "/base/b"}, {"/a//b/./", "/a/b"}, {"../x", "/x"}, {"../../..", "/"},
      {"~", "/"},       {"~/x", "/x"},        {"", "/base"},  {"/a/../b", "/b"},
  };
  for (const auto& [path, normal] : table)
    EXPECT_EQ(session->realPath(path, "/base", nullptr, &error), normal) << path;
}

TEST_F(WebDAVSessionTest, AnInterruptEndsAWaitAtOnce) {
  serve([](const HTTPSeen&) { return httpSilence(); });
  std::thread interrupts([this] {
    server->waitForRequests(1);
    session->interrupt();
  });
  EXPECT_FALSE(session->attributes("/a", nullptr, &error));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  interrupts.join();
  EXPECT_FALSE(session->isAlive());
}

TEST_F(WebDAVSessionTest, ALostMoveOrRemovalIsNotRepeated) {
  serve([](const HTTPSeen& seen) {
    return seen.method == "PROPFIND" ? davAnswer({davItem(seen.target)}) : httpHangUp();
  });
  ASSERT_TRUE(session->attributes("/a", nullptr, &error));
  EXPECT_FALSE(session->remove("/a", false, &error));
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  EXPECT_THAT(lines(), ElementsAre("PROPFIND /a", "DELETE /a"));
}

TEST_F(WebDAVSessionTest, TheTranscriptHoldsNoSecret) {
  serve([](const HTTPSeen& seen) {
    if (seen.header("authorization").empty())
      return httpReply(401, "", "WWW-Authenticate: Basic realm=\"r\"\r\n");
    return davAnswer({davItem(seen.target)});
  });
  credentials->setUsername("wanda");
  credentials->setPassword("fish-password");
  session = std::make_unique<WebDAVSession>(environment(), facts);
  ASSERT_TRUE(session->logIn(&error));
  EXPECT_THAT(transcript->text(), HasSubstr("> PROPFIND / HTTP/1.1"));
  for (const char* secret : {"fish-password", "d2FuZGE6ZmlzaC1wYXNzd29yZA"})
    EXPECT_THAT(transcript->text(), Not(HasSubstr(secret)));
}

}  // namespace
}  // namespace ombra
