// The scoped holder of a pooled connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/NSError.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"
#include "tests/support/ScriptedServer.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Trusting final : public ConnectionDelegate {
 public:
  using ConnectionDelegate::connection;
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
};

class ConnectionHolder : public ::testing::Test {
 protected:
  ScriptedServer server;
  Trusting delegate;
  LogRecord log;
};

TEST_F(ConnectionHolder, TakesNoConnectionUntilItIsUsed) {
  { const StAbstractConnection holder(server.pool().get(), &delegate); }
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(ConnectionHolder, TakesInstallsRemovesAndReleases) {
  {
    StAbstractConnection holder(server.pool().get(), &delegate);
    EXPECT_NE(holder.connection(), nullptr);
  }
  EXPECT_THAT(server.callTexts(), ElementsAre("acquireConnection", "setDelegate delegate", "setDelegate none",
                                              "releaseConnection"));
}

TEST_F(ConnectionHolder, KeepsTheConnectionThatItHas) {
  StAbstractConnection holder(server.pool().get(), &delegate);
  AbstractConnection* const first = holder.connection();
  EXPECT_EQ(holder.connection(), first);
  EXPECT_EQ(&*holder, first);
  EXPECT_EQ(server.count("acquireConnection"), 1u);
}

TEST_F(ConnectionHolder, AnAbsentDelegateIsInstalledToo) {
  {
    StAbstractConnection holder(server.pool().get(), nullptr);
    holder.connection();
  }
  EXPECT_THAT(server.callTexts(),
              ElementsAre("acquireConnection", "setDelegate none", "setDelegate none", "releaseConnection"));
}

TEST_F(ConnectionHolder, GivesTheConnectionBackWhenAnExceptionPasses) {
  EXPECT_THROW(
      {
        StAbstractConnection holder(server.pool().get(), &delegate);
        holder.connection();
        throw KCException("x");
      },
      KCException);
  EXPECT_EQ(server.heldConnections(), 0u);
  EXPECT_EQ(StAbstractConnection::currentConnection(), nullptr);
}

TEST_F(ConnectionHolder, TheThreadsCurrentConnectionIsSetAtFirstUse) {
  StAbstractConnection holder(server.pool().get(), &delegate);
  EXPECT_EQ(StAbstractConnection::currentConnection(), nullptr);
  AbstractConnection* const taken = holder.connection();
  EXPECT_EQ(StAbstractConnection::currentConnection(), taken);
}

TEST_F(ConnectionHolder, ANestedHolderLeavesTheOuterEntryInPlace) {
  StAbstractConnection outer(server.pool().get(), &delegate);
  AbstractConnection* const taken = outer.connection();
  StAbstractConnection inner(server.pool().get(), &delegate);
  EXPECT_NE(inner.connection(), taken);
  EXPECT_EQ(StAbstractConnection::currentConnection(), taken);
}

TEST_F(ConnectionHolder, TheEndOfANestedHolderClearsTheOuterEntry) {
  StAbstractConnection outer(server.pool().get(), &delegate);
  AbstractConnection* const taken = outer.connection();
  {
    StAbstractConnection inner(server.pool().get(), &delegate);
    inner.connection();
  }
  EXPECT_EQ(StAbstractConnection::currentConnection(), nullptr);
  EXPECT_EQ(outer.connection(), taken);
}

TEST_F(ConnectionHolder, TheEndOfAnUnusedNestedHolderClearsNothing) {
  StAbstractConnection outer(server.pool().get(), &delegate);
  AbstractConnection* const taken = outer.connection();
  { const StAbstractConnection inner(server.pool().get(), &delegate); }
  EXPECT_EQ(StAbstractConnection::currentConnection(), taken);
}

TEST_F(ConnectionHolder, EachThreadHasItsOwnCurrentConnection) {
  StAbstractConnection holder(server.pool().get(), &delegate);
  holder.connection();
  AbstractConnection* elsewhere = holder.connection();
  std::thread([&elsewhere] { elsewhere = StAbstractConnection::currentConnection(); }).join();
  EXPECT_EQ(elsewhere, nullptr);
}

TEST_F(ConnectionHolder, AMissingPoolFailsAConditionAndConstructionGoesOn) {
  StAbstractConnection holder(nullptr, &delegate);
  EXPECT_THAT(log.lines(), ElementsAre("CONDITION FAILED: no connection pool"));
  EXPECT_EQ(holder.connection(), nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre("CONDITION FAILED: no connection pool", "CONDITION FAILED: no connection"));
}

TEST_F(ConnectionHolder, WithoutAConnectionAConditionFailsAndNothingIsReleased) {
  server.setAcquisitionFails(true);
  {
    StAbstractConnection holder(server.pool().get(), &delegate);
    EXPECT_EQ(holder.connection(), nullptr);
  }
  EXPECT_THAT(log.lines(), ElementsAre("CONDITION FAILED: no connection"));
  EXPECT_EQ(server.count("releaseConnection"), 0u);
}

TEST_F(ConnectionHolder, CallsThroughAMissingConnectionFailWithALostConnection) {
  server.setAcquisitionFails(true);
  StAbstractConnection holder(server.pool().get(), &delegate);
  NSErrorRef error;
  EXPECT_FALSE(holder->createFolderAtPath("/x", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_FALSE(holder->createFolderAtPath("/x", nullptr));
}

TEST_F(ConnectionHolder, TransfersThroughAMissingConnectionMoveNoBytes) {
  server.setAcquisitionFails(true);
  StAbstractConnection holder(server.pool().get(), &delegate);
  uint64_t transferred = 7;
  NSErrorRef error;
  EXPECT_FALSE(holder->uploadFileAtPath("/tmp/x", "/x", 0, &transferred, &error));
  EXPECT_EQ(transferred, 0u);
  EXPECT_NE(error, nullptr);
}

TEST_F(ConnectionHolder, EveryQuestionToAMissingConnectionIsAnsweredNo) {
  StAbstractConnection holder(nullptr, nullptr);
  EXPECT_FALSE(holder->isSFTP());
  EXPECT_FALSE(holder->isWebDAV());
  EXPECT_FALSE(holder->supportsUploadByteOffset());
  EXPECT_EQ(holder->protocol(), 0u);
  EXPECT_EQ(holder->loginPath(), std::nullopt);
  EXPECT_EQ(holder->pwd(nullptr), std::nullopt);
  EXPECT_EQ(holder->displayStringForRemoteString("ä"), "ä");
}

}  // namespace
}  // namespace ombra
