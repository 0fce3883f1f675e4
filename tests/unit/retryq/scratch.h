// An install location with a rule table and a spool, gone with the object.
#pragma once

#include "email/base/Utils.h"
#include "fwall/config.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class Scratch {
public:
    const std::string root = made();
    const std::string spool = root + "/spool/";

    Scratch() {
        std::filesystem::create_directories(spool);
        ::setenv("TAVORIX", root.c_str(), 1);
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        cfg_setpfile("/table");
    }
    ~Scratch() { std::filesystem::remove_all(root); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    // Writes the rule table; its first line leads to the spool.
    void table(const std::string& lines) const {
        std::ofstream(root + "/table") << "vorn: deferred-directory " << spool << '\n' << lines;
    }
    void write(const std::string& leaf, const std::string& text) const {
        std::ofstream(spool + leaf) << text;
    }
    // A message, first and last tried that many seconds ago; recipients are whole lines.
    void queue(const std::string& leaf, int first, int last, const std::string& recipients) const {
        write(leaf, "Subject: " + leaf + "\n\ntext\n");
        write(leaf + ".rmd", stamp(first) + stamp(last) + "3\n<s@from.test>\n" + recipients);
    }

private:
    static std::string made() {
        std::string name = "/tmp/retryq-test-XXXXXX";
        return ::mkdtemp(name.data());
    }
    static std::string stamp(int ago) {
        std::array<char, DateTime::kTextSize> text{};
        return (DateTime(-1) + -ago).Get(text.data()) + std::string("\n");
    }
};
