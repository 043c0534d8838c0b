// What sessions hold open for further uploads, and its end.
#include <algorithm>
#include <iterator>

#include "remote/RemotePaths.h"
#include "remote/SessionPool.h"

namespace ombra {

void SessionPool::endHold(PooledSession& session) {
  session.session->becameIdle();
  ConditionLock lock(iCondition);
  // What asked for that meanwhile meant what is no longer held.
  session.mustLetGo = false;
  session.heldPath.clear();
  session.heldFile.reset();
}

void SessionPool::obey(PooledSession& session) {
  // Mostly so, and asked without a lock.
  if (session.session->heldPath().empty()) return;
  iCondition.lock();
  const bool mustEnd = session.mustLetGo;
  iCondition.unlock();
  if (mustEnd) endHold(session);
}

void SessionPool::claim(PooledSession& session, std::string_view path,
                        std::shared_ptr<UnconfirmedExtents> file) {
  const auto mustEnd = [&]() REQUIRES(iCondition) {
    const bool isOther = session.heldPath != path || session.heldFile != file;
    return session.mustLetGo || (!session.heldPath.empty() && isOther);
  };
  iCondition.lock();
  while (mustEnd()) {
    iCondition.unlock();
    endHold(session);
    iCondition.lock();
  }
  session.heldPath = path;
  session.heldFile = std::move(file);
  iCondition.unlock();
}

SessionPool::Holders SessionPool::takeHolders(const IsMeant& isMeant) {
  Holders holders;
  for (const auto& session : iInUse) {
    if (session->heldPath.empty() || !isMeant(*session)) continue;
    if (session->holder == std::this_thread::get_id()) {
      holders.own.push_back(session);
      continue;
    }
    session->mustLetGo = true;
    if (session->heldFile != nullptr) holders.sending.push_back(session->heldFile);
  }
  const auto isKept = [&isMeant](const auto& idle) { return idle->heldPath.empty() || !isMeant(*idle); };
  const auto first = std::stable_partition(iIdle.begin(), iIdle.end(), isKept);
  holders.idle.assign(std::make_move_iterator(first), std::make_move_iterator(iIdle.end()));
  iIdle.erase(first, iIdle.end());
  for (const auto& session : holders.idle) addToInUse(session);
  return holders;
}

void SessionPool::endHolds(Holders& holders) {
  // Its own first: from then on nobody waits for this thread.
  for (const auto& session : holders.own) {
    // Else it is only about to hold what this thread has claimed for it.
    if (!session->session->heldPath().empty()) endHold(*session);
  }
  for (auto& session : holders.idle) settleHolder(std::move(session));
}

void SessionPool::letGoOf(std::string_view path) {
  iCondition.lock();
  Holders holders = takeHolders(
      [path](const PooledSession& session) { return isAtOrBelowRemotePath(session.heldPath, path); });
  iCondition.unlock();
  endHolds(holders);
}

void SessionPool::finishUploads(std::string_view path, const std::shared_ptr<UnconfirmedExtents>& file) {
  iCondition.lock();
  Holders holders = takeHolders([&](const PooledSession& session) {
    // Who waits for others holds nothing that others may wait for.
    if (session.holder == std::this_thread::get_id()) return true;
    return session.heldPath == path || (file != nullptr && session.heldFile == file);
  });
  iCondition.unlock();
  endHolds(holders);
  for (const auto& sending : holders.sending) sending->waitUntilSent();
  if (file != nullptr) file->waitUntilSent();
}

}  // namespace ombra
