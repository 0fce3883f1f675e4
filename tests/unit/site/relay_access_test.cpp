// The file of those who sign in to relays: whatever stands in it, and whatever it is.
#include "email/site/RelayAccess.h"
#include "support/files.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Email::RelayAccess;
using std::string_literals::operator""s;

const std::string kLong(RelayAccess::kMaxWord, 'x');

TEST(RelayAccess, TakesWholeFilesOrNothing) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"\n# a b c\n \t\n", ""},
        {"h u p", "h:587 u p"},
        {"h.:465 u p \t\n", "h:465 u p"},
        {"\t[192.0.2.1]:25\tu  p =#\"'  q", "192.0.2.1:25 u p =#\"'  q"},
        {"h u p\r\n", "line 1: a control character"},
        {"h u p\0\n"s, "line 1: a control character"},
        {"#\nh u\n", "line 2: not of the form host[:port] user password"},
        {"h:0 u p", "line 1: not of the form host[:port] user password"},
        {"h:65536 u p", "line 1: not of the form host[:port] user password"},
        {"h:5x u p", "line 1: not of the form host[:port] user password"},
        {":587 u p", "line 1: not of the form host[:port] user password"},
        {"h u p\nH. u p", "line 2: a second one for the same host"},
        {kLong + " u " + kLong, kLong + ":587 u " + kLong},
        {"h u " + kLong + "y", "line 1: not of the form host[:port] user password"},
        {kLong + "y u p", "line 1: not of the form host[:port] user password"}};
    for (const auto& [text, expected] : cases) {
        RelayAccess access;
        const bool good = access.parse(text);
        EXPECT_EQ(good, access.trouble().empty());
        std::string found = access.trouble();
        for (const RelayAccess::Line& line : access.lines()) {
            found.append(line.host).append(":" + std::to_string(line.port) + " ");
            found.append(line.user).append(" ").append(line.password);
        }
        EXPECT_EQ(found, expected);
    }
    RelayAccess access;
    access.parse("Mx.test u p\n192.0.2.1 v q");
    EXPECT_EQ(access.find("[192.0.2.1]"), &access.lines()[1]);
    EXPECT_EQ(access.find("mx.TEST."), access.lines().data());
    EXPECT_FALSE(access.find("mx.tes") || access.find(""));
}

TEST(RelayAccess, ReadsFilesOfItsOwnOnly) {
    const Scratch dir;
    const std::string path = dir.write("file", "h u p");
    ASSERT_EQ(::symlink(path.c_str(), dir.path("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
    RelayAccess access;
    for (const auto& [mode, good] :
         {std::pair{0600U, true}, {0440U, true}, {0620U, false}, {0604U, false}, {0602U, false}}) {
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        EXPECT_EQ(access.load(dir.path("link")), good) << mode;
        EXPECT_EQ(access.find("h") != nullptr, good);
    }
    for (const char* other : {"fifo", "none", ""}) {
        EXPECT_FALSE(access.load(dir.path(other))) << other;
    }
    ASSERT_EQ(::chmod(dir.write("file", std::string(RelayAccess::kMaxBytes, '\n')).c_str(), 0600),
              0);
    EXPECT_TRUE(access.load(path));
    dir.write("file", std::string(RelayAccess::kMaxBytes + 1, '\n'));
    EXPECT_FALSE(access.load(path));
    EXPECT_TRUE(access.load("") && !access.wanted());
}

} // namespace
