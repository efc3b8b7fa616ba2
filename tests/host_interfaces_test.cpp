#include "KivFramework/KivLibrary.h"

#include "tests/support/network_namespace.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kiv_test::network_namespace;

// A bridge stands alone: it needs neither a peer nor an interface below it.
bool add_interface(const network_namespace& network, const std::string& name,
                   const std::string& address) {
    return network.ip("link add " + name + " address " + address + " type bridge");
}

TEST(GetHostMacAddresses, IsEmptyWithoutAnEnInterface) {
    const network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    EXPECT_EQ(KivFramework::GetHostMacAddresses(false), "");
    ASSERT_TRUE(add_interface(network, "eth0", "02:00:00:00:00:01"));
    EXPECT_EQ(KivFramework::GetHostMacAddresses(false), "");
}

TEST(GetHostMacAddresses, WritesTwelveLowerCaseDigits) {
    const network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    ASSERT_TRUE(add_interface(network, "en0", "02:0D:93:A1:B2:C3"));
    EXPECT_EQ(KivFramework::GetHostMacAddresses(false), "020d93a1b2c3");
}

TEST(GetHostMacAddresses, JoinsAddressesInTheSystemsOrder) {
    const network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    // The system lists interfaces as they were made, not by name or address.
    ASSERT_TRUE(add_interface(network, "en7", "02:00:00:00:00:77"));
    ASSERT_TRUE(add_interface(network, "enp0s3", "02:00:00:00:00:03"));
    ASSERT_TRUE(add_interface(network, "en1", "02:00:00:00:00:11"));
    EXPECT_EQ(KivFramework::GetHostMacAddresses(false), "020000000077|020000000003|020000000011");
}

TEST(GetHostMacAddresses, TakesOnlyNamesThatBeginWithEn) {
    const network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    ASSERT_TRUE(add_interface(network, "e", "02:00:00:00:00:01"));
    ASSERT_TRUE(add_interface(network, "end", "02:00:00:00:00:02"));
    ASSERT_TRUE(add_interface(network, "En0", "02:00:00:00:00:03"));
    ASSERT_TRUE(add_interface(network, "xen0", "02:00:00:00:00:04"));
    ASSERT_TRUE(add_interface(network, "en", "02:00:00:00:00:05"));
    ASSERT_TRUE(add_interface(network, "eno1", "02:00:00:00:00:06"));
    EXPECT_EQ(KivFramework::GetHostMacAddresses(false), "020000000002|020000000005|020000000006");
}

TEST(GetHostMacAddresses, ListsAnInterfaceOnceWhateverItsOtherAddresses) {
    const network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    ASSERT_TRUE(add_interface(network, "en0", "02:00:00:00:00:01"));
    ASSERT_TRUE(network.ip("address add 10.9.8.7/24 dev en0"));
    ASSERT_TRUE(network.ip("address add 10.9.8.6/24 dev en0"));
    ASSERT_TRUE(network.ip("link set en0 up"));
    EXPECT_EQ(KivFramework::GetHostMacAddresses(false), "020000000001");
}

TEST(GetHostMacAddresses, IgnoresItsArgument) {
    const network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    ASSERT_TRUE(add_interface(network, "en0", "02:00:00:00:00:01"));
    EXPECT_EQ(KivFramework::GetHostMacAddresses(true), "020000000001");
    EXPECT_EQ(KivFramework::GetHostMacAddresses(false), "020000000001");
}

} // namespace
