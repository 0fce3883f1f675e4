#include "email/BodyShaper.h"

#include <gtest/gtest.h>

#include <sstream>

using Email::BodyShaper;
using Email::BoundedLineReader;
using namespace std::string_literals;

static std::string wireOf(const std::string& body) {
    std::istringstream in(body);
    BoundedLineReader reader(in, BodyShaper::kLineLimit, BodyShaper::kPieceSize);
    BodyShaper shaper;
    std::string out;
    auto item = reader.next();
    for (; item.kind != BoundedLineReader::Kind::End; item = reader.next()) {
        shaper.shape(item, out);
    }
    return out;
}

static std::string a(std::size_t n) {
    return std::string(n, 'a');
}

TEST(Body, LinesOfEveryShapeArriveWhole) {
    const std::pair<std::string, std::string> cases[] = {
        {"\n", "\r\n"},
        {".\n", "..\r\n"},
        {"..\nx.\n.y\n", "...\r\nx.\r\n..y\r\n"},
        {"x\r\n\r.\r\n", "x\r\r\n\r.\r\r\n"},
        {"x\0y\n"s, "x\0y\r\n"s},
        {"x\n.tail", "x\r\n"},
        {a(1023), ""},
        {a(1024), a(1022)},
        {a(3000), a(2044)},
        {"." + a(3000) + "\n.\n", ".." + a(3000) + "\r\n..\r\n"},
        // Continuations that begin with a dot: the second piece, and the rest behind it.
        {a(1022) + "." + a(1021) + ".b\n", a(1022) + "." + a(1021) + ".b\r\n"},
    };
    for (const auto& [body, wire] : cases) {
        EXPECT_EQ(wireOf(body), wire);
    }
    for (const std::size_t n : {1021U, 1022U, 1023U, 1024U, 1025U, 2044U, 2045U, 2046U, 3000U}) {
        EXPECT_EQ(wireOf(a(n) + "\nb\n"), a(n) + "\r\nb\r\n") << n;
    }
}
