#include "fwall/ruletable.h"

#include "fwall/enargv.h"

#include <algorithm>

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kNameSeparators = " \t\n,";

struct Prefix {
    std::string_view text;
    CfgFlag flag;
};
constexpr Prefix prefixes[] = {
    {"deny-", CFG_DENY}, {"permit-", CFG_PERMIT}, {"absorb-", CFG_ABSORB}};

bool isSelected(std::string_view whoList, std::string_view service) noexcept {
    while (!whoList.empty()) {
        const std::size_t end = std::min(whoList.find_first_of(kNameSeparators), whoList.size());
        const std::string_view name = whoList.substr(0, end);
        if (!name.empty() && (name == service || name == "*")) {
            return true;
        }
        whoList.remove_prefix(std::min(end + 1, whoList.size()));
    }
    return false;
}

std::string_view viewOf(std::span<char> bytes) noexcept {
    return {bytes.data(), bytes.size()};
}

std::span<char> withoutLeadingBlanks(std::span<char> bytes) noexcept {
    return bytes.subspan(std::min(viewOf(bytes).find_first_not_of(kBlanks), bytes.size()));
}

} // namespace

const char* cfg_fault_text(CfgFault fault) noexcept {
    switch (fault) {
    case CfgFault::TooLong:
        return "too long";
    case CfgFault::Malformed:
        return "malformed";
    case CfgFault::MissingParameter:
        return "missing parameter";
    case CfgFault::Misquoted:
        return "too long or misquoted";
    }
    return "";
}

RuleLine::Kind RuleLine::parse(std::span<char> line, std::string_view service) noexcept {
    const std::string_view text = viewOf(line);
    if (text.starts_with('#')) {
        return Kind::Skipped;
    }
    // A last line that lost its newline may have lost more: it is not trusted.
    if (!text.ends_with('\n')) {
        return reject(CfgFault::TooLong);
    }
    if (text.find_first_not_of(" \t\n") == std::string_view::npos) {
        return Kind::Skipped;
    }
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return reject(CfgFault::Malformed);
    }
    // Other programs' lines are not even looked at: their faults are theirs to tell.
    if (!isSelected(text.substr(0, colon), service)) {
        return Kind::Skipped;
    }
    return parseRule(line.subspan(colon + 1));
}

RuleLine::Kind RuleLine::parseRule(std::span<char> rule) noexcept {
    rule = withoutLeadingBlanks(rule);
    if (rule.empty()) {
        return reject(CfgFault::Malformed);
    }
    // The newline does not end the keyword, so a keyword without arguments swallows it.
    const std::size_t end = viewOf(rule).find_first_of(kBlanks);
    if (end == std::string_view::npos || end + 2 >= rule.size()) {
        return reject(CfgFault::MissingParameter);
    }
    takeKeyword(viewOf(rule).substr(0, end));
    const int count = enargv(rule.subspan(end + 1, rule.size() - end - 2), argv_, text_);
    if (count < 0) {
        return reject(CfgFault::Misquoted);
    }
    argc_ = static_cast<std::size_t>(count);
    return Kind::Record;
}

void RuleLine::takeKeyword(std::string_view word) noexcept {
    flags_ = 0;
    keyword_ = word;
    // What the prefix asks for stands in the flags: the keyword is looked up without it.
    for (const Prefix& prefix : prefixes) {
        if (word.starts_with(prefix.text)) {
            flags_ = prefix.flag;
            keyword_ = word.substr(prefix.text.size());
            return;
        }
    }
}

RuleLine::Kind RuleLine::reject(CfgFault fault) noexcept {
    fault_ = fault;
    return Kind::Rejected;
}
