// The look at the spool: states, filters, locks, and what is wrong with recipient files.
#include "fwall/UniqueFd.h"
#include "retryq/Commands.h"
#include "retryq/Filter.h"
#include "retryq/HeldLocks.h"
#include "retryq/Queue.h"
#include "retryq/Settings.h"
#include "retryq/SpoolCheck.h"
#include "support/mail.h"

#include <fcntl.h>
#include <sys/file.h>

#include <map>
#include <sstream>

using namespace Retryq;

namespace {

struct QueueTest : Spool {
    std::string look(const Filter& filter) const {
        std::set<std::string> found;
        Queue(deferred("")).visit([&](const Message& m, const Recipients& r) {
            if (filter.accepts(m, r, std::time(nullptr))) {
                found.insert(m.leaf);
            }
        });
        return std::accumulate(found.begin(), found.end(), std::string());
    }
};

TEST_F(QueueTest, FiltersAndSeesALockWithoutTryingIt) {
    installTable("vorn: smtp-max-deferral 100000\n");
    RuleTable("vorn").load();
    queue("a", "<s@from.test>", "<a@x.test>\t450\n<b@Y.test>\t1001\n", 3000, 7200);
    queue("b", "<s@from.test>", "<a@x.test>\t-1\n", 100);
    queue("c", "<s@from.test>", "<a@x.test>\t-1\n", 3000, 7000);
    const UniqueFd lock(::open((deferred("c.rmd")).c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    const auto with = [](auto Filter::*member, const auto& value) {
        Filter filter;
        filter.*member = value;
        return filter;
    };
    using Words = std::vector<std::string>;
    const std::pair<Filter, const char*> kCases[]{
        {{}, "abc"},
        {with(&Filter::domains, Words{"y.TEST"}), "a"},
        {with(&Filter::domains, Words{"test"}), ""},
        {with(&Filter::domains, Words{"none.test", "x.test"}), "abc"},
        {with(&Filter::recipients, Words{"b@y.test"}), "a"},
        {with(&Filter::recipients, Words{"<A@*>"}), "abc"},
        {with(&Filter::senders, Words{"S@from.test"}), "abc"},
        {with(&Filter::senders, Words{"from"}), ""},
        {with(&Filter::senders, Words{"<>", "*@from.*"}), "abc"},
        {with(&Filter::senders, Words{"*from.test*x"}), ""},
        {with(&Filter::state, "due"), "a"},
        {with(&Filter::state, "held"), "c"},
        {with(&Filter::codes, std::vector<std::int32_t>{450, 999}), "a"},
        {with(&Filter::olderThan, 7200), "a"},
        {with(&Filter::youngerThan, 6000), "b"}};
    for (const auto& [filter, leaves] : kCases) {
        EXPECT_EQ(look(filter), leaves);
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
        {"garbage\n" + t + "1\n<s@x>\n<a@b>\t1\n", "line 1 (first try) is no time"},
        {t + t + "1\n<s@x>\n", "names no recipient"}, {t + t + "1\n\n<a@b>\t1\n", ""},
        {t + t + "1\n<s@x>\n<a@b>\t1\n<c@d>\t1", "its last line is cut off"}};
    // clang-format on
    for (const auto& [text, fault] : kFiles) {
        write("m.rmd", text);
        const std::string said = recipientFileFault(deferred("m.rmd"), true).text;
        EXPECT_TRUE(said.starts_with(fault) && said.empty() == (*fault == '\0')) << text << said;
    }
}

TEST_F(QueueTest, FindsFilesThatNoRunDealsWith) {
    const std::string longest(200 - deferred("").size(), 'n');
    queue("good", "<s@x>", "<a@b>\t1\n", 10);
    queue(longest, "<s@x>", "<a@b>\t1\n", 10);
    for (const char* leaf : {"text-only", "list-only.rmd", "good.rmd~"}) {
        write(leaf, "x"); // the last may be just being written
    }
    const SpoolReport report = checkSpool(deferred(""), Email::QueuedMessage::Queue::Deferred);
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
    EXPECT_TRUE(checkSpool("/nonexistent", Email::QueuedMessage::Queue::Deferred)
                    .findings.at(0)
                    .text.starts_with("cannot be"));
}

} // namespace
