// What the thread sanitizer cannot know.

// A move between folders holds the old parent's lock and takes the new one's; another move may do so the
// other way round. Both hold the tree lock around it, so neither can wait for the other, but the sanitizer
// looks at pairs.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "deadlock:ombra::OmbraFileSystem::repairTreeBetweenFolders\n";
}
