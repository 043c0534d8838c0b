#include "tests/ftp/FakeFTPServer.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "remote/KCTypes.h"
#include "tests/support/Loopback.h"

namespace ombra {
namespace {

void sendBytes(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
}

bool isTransfer(const std::string& command) {
  for (const char* verb : {"RETR ", "STOR ", "LIST", "MLSD "}) {
    if (command.starts_with(verb)) return true;
  }
  return false;
}

}  // namespace

// A control connection.
struct FakeFTPServer::Line {
  int socket = -1;
  std::string unread;
  int listener = -1;  // for the data connection that comes next
  uint64_t restart = 0;
  std::string renamed;
};

FakeFTPServer::FakeFTPServer() : iListener(listenOnLoopback(&iPort)), iStop(eventfd(0, EFD_CLOEXEC)) {
  iAcceptor = std::thread([this] { acceptSessions(); });
}

FakeFTPServer::~FakeFTPServer() {
  const uint64_t one = 1;
  (void)!write(iStop, &one, sizeof one);
  iAcceptor.join();
  std::vector<std::thread> threads;
  {
    MutexLock lock(iLock);
    threads.swap(iThreads);
  }
  for (std::thread& thread : threads) thread.join();
  close(iListener);
  close(iStop);
}

std::shared_ptr<KCCredentials> FakeFTPServer::credentials() const {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolFTP);
  credentials->setAddress("127.0.0.1");
  credentials->setPort(iPort);
  credentials->setUsername("someone");
  credentials->setPassword("sesame-4711");
  return credentials;
}

void FakeFTPServer::setGreetings(std::vector<std::string> greetings) {
  MutexLock lock(iLock);
  iGreetings = std::move(greetings);
}

void FakeFTPServer::setFeatures(std::vector<std::string> features) {
  MutexLock lock(iLock);
  iFeatures = std::move(features);
}

void FakeFTPServer::answer(const std::string& start, std::vector<std::string> replies) {
  MutexLock lock(iLock);
  iAnswers[start] = std::move(replies);
}

void FakeFTPServer::send(const std::string& start, std::string data, End end) {
  MutexLock lock(iLock);
  iData[start] = {std::move(data), end};
}

void FakeFTPServer::putFile(const std::string& path, std::string content) {
  MutexLock lock(iLock);
  iFiles[path] = std::move(content);
}

std::optional<std::string> FakeFTPServer::file(const std::string& path) const {
  MutexLock lock(iLock);
  const auto found = iFiles.find(path);
  return found != iFiles.end() ? std::optional(found->second) : std::nullopt;
}

std::vector<std::string> FakeFTPServer::files() const {
  MutexLock lock(iLock);
  std::vector<std::string> paths;
  for (const auto& [path, content] : iFiles) paths.push_back(path);
  return paths;
}

std::vector<std::string> FakeFTPServer::commands() const {
  MutexLock lock(iLock);
  return iCommands;
}

int FakeFTPServer::takeRoundTrips() {
  MutexLock lock(iLock);
  return std::exchange(iRoundTrips, 0);
}

std::string FakeFTPServer::greeting() {
  MutexLock lock(iLock);
  std::string text = iGreetings.front();
  if (iGreetings.size() > 1) iGreetings.erase(iGreetings.begin());
  return text;
}

void FakeFTPServer::acceptSessions() {
  while (true) {
    std::array<pollfd, 2> waiting{{{iListener, POLLIN, 0}, {iStop, POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), -1) <= 0 || waiting[1].revents != 0) return;
    const int socket = accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return;
    ++iSessions;
    const int one = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    MutexLock lock(iLock);
    iThreads.emplace_back([this, socket] { serve(socket); });
  }
}

void FakeFTPServer::serve(int socket) {
  Line line;
  line.socket = socket;
  const std::string hello = greeting();
  if (!hello.empty()) sendBytes(socket, hello + "\r\n");
  bool goesOn = !hello.empty();
  while (goesOn) {
    const size_t end = line.unread.find("\r\n");
    if (end != std::string::npos) {
      const std::string command = line.unread.substr(0, end);
      line.unread.erase(0, iKeepsOnlyFirst ? std::string::npos : end + 2);
      goesOn = obey(line, command);
      note(command);
      continue;
    }
    if (iPorts == Ports::kForgotten && line.listener >= 0) close(std::exchange(line.listener, -1));
    goesOn = receive(line);
  }
  if (line.listener >= 0) close(line.listener);
  close(socket);
}

