// The names of a certificate, of authorities that are careful and of others.
#include "etcd/server_name.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<unsigned char> encoded(unsigned char kind, const std::string& value) {
    std::vector<unsigned char> made{kind};
    if (value.size() > 127) made.push_back(0x81);
    made.push_back(static_cast<unsigned char>(value.size()));
    made.insert(made.end(), value.begin(), value.end());
    return made;
}

bool is_dns_name_of(const std::string& name, const std::string& host) {
    return etcd::is_name_of(encoded(0x82, name), host);
}
bool is_address_of(const std::string& bytes, const std::string& host) {
    return etcd::is_name_of(encoded(0x87, bytes), host);
}

}  // namespace

TEST(ServerName, MatchesInAnyCase) {
    EXPECT_TRUE(is_dns_name_of("etcd.example.net", "etcd.example.net"));
    EXPECT_TRUE(is_dns_name_of("ETCD.example.net", "etcd.EXAMPLE.net"));
    const std::string longest = std::string(240, 'a') + ".example.net";
    EXPECT_TRUE(is_dns_name_of(longest, longest));
}

TEST(ServerName, MatchesNothingElse) {
    for (const char* const host : {"", "etcd.example.ne", "etcd.example.nett", "etcd.example.net.",
                                   "a.etcd.example.net", "example.net", "etcd-example.net"}) {
        EXPECT_FALSE(is_dns_name_of("etcd.example.net", host)) << host;
    }
    EXPECT_FALSE(is_dns_name_of("", ""));
}

TEST(ServerName, DoesNotEndAtANul) {
    using namespace std::string_literals;
    EXPECT_FALSE(is_dns_name_of("etcd.example.net\0.evil.example"s, "etcd.example.net"));
    EXPECT_FALSE(is_dns_name_of("etcd.example.net\0"s, "etcd.example.net"));
}

TEST(ServerName, HasAStarForTheFirstLabelOnly) {
    EXPECT_TRUE(is_dns_name_of("*.example.net", "etcd.example.net"));
    for (const char* const host :
         {"example.net", ".example.net", "a.etcd.example.net", "etcd.example.org", "*.example"}) {
        EXPECT_FALSE(is_dns_name_of("*.example.net", host)) << host;
    }
    EXPECT_FALSE(is_dns_name_of("*.net", "example.net"));
    EXPECT_FALSE(is_dns_name_of("*", "localhost"));
    EXPECT_FALSE(is_dns_name_of("e*.example.net", "etcd.example.net"));
    EXPECT_FALSE(is_dns_name_of("etcd.*.net", "etcd.example.net"));
}

TEST(ServerName, MatchesAnAddressByItsBytes) {
    EXPECT_TRUE(is_address_of({10, 0, 0, 7}, "10.0.0.7"));
    EXPECT_FALSE(is_address_of({10, 0, 0, 8}, "10.0.0.7"));
    EXPECT_FALSE(is_address_of({10, 0, 0}, "10.0.0.7"));
    const std::string loopback = std::string(15, '\0') + '\1';
    EXPECT_TRUE(is_address_of(loopback, "::1"));
    EXPECT_FALSE(is_address_of(loopback, "0.0.0.1"));
    EXPECT_FALSE(is_dns_name_of("10.0.0.7", "10.0.0.7"));
    EXPECT_FALSE(is_address_of("etcd", "etcd"));
}

TEST(ServerName, IsOfAKnownKindAndWhole) {
    EXPECT_FALSE(etcd::is_name_of(encoded(0x81, "etcd"), "etcd"));
    EXPECT_FALSE(etcd::is_name_of(encoded(0x86, "etcd"), "etcd"));
    std::vector<unsigned char> name = encoded(0x82, "etcd");
    name.pop_back();
    EXPECT_FALSE(etcd::is_name_of(name, "etc"));
    EXPECT_FALSE(etcd::is_name_of(name, "etcd"));
    for (const std::vector<unsigned char>& bytes :
         {std::vector<unsigned char>{}, {0x82}, {0x82, 0x80}, {0x82, 0x81}, {0x82, 0x82, 0, 4, 'e', 't', 'c', 'd'}}) {
        EXPECT_FALSE(etcd::is_name_of(bytes, "etcd"));
    }
}
