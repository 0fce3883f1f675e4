#include "retryer/arguments.h"

#include <strings.h>

#include <cstddef>
#include <cstdio>

namespace {

bool is(const char* word, const char* option) {
    return ::strcasecmp(word, option) == 0;
}

} // namespace

Arguments readArguments(std::span<char* const> words, std::string& message) {
    Arguments arguments;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const char* word = words[i];
        if (is(word, "-h") || is(word, "--help")) {
            return arguments;
        }
        if (is(word, "-as")) {
            if (++i == words.size()) {
                message = "-as requires an argument\n";
                return arguments;
            }
            arguments.service = words[i];
        } else if (is(word, "-daemon") || is(word, "-service")) {
            // What other programs of the gateway take is accepted here, its argument unseen.
            ++i;
        } else if (is(word, "-now")) {
            arguments.now = true;
        } else {
            message = "unknown argument \"" + std::string(word) + "\"\n";
            return arguments;
        }
    }
    arguments.valid = true;
    return arguments;
}

Arguments parseArgs(int argc, char** argv) {
    std::string message;
    const std::size_t words = argc > 1 ? static_cast<std::size_t>(argc) - 1 : 0;
    const Arguments arguments = readArguments({argv + 1, words}, message);
    std::printf("%s", message.c_str());
    return arguments;
}
