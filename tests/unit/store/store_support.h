// What the tests of the store share.
#pragma once

#include "email/file/FileName.h"
#include "email/spool/MailList.h"
#include "fwall/config.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <tuple>

// A directory of its own, removed with what it holds.
class Scratch {
public:
    explicit Scratch(const char* parent = "/tmp")
        : root_(std::string(parent) + "/storetestXXXXXX") {
        EXPECT_NE(::mkdtemp(root_.data()), nullptr);
    }
    ~Scratch() { std::filesystem::remove_all(root_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string path(const char* leaf) const { return root_ + '/' + leaf; }
    FileName name(const char* leaf) const { return FileName(path(leaf).c_str()); }
    std::string write(const char* leaf, const std::string& text) const { // gives the path
        std::ofstream(path(leaf)) << text;
        return path(leaf);
    }
    // The file's content behind the names of all, sorted, each followed by a blank.
    std::string state(const char* leaf) const;
    std::string read(const char* leaf) const {
        std::ifstream in(path(leaf));
        return {std::istreambuf_iterator<char>(in), {}};
    }

private:
    std::string root_;
};

void setZone(const char* tz);

// "<a>:450 <b>:-1 ": the records of a list in their order.
std::string records(const MailList& list);

// The records of a rule table of these lines, each "keyword words"; they live as long as the test.
cfgrec* table(const std::string& lines);

// The process ends with 1; the recording reporter writes the event to standard error.
#define EXPECT_FAILED_CHECK(statement, event)                                                      \
    EXPECT_EXIT(statement, testing::ExitedWithCode(1), event)
