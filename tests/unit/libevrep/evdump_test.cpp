// The listing program, run as an operator runs it; what it shows is kept in golden/ and was
// compared by hand with the bytes that go in.
#include "support/files.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Checks the exit status of the program and all that it prints; $F is the file of these bytes.
void shows(std::span<const std::byte> bytes, const std::string& arguments, int status,
           const std::string& page) {
    const Scratch dir;
    const auto* const text = reinterpret_cast<const char*>(bytes.data());
    const std::string path = dir.write("input", {text, bytes.size()});
    FILE* pipe = popen(("F=" + path + "; " EVDUMP " " + arguments + " 2>&1").c_str(), "r");
    std::string output;
    for (int c; (c = fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    EXPECT_EQ(pclose(pipe), W_EXITCODE(status, 0)) << arguments << output;
    EXPECT_TRUE(page.empty() || output == contents(golden + page)) << page << '\n' << output;
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(EvDump, ShowsWholeRecordsWhereDamageIsAndNothingThatSteersATerminal) {
    Bytes whole;
    for (const char* name : {"event1", "event2", "event3", "repeated"})
        append(whole, framed(type(name)));
    shows(whole, "--json < $F", 0, "events.json");

    Bytes damaged = framed(type("event0"));
    damaged[60] ^= std::byte{1};
    append(damaged, framed(hex("'short'")));
    Bytes longer = block(wireFormat, "event");
    append(longer, hex("01 00 00 00"));
    for (const Bytes& data : {longer, type("steering")})
        append(damaged, framed(data));
    append(damaged, framed(hex("'hello'"), CSendHeader::TASK_ECHO));
    append(damaged, framed(Bytes(501)));
    shows(damaged, "--max-size 500 $F", 1, "damaged.txt");
    shows(damaged, "--json --max-size 500 $F", 1, "damaged.json");

    const Bytes good = block(wireFormat, "log");
    Bytes records = good;
    std::fill_n(records.begin() + 0xcb, 64, std::byte{'d'}); // a field without terminator
    records[0x14] = std::byte{27};                           // a facility above the severity
    const Bytes first = records;
    append(records, hex("40 06 00 00")); // another size
    records.resize(2 * good.size());
    append(records, first);
    append(records, hex("50 06 00"));
    shows(records, "--log $F", 1, "log.txt");
}

TEST(EvDump, RefusesWhatItDoesNotUnderstand) {
    for (const char* arguments : {"--nonsense", "--max-size many x", "a b", "--listen s file",
                                  "/nonexistent", "--log /", "--listen $F"})
        shows(hex("'no_socket'"), arguments, 2, "");
}

TEST(EvDump, ListensInTheCollectorsPlace) {
    const Scratch dir;
    const std::string path = dir.path("socket");
    const pid_t sender = fork();
    if (sender == 0) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        for (int left = 500; left > 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address),
                                                 sizeof address) < 0;
             --left)
            usleep(10000); // not bound yet
        for (const Bytes& bytes : {Bytes(2000), block(wireFormat, "log")})
            send(fd, bytes.data(), bytes.size(), 0);
        _exit(0);
    }
    shows({}, "--json --count 2 --listen " + path, 1, "listen.json");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(waitpid(sender, nullptr, 0), sender);
}

} // namespace
