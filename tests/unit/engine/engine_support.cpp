#include "engine_support.h"

#include "../syslog_support.h"
#include "email/site/DomainRelay.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <set>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

std::vector<std::string> loggedLines;
std::vector<GW_EVENT> reported;
std::function<void()> beforeLock;

static void systemLogLine(int priority, const char* text) {
    const std::string line = text;
    const std::size_t pid = line.find_first_not_of("0123456789");
    loggedLines.push_back("<" + std::to_string(priority) + ">" + (pid == 0 ? " " : "") +
                          line.substr(pid));
}

extern "C" int flock(int fd, int operation) noexcept {
    if (const auto action = std::exchange(beforeLock, nullptr)) {
        action();
    }
    return static_cast<int>(::syscall(SYS_flock, fd, operation));
}

int linesWith(const std::string& text) {
    const auto has = [&text](const std::string& line) { return line.find(text) != line.npos; };
    return static_cast<int>(std::count_if(loggedLines.begin(), loggedLines.end(), has));
}

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    struct Collector : AbstractReporter {
        void report(const GW_EVENT& event) override { reported.push_back(event); }
    };
    return std::make_unique<Collector>();
}

Spool::Spool() {
    root_ = ::mkdtemp(root_.data()) + std::string("/");
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

Spool::~Spool() {
    fs::remove_all(root_);
}

void Spool::queue(const std::string& leaf, const std::string& sender, const std::string& recipients,
                  int ago) const {
    std::array<char, DateTime::kTextSize> text{};
    const std::string stamp = (DateTime(-1) + -ago).Get(text.data()) + std::string("\n");
    writeFile(deferred(leaf), "Subject: " + leaf + "\n\none\ntwo\n");
    writeFile(deferred(leaf) + ".rmd", stamp + stamp + "1\n" + sender + "\n" + recipients);
}

std::string Spool::names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(deferred(""))) {
        found.insert(entry.path().filename().string() + " ");
    }
    return std::accumulate(found.begin(), found.end(), std::string());
}

std::string Spool::returnMail() const {
    const std::string all = names();
    const std::size_t begin = std::min(all.find("rjct"), all.size());
    return all.substr(begin, all.find(' ', begin) - begin);
}

std::string Spool::envelope(const std::string& leaf) const {
    return contents(deferred(leaf) + ".rmd").erase(0, 24 + 24 + 2); // two stamps, the tries
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
