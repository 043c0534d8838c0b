// Changes of the tree.
#include "remote/PooledConnection.h"
#include "remote/RemotePaths.h"

namespace ombra {

bool PooledConnection::createFolderAtPath(std::string_view path, NSErrorRef* error) {
  const std::string whole = absolute(path);
  NSDate begun;
  const Work work = [&](Session& session, NSErrorRef* fault) {
    begun = NSDate::date();
    return session.createFolder(whole, fault);
  };
  if (!performChange(path, {}, work, error)) return false;
  iCore->listings.madeFolder(whole, NSDate::date().timeIntervalSinceDate(begun));
  return true;
}

bool PooledConnection::createSymbolicLinkAtPath(std::string_view path, std::string_view resolvingToPath,
                                                NSErrorRef* error) {
  const std::string whole = absolute(path);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.createSymbolicLink(whole, resolvingToPath, fault);
  };
  const bool isMade = performChange(path, resolvingToPath, work, error);
  // It comes with all that is told of links.
  iCore->listings.forgetFolder(parentOfRemotePath(whole));
  return isMade;
}

// Before: some servers move and remove nothing that is open. After: what was opened meanwhile stands for the
// old file.
bool PooledConnection::performWithoutHolders(std::initializer_list<std::string_view> places,
                                             std::string_view path, std::string_view otherPath,
                                             const Work& work, NSErrorRef* error) {
  for (const std::string_view place : places) sessions().letGoOf(place);
  const bool done = performChange(path, otherPath, work, error);
  for (const std::string_view place : places) {
    sessions().letGoOf(place);
    // Where it failed, it may have been done all the same.
    iCore->listings.forget(place);
  }
  return done;
}

bool PooledConnection::moveItemFromPath(std::string_view path, bool isDirectory, std::string_view toPath,
                                        NSErrorRef* error) {
  const std::string from = absolute(path);
  const std::string to = absolute(toPath);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.move(from, isDirectory, to, fault);
  };
  return performWithoutHolders({from, to}, path, toPath, work, error);
}

bool PooledConnection::deleteItemAtPath(std::string_view path, bool isDirectory, NSErrorRef* error) {
  const std::string whole = absolute(path);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.remove(whole, isDirectory, fault);
  };
  return performWithoutHolders({whole}, path, {}, work, error);
}

bool PooledConnection::changeAttributes(const NSFileAttributes& attributes, std::string_view atPath,
                                        NSErrorRef* error) {
  const std::string whole = absolute(atPath);
  iKnownLinks.clear();
  // Nothing need be there for that: where new files are put off no attributes can be changed.
  if (!isAllowed(atPath, error)) return false;
  const Walks::Change change(walks(), whole);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.changeAttributes(attributes, whole, fault);
  };
  return perform(Repeat::kNever, work, error);
}

}  // namespace ombra
