// What the scripted server tells of the calls and transfers that it has seen.
#include <fmt/format.h>

#include <algorithm>

#include "tests/support/ScriptedConnection.h"
#include "tests/support/ScriptedServerState.h"

namespace ombra {

std::vector<ScriptedCall> ScriptedServer::calls() const {
  WatchedLock lock(iState->iCondition);
  return iState->iCalls;
}

std::vector<ScriptedCall> ScriptedServer::calls(std::string_view name) const {
  std::vector<ScriptedCall> result = calls();
  std::erase_if(result, [name](const ScriptedCall& call) { return call.name != name; });
  return result;
}

std::vector<std::string> ScriptedServer::callTexts(const std::vector<std::string>& except) const {
  std::vector<std::string> texts;
  for (const ScriptedCall& call : calls()) {
    if (std::find(except.begin(), except.end(), call.name) == except.end()) texts.push_back(call.text());
  }
  return texts;
}

size_t ScriptedServer::count(std::string_view name) const { return calls(name).size(); }

void ScriptedServer::clearCalls() {
  WatchedLock lock(iState->iCondition);
  iState->iCalls.clear();
}

bool ScriptedServer::waitForCalls(std::string_view name, size_t count) {
  WatchedLock lock(iState->iCondition);
  const auto seen = [this, name]() REQUIRES(iState->iCondition) {
    return static_cast<size_t>(std::count_if(iState->iCalls.begin(), iState->iCalls.end(),
                                             [name](const ScriptedCall& call) { return call.name == name; }));
  };
  while (seen() < count) {
    if (!iState->iCondition.waitFor(fmt::format("{} calls of {}", count, name))) return false;
  }
  return true;
}

size_t ScriptedServer::acquireCount() const {
  WatchedLock lock(iState->iCondition);
  return iState->iAcquired;
}

size_t ScriptedServer::releaseCount() const {
  WatchedLock lock(iState->iCondition);
  return iState->iReleased;
}

size_t ScriptedServer::heldConnections() const {
  WatchedLock lock(iState->iCondition);
  return iState->iOut.size();
}

bool ScriptedServer::waitUntilAllReleased() {
  WatchedLock lock(iState->iCondition);
  while (!iState->iOut.empty()) {
    if (!iState->iCondition.waitFor("all connections to be released")) return false;
  }
  return true;
}

int ScriptedServer::maximumConnections() const {
  WatchedLock lock(iState->iCondition);
  return iState->iMaximumConnections;
}

std::vector<ScriptedTransfer> ScriptedServer::transfers(std::string_view operation) const {
  WatchedLock lock(iState->iCondition);
  std::vector<ScriptedTransfer> result;
  for (const State::Transfer& transfer : iState->iTransfers) {
    if (operation.empty() || transfer.record.operation == operation) result.push_back(transfer.record);
  }
  return result;
}

bool ScriptedServer::waitForTransfers(std::string_view operation, size_t count) {
  WatchedLock lock(iState->iCondition);
  const auto finished = [this, operation]() REQUIRES(iState->iCondition) {
    return static_cast<size_t>(std::count_if(
        iState->iTransfers.begin(), iState->iTransfers.end(), [operation](const State::Transfer& transfer) {
          return transfer.record.finished && transfer.record.operation == operation;
        }));
  };
  while (finished() < count) {
    if (!iState->iCondition.waitFor(fmt::format("{} finished transfers of {}", count, operation)))
      return false;
  }
  return true;
}

void ScriptedServer::reportProgress(std::string_view path) {
  std::vector<std::pair<ScriptedConnection*, uint64_t>> running;
  {
    WatchedLock lock(iState->iCondition);
    for (const State::Transfer& transfer : iState->iTransfers) {
      if (transfer.connection != nullptr && transfer.record.path == path) {
        running.emplace_back(transfer.connection, transfer.reached);
      }
    }
  }
  for (const auto& [connection, reached] : running) {
    if (ConnectionDelegate* delegate = connection->delegate())
      delegate->connection(*connection, reached, 0.0, true);
  }
}

}  // namespace ombra
