#include "fwall/config.h"

#include "support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace {

using namespace std::string_literals;

struct Free {
    void operator()(cfgrec* list) const { cfg_free(list); }
};
using List = std::unique_ptr<cfgrec, Free>;

// The reasons of rejected lines; a failed list says so in described().
class HeardFaults : public CfgFaults {
public:
    void cannotOpen(const char*, const char*, int error) override {
        heard += "open " + std::to_string(error) + "\n";
    }
    void rejected(const char*, std::int32_t line, CfgFault fault) override {
        heard += std::to_string(line) + " " + cfg_fault_text(fault) + "\n";
    }
    void outOfMemory() override { heard += "memory\n"; }

    std::string heard;
};

TEST(Config, KeepsFileOrderAndPhysicalLineNumbersWhateverIsRejected) {
    const std::string wide(8191 - 10, 'x'); // with "vorn: k " and ".\n" exactly the limit
    const ScratchTable table("vorn: one 1\n#" + std::string(9000, 'c') + "\nvorn: k " + wide +
                             ".\nvorn: k ." + wide + ".\nno colon\0\nother:\nvorn: last  \n"s +
                             "*: deny-two 'a b' c\nvorn: cut off");
    loggedLines.clear();
    HeardFaults faults;
    const List list(cfg_read_observed("vorn", faults));
    EXPECT_EQ(described(list.get()),
              "1/0 one [1]\n3/0 k [" + wide + ".]\n7/0 last []\n8/2 two [a b|c]\n");
    EXPECT_EQ(faults.heard, "4 too long\n5 malformed\n9 too long\n");
    EXPECT_TRUE(loggedLines.empty());
    EXPECT_EQ(list->next->next->argv, nullav);
}

TEST(Config, BothReadersLogTheSameWords) {
    const ScratchTable table("vorn: alone\nvorn: a b\nx");
    const std::vector<std::string> expected{"<5> cfgerr: " + table.path() +
                                                " line 1 missing parameter",
                                            "<5> cfgerr: " + table.path() + " line 3 too long"};
    for (auto* read : {cfg_read, cfg_read_no_SendLog}) {
        loggedLines.clear();
        const List list(read("vorn"));
        EXPECT_EQ(described(list.get()), "2/0 a [b]\n");
        EXPECT_EQ(loggedLines, expected);
    }
}

TEST(Config, NoLineIsNullAndNoFileIsAllOnes) {
    {
        const ScratchTable table("other: a b\n");
        loggedLines.clear();
        EXPECT_EQ(cfg_read("vorn"), nullptr);
        EXPECT_TRUE(loggedLines.empty());
    }
    const std::string kept = pfile; // the table is gone, its path stays
    for (auto* read : {cfg_read, cfg_read_no_SendLog}) {
        EXPECT_TRUE(cfg_failed(read("vorn")));
        EXPECT_EQ(loggedLines.back(), "<5> syserr: configuring vorn, cannot open " + kept +
                                          ": No such file or directory");
    }
    ::setenv("TAVORIX", "", 1);
    cfg_setpfile("/tmp");
    EXPECT_TRUE(cfg_failed(cfg_read("vorn"))) << "a directory opens but cannot be read";
    EXPECT_EQ(loggedLines.back(), "<5> syserr: configuring vorn, cannot open /tmp: Is a directory");
}

TEST(Config, CursorContinuesBehindTheHitAndEndsWithAMiss) {
    const ScratchTable table("*: a 1\n*: b 2\n*: a 3\n*: a 4\n");
    List list(cfg_read("vorn"));
    cfgrec* first = cfg_get("a", list.get());
    EXPECT_EQ(first->ln, 1);
    EXPECT_EQ(cfg_get("a", nullptr)->ln, 3);
    EXPECT_EQ(cfg_get("b", nullptr), nullptr);
    EXPECT_EQ(cfg_get("a", nullptr), nullptr);
    EXPECT_EQ(cfg_get("b", list.get())->ln, 2);
    EXPECT_EQ(cfg_next("a", first)->ln, 3);
    EXPECT_EQ(cfg_next("A", first), nullptr);
    EXPECT_EQ(cfg_next("a", nullptr), nullptr);
    EXPECT_NE(savp, nullptr);
    list.reset();
    EXPECT_EQ(savp, nullptr) << "the cursor outlived its list";
}

TEST(Config, CopyIsDeepAndEqual) {
    const ScratchTable table("*: deny-a 1 2\n*: b  \n");
    List list(cfg_read("vorn"));
    const std::string before = described(list.get());
    const List copy(cfg_copy(list.get()));
    EXPECT_EQ(copy->next->argv, nullptr);
    list.reset();
    EXPECT_EQ(described(copy.get()), before);
    EXPECT_EQ(cfg_copy(nullptr), nullptr);
}

TEST(Config, OutOfMemoryAnywhereIsOneMessageAndNoList) {
    const ScratchTable table("*: a 1 2\n*: b 3\n");
    int failures = 0;
    for (bool whole = false; !whole; ++failures) {
        HeardFaults faults;
        faults.heard.reserve(100);
        allocationsLeft = failures;
        const List list(cfg_read_observed("vorn", faults));
        allocationsLeft.reset();
        whole = !cfg_failed(list.get());
        EXPECT_EQ(faults.heard, whole ? "" : "memory\n");
    }
    EXPECT_EQ(failures, 10); // two records, two keywords, two vectors, three arguments

    const List list(cfg_read("vorn"));
    allocationsLeft = 0;
    const cfgrec* copy = cfg_copy(list.get());
    EXPECT_TRUE(cfg_failed(copy));
    EXPECT_EQ(loggedLines.back(), "<5> syserr: out of memory");
}

std::string location(const char* path) {
    const std::unique_ptr<char, decltype(&std::free)> text(getlocation(path), std::free);
    return text == nullptr ? "null" : text.get();
}

TEST(Config, LocationIsTheVariableThenTheProfileThenNothing) {
    if (!sandboxAvailable()) {
        GTEST_SKIP() << "NOT TESTED: no private mounts here";
    }
    const auto check = [] {
        ASSERT_TRUE(enterSandbox());
        ::setenv("TAVORIX", "/opt/x", 1);
        EXPECT_EQ(location("/y"), "/opt/x/y");
        EXPECT_EQ(location(nullptr), "null");
        ::setenv("TAVORIX", std::string(300, 'v').c_str(), 1);
        EXPECT_EQ(location("/y"), std::string(255, 'v') + "/y");
        ::unsetenv("TAVORIX");
        EXPECT_EQ(location("/y"), "/y");
        const std::string profile = "/var/QELENV/.profile.vars";
        writeFile(profile, " install_location=/no\ninstall_location2=/no\ninstall_location\n" +
                               std::string(400, 'p') + "install_location=/no\n" +
                               "install_location=/yes=1 x\ninstall_location=/late\n");
        EXPECT_EQ(location("/y"), "/yes=1/y");
        writeFile(profile, "install_location=" + std::string(300, 'p'));
        EXPECT_EQ(location("/y"), std::string(255 - 17, 'p') + "/y");
        ::setenv("TAVORIX", "", 1);
        EXPECT_EQ(location("/y"), "/y") << "an empty variable wins over the profile";
        endChild();
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

} // namespace
