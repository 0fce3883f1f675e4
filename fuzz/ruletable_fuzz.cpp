// One line of the rule table, any bytes: the first input byte gives the length of the service name.
// Whatever is accepted must be made of the line's own bytes and fit its limits; in less room fewer
// words are split off, but none other.
#include "fuzz.h"
#include "fwall/enargv.h"
#include "fwall/ruletable.h"

#include <algorithm>
#include <string>
#include <vector>

static void checkRecord(const RuleLine& rule, std::size_t lineLength) {
    std::size_t used = rule.keyword().size();
    for (const std::string_view argument : rule.arguments()) {
        used += argument.size();
        require(std::all_of(argument.begin(), argument.end(), [](char c) {
            return (c >= 0x20 && c <= 0x7e) || (c >= '\t' && c <= '\r');
        }));
    }
    require(used < lineLength && rule.arguments().size() <= 255);
    require(rule.flags() == 0 || rule.flags() == CFG_PERMIT || rule.flags() == CFG_DENY ||
            rule.flags() == CFG_ABSORB);
}

// Vectors of just this room, so that a step outside is seen.
static std::vector<std::string> split(std::vector<char> text, std::size_t slots, std::size_t size) {
    std::vector<char*> argv(slots);
    std::vector<char> out(size);
    const int count = enargv(text, argv, out);
    require(count >= -1 && count < static_cast<int>(std::max<std::size_t>(slots, 1)));
    return {argv.begin(), argv.begin() + std::max(count, 0)};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t nameLength = std::min<std::size_t>(data[0] % 16U, size - 1);
    const std::string service(data + 1, data + 1 + nameLength);
    const std::size_t lineLength = std::min(size - 1 - nameLength, kRuleLineLimit);
    const auto* start = data + 1 + nameLength;
    std::vector<char> line(start, start + lineLength);

    const auto whole = split(line, line.size() + 2, line.size() + 1);
    const auto narrow = split(line, data[0] % 9U, data[0] / 4U);
    require(narrow.size() <= whole.size() &&
            std::equal(narrow.begin(), narrow.end(), whole.begin()));
    RuleLine rule;
    if (rule.parse(line, service) == RuleLine::Kind::Record) {
        checkRecord(rule, lineLength);
    }
    return 0;
}
