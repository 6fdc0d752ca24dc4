#include "platform/Host.h"

#include "platform/Io.h"

#include <gtest/gtest.h>

using OS::Io::Host;

// No row asks the name service for a name of another host: the answer would be somebody else's.
TEST(Host, ComparesNamesAndAddresses) {
    const std::string own = Platform::io().getHostName();
    for (const auto& [one, other, equal] :
         {std::tuple<std::string, std::string, bool>("node1", "node1", true),
          {"node1", "NODE1", true},
          {"node1", "node1.cluster.example", true},
          {"node1.cluster.example.", "node1.cluster.example", true},
          {" node1", "node1", true},
          {own, "localhost", true},
          {own, "127.0.0.1", true},
          {"localhost", "::1", true},
          {"127.0.0.1", "127.0.1.1", true},
          {"192.0.2.1", "192.0.2.2", false},
          {"192.0.2.1", "192", false},
          {"2001:db8::1", "2001:DB8:0:0::1", true},
          {"2001:db8::1", "2001:db8::2", false},
          {"", "", true},
          {"192.0.2.1", "localhost", false}}) {
        EXPECT_EQ(Host(one) == Host(other), equal) << one << " and " << other;
        EXPECT_EQ(Host(other) != Host(one), !equal) << one << " and " << other;
    }
    EXPECT_EQ(Host().getName(), own);
    for (const auto& [name, local] :
         {std::pair("localhost", true), {"127.0.0.1", true}, {"192.0.2.1", false}, {"", false}})
        EXPECT_EQ(Host(name).isLocal(), local) << name;
}
