#include "retryq/HostCheck.h"

#include "email/site/DnsAnswer.h"
#include "email/site/HostList.h"
#include "email/site/Resolver.h"
#include "email/site/TlsPolicy.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/hexesc.h"

#include <netinet/in.h>
#include <resolv.h>
#include <strings.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <istream>
#include <sstream>
#include <string>

namespace Retryq {

namespace {

using Weight = Finding::Weight;

constexpr std::size_t kShown = 256;
constexpr int kClassIN = 1;
constexpr int kTypeMX = 15;
constexpr int kTypeSOA = 6;

std::string systemName() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

bool answers(const char* name) {
    Resolver resolver;
    std::array<unsigned char, Resolver::kAnswerSize> answer{};
    int length = Resolver::kAnswerSize;
    return resolver.Query(name, kClassIN, kTypeMX, answer.data(), length) != QUERY_TEMPORARY;
}

// What keeps TLSA records from being believed; empty for nothing.
std::string noValidation() {
    Resolver resolver;
    std::array<unsigned char, Resolver::kAnswerSize> answer{};
    int length = Resolver::kAnswerSize;
    const int result = resolver.Query(".", kClassIN, kTypeSOA, answer.data(), length);
    if ((_res.options & RES_TRUSTAD) == 0) {
        return "/etc/resolv.conf lacks \"options trust-ad\", so no answer counts as validated";
    }
    const bool validated =
        result == QUERY_OK && Email::isValidated({answer.data(), static_cast<std::size_t>(length)});
    // Without an answer nothing is known, and another finding tells that.
    return result != QUERY_OK || validated
               ? ""
               : "the name server does not validate (asked for the root's SOA record)";
}

} // namespace

std::vector<Finding> checkHost() {
    std::vector<Finding> found;
    const auto warn = [&](const std::string& text) { found.push_back({Weight::Warning, 0, text}); };
    const std::string helo = HostList::hostName();
    const std::string shown = "\"" + printable(helo, kShown) + "\"";
    if (HostList::onlyLiteralCharacters(helo.c_str())) {
        warn("HELO says " + shown + ", which is an address and no name: many servers refuse it");
    } else if (helo.find('.') == std::string::npos) {
        warn("HELO says " + shown +
             ", which has no dot: servers that want a full name refuse it for "
             "good (504), and domains that begin so count as this host");
    }
    const std::string own = systemName();
    std::ifstream hosts("/etc/hosts");
    if (!namesHost(hosts, own)) {
        warn("this host's name \"" + printable(own, kShown) +
             "\" is not in /etc/hosts: each run asks the name service for it");
    }
    if (mailscanGlobals::dnsEnable && !answers(helo.c_str())) {
        warn("the name service gives no answer (asked for the MX records of " + shown + ")");
    }
    if (Email::tlsPolicy().uses(Email::TlsLevel::Dane)) {
        const std::string why = noValidation();
        if (!why.empty()) {
            warn("smtp-tls: dane is no more than may here: " + why);
        }
    }
    return found;
}

bool namesHost(std::istream& hosts, std::string_view name) {
    for (std::string line; std::getline(hosts, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string word;
        words >> word; // the address
        while (words >> word) {
            if (word.size() == name.size() &&
                ::strncasecmp(word.c_str(), name.data(), name.size()) == 0) {
                return true;
            }
        }
    }
    return false;
}

} // namespace Retryq
