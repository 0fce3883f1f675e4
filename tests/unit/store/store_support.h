// What the tests of the store share.
#pragma once

#include "fwall/config.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

// A directory of its own below /tmp, removed with what it holds.
class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    [[nodiscard]] std::string path(std::string_view leaf) const;
    std::string write(std::string_view leaf, std::string_view text) const; // gives the path
    [[nodiscard]] std::string read(std::string_view leaf) const;
    [[nodiscard]] std::string names() const; // sorted, each followed by a blank

private:
    std::string root_;
};

void setZone(const char* tz);

// The records of a rule table of these lines, each "keyword words"; they live as long as the test.
cfgrec* table(const std::string& lines);

// The process ends with 1; the recording reporter writes the event to standard error.
#define EXPECT_FAILED_CHECK(statement, event)                                                      \
    EXPECT_EXIT(statement, testing::ExitedWithCode(1), event)
