#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"
#include "retryq/Probe.h"
#include "retryq/Route.h"
#include "retryq/RouteTls.h"

#include <algorithm>
#include <optional>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 3 * EmailAddr::kMaxText;

std::string decidedBy(const Step& step) {
    return step.line == 0 ? step.name
                          : step.name + ", rule table line " + std::to_string(step.line);
}

std::string describe(const Server& server) {
    std::string out = server.address.empty() ? server.name : server.address;
    if (!server.address.empty() && !server.name.empty() &&
        server.name.find(server.address) == std::string::npos) {
        out += "  " + server.name;
    }
    return server.preference ? out + " (preference " + std::to_string(*server.preference) + ")"
                             : out;
}

void printStep(const Screen& screen, const Step& step, bool first) {
    screen.out << (first ? "By           " : "Else by      ") << decidedBy(step) << ": "
               << step.text << '\n';
    int number = 0;
    for (const Server& server : step.servers) {
        if (server.leftOut.empty()) {
            screen.out << "  try " << ++number << "      " << describe(server)
                       << (server.signsIn.empty() ? "" : ", signs in as " + server.signsIn)
                       << (server.warning.empty() ? "" : ": WARNING, " + server.warning) << '\n';
            if (!server.tls.empty()) {
                screen.out << "    TLS        " << server.tls << '\n';
            }
        } else {
            screen.out << "  left out   " << describe(server) << ": " << server.leftOut << '\n';
        }
    }
}

void print(const Screen& screen, const Route& route) {
    screen.out << "Address      " << printable(route.address, kShown) << '\n'
               << "Domain       " << printable(route.domain, kShown) << '\n';
    if (!route.refused.empty()) {
        screen.out << "Refused      " << route.refused << '\n';
    } else if (route.port != 25) {
        screen.out << "Port         " << route.port << '\n';
    }
    if (!route.tls.empty()) {
        screen.out << "TLS          " << route.tls << '\n';
    }
    bool first = true;
    for (const Step& step : route.steps) {
        printStep(screen, step, first);
        first = first && !step.usable();
    }
    screen.out << (route.refused.empty() ? "If none answers, " : "Result       ") << route.failing
               << '\n';
}

Json toJson(const Server& server) {
    Json object{{"name", server.name}, {"address", server.address}};
    if (server.preference) {
        object["preference"] = *server.preference;
    }
    if (!server.leftOut.empty()) {
        object["left_out"] = server.leftOut;
    }
    if (!server.signsIn.empty()) {
        object["signs_in"] = server.signsIn;
    }
    if (!server.warning.empty()) {
        object["warning"] = server.warning;
    }
    if (!server.tls.empty()) {
        object["tls"] = server.tls;
    }
    return object;
}

Json toJson(const Route& route) {
    Json steps = Json::array();
    for (const Step& step : route.steps) {
        Json servers = Json::array();
        std::ranges::for_each(step.servers, [&](const Server& s) { servers.push_back(toJson(s)); });
        steps.push_back({{"by", step.name},
                         {"line", step.line},
                         {"reason", step.text},
                         {"servers", std::move(servers)}});
    }
    Json object{{"address", route.address},  {"domain", route.domain},
                {"port", route.port},        {"refused", route.refused},
                {"steps", std::move(steps)}, {"failing", route.failing}};
    if (!route.tls.empty()) {
        object["tls"] = route.tls;
    }
    return object;
}

Json toJson(const Probed& probed) {
    return {{"server", probed.server},     {"offers", probed.offers}, {"tls", probed.tls},
            {"verified", probed.verified}, {"user", probed.user},     {"trouble", probed.trouble},
            {"passes", probed.passes}};
}

void print(const Screen& screen, const Probed& probed) {
    screen.out << "Probed       " << (probed.server.empty() ? "no server" : probed.server) << '\n';
    if (!probed.offers.empty()) {
        screen.out << "  offers     " << probed.offers << '\n';
    }
    if (!probed.tls.empty()) {
        screen.out << "  TLS        " << printable(probed.tls, kShown)
                   << ", verified: " << probed.verified << '\n';
    }
    if (!probed.user.empty()) {
        screen.out << "  signed in  as " << printable(probed.user, kShown) << '\n';
    }
    if (!probed.trouble.empty()) {
        screen.out << "  trouble    " << printable(probed.trouble, kShown) << '\n';
    }
    screen.out << "  so         mail "
               << (probed.passes ? "would be offered to it" : "would not be offered now") << '\n';
}

} // namespace

int route(const Context& context, const std::string& address, bool probing) {
    Route found = findRoute(context.table, address);
    tellTlsa(found);
    const std::optional<Probed> probed =
        probing ? std::optional<Probed>(probe(context.table, address)) : std::nullopt;
    if (context.json) {
        Json object = toJson(found);
        if (probed) {
            object["probed"] = toJson(*probed);
        }
        writeJson(context.screen.out, object);
        return kDone;
    }
    print(context.screen, found);
    if (probed) {
        print(context.screen, *probed);
    }
    return kDone;
}

} // namespace Retryq
