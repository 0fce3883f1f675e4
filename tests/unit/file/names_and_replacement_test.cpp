#include "email/file/BoundedLineReader.h"
#include "email/file/FdStream.h"
#include "email/file/FileIterator.h"
#include "email/file/FileReplacement.h"
#include "support/files.h"
#include "support/reporter.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <set>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

static int syncs = 0;

extern "C" int fsync(int fd) {
    ++syncs;
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace {

TEST(FileName, KnowsItsLeafAndJoins) {
    const FileName s("/s/");
    const FileName m("/x/m");
    const FileName leafless("/x/");
    FileName copy(false);
    copy = FileName("/s/m");
    // clang-format off
    const struct { FileName name; const char* parts; } cases[] = { // path, leaf if any, directory length
        {FileName("/a/b"), "/a/b|b|3"}, {FileName("b"), "b|b|0"}, {FileName("/a/"), "/a/|3"},
        {FileName(""), "||0"}, {FileName(false), "||0"}, {FileName("/s/", "m"), "/s/m|m|3"},
        {FileName("/s", "x/y/m"), "/s/m|m|3"}, {FileName("", "m"), "/m|m|1"},
        {FileName("/s", "x/"), "/s/|3"}, {FileName(s, m, ".rmd"), "/s/m.rmd|m.rmd|3"},
        {FileName(FileName("/s"), m, nullptr), "/s/m|m|3"}, {copy, "/s/m|m|3"},
        {FileName(s, leafless, ".rmd"), "/s/.rmd|.rmd|3"}, {FileName(s, leafless, ""), "/s/|3"},
        {FileName(copy, ".rmd"), "/s/m.rmd|m.rmd|3"}, {FileName(s, ".rmd"), "/s/.rmd|7"}};
    // clang-format on
    for (const auto& [name, parts] : cases) {
        std::array<char, 16> leaf;
        std::string text = name();
        text += name.Leafname(leaf.data(), 16) ? '|' + std::string(leaf.data()) : "";
        EXPECT_EQ(text + '|' + std::to_string(name.DirLength()), parts);
    }
}

TEST(FileName, GoesUpAndCopiesOnlyWhatFits) {
    // clang-format off
    const std::tuple<const char*, const char*, unsigned> cases[] = {
        {"/a/b", "/a/", 3}, {"/a/b/", "/a/", 3}, {"a/b/", "a/", 2}, {"ab/", "", 0}, {"b", "", 0},
        {"/", "", 0}, {"", "", 0}, {"/tmp/", "/tmp", 5}}; // the length stays
    // clang-format on
    for (const auto& [path, up, length] : cases) {
        FileName name(path);
        name.Up();
        EXPECT_STREQ(name(), up) << path;
        EXPECT_EQ(name.Length(), length) << path;
        name.Up();
        EXPECT_EQ(std::string(name()) == "/tmp", length == 5) << path;
    }
    std::array<char, 8> buf;
    const FileName name("/ab/cde");
    EXPECT_TRUE(name.Pathname(buf.data(), 8) && name.Directory(buf.data(), 5));
    EXPECT_STREQ(buf.data(), "/ab/");
    EXPECT_TRUE(name.Leafname(buf.data(), 4));
    EXPECT_STREQ(buf.data(), "cde");
    EXPECT_TRUE(!name.Pathname(buf.data(), 7) && buf[0] == '\0');
    EXPECT_FALSE(name.Directory(buf.data(), 4) || name.Leafname(nullptr, 0));
}

mode_t modeOf(const std::string& path) {
    return static_cast<mode_t>(std::filesystem::status(path).permissions());
}

TEST(FileName, TemporaryNamesAreFreshAndNullTextsEndTheRun) {
    const std::string one = FileName(true)();
    EXPECT_TRUE(one.starts_with("/tmp/file") && one.size() == 15 && one != FileName(true)());
    const char* const none = nullptr;
    EXPECT_FAILED_CHECK(FileName{none}, " 1=lib/email/FileName 8=file 15=");
    EXPECT_FAILED_CHECK((FileName{"/s", none}), "8=file ");
    EXPECT_FAILED_CHECK((FileName{none, "m"}), "8=directory ");
}

TEST(FileName, OpensWithoutCreatingUnlessItWrites) {
    const Scratch dir;
    const FileName name = dir.name("m");
    std::array<std::fstream, 4> streams;
    EXPECT_FALSE(name.open(streams[0], std::ios::in, 0664));
    EXPECT_TRUE(std::filesystem::is_empty(dir.path("")));
    const mode_t old = ::umask(0);
    ASSERT_TRUE(name.open(streams[1], std::ios::in | std::ios::out, 0664));
    ::umask(old);
    EXPECT_EQ(modeOf(name()), 0664U);
    streams[1] << "old" << std::flush;
    ASSERT_TRUE(name.open(streams[2], std::ios::in | std::ios::out, 0664));
    EXPECT_EQ(dir.read("m"), "old");
    ASSERT_TRUE(name.open(streams[3], std::ios::out, 0664));
    EXPECT_EQ(dir.read("m"), "");
}

TEST(FileName, MovesAlsoAcrossFileSystems) {
    const Scratch dir;
    const Scratch away("/dev/shm");
    const std::string text(40000, 'x');
    for (const Scratch* to : {&dir, &away}) {
        dir.write("m", text);
        std::filesystem::create_symlink(dir.path("planted"), to->path("n"));
        syncs = 0;
        EXPECT_TRUE(dir.name("m").MoveTo(to->name("n")));
        EXPECT_EQ(syncs, to == &away ? 1 : 0); // on disc before the source is deleted
        EXPECT_EQ(to->read("n"), text);
    }
    EXPECT_EQ(dir.names(), "n "); // nothing was written through the link
    // A target that cannot be written: the source is gone all the same.
    EXPECT_FALSE(dir.name("n").MoveTo(dir.name("none/m")));
    EXPECT_TRUE(std::filesystem::is_empty(dir.path("")));
}

TEST(FdStream, AFailedReadIsNotTheEnd) {
    const Scratch dir;
    Email::FdStream in(dir.path("").c_str());
    EXPECT_TRUE(in.good());
    EXPECT_EQ(Email::BoundedLineReader(in, 63, 63).next().kind,
              Email::BoundedLineReader::Kind::Error);
    EXPECT_TRUE(in.error() == EISDIR && in.bad());
}

bool replace(const std::string& path, std::string_view text) {
    Email::FileReplacement replacement(path, 0664);
    return replacement.open() && replacement.commit(text);
}

TEST(FdStream, OnlyAShortageOfThisHostIsWaitedOut) {
    for (const auto& [error, waits] : {std::pair{EMFILE, true},
                                       {ENFILE, true},
                                       {ENOMEM, true},
                                       {EACCES, false},
                                       {ENOENT, false}}) {
        EXPECT_EQ(Email::isShortage(error), waits) << error;
    }
}

TEST(FileIterator, HandsOutEveryEntryWithTheDirectorysOwnStatus) {
    const Scratch dir;
    FileInfo info;
    FileIterator walk(dir.path("none").c_str());
    EXPECT_EQ(walk.Next(info), nullptr);
    walk = FileIterator(dir.path("").c_str());
    EXPECT_EQ(walk.Next(info), nullptr);
    for (const char* leaf : {"a", ".b", "...", "c.rmd"}) {
        dir.write(leaf, "");
    }
    EXPECT_EQ(walk.Next(info), nullptr); // closed at the end, until it is reset
    walk.Reset();
    std::set<std::string> seen;
    while (const auto entry = walk.Next(info)) {
        seen.insert((*entry)());
        EXPECT_TRUE(info.ft == directory && info.created.Time > 0);
        EXPECT_EQ(entry->Next(info), nullptr); // no directory
    }
    EXPECT_EQ(seen, (std::set{dir.path("a"), dir.path(".b"), dir.path("c.rmd")}));
}

TEST(FileReplacement, GivesANewFileItsModeAndKeepsAnOldFiles) {
    const Scratch dir;
    const mode_t old = ::umask(022);
    EXPECT_TRUE(replace(dir.path("m"), "new") && modeOf(dir.path("m")) == 0644);
    ::chmod(dir.path("m").c_str(), 0662);
    EXPECT_TRUE(replace(dir.path("m"), "newer") && modeOf(dir.path("m")) == 0662);
    ::umask(old);
    EXPECT_EQ(dir.state("m"), "m newer");
}

TEST(FileReplacement, KeepsTheOldFileUntilTheNewOneIsWhole) {
    const Scratch dir;
    dir.write("m", "old");
    {
        Email::FileReplacement given(dir.path("m"), 0664);
        ASSERT_TRUE(given.open());
        EXPECT_EQ(dir.read("m"), "old");
    }
    EXPECT_EQ(dir.state("m"), "m old");
    dir.write("m~", "left over by a killed run, longer than the new text");
    EXPECT_TRUE(replace(dir.path("m"), "new"));
    EXPECT_EQ(dir.state("m"), "m new");
}

TEST(FileReplacement, AWriteThatSignalsInterruptGoesOn) {
    struct sigaction ignore {};
    ignore.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &ignore, nullptr);
    const itimerval often{{0, 20'000}, {0, 20'000}}, never{};
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe(ends), 0);
    std::jthread reader([from = UniqueFd(ends[0])] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (char block[4096]; ::read(from.get(), block, sizeof block) > 0;) {
        }
    });
    const UniqueFd to(ends[1]);
    ::setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_TRUE(Email::writeAll(to.get(), std::string(200'000, 'x'))); // more than a pipe takes
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(FileReplacement, OddTargetsAreWrittenInPlace) {
    const Scratch dir;
    dir.write("real", "a long old text");
    const std::pair<const char*, const char*> links[] = {
        {"link", "real"}, {"full", "/dev/full"}, {"null", "/dev/null"}};
    for (const auto& [leaf, target] : links) {
        std::filesystem::create_symlink(target, dir.path(leaf));
    }
    ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
    EXPECT_TRUE(replace(dir.path("link"), "new") && replace(dir.path("null"), "new"));
    EXPECT_EQ(dir.read("link"), "new"); // a file of its own: what it led to is not the gateway's
    EXPECT_TRUE(!replace(dir.path("full"), "new") && errno == ENOSPC);
    EXPECT_FALSE(replace(dir.path("fifo"), "new"));
    EXPECT_TRUE(!replace(dir.path("none/m"), "new") && errno == ENOENT);
    EXPECT_EQ(dir.state("real"), "fifo full link null real a long old text");
}

// As a user without privileges: a file that may be written in a directory that takes no names, and
// one that may not be written in a directory that takes them.
TEST(FileReplacement, RightsDecide) {
    const Scratch dir;
    const Scratch shared;
    ::chmod(dir.path("").c_str(), 0755);
    ::chmod(shared.path("").c_str(), 0777);
    ::chmod(dir.write("open", "a long old text").c_str(), 0666);
    ::chmod(shared.write("closed", "old").c_str(), 0644);
    if (::geteuid() != 0 || ::seteuid(65534) != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    EXPECT_TRUE(replace(dir.path("open"), "new"));
    EXPECT_TRUE(!replace(shared.path("closed"), "new") && errno == EACCES);
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(dir.state("open") + shared.state("closed"), "open newclosed old");
    struct stat status {};
    ASSERT_EQ(::chown(dir.path("open").c_str(), 12, 34), 0);
    ASSERT_TRUE(replace(dir.path("open"), "newer") &&
                ::stat(dir.path("open").c_str(), &status) == 0);
    EXPECT_TRUE(status.st_uid == 12 && status.st_gid == 34);
}

} // namespace
