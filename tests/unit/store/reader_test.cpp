#include "email/BoundedLineReader.h"
#include "email/FdStream.h"
#include "store_support.h"

namespace {

using Email::FdStream;

// "L5 P1022 E3": lines, pieces and the end with their lengths; what was read goes to `copy`.
std::string shape(std::istream& in, std::size_t limit, std::size_t piece, std::string& copy) {
    Email::BoundedLineReader reader(in, limit, piece);
    copy.clear();
    for (std::string shape;; shape += ' ') {
        const auto item = reader.next();
        const char kind = "LPEX"[static_cast<std::size_t>(item.kind)];
        shape += kind + std::to_string(item.text.size());
        copy.append(item.text).append(kind == 'L' ? "\n" : "");
        EXPECT_EQ(static_cast<std::size_t>(reader.consumed()), copy.size());
        if (kind == 'E' || kind == 'X' || testing::Test::HasFailure()) {
            return shape;
        }
    }
}

std::string line(std::size_t n, const char* end = "\n") {
    return std::string(n, 'x') + end;
}

TEST(Reader, CutsLongLinesAndLosesNothing) {
    // The limits of the recipient file, the message body, the quoted text of a return mail.
    // clang-format off
    const std::tuple<std::size_t, std::size_t, std::string, const char*> cases[] = {
        {63, 63, "", "E0"}, {63, 63, line(63) + line(64), "L63 P63 L1 E0"},
        {63, 63, line(63, ""), "E63"}, {63, 63, line(64, ""), "P63 E1"},
        {2047, 2047, line(2046) + line(2047) + "a\n", "L2046 L2047 L1 E0"},
        {2047, 2047, line(2048) + line(4095), "P2047 L1 P2047 P2047 L1 E0"},
        {1023, 1022, line(1022) + line(1023) + line(1024), "L1022 L1023 P1022 L2 E0"},
        {1023, 1022, line(2045) + line(2046), "P1022 L1023 P1022 P1022 L2 E0"},
        {1023, 1022, line(1025, ""), "P1022 E3"}, {1023, 1022, line(3000, ""), "P1022 P1022 E956"},
        {1023, 1022, "a\n\n" + std::string("\0\r\n", 3) + "b", "L1 L0 L2 E1"},
        {1023, 1023, line(1024), "P1023 L1 E0"}, {1023, 1023, line(1023, ""), "E1023"}};
    // clang-format on
    for (const auto& [limit, piece, text, expected] : cases) {
        std::istringstream in(text);
        std::string copy;
        EXPECT_EQ(shape(in, limit, piece, copy), expected);
        EXPECT_EQ(copy, text);
    }
}

// The line in front shifts the text against the blocks of 64 KiB: their ends leave nothing of a
// line unread, or a few bytes, or thousands. What follows must come out the same.
TEST(Reader, LosesNothingOfWhatIsUnreadWhereItsBlocksEnd) {
    std::string text;
    for (int i = 0; text.size() < 150'000; ++i) {
        text += std::to_string(i) + (i % 700 == 0 ? '\n' : ' ');
    }
    for (const std::size_t limit : {1023U, 4095U}) {
        std::string copy;
        std::istringstream plain(text);
        const std::string expected = shape(plain, limit, limit - 1, copy);
        for (std::size_t shift = 0; shift < limit; shift += 31) {
            std::istringstream in(line(shift) + text);
            ASSERT_EQ(shape(in, limit, limit - 1, copy),
                      'L' + std::to_string(shift) + ' ' + expected);
            ASSERT_EQ(copy, line(shift) + text);
        }
    }
}

TEST(FdStream, RefusesWhatCouldBlockAndSaysWhy) {
    const Scratch dir;
    std::string copy;
    ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(FdStream(dir.path("fifo").c_str()).error(), ENXIO);
    EXPECT_EQ(FdStream("/dev/null").error(), ENXIO);
    FdStream missing(dir.path("none").c_str());
    EXPECT_TRUE(missing.error() == ENOENT && !missing.is_open() && missing.bad());
    FdStream unreadable(dir.path("").c_str());
    EXPECT_TRUE(unreadable.good());
    EXPECT_EQ(shape(unreadable, 63, 63, copy), "X0");
    EXPECT_TRUE(unreadable.error() == EISDIR && unreadable.bad());
}

TEST(FdStream, SeeksAndReadsInSmallAndLargePieces) {
    const Scratch dir;
    std::string text;
    for (int i = 0; i < 3000; ++i) {
        text += std::to_string(i) + '\n';
    }
    FdStream in(dir.write("m", text).c_str());
    std::string word(6000, '\0');
    EXPECT_EQ(in.peek(), '0');
    EXPECT_TRUE(in.read(word.data(), 6000) && word == text.substr(0, 6000) && in.tellg() == 6000);
    EXPECT_TRUE(in.seekg(0, std::ios::end) && in.tellg() == std::streamoff(text.size()));
    EXPECT_TRUE(in.seekg(4) && in >> word && word == "2");
    EXPECT_TRUE(in.seekg(-2, std::ios::cur) && in.tellg() == 3);
    std::stringstream rest;
    rest << in.rdbuf();
    EXPECT_EQ(rest.str(), text.substr(3));
    EXPECT_TRUE(in.seekg(0) && in.get() == '0');
}

} // namespace
