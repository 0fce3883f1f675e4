#include "retryq/Filter.h"

#include "email/base/LowerCase.h"

#include <strings.h>

#include <algorithm>

namespace Retryq {

namespace {

bool anyRecipient(const Recipients& recipients, auto&& test) {
    for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
        if (test(*r)) {
            return true;
        }
    }
    return false;
}

std::string_view withoutBrackets(std::string_view address) noexcept {
    address.remove_prefix(address.starts_with('<') ? 1 : 0);
    address.remove_suffix(address.ends_with('>') ? 1 : 0);
    return address;
}

bool same(char a, char b) noexcept {
    return Email::lowerCase(a) == Email::lowerCase(b);
}

// Goes back to the latest "*" and lets it take one character more whenever the rest does not fit:
// no pattern costs more than its length times the text's.
bool fits(std::string_view pattern, std::string_view text) noexcept {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string_view::npos;
    std::size_t taken = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            taken = t;
        } else if (p < pattern.size() && same(pattern[p], text[t])) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++taken;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

bool anyMatches(const std::vector<std::string>& patterns, std::string_view address) {
    return patterns.empty() || std::ranges::any_of(patterns, [&](const std::string& pattern) {
               return matches(pattern, address);
           });
}

} // namespace

bool matches(std::string_view pattern, std::string_view address) {
    return fits(withoutBrackets(pattern), withoutBrackets(address));
}

bool Filter::namesRecipients() const noexcept {
    return !domains.empty() || !recipients.empty() || !codes.empty();
}

bool Filter::empty() const noexcept {
    return !namesRecipients() && senders.empty() && state.empty() &&
           olderThan == std::numeric_limits<std::int64_t>::min() &&
           youngerThan == std::numeric_limits<std::int64_t>::max();
}

bool Filter::wants(const EmailAddr& recipient) const {
    const auto inDomain = [&] {
        const std::string domain = domainOf(recipient);
        return std::ranges::any_of(domains, [&](const std::string& asked) {
            return ::strcasecmp(domain.c_str(), asked.c_str()) == 0;
        });
    };
    return (codes.empty() || std::ranges::find(codes, recipient.reason) != codes.end()) &&
           (domains.empty() || inDomain()) && anyMatches(recipients, recipient.text());
}

bool Filter::accepts(const Message& message, const Recipients& list, std::time_t now) const {
    const std::int64_t age = message.age(now);
    return age >= olderThan && age <= youngerThan &&
           (state.empty() || state == (message.held ? "held" : stateName(message.state))) &&
           anyMatches(senders, message.sender) &&
           (!namesRecipients() ||
            anyRecipient(list, [this](const EmailAddr& r) { return wants(r); }));
}

} // namespace Retryq
