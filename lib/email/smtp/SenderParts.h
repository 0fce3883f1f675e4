// What the files of Sender share.
#pragma once

#include "email/base/SMTPcode.h"

#include <algorithm>
#include <climits>

namespace Email {

inline void store(SMTPcode* code, int value) noexcept {
    if (code != nullptr) {
        *code = static_cast<SMTPcode>(value);
    }
}

inline long milliseconds(long seconds) noexcept {
    const long long ms = static_cast<long long>(seconds) * 1000;
    return static_cast<long>(std::clamp<long long>(ms, LONG_MIN, LONG_MAX));
}

} // namespace Email
