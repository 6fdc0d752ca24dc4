#include "platform/Host.h"

#include "platform/Io.h"

#include <gtest/gtest.h>

using OS::Io::Host;

// No row asks the name service for a name of another host: the answer would be somebody else's.
TEST(Host, Equality) {
    const std::string own = Platform::io().getHostName();
    const struct {
        std::string one;
        std::string other;
        bool equal;
    } rows[] = {{"node1", "node1", true},
                {"node1", "NODE1", true},
                {"node1", "node1.cluster.example", true},
                {"node1.cluster.example.", "node1.cluster.example", true},
                {" node1", "node1", true},
                {own, "localhost", true},
                {own, "127.0.0.1", true},
                {"localhost", "::1", true},
                {"127.0.0.1", "127.0.1.1", true},
                {"192.0.2.1", "192.0.2.1", true},
                {"192.0.2.1", "192.0.2.2", false},
                {"192.0.2.1", "192", false},
                {"192.0.2.1", "127.0.0.1", false},
                {"2001:db8::1", "2001:DB8:0:0::1", true},
                {"2001:db8::1", "2001:db8::2", false},
                {"", "", true},
                {"", "localhost", false},
                {"192.0.2.1", "localhost", false}};
    for (const auto& row : rows) {
        EXPECT_EQ(Host(row.one) == Host(row.other), row.equal) << row.one << " and " << row.other;
        EXPECT_EQ(Host(row.other) != Host(row.one), !row.equal) << row.one << " and " << row.other;
    }
    EXPECT_EQ(Host().getName(), own);
    EXPECT_TRUE(Host().isLocal());
    EXPECT_TRUE(Host("localhost").isLocal());
    EXPECT_TRUE(Host("127.0.0.1").isLocal());
    EXPECT_FALSE(Host("192.0.2.1").isLocal());
    EXPECT_FALSE(Host("").isLocal());
}
