// The look at the spool: states, filters, locks, and what is wrong with recipient files.
#include "fwall/UniqueFd.h"
#include "retryq/Commands.h"
#include "retryq/HeldLocks.h"
#include "retryq/Queue.h"
#include "retryq/Settings.h"
#include "retryq/SpoolCheck.h"
#include "scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <map>
#include <sstream>

using namespace Retryq;

namespace {

struct QueueTest : testing::Test {
    QueueTest() {
        scratch.table("vorn: smtp-max-deferral 100000\n");
        RuleTable("vorn").load();
    }
    std::map<std::string, Message> look(const Filter& filter = {}) const {
        std::map<std::string, Message> found;
        Queue(scratch.spool).visit([&](const Message& m, const Recipients& r) {
            if (filter.accepts(m, r, std::time(nullptr))) {
                found[m.leaf] = m;
            }
        });
        return found;
    }
    Scratch scratch;
};

TEST_F(QueueTest, TellsWhatTheNextRunWillDo) {
    scratch.queue("due", 7200, 2001, "<a@x.test>\t450\n<b@y.test>\t1001\n<c@y.test>\t1001\n");
    scratch.queue("waiting", 7200, 1900, "<a@x.test>\t-1\n");
    scratch.queue("overdue", 100001, 10, "");
    for (const char* leaf : {"unreadable", "unreadable.rmd", "text-only", "list-only.rmd"}) {
        scratch.write(leaf, "");
    }
    const auto found = look();
    ASSERT_EQ(found.size(), 4U);
    for (const auto& [leaf, message] : found) {
        EXPECT_EQ(stateName(message.state), leaf);
    }
    const Message& due = found.at("due");
    EXPECT_EQ(due.code, 1001);
    EXPECT_EQ(due.recipients, 3U);
    EXPECT_EQ(due.tries, 3);
    EXPECT_EQ(due.sender, "<s@from.test>");
    EXPECT_EQ(nextTryText(found.at("waiting"), std::time(nullptr)).substr(0, 3), "in ");
}

TEST_F(QueueTest, FiltersAndSeesALockWithoutTryingIt) {
    scratch.queue("a", 7200, 3000, "<a@x.test>\t450\n<b@Y.test>\t1001\n");
    scratch.queue("b", 100, 100, "<a@x.test>\t-1\n");
    scratch.queue("c", 7000, 3000, "<a@x.test>\t-1\n");
    const UniqueFd lock(::open((scratch.spool + "c.rmd").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    // Domain, sender, state, code, at least and at most so old; the messages that are left.
    // clang-format off
    const std::pair<Filter, const char*> kCases[]{
        {{"", "", "", {}, 0, 9999}, "abc"}, {{"y.TEST", "", "", {}, 0, 9999}, "a"},
        {{"test", "", "", {}, 0, 9999}, ""}, {{"", "FROM", "", {}, 0, 9999}, "abc"},
        {{"", "", "waiting", {}, 0, 9999}, "b"}, {{"", "", "due", {}, 0, 9999}, "a"},
        {{"", "", "held", {}, 0, 9999}, "c"}, {{"", "", "", 450, 0, 9999}, "a"},
        {{"", "", "", {}, 7200, 9999}, "a"}, {{"", "", "", {}, 0, 6000}, "b"}};
    // clang-format on
    for (const auto& [filter, leaves] : kCases) {
        std::string found;
        for (const auto& [leaf, message] : look(filter)) {
            found += leaf;
        }
        EXPECT_EQ(found, leaves) << filter.domain << filter.state;
    }
}

TEST(HeldLocks, TakesExclusiveLocksOfOneDevice) {
    std::istringstream text("1: FLOCK  ADVISORY  WRITE 1 fe:01:11 0 EOF\n"
                            "2: FLOCK  ADVISORY  WRITE 1 fe:02:12 0 EOF\n"
                            "3: FLOCK  ADVISORY  READ  1 fe:01:13 0 EOF\n"
                            "4: POSIX  ADVISORY  WRITE 1 fe:01:14 0 EOF\n"
                            "4: -> FLOCK  ADVISORY  WRITE 1 fe:01:15 0 EOF\nnonsense\n");
    const HeldLocks locks = HeldLocks::parse(text, "fe:01");
    for (ino_t inode = 11; inode < 16; ++inode) {
        EXPECT_EQ(locks.holds(inode), inode == 11);
    }
}

TEST_F(QueueTest, TellsWhatIsWrongWithARecipientFile) {
    const std::string t = "2026/00/01@00:00:00_GMT\n";
    // clang-format off
    const std::pair<std::string, const char*> kFiles[]{
        {"", "is empty"}, {t, "line 2 (latest try) is missing"},
        {t + t, "line 3 (tries) is missing"}, {t + t + "x\n<s@x>\n", "line 3 (tries) is no number"},
        {t + t + "1\n<s@x>", "line 4 (sender) is missing or cut off"},
        {"1970/00/01@00:00:00_GMT\n" + t + "1\n<s@x>\n", "line 1 (first try) is the zero time"},
        {"garbage\n" + t + "1\n<s@x>\n", "line 1 (first try) is no time"},
        {t + t + "1\n<s@x>\n", "names no recipient"}, {t + t + "1\n\n<a@b>\t1\n", ""},
        {t + t + "1\n<s@x>\n<a@b>\t1\n<c@d>\t1", "its last line is cut off"}};
    // clang-format on
    for (const auto& [text, fault] : kFiles) {
        scratch.write("m.rmd", text);
        const std::string said = recipientFileFault(scratch.spool + "m.rmd", true);
        EXPECT_TRUE(said.starts_with(fault) && said.empty() == (*fault == '\0')) << text << said;
    }
}

TEST_F(QueueTest, FindsFilesThatNoRunDealsWith) {
    scratch.queue("good", 10, 10, "<a@b>\t1\n");
    scratch.queue(std::string(180, 'n'), 10, 10, "<a@b>\t1\n");
    for (const char* leaf : {"text-only", "list-only.rmd", "good.rmd+", "good.rmd~"}) {
        scratch.write(leaf, "x"); // the last two may be just being written
    }
    const SpoolReport report = checkSpool(scratch.spool, ".rmd");
    std::string found;
    for (const Finding& finding : report.findings) {
        found += finding.text + '\n';
    }
    EXPECT_EQ(report.messages, 2U);
    for (const char* text : {"text-only: no recipient file", "nnn: its path has 200 characters",
                             "list-only.rmd: recipient file without message text"}) {
        EXPECT_NE(found.find(text), std::string::npos) << found;
    }
    EXPECT_EQ(found.find("good"), std::string::npos);
    EXPECT_TRUE(checkSpool("/nonexistent", ".rmd").findings.at(0).text.starts_with("cannot be"));
}

} // namespace
