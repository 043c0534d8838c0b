// What each piece of work costs over a long way: how often it has to wait for the server.
#include <functional>

#include "tests/webdav/SessionFixture.h"

namespace ombra {
namespace {

constexpr size_t kSmall = 4096;

// A server that has "/there", of kSmall bytes, and every folder that it is asked for.
HTTPReply answerOf(const HTTPSeen& seen) {
  if (seen.header("authorization").empty())
    return httpReply(401, "", "WWW-Authenticate: Basic realm=\"r\"\r\n");
  if (seen.method == "PROPFIND") return davAnswer({davItem(seen.target, kSmall)});
  if (seen.method == "GET") return httpReply(200, std::string(kSmall, 'x'));
  const bool mustBeNew = seen.header("if-none-match") == "*" || seen.header("overwrite") == "F";
  const bool isThere = seen.target == "/there" || seen.header("destination").ends_with("/there");
  if (mustBeNew && isThere) return httpReply(412);
  return httpReply(seen.method == "DELETE" ? 204 : 201);
}

class WebDAVRoundTrips : public WebDAVSessionTest {
 protected:
  void list() {
    std::vector<RemoteEntry> entries;
    (void)session->list("/folder", &entries, &error);
  }
  void lookAt(const std::string& path) { (void)session->attributes(path, nullptr, &error); }
};

TEST_F(WebDAVRoundTrips, EachPieceOfWorkStaysWithinItsBudget) {
  serve(answerOf);
  credentials->setUsername("wanda");
  credentials->setPassword("fish-password");
  credentials->setInitialPath("/folder");
  session = std::make_unique<WebDAVSession>(environment(), facts);
  WebDAVSession second(environment(), facts);
  const std::string small(kSmall, 'x');
  const std::string large(WebDAVSession::kSmallUpload + 1, 'x');
  struct Row {
    const char* work;
    size_t roundTrips;
    std::function<void()> run;
  };
  const Row rows[] = {
      {"somebody logs in, who is asked for the password", 2, [&] { (void)session->logIn(&error); }},
      {"where that is", 0, [&] { (void)session->realPath("/folder", "/", nullptr, &error); }},
      {"one more session logs in", 1, [&] { (void)second.logIn(&error); }},
      {"a folder is listed", 1, [&] { list(); }},
      {"an item is looked at", 1, [&] { lookAt("/there"); }},
      {"a small file is read", 1, [&] { download("/there"); }},
      {"an empty file is made", 1, [&] { upload("/empty", ""); }},
      {"it is filled with a stream, the first of this server", 2, [&] { stream("/empty", small); }},
      {"another one is filled with a stream", 1, [&] { stream("/empty", small); }},
      {"a small file is stored as a whole", 1, [&] { upload("/new", small); }},
      {"a large file is stored as a whole, and moved to its place", 2, [&] { upload("/new", large); }},
      {"a small file is replaced", 4, [&] { upload("/there", small); }},
      {"a large file is replaced", 4, [&] { upload("/there", large); }},
      {"a file is emptied", 1, [&] { upload("/there", ""); }},
      {"a folder is made", 1, [&] { (void)session->createFolder("/d", &error); }},
      {"a file is moved", 1, [&] { (void)session->move("/new", false, "/moved", &error); }},
      {"a folder is moved", 1, [&] { (void)session->move("/d", true, "/e", &error); }},
      {"a file is removed", 1, [&] { (void)session->remove("/moved", false, &error); }},
      {"an empty folder is removed", 2, [&] { (void)session->remove("/e", true, &error); }},
  };
  for (const Row& row : rows) {
    const size_t before = server->seen().size();
    error = nullptr;
    row.run();
    EXPECT_EQ(error, nullptr) << row.work;
    EXPECT_EQ(server->seen().size() - before, row.roundTrips) << row.work;
  }
  EXPECT_EQ(server->connections(), 2) << "one of each session";
}

}  // namespace
}  // namespace ombra
