#include "retryq/HostCheck.h"

#include "email/site/HostList.h"
#include "email/site/Resolver.h"
#include "email/site/mailscanGlobals.h"
#include "fwall/hexesc.h"

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
