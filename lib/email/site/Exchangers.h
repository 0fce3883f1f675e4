// The mail exchangers of one DNS answer, in the parallel arrays that the resolver fills.
#pragma once

#include "email/site/Resolver.h"

#include <array>

namespace Email {

// Owns the names.
struct Exchangers {
    std::array<char*, Resolver::kMaxExchangers> names{};
    std::array<int, Resolver::kMaxExchangers> preferences{};
    int count = Resolver::kMaxExchangers; // room before the answer is read, then exchangers found

    Exchangers() = default;
    Exchangers(const Exchangers&) = delete;
    Exchangers& operator=(const Exchangers&) = delete;
    ~Exchangers() {
        for (char* name : names) {
            delete[] name;
        }
    }
};

} // namespace Email
