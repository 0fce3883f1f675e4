#include "email/site/Resolver.h"

#include "email/base/Assert.h"
#include "email/site/HostList.h"
#include "email/site/LookUpLimit.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

constexpr std::ptrdiff_t kHeaderSize = 12;
constexpr std::ptrdiff_t kQuestionTail = 4; // type and class
constexpr std::ptrdiff_t kRecordFixed = 10; // type, class, time to live, data length
constexpr std::ptrdiff_t kLeastRecord = 6;  // fewer bytes at the end are no record
// Longer names are refused, although one more byte would fit.
constexpr int kNameBound = Resolver::kNameSize - 1;

enum class Step { Record, Exchanger, End, Malformed };

// Reads one record at `p`. An exchanger's preference and name are filled in. Records that the end
// of the message cuts off are the end of the list: only names can make an answer unusable.
Step readRecord(const unsigned char* msg, int len, const unsigned char*& p, int& preference,
                char* exchanger) noexcept {
    const unsigned char* const end = msg + len;
    std::array<char, Resolver::kNameSize> owner{};
    if (!Resolver::expand(owner.data(), msg, len, p)) {
        return Step::Malformed;
    }
    if (end - p < kRecordFixed) {
        return Step::End;
    }
    const int type = Resolver::getShort(p);
    Resolver::getShort(p);
    Resolver::getLong(p);
    const std::ptrdiff_t dataLength = Resolver::getShort(p);
    if (type != ns_t_mx) {
        if (end - p < dataLength) {
            return Step::End;
        }
        p += dataLength;
        return Step::Record;
    }
    if (end - p < 2) {
        return Step::End;
    }
    preference = Resolver::getShort(p);
    return Resolver::expand(exchanger, msg, len, p) ? Step::Exchanger : Step::Malformed;
}

void release(char** names, int from, int to) noexcept {
    for (int i = from; i < to; ++i) {
        delete[] std::exchange(names[i], nullptr);
    }
}

bool isThisHost(std::string_view exchanger) noexcept {
    return exchanger.starts_with(HostList::hostName()) || exchanger.starts_with("127.0.0.1") ||
           exchanger.starts_with("localhost");
}

} // namespace

bool Resolver::initialised = false;

Resolver::Resolver() noexcept {
    if (!initialised) {
        ::res_init();
        initialised = true;
    }
}

int Resolver::judge(int length, int error) noexcept {
    if (length > 0) {
        return QUERY_OK; // `error` is a left-over then
    }
    if (length == 0) {
        return QUERY_TEMPORARY;
    }
    switch (error) {
    // No answer and no reason for it: it may pass.
    case 0:
    case TRY_AGAIN:
    case NO_RECOVERY:
        return QUERY_TEMPORARY;
    case HOST_NOT_FOUND:
        return QUERY_NO_DOMAIN;
    case NO_DATA:
        return QUERY_NO_RECORD;
    default:
        return error;
    }
}

int Resolver::Query(const char* name, int queryClass, int type, unsigned char* answer, int& len) {
    const Email::LookUpLimit limit(len > kAnswerSize);
    h_errno = 0;
    const int length = ::res_search(name, queryClass, type, answer, len);
    const int result = judge(length, h_errno);
    len = std::min(len, length); // an answer that did not fit reports its full length
    return result;
}

bool Resolver::ParseQuery(const unsigned char* msg, int len, char** names, int* prefs, int& n) {
    const int capacity = std::exchange(n, 0);
    len = std::min(len, kAnswerSize);
    if (len <= kHeaderSize) {
        return false;
    }
    std::array<char, kNameSize> name{};
    const unsigned char* const end = msg + len;
    const unsigned char* p = msg + kHeaderSize;
    if (!expand(name.data(), msg, len, p)) {
        return false;
    }
    p += std::min(kQuestionTail, end - p);
    // To the end of the message: the counts in its header are not believed.
    while (end - p > kLeastRecord && n < capacity) {
        int preference = 0;
        const Step step = readRecord(msg, len, p, preference, name.data());
        if (step == Step::Malformed) {
            release(names, 0, std::exchange(n, 0));
            return false;
        }
        if (step == Step::End) {
            break;
        }
        if (step == Step::Exchanger) {
            names[n] = copy(name.data());
            prefs[n++] = preference;
        }
    }
    return true;
}

std::uint16_t Resolver::getShort(const unsigned char*& p) noexcept {
    const unsigned value = static_cast<unsigned>(p[0]) << 8 | p[1];
    p += 2;
    return static_cast<std::uint16_t>(value);
}

std::uint32_t Resolver::getLong(const unsigned char*& p) noexcept {
    const std::uint32_t high = getShort(p);
    return high << 16 | getShort(p);
}

bool Resolver::expand(char* out, const unsigned char* msg, int len,
                      const unsigned char*& p) noexcept {
    const int used = ::dn_expand(msg, msg + len, p, out, kNameBound);
    if (used < 1) {
        return false;
    }
    p += used;
    return true;
}

char* Resolver::copy(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(new char[size], text, size));
}

void Resolver::SortMXAnswers(char** names, int* prefs, int n) noexcept {
    for (int i = 0; i < n; ++i) {
        const std::size_t length = std::strlen(names[i]);
        if (length > 0 && names[i][length - 1] == '.') {
            names[i][length - 1] = '\0';
        }
    }
    // A selection sort by swaps: the order that it gives equal preferences is the order in which
    // the gateway tries their servers.
    for (int i = 0; i < n; ++i) {
        const auto best = std::min_element(prefs + i, prefs + n) - prefs;
        std::swap(prefs[i], prefs[best]);
        std::swap(names[i], names[best]);
    }
}

void Resolver::RemoveSameServerMXAnswers(char** names, int* prefs, int& n) noexcept {
    for (int i = 0; i < n; ++i) {
        if (i > 0 && prefs[i] < prefs[i - 1]) {
            assert_failure("preferences[i] >= preferences[i-1]", "lib/email/MXlookup",
                           contractLine(79));
        }
        if (isThisHost(names[i])) {
            const auto kept = std::find(prefs, prefs + i, prefs[i]) - prefs;
            release(names, static_cast<int>(kept), std::exchange(n, static_cast<int>(kept)));
            return;
        }
    }
}
