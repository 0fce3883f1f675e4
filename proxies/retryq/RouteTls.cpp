#include "retryq/RouteTls.h"

#include "email/site/Dane.h"
#include "email/site/TlsaAnswer.h"
#include "fwall/hexesc.h"

namespace Retryq {

namespace {

constexpr std::size_t kShown = 512;

std::string inWords(const Email::DaneVerdict& verdict) {
    std::string out;
    switch (verdict.result) {
    case Email::DaneResult::NoRecords:
        return "if offered, with anybody: " + verdict.why;
    case Email::DaneResult::Unusable:
        return "with anybody: " + verdict.why;
    case Email::DaneResult::Failed:
        return "not to be told, no mail now: " + verdict.why;
    case Email::DaneResult::Usable:
        break;
    }
    for (const std::string& record : verdict.records) {
        out += (out.empty() ? "TLSA " : ", ") + Email::tlsaText(record);
    }
    return out + " of " + verdict.names.front();
}

} // namespace

void tellTlsa(Route& route) {
    if (route.tls != "dane") {
        return;
    }
    for (Step& step : route.steps) {
        const bool relays = step.name == "domain-relay" || step.name == "fallback-relay";
        for (Server& server : step.servers) {
            if (server.leftOut.empty()) {
                server.tls = printable(
                    inWords(Email::askDane({relays ? "" : route.domain, server.name, route.port})),
                    kShown);
            }
        }
    }
}

} // namespace Retryq
