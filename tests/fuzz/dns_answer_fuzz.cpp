// One DNS answer, any bytes: whatever is collected is bounded, ordered and cut at this host.
#include "email/HostList.h"
#include "email/Resolver.h"
#include "libevrep/Reporter.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    std::abort(); // a failed check: nothing in an answer may lead to one
}

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void checkOrder(const int* prefs, int n) {
    for (int i = 0; i < n; ++i) {
        require(prefs[i] >= 0 && prefs[i] <= 0xffff);
        require(i == 0 || prefs[i - 1] <= prefs[i]);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A copy of its own size, so that a read behind the answer is seen.
    const std::vector<unsigned char> message(data, data + size);
    std::array<char*, Resolver::kMaxExchangers> names{};
    std::array<int, Resolver::kMaxExchangers> prefs{};
    int n = Resolver::kMaxExchangers;
    Resolver resolver;
    const bool good = resolver.ParseQuery(message.data(), static_cast<int>(message.size()),
                                          names.data(), prefs.data(), n);
    require(n >= 0 && n <= Resolver::kMaxExchangers && (good || n == 0));
    for (int i = 0; i < n; ++i) {
        require(std::strlen(names[static_cast<std::size_t>(i)]) < Resolver::kNameSize);
    }
    Resolver::SortMXAnswers(names.data(), prefs.data(), n);
    checkOrder(prefs.data(), n);
    const int before = n;
    Resolver::RemoveSameServerMXAnswers(names.data(), prefs.data(), n);
    require(n >= 0 && n <= before);
    for (char* name : names) {
        delete[] name;
    }
    return 0;
}
