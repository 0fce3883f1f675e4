// The system's resolver library, and the reading of a DNS answer (RFC 1035) that may be hostile.
//
// Answers are read with offsets that never pass the bytes received; no length, count or pointer in
// them is believed. Nothing that an answer holds can end the run.
#pragma once

#include <cstdint>

// Results of Resolver::Query.
enum QueryResult : int {
    QUERY_OK = 0,
    QUERY_TEMPORARY = 2,  // time-out, server failure, or an empty answer
    QUERY_NO_DOMAIN = 3,  // NXDOMAIN
    QUERY_NO_RECORD = 10, // the domain exists without such a record
};

class Resolver {
public:
    static constexpr int kAnswerSize = 512; // bytes of an answer that are looked at
    static constexpr int kMaxExchangers = 10;
    static constexpr int kNameSize = 256; // an expanded name and its terminator

    // Initialises the resolver library, once per process.
    Resolver() noexcept;
    virtual ~Resolver() = default;

    // Asks through res_search(3), with the time-outs that the system's resolver is set to and those
    // of LookUpLimit.h. `len` is the size of `answer` on entry and the length of the answer (never
    // more than that size) on return. Returns a QueryResult, or another h_errno value.
    int Query(const char* name, int queryClass, int type, unsigned char* answer, int& len);

    // What a call of res_search() that returned `length` and left `error` in h_errno means.
    [[nodiscard]] static int judge(int length, int error) noexcept;

    // Collects MX records of every section in message order: `n` is the capacity of both arrays on
    // entry and the count on return. The class of a record and the header's counts are not looked
    // at. The caller owns the names (copy()). False, with no names, when a name cannot be expanded;
    // a record cut off by the end of the message ends the list without failing.
    bool ParseQuery(const unsigned char* msg, int len, char** names, int* prefs, int& n);

    // Big-endian values; both move `p` behind what they read. The caller checks the bounds.
    static std::uint16_t getShort(const unsigned char*& p) noexcept;
    static std::uint32_t getLong(const unsigned char*& p) noexcept;

    // Expands the name at `p` into `out` (kNameSize bytes) and moves `p` behind it. False when it
    // is malformed, too long or reaches beyond msg + len.
    static bool expand(char* out, const unsigned char* msg, int len,
                       const unsigned char*& p) noexcept;

    // A new copy of the text; release it with delete[].
    static char* copy(const char* text);

    // Removes one trailing dot from each name and orders by preference, lowest first. Exchangers of
    // equal preference may change places (10, 10, 5 becomes 5, the second 10, the first 10).
    static void SortMXAnswers(char** names, int* prefs, int n) noexcept;

    // Cuts the sorted list at this host: it, its equals and worse go, and their names are released.
    // This host is an exchanger whose name begins with the host's name (every one when that is not
    // known), with "127.0.0.1" or with "localhost".
    static void RemoveSameServerMXAnswers(char** names, int* prefs, int& n) noexcept;

    static bool initialised;
};