bool FakeFTPServer::receive(Line& line) {
  std::array<pollfd, 2> waiting{{{line.socket, POLLIN, 0}, {iStop, POLLIN, 0}}};
  if (poll(waiting.data(), waiting.size(), -1) <= 0 || waiting[1].revents != 0) return false;
  std::array<char, 4096> buffer{};
  const ssize_t count = recv(line.socket, buffer.data(), buffer.size(), 0);
  if (count <= 0) return false;
  const std::string_view piece(buffer.data(), static_cast<size_t>(count));
  line.unread.append(piece);
  MutexLock lock(iLock);
  if (piece != "EPSV\r\n" && piece != "PASV\r\n") ++iRoundTrips;
  return true;
}

void FakeFTPServer::note(const std::string& answered) {
  const WatchedLock lock(iAnswering);
  iAnswered.push_back(answered);
  iAnswering.broadcast();
}

void FakeFTPServer::waitForAnswers(const std::string& command, size_t count) {
  const WatchedLock lock(iAnswering);
  while (static_cast<size_t>(std::count(iAnswered.begin(), iAnswered.end(), command)) < count) {
    if (!iAnswering.waitFor(command)) return;
  }
}

std::optional<std::string> FakeFTPServer::scripted(const std::string& command) {
  MutexLock lock(iLock);
  std::vector<std::string>* found = nullptr;
  size_t length = 0;
  for (auto& [start, replies] : iAnswers) {
    if (!command.starts_with(start) || start.size() < length) continue;
    found = &replies;
    length = start.size();
  }
  if (found == nullptr) return std::nullopt;
  std::string reply = found->front();
  if (found->size() > 1) found->erase(found->begin());
  return reply;
}

std::optional<FakeFTPServer::Data> FakeFTPServer::scriptedData(const std::string& command) {
  MutexLock lock(iLock);
  const Data* found = nullptr;
  size_t length = 0;
  for (const auto& [start, data] : iData) {
    if (!command.starts_with(start) || start.size() < length) continue;
    found = &data;
    length = start.size();
  }
  return found != nullptr ? std::optional(*found) : std::nullopt;
}

bool FakeFTPServer::obey(Line& line, const std::string& command) {
  const bool isLogin = command.starts_with("USER ") || command.starts_with("PASS ");
  if (!isLogin) {
    MutexLock lock(iLock);
    iCommands.push_back(command);
  }
  if (const auto reply = scripted(command)) {
    if (reply->empty()) return false;
    sendBytes(line.socket, *reply);
    if (!reply->starts_with("1")) return !reply->starts_with("421");
  }
  if (isTransfer(command)) return transfer(line, command);
  if (command == "EPSV" || command == "PASV") return openPort(line, command);
  const std::string reply = replyFor(line, command);
  sendBytes(line.socket, reply + "\r\n");
  return command != "QUIT";
}

bool FakeFTPServer::openPort(Line& line, const std::string& command) {
  const bool isAhead = line.unread.empty();
  const bool isLate = iPorts == Ports::kLate || iPorts == Ports::kRefusedLate;
  if (isAhead && isLate) {
    note("late " + command);
    if (!receive(line)) return false;
  }
  if (isAhead && (iPorts == Ports::kRefused || iPorts == Ports::kRefusedLate)) {
    sendBytes(line.socket, "450 there is nothing to transfer\r\n");
    return true;
  }
  if (line.listener >= 0) close(line.listener);
  int port = 0;
  line.listener = listenOnLoopback(&port);
  sendBytes(line.socket, command == "EPSV"
                             ? fmt::format("229 Extended (|||{}|)\r\n", port)
                             : fmt::format("227 Passive (192,0,2,1,{},{})\r\n", port / 256, port % 256));
  if (!isAhead || iPorts != Ports::kLast) return true;
  shutdown(line.socket, SHUT_WR);
  return false;
}

