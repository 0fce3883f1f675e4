// Where mail would go, with literals and without any name service.
#include "email/HostList.h"
#include "email/mailscanGlobals.h"
#include "retryq/Route.h"
#include "scratch.h"

#include <gtest/gtest.h>

using namespace Retryq;

namespace {

// "refused", or the servers that would be tried as "step@line:address ...", those left out with
// "-".
std::string routeOf(const char* lines, const std::string& address) {
    const Scratch scratch;
    scratch.table(lines);
    const RuleTable table("vorn");
    table.load();
    const Route route = findRoute(table, address);
    if (!route.refused.empty()) {
        return "refused";
    }
    std::string out;
    for (const Step& step : route.steps) {
        out += (out.empty() ? "" : " | ") + step.name + "@" + std::to_string(step.line);
        for (const Server& server : step.servers) {
            out += std::string(" ") + (server.leftOut.empty() ? "" : "-") + server.address;
        }
    }
    return out;
}

} // namespace

TEST(Route, FollowsTheClient) {
    struct Case {
        const char* lines;
        std::string address;
        const char* route;
    };
    const std::string self = HostList::hostName();
    const Case kCases[]{
        {"", "a@[192.0.2.9]", "literal@0 192.0.2.9"},
        {"", "nobody", "refused"},
        {"", "a@" + self, "refused"},
        {"vorn: domain-relay *.x.test 192.0.2.1 192.0.2.2\n", "a@b.x.test",
         "domain-relay@2 192.0.2.1 192.0.2.2"},
        {"vorn: domain-relay *.y.test 192.0.2.1\nvorn: domain-relay * 192.0.2.2\n", "a@x.test",
         "domain-relay@3 192.0.2.2"},
        {"vorn: domain-relay * 127.0.0.1 192.0.2.2\n", "a@x.test",
         "domain-relay@2 -127.0.0.1 192.0.2.2"},
        {"vorn: domain-relay * 127.0.0.1\nvorn: domain-relay x.test 192.0.2.2\n", "a@x.test",
         "domain-relay@2 -127.0.0.1 | domain-relay@3 192.0.2.2"},
        {"vorn: max-addr-to-try 1\nvorn: domain-relay * 192.0.2.1 192.0.2.2\n", "a@x.test",
         "domain-relay@3 192.0.2.1 -"},
        {"vorn: max-addr-to-try 1\nvorn: domain-relay * 127.0.0.1 192.0.2.2\n", "a@x.test",
         "domain-relay@3 -127.0.0.1 192.0.2.2"},
        {"vorn: use-dns no\nvorn: fallback-relay * 192.0.2.3\n", "a@x.test",
         "exchangers@2 | fallback-relay@3 192.0.2.3"},
        {"vorn: default-domain test\nvorn: domain-relay x.test 192.0.2.1\n", "a@x",
         "domain-relay@3 192.0.2.1"},
    };
    for (const Case& c : kCases) {
        EXPECT_EQ(routeOf(c.lines, c.address), c.route) << c.lines << c.address;
    }
}

TEST(Route, TellsWhatBecomesOfTheMail) {
    const Scratch scratch;
    scratch.table("vorn: use-dns no\n");
    const RuleTable table("vorn");
    table.load();
    EXPECT_NE(findRoute(table, "a@x.test").failing.find("tried again"), std::string::npos);
    EXPECT_NE(findRoute(table, "nobody").failing.find("returned"), std::string::npos);
}
