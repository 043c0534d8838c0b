#include "platform/userfs/NumberTranslation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <cerrno>

namespace ombra {
namespace {

struct Pair {
  int interface;
  int system;
};

TEST(NumberTranslation, EachErrnoOfTheInterfaceHasItsNumberHere) {
  constexpr Pair kErrnos[] = {{kEPERM, 1},   {kENOENT, 2},  {kEIO, 5},      {kEACCES, 13}, {kEFAULT, 14},
                              {kEEXIST, 17}, {kENODEV, 19}, {kENOTDIR, 20}, {kEINVAL, 22}, {kEFBIG, 27},
                              {kERANGE, 34}, {66, 39},      {93, 61}};
  for (const Pair& pair : kErrnos) {
    EXPECT_EQ(systemErrno(pair.interface), pair.system) << pair.interface;
    EXPECT_EQ(interfaceErrnoForSystemErrno(pair.system), pair.interface) << pair.system;
  }
}

TEST(NumberTranslation, ErrnosOutsideTheInterfaceBecomeAnInputOutputError) {
  for (const int number : {0, -1, 35, 39, 61, 92, 94, 1000}) EXPECT_EQ(systemErrno(number), EIO) << number;
  for (const int number : {0, -1, 66, 93, 110})
    EXPECT_EQ(interfaceErrnoForSystemErrno(number), kEIO) << number;
}

TEST(NumberTranslation, AFailureWithoutAnErrorIsAnInputOutputError) {
  EXPECT_EQ(systemErrnoOfError(nullptr), EIO);
}

TEST(NumberTranslation, AnErrorOfAnotherDomainIsAnInputOutputError) {
  EXPECT_EQ(systemErrnoOfError(NSError::errorWithDomain("QuarnKit", 2)), EIO);
}

TEST(NumberTranslation, AnErrorCodeThatWouldWrapAroundIsAnInputOutputError) {
  EXPECT_EQ(systemErrnoOfError(NSError::errorWithDomain(NSPOSIXErrorDomain, (int64_t{1} << 32) + 2)), EIO);
}

TEST(NumberTranslation, OpenFlagsCrossInBothDirections) {
  constexpr Pair kFlags[] = {{0, O_RDONLY},
                             {1, O_WRONLY},
                             {2, O_RDWR},
                             {0x602, O_RDWR | O_CREAT | O_TRUNC},
                             {0xA01, O_WRONLY | O_CREAT | O_EXCL},
                             {0x9, O_WRONLY | O_APPEND},
                             {0x401, O_WRONLY | O_TRUNC}};
  for (const Pair& pair : kFlags) {
    EXPECT_EQ(interfaceOpenFlags(pair.system), pair.interface);
    EXPECT_EQ(systemOpenFlags(pair.interface), pair.system);
  }
}

TEST(NumberTranslation, OpenFlagsThatOnlyOneSideKnowsDoNotLeakThrough) {
  // 0x400 is append here and truncate there; 0x200 is truncate here and create there.
  EXPECT_EQ(
      interfaceOpenFlags(O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_DIRECT | O_SYNC),
      0);
  EXPECT_EQ(interfaceOpenFlags(O_APPEND), kO_APPEND);
  EXPECT_EQ(interfaceOpenFlags(O_TRUNC), kO_TRUNC);
  EXPECT_EQ(systemOpenFlags(0x40 | 0x80 | 0x1000), 0);
}

TEST(NumberTranslation, ExtendedAttributeOptionsAreShiftedByOneBit) {
  EXPECT_EQ(interfaceXattrOptions(0), 0);
  EXPECT_EQ(interfaceXattrOptions(1), kXATTR_CREATE);
  EXPECT_EQ(interfaceXattrOptions(2), kXATTR_REPLACE);
  EXPECT_EQ(interfaceXattrOptions(4), 0);
}

}  // namespace
}  // namespace ombra
