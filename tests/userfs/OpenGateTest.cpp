#include "platform/userfs/OpenGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

namespace ombra {
namespace {

TEST(OpenGate, ASecondOpenerOfAPathWaitsForTheFirst) {
  OpenGate gate;
  std::optional<OpenGate::Pass> first(std::in_place, gate, "/a");
  std::atomic<bool> isIn{false};
  std::thread second([&gate, &isIn] {
    const OpenGate::Pass pass(gate, "/a");
    isIn = true;
  });
  while (gate.waiting() == 0) std::this_thread::yield();
  EXPECT_FALSE(isIn);
  first.reset();
  second.join();
  EXPECT_TRUE(isIn);
}

TEST(OpenGate, OpenersOfDifferentPathsDoNotMeet) {
  OpenGate gate;
  const OpenGate::Pass first(gate, "/a");
  const OpenGate::Pass second(gate, "/b");
  EXPECT_EQ(gate.waiting(), 0u);
}

TEST(OpenGate, AtMostOneOpenerIsInHoweverManyCome) {
  OpenGate gate;
  std::atomic<int> inside{0};
  std::atomic<bool> met{false};
  std::vector<std::thread> openers;
  for (int i = 0; i < 16; ++i) {
    openers.emplace_back([&gate, &inside, &met] {
      for (int turn = 0; turn < 200; ++turn) {
        const OpenGate::Pass pass(gate, "/a");
        if (++inside != 1) met = true;
        --inside;
      }
    });
  }
  for (std::thread& opener : openers) opener.join();
  EXPECT_FALSE(met);
}

}  // namespace
}  // namespace ombra
