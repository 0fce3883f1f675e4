// The listing program, run as an operator runs it; what it shows is kept in golden/ and was
// compared by hand with the bytes that go in.
#include "support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Checks the exit status of the program and all that it prints.
void shows(const std::string& arguments, int status, const std::string& golden) {
    FILE* pipe = popen((EVDUMP " " + arguments + " 2>&1").c_str(), "r");
    std::string output;
    for (int c; (c = fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    EXPECT_EQ(pclose(pipe), W_EXITCODE(status, 0)) << arguments;
    std::ifstream file(GOLDEN "/" + golden);
    EXPECT_EQ(output, std::string(std::istreambuf_iterator<char>(file), {})) << golden;
}

class EvDump : public testing::Test {
protected:
    EvDump() { std::filesystem::create_directory(directory_); }
    ~EvDump() override { std::filesystem::remove_all(directory_); }

    void file(std::span<const std::byte> bytes) const {
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }

    const std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() / ("evdump." + std::to_string(getpid()));
    const std::string path_ = directory_ / "input";
};

TEST_F(EvDump, ShowsEveryTypeByName) {
    Bytes stream;
    for (const char* name : {"event1", "event2", "event3"})
        append(stream, framed(type(name)));
    file(stream);
    shows("--json < " + path_, 0, "events.json");
}

TEST_F(EvDump, TellsWhereItIsDamagedGoesOnAndPrintsNothingThatSteersATerminal) {
    Bytes stream = framed(type("event0"));
    stream[60] ^= std::byte{1};
    append(stream, framed(hex("'short'")));
    Bytes longer = block(WIRE_FORMAT, "event");
    append(longer, hex("01 00 00 00"));
    append(stream, framed(longer));
    append(stream, framed(type("steering")));
    append(stream, framed(hex("'hello'"), CSendHeader::TASK_ECHO));
    append(stream, framed(Bytes(501)));
    file(stream);
    shows("--max-size 500 " + path_, 1, "damaged.txt");
    shows("--json --max-size 500 " + path_, 1, "damaged.json");
}

TEST_F(EvDump, ListsStandardLogRecords) {
    Bytes good = block(WIRE_FORMAT, "log");
    std::fill_n(good.begin() + 0xcb, 64, std::byte{'d'}); // a field without terminator
    good[0x14] = std::byte{27};                           // a facility above the severity
    Bytes records = good;
    append(records, hex("40 06 00 00")); // another size
    records.resize(2 * good.size());
    append(records, good);
    append(records, hex("50 06 00"));
    file(records);
    shows("--log " + path_, 1, "log.txt");
}

void sendTo(const std::string& path, std::span<const std::byte> bytes) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* const to = reinterpret_cast<const sockaddr*>(&address);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (int i = 0; i < 500 && sendto(fd, bytes.data(), bytes.size(), 0, to, sizeof address) < 0;
         ++i)
        usleep(10000); // not bound yet
    close(fd);
}

TEST_F(EvDump, ListensInTheCollectorsPlace) {
    const pid_t sender = fork();
    if (sender == 0) {
        sendTo(path_, Bytes(2000));
        sendTo(path_, block(WIRE_FORMAT, "log"));
        _exit(0);
    }
    shows("--json --count 2 --listen " + path_, 1, "listen.json");
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_EQ(waitpid(sender, nullptr, 0), sender);
}

TEST_F(EvDump, RefusesWhatItDoesNotUnderstand) {
    file(hex("'no_socket'"));
    for (const char* arguments : {"--nonsense", "--max-size many x", "a b", "--listen s file",
                                  "/nonexistent", "--log /", "--listen $F"})
        EXPECT_EQ(system(("F=" + path_ + "; " EVDUMP " " + arguments + " 2>&-").c_str()),
                  W_EXITCODE(2, 0))
            << arguments;
    EXPECT_TRUE(std::filesystem::exists(path_));
}

} // namespace
