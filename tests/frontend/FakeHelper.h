// A helper that mounts nothing: it fetches its credentials and announces what the test wants.
#pragma once

namespace ombra {

// True when this process was started as a helper is.
bool isFakeHelper(int argc, char** argv);

// What it does is chosen by $FAKE_HELPER:
// - mount: fetches the credentials, announces the mount, stays until asked to unmount
// - loses: as "mount", and tells at the end that a file could not be stored
// - stays: as "mount", but does not heed a request to unmount
// - login-refused: announces a refused login, unless the credentials hold the password "right": then as
// "mount"
// - untrusted: announces a key that contradicts the fingerprint
// - pinned: announces that too, unless the credentials hold no fingerprint: then as "mount"
// - no-fuse: announces that this machine cannot mount
// - taken-once: announces that the mount point is in use, the first time; then as "mount"
// - plain-failure: announces a failure without an error
// - already: announces that the identifier is mounted already
// - dies: says why on standard error and ends, without fetching or announcing anything
// - silent: does nothing until it is told to end
//
// It writes its arguments to arguments.txt, one per line, and what it received to credentials.bin, both in
// the folder $FAKE_HELPER_FOLDER. What the file status.json there holds it adds to its status. When that
// folder holds a pipe named "started", it says so there.
int runFakeHelper(int argc, char** argv);

}  // namespace ombra
