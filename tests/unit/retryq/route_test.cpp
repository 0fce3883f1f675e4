// Where mail would go, with literals and without any name service.
#include "email/site/HostList.h"
#include "retryq/Route.h"
#include "scratch.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

using namespace Retryq;

namespace {

// One address of this host, whatever its own files say.
struct ThisHost : HostList {
    static void local(IPaddress address) { m_selfaddr = {address}; }
};

// The servers that would be tried as "step@line:address ...", those left out with "-", and what
// becomes of the mail without them: "later" or "back".
std::string routeOf(const std::string& lines, const std::string& address) {
    const Scratch scratch;
    scratch.table(lines);
    const RuleTable table("vorn");
    table.load();
    const Route route = findRoute(table, address);
    std::string out = route.refused.empty() ? "" : "refused ";
    for (const Step& step : route.steps) {
        out += step.name + "@" + std::to_string(step.line) + " ";
        for (const Server& server : step.servers) {
            out += (server.leftOut.empty() ? "" : "-") + server.address + " ";
        }
    }
    return out + (route.failing.find("tried again") == std::string::npos ? "back" : "later");
}

TEST(Route, FollowsTheClient) {
    ThisHost::local(IPaddress(::inet_addr("127.0.0.1")));
    // Lines behind the first one, the address and its route.
    const std::string relay = "vorn: domain-relay ";
    const std::string one = "vorn: max-addr-to-try 1\n" + relay;
    // clang-format off
    const std::tuple<std::string, std::string, const char*> kCases[]{
        {"", "a@[192.0.2.9]", "literal@0 192.0.2.9 later"}, {"", "nobody", "refused back"},
        {"", std::string("a@") + HostList::hostName(), "refused back"},
        {relay + "*.y 192.0.2.1 192.0.2.2\n", "a@x.y", "domain-relay@2 192.0.2.1 192.0.2.2 later"},
        {relay + "*.x 192.0.2.1\n" + relay + "* 192.0.2.2\n", "a@y", "domain-relay@3 192.0.2.2 later"},
        {relay + "* 127.0.0.1 192.0.2.2\n", "a@x.y", "domain-relay@2 -127.0.0.1 192.0.2.2 later"},
        {relay + "* 127.0.0.1\n" + relay + "x.y 192.0.2.2\n", "a@x.y",
         "domain-relay@2 -127.0.0.1 domain-relay@3 192.0.2.2 later"},
        {one + "* 192.0.2.1 192.0.2.2\n", "a@x.y", "domain-relay@3 192.0.2.1 - later"},
        {one + "* 127.0.0.1 192.0.2.2\n", "a@x.y", "domain-relay@3 -127.0.0.1 192.0.2.2 later"},
        {"vorn: use-dns no\nvorn: fallback-relay * 192.0.2.3\n", "a@x.y",
         "exchangers@2 fallback-relay@3 192.0.2.3 later"},
        {"vorn: default-domain y\n" + relay + "x.y 192.0.2.1\n", "a@x",
         "domain-relay@3 192.0.2.1 later"}};
    // clang-format on
    for (const auto& [lines, address, route] : kCases) {
        EXPECT_EQ(routeOf(lines, address), route) << lines << address;
    }
}

} // namespace
