// The lock file that keeps two helpers from mounting one pass-through identifier.
#pragma once

namespace ombra {

// Takes the lock file at `path`: 4 bytes, the owner's process number in the machine's byte order. 1 = the
// calling process holds it; 0 = another living process does, seen three times with a pause of a second each;
// -1 = an error, `errno` tells which; so is a link, a pipe or a device in the lock's place. A file that names
// a dead process is replaced. Never released: it goes stale when its owner ends. A file shorter than four
// bytes keeps the call reading without end, since its owner is taken to be about to write it. `pause` sleeps
// that many seconds; a test gives its own.
int spc_lock_file(const char* path, unsigned (*pause)(unsigned seconds));
int spc_lock_file(const char* path);

}  // namespace ombra
