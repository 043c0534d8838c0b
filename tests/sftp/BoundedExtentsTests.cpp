// A list of extents that does not grow without limit.
#include "remote/sftp/BoundedExtents.h"

#include <gtest/gtest.h>

namespace ombra::test {
namespace {

using Extents = std::vector<FileExtent>;

TEST(BoundedExtents, AreSortedAndDisjoint) {
  BoundedExtents extents;
  EXPECT_EQ(Extents{}, extents.all());
  for (const FileExtent& extent : Extents{{10, 20}, {0, 5}, {20, 30}, {4, 6}, {50, 60}, {40, 50}, {7, 7}}) {
    extents.add(extent);
  }
  EXPECT_EQ((Extents{{0, 6}, {10, 30}, {40, 60}}), extents.all());
}

TEST(BoundedExtents, GoOnAfterTheyWereAskedFor) {
  BoundedExtents extents;
  extents.add({0, 5});
  EXPECT_EQ((Extents{{0, 5}}), extents.all());
  extents.add({2, 9});
  EXPECT_EQ((Extents{{0, 9}}), extents.all());
}

TEST(BoundedExtents, RepeatedOnesTakeNoRoom) {
  BoundedExtents extents;
  for (size_t i = 0; i < 4 * BoundedExtents::kMost; ++i) extents.add({100 * (i % 3), 100 * (i % 3) + 10});
  EXPECT_EQ((Extents{{0, 10}, {100, 110}, {200, 210}}), extents.all());
}

TEST(BoundedExtents, TooManyBecomeOneThatCoversThemAll) {
  BoundedExtents extents;
  for (size_t i = 0; i < BoundedExtents::kMost; ++i) extents.add({10 + 100 * i, 20 + 100 * i});
  EXPECT_EQ((Extents{{10, 20 + 100 * (BoundedExtents::kMost - 1)}}), extents.all());
}

}  // namespace
}  // namespace ombra::test
