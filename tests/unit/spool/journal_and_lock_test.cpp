#include "email/spool/DeliveryJournal.h"
#include "email/spool/MessageLock.h"
#include "support/mail.h"

#include <functional>
#include <sys/syscall.h>
#include <unistd.h>

// Done once, right before the next flock().
static std::function<void()> beforeLock;

extern "C" int flock(int fd, int operation) noexcept {
    if (const auto action = std::exchange(beforeLock, nullptr)) {
        action();
    }
    return static_cast<int>(::syscall(SYS_flock, fd, operation));
}

namespace {

namespace fs = std::filesystem;

struct Journal : Spool {
    Journal() { write("m.rmd", "list"); }

    static MailList& add(MailList& rcpts, std::initializer_list<const char*> names) {
        for (const char* name : names) {
            rcpts.Add(name, ACTION_OKA);
        }
        return rcpts;
    }
    // A run that was killed after it was done with these.
    void cutOff(std::initializer_list<const char*> names) const {
        Email::DeliveryJournal journal(list);
        MailList done;
        journal.takeDone(done);
        journal.note(add(done, names));
        journal.flush();
    }
    // Who is left of a, b, a, c in the next run.
    std::string left() const {
        MailList rcpts;
        Email::DeliveryJournal(list).takeDone(add(rcpts, {"<c>", "<a>", "<b>", "<a>"}));
        std::array<char, EmailAddr::kTextSize> text{};
        return rcpts.AllNames(text.data()), text.data();
    }

    std::string list = deferred("m.rmd");
};

TEST_F(Journal, LeavesOutOneRecordForEachWholeLineOfThisListAndIsOnlyWrittenWhenNeeded) {
    EXPECT_EQ(left(), "<a> <b> <a> <c>");
    cutOff({"<a>", "<c>", "<stranger>"});
    EXPECT_EQ(left(), "<b> <a>");
    cutOff({"<b>"}); // cut off once more
    EXPECT_EQ(left(), "<a>");
    std::ofstream(list + "+", std::ios::app) << "<a>\n<a>\tdon\n<a>\tdone";
    EXPECT_EQ(left(), "<a>");
    write("m.rmd~", "list");
    fs::rename(list + "~", list); // the same content, but another list
    EXPECT_EQ(left(), "<a> <b> <a> <c>");
    write("m.rmd+", "garbage\n<a>\tdone\n");
    EXPECT_EQ(left(), "<a> <b> <a> <c>");
    Email::DeliveryJournal journal(list);
    MailList done;
    journal.note(add(done, {"<b>"}));
    EXPECT_EQ(names(), "m.rmd ");
    journal.flush();
    EXPECT_EQ(left(), "<a> <a> <c>");
    journal.remove();
    journal.flush();
    EXPECT_EQ(names(), "m.rmd ");
}

TEST_F(Spool, ALockLastsAsLongAsItsOwnerAndIsNoneOnAReplacedFile) {
    using Lock = Email::MessageLock;
    queue("m1", "<>", "");
    const std::string file = deferred("m1.rmd");
    {
        const Lock lock(file);
        EXPECT_EQ(lock.state(), Lock::State::Held);
        EXPECT_EQ(Lock(file).state(), Lock::State::Busy);
    }
    write("m1.rmd~", "new list");
    beforeLock = [&] { fs::rename(file + "~", file); };
    EXPECT_EQ(Lock(file).state(), Lock::State::Busy);
    EXPECT_EQ(Lock(file).state(), Lock::State::Held);
    beforeLock = [&] { fs::remove(file); };
    EXPECT_EQ(Lock(file).state(), Lock::State::Busy);
    EXPECT_EQ(Lock(file).state(), Lock::State::NotOpened);
}

} // namespace