std::string FakeFTPServer::replyFor(Line& line, const std::string& command) {
  const std::string argument = command.size() > 5 ? command.substr(5) : "";
  if (command.starts_with("USER ")) return "331 password, please";
  if (command.starts_with("PASS ")) return "230 welcome";
  if (command == "PWD") return "257 \"/home\" is current";
  if (command.starts_with("REST ")) {
    line.restart = std::stoull(argument);
    return "350 there then";
  }
  MutexLock lock(iLock);
  if (command == "FEAT") {
    if (iFeatures.empty()) return "500 what?";
    std::string reply = "211-Features:\r\n";
    for (const std::string& feature : iFeatures) reply += " " + feature + "\r\n";
    return reply + "211 End";
  }
  if (command.starts_with("RNFR ")) {
    line.renamed = argument;
    return iFiles.contains(argument) ? "350 and then?" : "550 no such file";
  }
  if (command.starts_with("RNTO ")) {
    auto moved = iFiles.extract(line.renamed);
    if (moved.empty()) return "503 RNFR first";
    iFiles[argument] = moved.mapped();
    return "250 moved";
  }
  if (command.starts_with("DELE ")) return iFiles.erase(argument) != 0 ? "250 gone" : "550 no such file";
  if (command.starts_with("SIZE ")) {
    const auto found = iFiles.find(argument);
    return found != iFiles.end() ? fmt::format("213 {}", found->second.size()) : "550 no such file";
  }
  if (command.starts_with("MDTM "))
    return iFiles.contains(argument) ? "213 20240514093000" : "550 no such file";
  if (command.starts_with("MLST ")) {
    const auto found = iFiles.find(argument);
    if (found == iFiles.end()) return "550 no such file";
    return fmt::format("250-Begin\r\n type=file;size={};modify=20240514093000;UNIX.mode=0644; {}\r\n250 End",
                       found->second.size(), argument);
  }
  if (command.starts_with("CWD "))
    return iFiles.contains(command.substr(4)) ? "550 not a directory" : "250 there";
  if (command.starts_with("STAT ")) return "502 no";
  return "200 fine";
}

// What the command brings; absent when there is no such file.
std::optional<FakeFTPServer::Data> FakeFTPServer::dataFor(Line& line, const std::string& command) {
  const uint64_t restart = std::exchange(line.restart, 0);
  if (auto script = scriptedData(command)) return script;
  Data data;
  if (!command.starts_with("RETR ")) return data;
  const auto content = file(command.substr(5));
  if (!content) {
    line.restart = restart;  // real servers keep it too
    return std::nullopt;
  }
  data.bytes = content->substr(std::min<size_t>(restart, content->size()));
  return data;
}

// The client's data connection; -1 when the server is to end.
int FakeFTPServer::acceptData(Line& line) {
  std::array<pollfd, 2> waiting{{{line.listener, POLLIN, 0}, {iStop, POLLIN, 0}}};
  if (poll(waiting.data(), waiting.size(), -1) <= 0 || waiting[1].revents != 0) return -1;
  const int socket = accept4(line.listener, nullptr, nullptr, SOCK_CLOEXEC);
  close(std::exchange(line.listener, -1));
  return socket;
}

// True when the connection ended as it should, which `data` may forbid. Here and below.
bool FakeFTPServer::storeFrom(int socket, const std::string& path, const Data& data) {
  const bool breaksOff = data.end == End::kReset;
  std::array<char, 65536> buffer{};
  std::string content;
  ssize_t count = 0;
  while (!breaksOff && (count = recv(socket, buffer.data(), buffer.size(), 0)) > 0) {
    content.append(buffer.data(), static_cast<size_t>(count));
  }
  putFile(path, std::move(content));
  return !breaksOff && count == 0;
}

bool FakeFTPServer::sendTo(int socket, const Data& data) {
  sendBytes(socket, data.bytes);
  if (data.end == End::kSilent) {
    std::array<pollfd, 2> parting{{{socket, POLLIN, 0}, {iStop, POLLIN, 0}}};
    (void)poll(parting.data(), parting.size(), -1);
  }
  return data.end == End::kClosed;
}

bool FakeFTPServer::transfer(Line& line, const std::string& command) {
  const std::optional<Data> data = dataFor(line, command);
  if (!data || line.listener < 0) {
    sendBytes(line.socket, data ? "425 no data connection\r\n" : "550 no such file\r\n");
    return true;
  }
  const int socket = acceptData(line);
  if (socket < 0) return false;
  sendBytes(line.socket, "150 here it comes\r\n");
  const bool stores = command.starts_with("STOR ");
  if (!stores && iEndsBeforeData) sendBytes(line.socket, "226 all of it\r\n");
  const bool isWhole = stores ? storeFrom(socket, command.substr(5), *data) : sendTo(socket, *data);
  if (!isWhole) {
    const linger atOnce{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  }
  close(socket);
  if (iEndsBeforeData && command.starts_with("RETR ")) return true;
  const auto last = scripted("end of " + command);
  if (last && last->empty()) return false;
  sendBytes(line.socket, last.value_or(isWhole ? "226 all of it\r\n" : "426 broken off\r\n"));
  return true;
}

}  // namespace ombra
