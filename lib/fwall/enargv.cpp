#include "fwall/enargv.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\r\v\f";

// By hand and not by <cctype>: no locale may change what an argument is.
bool isSpace(char c) noexcept {
    return kWhiteSpace.find(c) != std::string_view::npos;
}
bool isPrintable(char c) noexcept {
    return c >= 0x20 && c <= 0x7e;
}
bool isQuote(char c) noexcept {
    return c == '"' || c == '\'';
}

std::string_view dropUnprintable(std::span<char> text) noexcept {
    const auto end = std::remove_if(text.begin(), text.end(),
                                    [](char c) { return !isPrintable(c) && !isSpace(c); });
    return {text.data(), static_cast<std::size_t>(end - text.begin())};
}

char unescaped(char c) noexcept {
    switch (c) {
    case 'n':
        return '\n';
    case 't':
        return '\t';
    default:
        return c;
    }
}

// The steps return false when the splitting ends early; result_ then holds the answer.
class Splitter {
public:
    Splitter(std::string_view text, std::span<char*> argv, std::span<char> out) noexcept
        : text_(text), argv_(argv), out_(out) {}

    int split() noexcept {
        // Only here: further on a comma is an ordinary character.
        text_.remove_prefix(std::min(text_.find_first_not_of(" \t\n\r\v\f,"), text_.size()));
        if (!steps() || !closeLast()) {
            count_ = std::max(result_, 0);
        } else {
            result_ = count_;
        }
        // What was split before a failure is still there to be read, up to here.
        argv_[static_cast<std::size_t>(count_)] = nullptr;
        return result_;
    }

private:
    bool steps() noexcept {
        while (!text_.empty()) {
            if (!step(next())) {
                return false;
            }
        }
        return true;
    }

    bool step(char c) noexcept {
        if (quote_ == '\0' ? isQuote(c) : c == quote_) {
            return turnQuote(c);
        }
        if (quote_ == '\0' && isSpace(c)) {
            return !open_ || close(-1);
        }
        // Inside quotes blanks and the other quote are characters like any other.
        return c == '\\' ? escape() : copy(c);
    }

    // A quote begins an argument, so that a pair of quotes is an empty one; within one it is only
    // left out.
    bool turnQuote(char c) noexcept {
        quote_ = quote_ == '\0' ? c : '\0';
        return open_ || begin(-1);
    }

    bool escape() noexcept {
        if (text_.empty()) {
            return true;
        }
        const char c = unescaped(next());
        // An escape that comes first is lost, and what follows an escape is never examined: rule
        // tables in the field are written for both.
        if (open_ && !copy(c)) {
            return false;
        }
        return text_.empty() || copy(next());
    }

    bool copy(char c) noexcept { return (open_ || begin(0)) && put(c, 0); }

    bool begin(int resultWhenFull) noexcept {
        // The last slot is for the null entry.
        if (static_cast<std::size_t>(count_) + 1 >= argv_.size()) {
            return stop(count_);
        }
        if (out_.empty()) {
            return stop(resultWhenFull);
        }
        argv_[static_cast<std::size_t>(count_)] = out_.data();
        open_ = true;
        return true;
    }

    bool close(int resultWhenFull) noexcept {
        open_ = false;
        ++count_;
        return put('\0', resultWhenFull);
    }

    bool closeLast() noexcept { return !open_ || close(0); }

    bool put(char c, int resultWhenFull) noexcept {
        if (out_.empty()) {
            return stop(resultWhenFull);
        }
        out_.front() = c;
        out_ = out_.subspan(1);
        return true;
    }

    bool stop(int result) noexcept {
        result_ = result;
        return false;
    }

    char next() noexcept {
        const char c = text_.front();
        text_.remove_prefix(1);
        return c;
    }

    std::string_view text_;
    std::span<char*> argv_;
    std::span<char> out_;
    int count_ = 0;
    int result_ = 0;
    char quote_ = '\0';
    bool open_ = false;
};

std::size_t atLeastZero(int n) noexcept {
    return static_cast<std::size_t>(std::max(n, 0));
}

} // namespace

int enargv(std::span<char> text, std::span<char*> argv, std::span<char> out) noexcept {
    return argv.empty() ? 0 : Splitter(dropUnprintable(text), argv, out).split();
}

int enargv(char* text, char** argv, int slots, char* out, int size) noexcept {
    const std::size_t length = text == nullptr ? 0 : std::strlen(text);
    return enargv(std::span(text, length), std::span(argv, atLeastZero(slots)),
                  std::span(out, atLeastZero(size)));
}
