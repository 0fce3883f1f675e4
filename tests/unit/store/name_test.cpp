#include "email/FileIterator.h"
#include "store_support.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/stat.h>

namespace {

// "path|leaf|directory length"; no "|leaf" part without a leaf.
std::string parts(const FileName& name) {
    std::array<char, 64> leaf;
    std::string text = name();
    text += name.Leafname(leaf.data(), leaf.size()) ? std::string("|") + leaf.data() : "";
    return text + '|' + std::to_string(name.DirLength());
}

TEST(FileName, KnowsItsLeaf) {
    EXPECT_EQ(parts(FileName("/a/b")), "/a/b|b|3");
    EXPECT_EQ(parts(FileName("b")), "b|b|0");
    EXPECT_EQ(parts(FileName("/a/")), "/a/|3");
    EXPECT_EQ(parts(FileName("")), "||0");
    EXPECT_EQ(parts(FileName(false)), parts(FileName::empty));
    EXPECT_EQ(parts(FileName("/s/", "m")), "/s/m|m|3");
    EXPECT_EQ(parts(FileName("/s", "x/y/m")), "/s/m|m|3");
    EXPECT_EQ(parts(FileName("", "m")), "/m|m|1");
    EXPECT_EQ(parts(FileName("/s", "x/")), "/s/|3");
}

TEST(FileName, JoinsNames) {
    const FileName spool("/s/");
    EXPECT_EQ(parts(FileName(spool, FileName("/x/m"), ".rmd")), "/s/m.rmd|m.rmd|3");
    EXPECT_EQ(parts(FileName(FileName("/s"), FileName("/x/m"), nullptr)), "/s/m|m|3");
    EXPECT_EQ(parts(FileName(spool, FileName("/x/"), ".rmd")), "/s/.rmd|.rmd|3");
    EXPECT_EQ(parts(FileName(spool, FileName("/x/"), "")), "/s/|3");
    EXPECT_EQ(parts(FileName(FileName("/s/m"), ".rmd")), "/s/m.rmd|m.rmd|3");
    EXPECT_EQ(parts(FileName(spool, ".rmd")), "/s/.rmd|7");
    FileName copy(false);
    copy = FileName("/s/m");
    EXPECT_EQ(parts(copy), "/s/m|m|3");
}

TEST(FileName, GoesUp) {
    struct {
        const char* path;
        const char* up;
        unsigned length;
    } const cases[] = {
        {"/a/b", "/a/", 3}, {"/a/b/", "/a/", 3}, {"a/b/", "a/", 2},    {"ab/", "", 0}, {"b", "", 0},
        {"/", "", 0},       {"", "", 0},         {"/tmp/", "/tmp", 5}, // the length stays
    };
    for (const auto& c : cases) {
        FileName name(c.path);
        name.Up();
        EXPECT_STREQ(name(), c.up) << c.path;
        EXPECT_EQ(name.Length(), c.length) << c.path;
    }
    FileName stuck("/tmp/");
    stuck.Up();
    stuck.Up();
    std::array<char, 8> buf;
    EXPECT_TRUE(stuck.Directory(buf.data(), buf.size()));
    EXPECT_STREQ(buf.data(), "/tmp");
}

TEST(FileName, CopiesOnlyWhatFits) {
    const FileName name("/ab/cde");
    std::array<char, 16> buf;
    EXPECT_TRUE(name.Pathname(buf.data(), 8) && name.Directory(buf.data(), 5));
    EXPECT_STREQ(buf.data(), "/ab/");
    EXPECT_TRUE(name.Leafname(buf.data(), 4));
    EXPECT_STREQ(buf.data(), "cde");
    EXPECT_FALSE(name.Pathname(buf.data(), 7));
    EXPECT_STREQ(buf.data(), "");
    EXPECT_FALSE(name.Directory(buf.data(), 4));
    EXPECT_FALSE(name.Leafname(nullptr, 0));
    EXPECT_FALSE(FileName("/ab/").Leafname(buf.data(), 16));
}

TEST(FileName, TemporaryNamesAreFresh) {
    std::set<std::string> names;
    for (int i = 0; i < 50; ++i) {
        names.insert(FileName(true)());
    }
    EXPECT_EQ(names.size(), 50U);
    EXPECT_TRUE(names.begin()->starts_with("/tmp/file"));
    EXPECT_EQ(names.begin()->size(), 15U);
}

TEST(FileNameDeath, NullTextsEndTheRun) {
    const char* const none = nullptr;
    EXPECT_FAILED_CHECK(FileName{none}, " 1=lib/email/FileName 8=file 15=");
    EXPECT_FAILED_CHECK((FileName{"/s", none}), "8=file ");
    EXPECT_FAILED_CHECK((FileName{none, "m"}), "8=directory ");
}

TEST(FileName, OpensWithoutCreatingUnlessItWrites) {
    const Scratch dir;
    const FileName name(dir.path("m").c_str());
    std::fstream stream;
    EXPECT_FALSE(name.open(stream, std::ios::in, 0664));
    EXPECT_EQ(dir.names(), "");
    const mode_t old = ::umask(0);
    std::fstream out;
    ASSERT_TRUE(name.open(out, std::ios::in | std::ios::out, 0664));
    ::umask(old);
    out << "old" << std::flush;
    struct stat status {};
    ASSERT_EQ(::stat(name(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0664U);
    ASSERT_TRUE(name.open(stream, std::ios::in | std::ios::out, 0664));
    EXPECT_EQ(dir.read("m"), "old");
    std::fstream cut;
    ASSERT_TRUE(name.open(cut, std::ios::out, 0664));
    EXPECT_EQ(dir.read("m"), "");
}

TEST(FileName, MovesByRenamingOrCopying) {
    const Scratch dir;
    const std::string text(40000, 'x');
    const FileName source(dir.write("m", text).c_str());
    EXPECT_TRUE(source.MoveTo(FileName(dir.path("n").c_str())));
    EXPECT_EQ(dir.read("n"), text);

    // A target that cannot be written: the source is gone all the same.
    const FileName lost(dir.path("n").c_str());
    EXPECT_FALSE(lost.MoveTo(FileName(dir.path("none/m").c_str())));
    EXPECT_FALSE(lost.Delete());
    EXPECT_EQ(dir.names(), "");
}

TEST(FileName, MovesAcrossFileSystems) {
    const Scratch dir;
    struct stat here {};
    struct stat there {};
    if (::stat("/tmp", &here) != 0 || ::stat("/dev/shm", &there) != 0 ||
        here.st_dev == there.st_dev) {
        GTEST_SKIP() << "only one file system";
    }
    const std::string text(40000, 'x');
    const FileName source(dir.write("m", text).c_str());
    const FileName away("/dev/shm", FileName(true)());
    ASSERT_TRUE(source.MoveTo(away));
    EXPECT_EQ(dir.names(), "");
    EXPECT_EQ(std::filesystem::file_size(away()), text.size());
    EXPECT_TRUE(away.Delete());
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

} // namespace
