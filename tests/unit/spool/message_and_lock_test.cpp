#include "email/spool/MessageLock.h"
#include "email/spool/QueuedMessage.h"
#include "support/mail.h"

#include <functional>
#include <sys/stat.h>
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

// The file that cannot be deleted, while there is one, and the leaf names of those that were to be.
static std::string stays;
static std::string deleted;

extern "C" int remove(const char* path) noexcept {
    deleted += std::filesystem::path(path).filename().string() + ' ';
    if (path == stays) {
        errno = EIO;
        return -1;
    }
    return std::filesystem::is_directory(path) ? ::rmdir(path) : ::unlink(path);
}

namespace {

namespace fs = std::filesystem;

using Message = Email::QueuedMessage;

TEST_F(Spool, TheListSaysWhomNobodyIsDoneWith) {
    const std::string list = deferred("m.rmd");
    queue("m", "<s@a.test>", "<a@x>\t450\n<b@x>\t-1\n<c@x>\n");
    ::chmod(list.c_str(), 0640);
    const std::string stamps = contents(list).substr(0, 50);
    const MailList failed;
    Recipients rcpts;
    {
        Message message(Message::Queue::Deferred, FileName("m"));
        ASSERT_FALSE(message.read(rcpts, nullptr));
        write("m.rmd~", "left over by a killed run");
        // What stands there before each conversation: with room for the next list, and locked.
        for (const auto& [files, listed] :
             {std::pair{"m m.rmd m.rmd~ ", "<a@x>\t450\n<b@x>\t-1\n<c@x>\n"},
              {"m m.rmd m.rmd~ ", "<b@x>\t-1\n<a@x>\t450\n"},
              {"m m.rmd ", "<a@x>\t450\n"}}) {
            ASSERT_FALSE(message.secure(rcpts, failed));
            EXPECT_EQ(names(), files);
            EXPECT_EQ(envelope("m"), std::string("<s@a.test>\n") + listed);
            EXPECT_EQ(contents(list).substr(0, 50), stamps);
            rcpts.Remove();
            message.noteServed();
        }
        EXPECT_EQ(Email::MessageLock(list).state(), Email::MessageLock::State::Busy);
    }
    EXPECT_EQ(Email::MessageLock(list).state(), Email::MessageLock::State::Held);
    EXPECT_EQ(fs::status(list).permissions(), fs::perms(0640));
}

TEST_F(Spool, AMessageMayHaveTheTemporaryNameOfAnother) {
    queue("m", "<>", "<a@x>\t450\n<b@x>\t-1\n");
    queue("m.rmd~", "<>", "<c@x>\t450\n");
    Message message(Message::Queue::Deferred, FileName("m"));
    Recipients rcpts;
    ASSERT_FALSE(message.read(rcpts, nullptr));
    EXPECT_EQ(message.secure(rcpts, MailList()), EEXIST);
    EXPECT_TRUE(message.stuck());
    EXPECT_FALSE(message.remove(nullptr));
    EXPECT_EQ(names(), "m.rmd~ m.rmd~.rmd ");
}

TEST_F(Spool, AListThatCannotBeDeletedNamesNobody) {
    queue("m", "<s@a.test>", "<a@x>\t450\n");
    Message message(Message::Queue::Deferred, FileName("m"));
    Recipients head;
    ASSERT_FALSE(message.read(head, nullptr));
    head.Remove();
    stays = deferred("m.rmd");
    deleted.clear();
    EXPECT_EQ(message.remove(&head), EIO);
    EXPECT_EQ(deleted, "m m.rmd "); // a text without list would stay for ever
    EXPECT_EQ(names() + envelope("m"), "m.rmd <s@a.test>\n");
    stays.clear();
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
    EXPECT_EQ(Lock(file).state(), Lock::State::Held);
    write("m1.rmd~", "new list");
    beforeLock = [&] { fs::rename(file + "~", file); };
    EXPECT_EQ(Lock(file).state(), Lock::State::Busy);
    EXPECT_EQ(Lock(file).state(), Lock::State::Held);
    beforeLock = [&] { fs::remove(file); };
    EXPECT_EQ(Lock(file).state(), Lock::State::Busy);
    EXPECT_EQ(Lock(file).state(), Lock::State::NotOpened);
}

} // namespace
