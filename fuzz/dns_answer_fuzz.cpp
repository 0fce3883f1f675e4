// One DNS answer, any bytes: whatever is collected is bounded, ordered and cut at this host.
#include "email/site/HostList.h"
#include "email/site/MxAnswer.h"
#include "email/site/Resolver.h"
#include "email/site/TlsaAnswer.h"
#include "fuzz.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A copy of its own size, so that a read behind the answer is seen.
    const std::vector<unsigned char> message(data, data + size);
    const auto exchangers = Email::readExchangers(message);
    require(!exchangers || exchangers->size() <= Email::kMostExchangers);
    const auto tlsa = Email::readTlsa(message);
    require(!tlsa || tlsa->size() <= Email::kMostTlsa);
    for (const std::string& record : tlsa.value_or(std::vector<std::string>())) {
        require(record.size() < size && (Email::isUsableTlsa(record) ? record.size() > 3 : true));
        require(Email::tlsaText(record).size() < 40);
    }
    char* names[Resolver::kMaxExchangers] = {};
    int prefs[Resolver::kMaxExchangers] = {};
    int n = Resolver::kMaxExchangers;
    const bool good =
        Resolver().ParseQuery(message.data(), static_cast<int>(size), names, prefs, n);
    require(n >= 0 && n <= Resolver::kMaxExchangers && (good || n == 0));
    require(std::all_of(names, names + n,
                        [](char* name) { return std::strlen(name) < Resolver::kNameSize; }));
    Resolver::SortMXAnswers(names, prefs, n);
    require(std::is_sorted(prefs, prefs + n) &&
            (n == 0 || (prefs[0] >= 0 && prefs[n - 1] < 65536)));
    const int before = n;
    Resolver::RemoveSameServerMXAnswers(names, prefs, n);
    require(n >= 0 && n <= before);
    std::for_each(names, std::end(names), [](char* name) { delete[] name; });
    return 0;
}
