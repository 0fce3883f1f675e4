// evdump: shows what travels between the gateway's programs, framed events or standard-log
// records, as text or JSON.
#include "EventListing.h"
#include "LogListing.h"
#include "LogSocket.h"
#include "RecordWriter.h"

#include "fwall/DaemonMsg.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <iostream>
#include <limits>
#include <string>
#include <unistd.h>

namespace {

constexpr int statusDamaged = 1;
constexpr int statusUnable = 2;

constexpr char usage[] =
    "usage: evdump [--json] [--max-size BYTES] [FILE]    framed events of FILE or standard input\n"
    "       evdump [--json] --log [FILE]                 standard-log records of FILE or standard "
    "input\n"
    "       evdump [--json] --listen PATH [--count N]    standard-log datagrams sent to the socket "
    "PATH,\n"
    "                                                    until N have come, SIGINT or SIGTERM\n"
    "Shows each as text, or with --json as one JSON object a line. Damaged input is shown with "
    "its\n"
    "offset and what is wrong with it, and passed over. A message of more than BYTES (16777216) "
    "data\n"
    "bytes counts as damaged.\n"
    "Exit status: 0, 1 when something was damaged, 2 when the input could not be read.\n";

struct Options {
    bool help = false;
    bool json = false;
    bool log = false;
    std::string socket;
    std::string file; // empty for standard input
    std::uint32_t maxSize = FrameReader::defaultMaxDataSize;
    std::uint32_t count = std::numeric_limits<std::uint32_t>::max();
};

bool parseNumber(const char* text, std::uint32_t& number) {
    const char* end = text + std::strlen(text);
    const auto result = std::from_chars(text, end, number);
    return result.ec == std::errc() && result.ptr == end;
}

bool applyOption(int option, Options& options) {
    switch (option) {
    case 'h':
        return options.help = true;
    case 'j':
        return options.json = true;
    case 'l':
        return options.log = true;
    case 's':
        options.socket = optarg;
        return !options.socket.empty();
    case 'm':
        return parseNumber(optarg, options.maxSize);
    case 'c':
        return parseNumber(optarg, options.count);
    default:
        return false;
    }
}

bool parseOptions(int argc, char** argv, Options& options) {
    constexpr std::array<option, 7> known{{{"help", no_argument, nullptr, 'h'},
                                           {"json", no_argument, nullptr, 'j'},
                                           {"log", no_argument, nullptr, 'l'},
                                           {"listen", required_argument, nullptr, 's'},
                                           {"max-size", required_argument, nullptr, 'm'},
                                           {"count", required_argument, nullptr, 'c'},
                                           {nullptr, 0, nullptr, 0}}};
    for (int found; (found = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
        if (!applyOption(found, options))
            return false;
    }
    if (optind < argc)
        options.file = argv[optind++];
    return optind == argc && (options.socket.empty() || (options.file.empty() && !options.log));
}

int unable(const std::string& what) {
    std::cerr << "evdump: " << what << ": " << std::strerror(errno) << '\n';
    return statusUnable;
}

template<class Listing>
int listStream(const Options& options, Listing& listing) {
    const std::string name = options.file.empty() ? "standard input" : options.file;
    UniqueFd opened;
    if (!options.file.empty())
        opened.reset(::open(options.file.c_str(), O_RDONLY | O_CLOEXEC));
    const int fd = options.file.empty() ? STDIN_FILENO : opened.get();
    std::array<std::byte, 65536> piece{};
    ssize_t got = 0;
    while (fd >= 0 && (got = read(fd, piece.data(), piece.size())) > 0)
        listing.feed(std::span(piece).first(static_cast<std::size_t>(got)));
    if (fd < 0 || got < 0)
        return unable(name);
    listing.finish();
    return listing.damaged() ? statusDamaged : 0;
}

int listen(const Options& options, LogListing& listing) {
    LogSocket socket(options.socket);
    if (!socket.open())
        return unable(options.socket);
    std::array<std::byte, sizeof(DaemonMsg)> datagram{};
    for (std::uint32_t left = options.count; left > 0; --left) {
        const ssize_t got = socket.receive(datagram);
        if (got < 0 && errno != EINTR)
            return unable(options.socket);
        if (got < 0)
            break;
        listing.datagram(datagram, static_cast<std::size_t>(got));
    }
    return listing.damaged() ? statusDamaged : 0;
}

int run(const Options& options) {
    RecordWriter writer(std::cout, options.json);
    LogListing log(writer);
    EventListing events(writer, options.maxSize);
    if (!options.socket.empty())
        return listen(options, log);
    return options.log ? listStream(options, log) : listStream(options, events);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::cerr << usage;
        return statusUnable;
    }
    if (options.help) {
        std::cout << usage << std::flush;
        return 0;
    }
    const int status = run(options);
    return std::cout.good() ? status : unable("standard output");
}
