#include "libveltrane/connection_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <veltrane/rlist.h>

#include "support/network.h"
#include "support/texts.h"

namespace {

using veltrane::RlistPtr;

using ConnectionCache = NetworkTest;

TEST_F(ConnectionCache, ACachedConnectionServesTheNextCaller)
{
    ConnectionFlags flags{};
    flags.cache_connection = true;
    ServeProperly();
    AgentPtr first = Connect(flags);
    server.join();
    ASSERT_NE(first, nullptr);
    const AgentConnection *const same = first.get();
    first.reset();
    EXPECT_TRUE(NothingToRead(accepted_socket.Get()));
    const AgentPtr second = Connect(flags);  // nobody accepts a further one
    EXPECT_EQ(second.get(), same);
    ASSERT_EQ(SendTransaction(second->conn_info, "again", 5, 't'), 0);
    EXPECT_EQ(ReceiveText(accepted.connection.get()), "again");
}

TEST_F(ConnectionCache, ACachedConnectionAmidAnAnswerIsClosed)
{
    ConnectionFlags flags{};
    flags.cache_connection = true;
    ServeProperly();
    AgentPtr conn = Connect(flags);
    server.join();
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(SendTransaction(conn->conn_info, "QUERY", 5, 't'), 0);
    ASSERT_EQ(ReceiveText(accepted.connection.get()), "QUERY");
    conn.reset();  // before the answer came
    ReceiveText(accepted.connection.get());
    EXPECT_TRUE(veltrane::ConnectionClosedByPeer(accepted.connection.get()));
}

TEST_F(ConnectionCache, ACachedConnectionThatTheServerClosedIsMadeAnew)
{
    ConnectionFlags flags{};
    flags.cache_connection = true;
    ServeProperly();
    AgentPtr first = Connect(flags);
    server.join();
    ASSERT_NE(first, nullptr);
    first.reset();
    accepted.connection.reset();
    accepted_socket.Close();
    ServeProperly();
    EXPECT_NE(Connect(flags), nullptr);
    server.join();
    EXPECT_NE(accepted.connection, nullptr);
}

TEST_F(ConnectionCache, ACachedConnectionIsNotLentToWhoWantsAnotherKey)
{
    ConnectionFlags flags{};
    flags.cache_connection = true;
    ServeProperly();
    Connect(flags).reset();
    const RlistPtr other = RlistOf({ForeignHost().identity});
    ServeProperly();
    EXPECT_EQ(Connect(flags, other.get()), nullptr);
    EXPECT_EQ(error, -3);
}

}  // namespace
