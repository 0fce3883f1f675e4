// The look at the spool: states, filters, locks, and what is wrong with recipient files.
#include "retryq/Commands.h"
#include "retryq/HeldLocks.h"
#include "retryq/Queue.h"
#include "retryq/Settings.h"
#include "retryq/SpoolCheck.h"
#include "scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

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
        Queue(scratch.spool()).visit([&](const Message& m, const Recipients& r) {
            if (filter.accepts(m, r, std::time(nullptr))) {
                found[m.leaf] = m;
            }
        });
        return found;
    }
    std::string leaves(const Filter& filter) const {
        std::string out;
        for (const auto& [leaf, message] : look(filter)) {
            out += leaf;
        }
        return out;
    }
    Scratch scratch;
};

} // namespace

TEST_F(QueueTest, TellsWhatTheNextRunWillDo) {
    scratch.queue("due", 7200, 2001, "<a@x.test>\t450\n<b@y.test>\t1001\n<c@y.test>\t1001\n");
    scratch.queue("waiting", 7200, 1900, "<a@x.test>\t-1\n");
    scratch.queue("overdue", 100001, 10, "");
    scratch.write(scratch.spool() + "unreadable", "");
    scratch.write(scratch.spool() + "unreadable.rmd", "");
    scratch.write(scratch.spool() + "text-only", "");
    scratch.write(scratch.spool() + "list-only.rmd", scratch.read("due.rmd"));
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

TEST_F(QueueTest, Filters) {
    scratch.queue("a", 7200, 3000, "<a@x.test>\t450\n<b@Y.test>\t1001\n");
    scratch.queue("b", 100, 100, "<a@x.test>\t-1\n");
    const auto with = [](auto member, auto value) {
        Filter filter;
        filter.*member = value;
        return filter;
    };
    EXPECT_EQ(leaves({}), "ab");
    EXPECT_EQ(leaves(with(&Filter::domain, "y.TEST")), "a");
    EXPECT_EQ(leaves(with(&Filter::domain, "test")), "");
    EXPECT_EQ(leaves(with(&Filter::sender, "FROM")), "ab");
    EXPECT_EQ(leaves(with(&Filter::code, 450)), "a");
    EXPECT_EQ(leaves(with(&Filter::state, "waiting")), "b");
    EXPECT_EQ(leaves(with(&Filter::olderThan, 7200)), "a");
    EXPECT_EQ(leaves(with(&Filter::youngerThan, 7000)), "b");
}

TEST_F(QueueTest, SeesALockWithoutTryingIt) {
    scratch.queue("m", 7200, 3000, "<a@x.test>\t450\n");
    scratch.queue("n", 7200, 3000, "<a@x.test>\t450\n");
    const int fd = ::open((scratch.spool() + "m.rmd").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    EXPECT_TRUE(look().at("m").held);
    EXPECT_FALSE(look().at("n").held);
    ::close(fd);
    EXPECT_FALSE(look().at("m").held);
}

TEST(HeldLocks, TakesExclusiveLocksOfOneDevice) {
    std::istringstream text("1: FLOCK  ADVISORY  WRITE 1 fe:01:11 0 EOF\n"
                            "2: FLOCK  ADVISORY  WRITE 1 fe:02:12 0 EOF\n"
                            "3: FLOCK  ADVISORY  READ  1 fe:01:13 0 EOF\n"
                            "4: POSIX  ADVISORY  WRITE 1 fe:01:14 0 EOF\n"
                            "4: -> FLOCK  ADVISORY  WRITE 1 fe:01:15 0 EOF\nnonsense\n");
    const HeldLocks locks = HeldLocks::parse(text, "fe:01");
    EXPECT_TRUE(locks.holds(11));
    for (const ino_t other : {ino_t{12}, ino_t{13}, ino_t{14}, ino_t{15}}) {
        EXPECT_FALSE(locks.holds(other));
    }
}

TEST_F(QueueTest, TellsWhatIsWrongWithARecipientFile) {
    const std::string t = "2026/00/01@00:00:00_GMT\n";
    const std::pair<std::string, const char*> kFiles[]{
        {"", "is empty"},
        {t, "line 2 (latest try) is missing"},
        {t + t, "line 3 (tries) is missing"},
        {t + t + "x\n<s@x>\n", "line 3 (tries) is no number"},
        {t + t + "1\n<s@x>", "line 4 (sender) is missing or cut off"},
        {"1970/00/01@00:00:00_GMT\n" + t + "1\n<s@x>\n", "line 1 (first try) is the zero time"},
        {"garbage\n" + t + "1\n<s@x>\n", "line 1 (first try) is no time"},
        {t + t + "1\n<s@x>\n", "names no recipient"},
        {t + t + "1\n<s@x>\n<a@b>\t1\n<c@d>\t1", "its last line is cut off"},
        {t + t + "1\n\n<a@b>\t1\n", ""},
    };
    for (const auto& [text, fault] : kFiles) {
        scratch.write(scratch.spool() + "m.rmd", text);
        const std::string said = recipientFileFault(scratch.spool() + "m.rmd", true);
        EXPECT_TRUE(said.starts_with(fault) && said.empty() == (*fault == '\0')) << text << said;
    }
}

TEST_F(QueueTest, FindsFilesThatNoRunDealsWith) {
    scratch.queue("good", 10, 10, "<a@b>\t1\n");
    scratch.queue(std::string(180, 'n'), 10, 10, "<a@b>\t1\n");
    scratch.write(scratch.spool() + "text-only", "");
    scratch.write(scratch.spool() + "list-only.rmd", "x");
    scratch.write(scratch.spool() + "good.rmd+", "x");
    scratch.write(scratch.spool() + "good.rmd~", "x"); // just being written
    SpoolReport report = checkSpool(scratch.spool(), ".rmd");
    std::erase_if(report.findings, [](auto& f) { return f.text.find(": ") == std::string::npos; });
    const auto found = [&](const char* text) {
        return std::ranges::any_of(report.findings,
                                   [&](auto& f) { return f.text.find(text) != std::string::npos; });
    };
    EXPECT_EQ(report.messages, 2U);
    EXPECT_TRUE(found("text-only: no recipient file"));
    EXPECT_TRUE(found("list-only.rmd: recipient file without message text"));
    EXPECT_TRUE(found("nnn: its path has 200 characters"));
    EXPECT_FALSE(found("good"));
    EXPECT_TRUE(checkSpool("/nonexistent", ".rmd").findings.at(0).text.starts_with("cannot be"));
}
