#include "email/FileReplacement.h"
#include "store_support.h"

#include <cerrno>
#include <filesystem>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Email::FileReplacement;

mode_t modeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

bool replace(const std::string& path, std::string_view text) {
    FileReplacement replacement(path, 0664);
    return replacement.open() && replacement.commit(text);
}

TEST(FileReplacement, GivesANewFileItsModeAndKeepsAnOldFiles) {
    const Scratch dir;
    const mode_t old = ::umask(022);
    EXPECT_TRUE(replace(dir.path("m"), "new"));
    EXPECT_EQ(modeOf(dir.path("m")), 0644U);
    ::chmod(dir.path("m").c_str(), 0662);
    EXPECT_TRUE(replace(dir.path("m"), "newer"));
    ::umask(old);
    EXPECT_EQ(modeOf(dir.path("m")), 0662U);
    EXPECT_EQ(dir.read("m"), "newer");
    EXPECT_EQ(dir.names(), "m ");
}

TEST(FileReplacement, KeepsTheOldFileUntilItIsCommitted) {
    const Scratch dir;
    dir.write("m", "old");
    dir.write("m~", "left over by a killed run, longer than the new text");
    {
        FileReplacement given(dir.path("m"), 0664);
        ASSERT_TRUE(given.open());
        EXPECT_EQ(dir.read("m"), "old");
    }
    EXPECT_EQ(dir.names(), "m ");
    EXPECT_EQ(dir.read("m"), "old");
    EXPECT_TRUE(replace(dir.path("m"), "new"));
    EXPECT_EQ(dir.read("m"), "new");
}

TEST(FileReplacement, FailedWriteKeepsTheOldFile) {
    const Scratch dir;
    dir.write("m", "old");
    struct rlimit before {};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const struct rlimit small { 100, before.rlim_max };
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &small);
    const bool replaced = replace(dir.path("m"), std::string(5000, 'x'));
    const int error = errno;
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_FALSE(replaced);
    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(dir.read("m"), "old");
    EXPECT_EQ(dir.names(), "m ");
}

TEST(FileReplacement, OddTargetsAreWrittenInPlace) {
    const Scratch dir;
    dir.write("real", "a long old text");
    std::filesystem::create_symlink("real", dir.path("link"));
    std::filesystem::create_symlink("/dev/full", dir.path("full"));
    std::filesystem::create_symlink("/dev/null", dir.path("null"));
    EXPECT_TRUE(replace(dir.path("link"), "new"));
    EXPECT_EQ(dir.read("real"), "new");
    EXPECT_TRUE(replace(dir.path("null"), "new"));
    EXPECT_FALSE(replace(dir.path("full"), "new"));
    EXPECT_EQ(errno, ENOSPC);
    ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(replace(dir.path("fifo"), "new"));
    EXPECT_FALSE(replace(dir.path("none/m"), "new"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(dir.names(), "fifo full link null real ");
}

// As a user without privileges: a file that may be written in a directory that takes no names, and
// one that may not be written in a directory that takes them.
TEST(FileReplacement, RightsDecide) {
    const Scratch dir;
    const Scratch shared;
    const std::string open = dir.write("open", "a long old text");
    const std::string closed = shared.write("closed", "old");
    ::chmod(dir.path("").c_str(), 0755);
    ::chmod(shared.path("").c_str(), 0777);
    ::chmod(open.c_str(), 0666);
    ::chmod(closed.c_str(), 0644);
    if (::geteuid() != 0 || ::seteuid(65534) != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    EXPECT_TRUE(replace(open, "new"));
    EXPECT_FALSE(replace(closed, "new"));
    EXPECT_EQ(errno, EACCES);
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(dir.read("open") + dir.names(), "newopen ");
    EXPECT_EQ(shared.read("closed") + shared.names(), "oldclosed ");

    ASSERT_EQ(::chown(open.c_str(), 12, 34), 0);
    EXPECT_TRUE(replace(open, "newer"));
    struct stat status {};
    ASSERT_EQ(::stat(open.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12U);
    EXPECT_EQ(status.st_gid, 34U);
}

} // namespace
