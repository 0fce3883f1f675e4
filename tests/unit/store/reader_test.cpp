#include "email/BoundedLineReader.h"
#include "email/FdStream.h"
#include "store_support.h"

#include <cerrno>
#include <random>
#include <sstream>
#include <sys/stat.h>

namespace {

using Email::BoundedLineReader;
using Kind = BoundedLineReader::Kind;

constexpr std::size_t kMany = 1'000'000;

// "L5 P1022 E3": lines, pieces and the end with their lengths; what was read goes to `copy`.
std::string shape(std::istream& in, std::size_t limit, std::size_t piece, std::string& copy) {
    constexpr std::string_view kLetters = "LPEX";
    BoundedLineReader reader(in, limit, piece);
    std::string shape;
    for (std::size_t i = 0; i < kMany; ++i) {
        const auto item = reader.next();
        shape += kLetters[static_cast<std::size_t>(item.kind)] + std::to_string(item.text.size());
        copy.append(item.text);
        if (item.kind == Kind::End || item.kind == Kind::Error) {
            EXPECT_EQ(static_cast<std::size_t>(reader.consumed()), copy.size());
            break;
        }
        copy += item.kind == Kind::Line ? "\n" : "";
        shape += ' ';
    }
    return shape;
}

std::string line(std::size_t n) {
    return std::string(n, 'x') + '\n';
}

TEST(Reader, CutsLongLinesAndLosesNothing) {
    const auto open = [](std::size_t n) { return std::string(n, 'x'); };
    struct {
        std::size_t limit;
        std::size_t piece;
        std::string text;
        const char* shape;
    } const cases[] = {
        // the recipient file
        {63, 63, "", "E0"},
        {63, 63, line(63), "L63 E0"},
        {63, 63, line(64), "P63 L1 E0"},
        {63, 63, open(63), "E63"},
        {63, 63, open(64), "P63 E1"},
        {2047, 2047, line(2047) + "a\n", "L2047 L1 E0"},
        {2047, 2047, line(4095), "P2047 P2047 L1 E0"},
        // the message body
        {1023, 1022, line(1023), "L1023 E0"},
        {1023, 1022, line(1024), "P1022 L2 E0"},
        {1023, 1022, line(3000), "P1022 P1022 L956 E0"},
        {1023, 1022, open(3000), "P1022 P1022 E956"},
        {1023, 1022, "a\n\n" + std::string("\0\r\n", 3) + "b", "L1 L0 L2 E1"},
        // the quoted text of a return mail
        {1023, 1023, line(1024), "P1023 L1 E0"},
        {1023, 1023, open(1023), "E1023"},
    };
    for (const auto& c : cases) {
        std::istringstream in(c.text);
        std::string copy;
        EXPECT_EQ(shape(in, c.limit, c.piece, copy), c.shape);
        EXPECT_EQ(copy, c.text);
    }
}

// Lines in front shift the text against the blocks; what follows them must come out the same.
TEST(Reader, DoesNotDependOnWhereItsBlocksEnd) {
    std::mt19937 random(7);
    std::string text;
    while (text.size() < 200'000) {
        text += line(random() % 3000);
    }
    std::string copy;
    std::istringstream plain(text);
    const std::string expected = shape(plain, 1023, 1022, copy);
    for (const std::size_t shift : {1U, 2U, 511U, 1022U, 1023U}) {
        std::istringstream shifted(line(shift) + text);
        copy.clear();
        EXPECT_EQ(shape(shifted, 1023, 1022, copy), 'L' + std::to_string(shift) + ' ' + expected);
        EXPECT_EQ(copy, line(shift) + text);
    }
}

TEST(FdStream, RefusesWhatCouldBlockAndSaysWhy) {
    const Scratch dir;
    ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(Email::FdStream(dir.path("fifo").c_str()).error(), ENXIO);
    EXPECT_EQ(Email::FdStream("/dev/null").error(), ENXIO);
    Email::FdStream missing(dir.path("none").c_str());
    EXPECT_EQ(missing.error(), ENOENT);
    EXPECT_TRUE(!missing.is_open() && missing.bad());
}

TEST(FdStream, ReadErrorMakesTheStreamBad) {
    const Scratch dir;
    Email::FdStream in(dir.path("").c_str());
    ASSERT_TRUE(in.good());
    std::string copy;
    EXPECT_EQ(shape(in, 63, 63, copy), "X0");
    EXPECT_EQ(in.error(), EISDIR);
    EXPECT_TRUE(in.bad());
}

TEST(FdStream, SeeksAndReadsInSmallAndLargePieces) {
    const Scratch dir;
    std::string text;
    for (int i = 0; i < 3000; ++i) {
        text += std::to_string(i) + '\n';
    }
    Email::FdStream in(dir.write("m", text).c_str());
    EXPECT_EQ(in.peek(), '0');
    std::string large(6000, '\0');
    in.read(large.data(), 6000);
    EXPECT_EQ(large, text.substr(0, 6000));
    EXPECT_EQ(in.tellg(), 6000);
    in.seekg(0, std::ios::end);
    EXPECT_EQ(in.tellg(), std::streamoff(text.size()));
    in.seekg(4);
    std::string word;
    EXPECT_TRUE(in >> word && word == "2");
    in.seekg(-2, std::ios::cur);
    EXPECT_EQ(in.tellg(), 3);
    std::stringstream rest;
    rest << in.rdbuf();
    EXPECT_EQ(rest.str(), text.substr(3));
    EXPECT_TRUE(in.seekg(0) && in.get() == '0');
}

} // namespace
