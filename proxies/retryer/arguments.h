// The command line of retryer.
#pragma once

#include <span>
#include <string>

struct Arguments {
    const char* service = "vorn"; // points into the argument vector, or at this literal
    bool now = false;             // "-now": the minimum deferral does not hold messages back
    bool valid = false;           // the end of the vector was reached without error
};

// Reads the words behind the program's name, left to right, case ignored; the first error, "-h" or
// "--help" ends it. `message` takes the text to print, with its line end, or stays empty.
[[nodiscard]] Arguments readArguments(std::span<char* const> words, std::string& message);

// The same over the vector of main(), with the message printed on standard output.
[[nodiscard]] Arguments parseArgs(int argc, char** argv);
