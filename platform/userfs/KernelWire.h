// The few things that we read and change in the kernel's messages below the fuse library.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace ombra {

// Reads the head of a request in `message` into the thread's RequestContext. False when it is too short.
bool readRequestHead(const void* message, size_t size);

// fstat(2), fchmod(2) and futimens(2) arrive without the handle they were made on, and the library answers
// "no such file" for a file that has been removed. `handleOfNode` gives a handle of a removed, still open
// file by its number (0: none); a request about its attributes then goes on with that handle.
void addHandleToAttributeRequest(void* message, size_t size,
                                 const std::function<uint64_t(uint64_t)>& handleOfNode);

// The number that the kernel will know a created file by, out of the reply to its creation; 0 for a failure.
uint64_t nodeIDOfCreationReply(const iovec* parts, int count);

// Lets the kernel keep what it reads of a folder, and with `keepsListing` use what it has kept before: adds
// that to the reply to opening it, since the library in use leaves it out. The handle in the reply; absent
// for a failure.
std::optional<uint64_t> allowListingCache(const iovec* parts, int count, bool keepsListing);

// The kernel asks for the attribute "security.capability" before each write to find out whether the write has
// to take privileges (set-user-id, set-group-id, capabilities) from the file, unless the volume says that it
// does that itself: then it tells with the request when it has to be done. The library in use does not know
// of that.
//
// Whether the kernel, in its first message, offers to leave it to the volume.
bool offersPrivileges(const void* message, size_t size);
// Accepts it, in the reply to that message.
void acceptPrivileges(const iovec* parts, int count);
// Whether the file of this request (a write, a change of attributes, an open that truncates) has to lose
// them.
bool takesPrivileges(const void* message, size_t size);

// The handle that a request releases, when it is the release of a folder.
std::optional<uint64_t> handleOfFolderRelease(const void* message, size_t size);
// Such a request.
std::vector<char> folderRelease(uint64_t handle, uint64_t nodeID);

}  // namespace ombra
