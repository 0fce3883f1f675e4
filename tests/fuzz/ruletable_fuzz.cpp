// One line of the rule table, any bytes: the first input byte gives the length of the service name.
// Whatever is accepted must be made of the line's own bytes and fit its limits.
#include "fwall/enargv.h"
#include "fwall/ruletable.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void checkRecord(const RuleLine& rule, std::size_t lineLength) {
    std::size_t used = rule.keyword().size();
    for (const char* argument : rule.arguments()) {
        const std::size_t length = std::strlen(argument);
        used += length;
        require(std::all_of(argument, argument + length, [](char c) {
            return (c >= 0x20 && c <= 0x7e) || (c >= '\t' && c <= '\r');
        }));
    }
    require(used < lineLength && rule.arguments().size() <= 255);
    require(rule.flags() == 0 || rule.flags() == CFG_PERMIT || rule.flags() == CFG_DENY ||
            rule.flags() == CFG_ABSORB);
}

// The same text with little room: the result is bounded by the slots, and nothing is written
// outside.
void splitWithLittleRoom(std::vector<char> text, std::size_t slots, std::size_t room) {
    std::vector<char*> argv(slots);
    std::vector<char> out(room);
    const int count = enargv(text, argv, out);
    require(count >= -1 && count < static_cast<int>(std::max<std::size_t>(slots, 1)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t nameLength = std::min<std::size_t>(data[0] % 16U, size - 1);
    const std::string service(data + 1, data + 1 + nameLength);
    const std::size_t lineLength = std::min(size - 1 - nameLength, ruleLineLimit);
    const auto* start = data + 1 + nameLength;
    std::vector<char> line(start, start + lineLength);

    splitWithLittleRoom(line, data[0] % 7U, data[0] % 11U);
    RuleLine rule;
    if (rule.parse(line, service) == RuleLine::Kind::Record) {
        checkRecord(rule, lineLength);
    }
    return 0;
}
