// Runs the tests; as a copy named like the helper it plays the helper.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/frontend/FakeHelper.h"
#include "tests/frontend/Surroundings.h"

int main(int argc, char** argv) {
  if (ombra::isFakeHelper(argc, argv)) return ombra::runFakeHelper(argc, argv);
  signal(SIGPIPE, SIG_IGN);  // as the command does
  testing::InitGoogleTest(&argc, argv);
  testing::AddGlobalTestEnvironment(new ombra::Surroundings);
  return RUN_ALL_TESTS();
}
