// What the sessions to one server have found out about it.
#pragma once

#include <atomic>

#include "remote/Leftovers.h"
#include "remote/http/HTTPLoginFacts.h"

namespace ombra {

// Shared by all sessions of an engine. Thread-safe.
struct WebDAVFacts {
  HTTPLoginFacts login;
  // The server wants to know the length of what it is sent: a stream has no chance.
  std::atomic<bool> refusesStreams{false};
  // A stream of this server arrived whole once. Some servers pass a body of unknown length on to a program
  // that never sees it, and store an empty file.
  std::atomic<bool> storesStreams{false};
  Leftovers leftovers;
};

}  // namespace ombra
