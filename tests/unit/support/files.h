// A directory of a test's own, and the files in it.
#pragma once

#include "email/file/FileName.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <numeric>
#include <set>
#include <string>

inline std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Removed with what it holds.
class Scratch {
public:
    explicit Scratch(const std::string& parent = "/tmp") : root_(parent + "/gateway_testXXXXXX") {
        EXPECT_NE(::mkdtemp(root_.data()), nullptr);
    }
    ~Scratch() { std::filesystem::remove_all(root_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string path(const std::string& leaf) const { return root_ + '/' + leaf; }
    FileName name(const std::string& leaf) const { return FileName(path(leaf).c_str()); }
    std::string write(const std::string& leaf, const std::string& text) const { // gives the path
        std::ofstream(path(leaf), std::ios::binary) << text;
        return path(leaf);
    }
    std::string read(const std::string& leaf) const { return contents(path(leaf)); }
    // The names of all in a directory, sorted, each followed by a blank.
    std::string names(const std::string& leaf = "") const {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(path(leaf))) {
            found.insert(entry.path().filename().string() + ' ');
        }
        return std::accumulate(found.begin(), found.end(), std::string());
    }
    // The file's content behind the names of all.
    std::string state(const std::string& leaf) const { return names() + read(leaf); }

private:
    std::string root_;
};
