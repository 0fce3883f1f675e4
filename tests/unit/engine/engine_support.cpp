#include "engine_support.h"

#include "email/DomainRelay.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

std::vector<std::string> loggedLines;
std::vector<GW_EVENT> reported;

extern "C" __attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format,
                                                             ...) {
    std::array<char, 20000> text{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    const std::string_view line = text.data();
    const std::size_t pid = line.find_first_not_of("0123456789");
    loggedLines.push_back("<" + std::to_string(priority) + ">" + (pid == 0 ? " " : "") +
                          std::string(line.substr(pid)));
}

std::function<void()> beforeLock;

extern "C" int flock(int fd, int operation) noexcept {
    if (const auto action = std::exchange(beforeLock, nullptr)) {
        action();
    }
    return static_cast<int>(::syscall(SYS_flock, fd, operation));
}

int linesWith(std::string_view text) {
    return static_cast<int>(
        std::count_if(loggedLines.begin(), loggedLines.end(), [text](const std::string& line) {
            return line.find(text) != std::string::npos;
        }));
}

namespace {

class Collector : public AbstractReporter {
    void report(const GW_EVENT& event) override { reported.push_back(event); }
};

} // namespace

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    return std::make_unique<Collector>();
}

ScratchSpool::ScratchSpool() : root_("/tmp/engine_testXXXXXX") {
    root_ = ::mkdtemp(root_.data());
    fs::create_directory(deferred(""));
    fs::create_directory(outgoing(""));
    mailscanGlobals::initialise(nullptr);
    mailscanGlobals::deferred_mail_path = FileName(deferred("").c_str());
    mailscanGlobals::outgoing_mail = FileName(outgoing("").c_str());
    mailscanGlobals::dnsEnable = false;
    DomainRelay::initialise(nullptr);
    DetailMode = ErrorMode = 1;
    DebugMode = 0;
    loggedLines.clear();
    reported.clear();
}

ScratchSpool::~ScratchSpool() {
    fs::remove_all(root_);
}

void ScratchSpool::queue(const std::string& leaf, int firstAgo, int lastAgo,
                         const std::string& sender,
                         const std::vector<std::string>& recipients) const {
    std::string list;
    for (const int ago : {firstAgo, lastAgo}) {
        std::array<char, DateTime::kTextSize> stamp{};
        list += (DateTime(-1) + -ago).Get(stamp.data()) + std::string("\n");
    }
    list += "1\n" + sender + "\n";
    for (const std::string& recipient : recipients) {
        list += recipient + "\n";
    }
    writeFile(deferred(leaf), "Subject: " + leaf + "\n\none\ntwo\n");
    writeFile(deferred(leaf) + ".rmd", list);
}

std::string ScratchSpool::names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(deferred(""))) {
        found.insert(entry.path().filename());
    }
    std::string joined;
    for (const std::string& name : found) {
        joined += (joined.empty() ? "" : " ") + name;
    }
    return joined;
}

std::string ScratchSpool::returnMail() const {
    const std::string all = names();
    const std::size_t begin = all.find("rjct");
    return begin == std::string::npos ? "" : all.substr(begin, all.find(' ', begin) - begin);
}

std::string ScratchSpool::envelope(const std::string& leaf) const {
    std::string list = contents(deferred(leaf) + ".rmd");
    for (int line = 0; line < 3; ++line) {
        list.erase(0, list.find('\n') + 1);
    }
    return list;
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::string& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
