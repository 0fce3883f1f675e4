// A recipient file and a time stamp may hold anything. Whatever is read can be written, and is then
// read back as the same recipients in reverse order.
#include "email/Recipients.h"
#include "libevrep/Reporter.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t kLongestReadBack = 2030; // address and code must fit a line

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

std::vector<std::string> entries(const Recipients& recipients) {
    std::vector<std::string> all;
    for (const EmailAddr* record = recipients.first(); record; record = record->next.get()) {
        all.push_back(record->text() + std::to_string(record->reason));
    }
    return all;
}

bool fitsALine(const Recipients& recipients) {
    std::size_t longest = 0;
    for (const EmailAddr* record = recipients.first(); record; record = record->next.get()) {
        longest = std::max(longest, record->size());
    }
    return longest <= kLongestReadBack;
}

void writeAndReadBack(Recipients& recipients, const FileName& target) {
    const std::vector<std::string> before = entries(recipients);
    const bool comparable = recipients.tries() != 0 && fitsALine(recipients);
    const std::string sender = recipients.GetSender();
    require(recipients.OverWrite(target) == !before.empty());
    if (before.empty() || !comparable || recipients.firstSendTime().Time == 0) {
        return;
    }
    Recipients again;
    require(again.Read(target, true));
    require(sender == again.GetSender() && recipients.tries() == again.tries());
    require(entries(again) == std::vector<std::string>(before.rbegin(), before.rend()));
}

void stampIsStable(std::string_view text) {
    char first[DateTime::kTextSize];
    char second[DateTime::kTextSize];
    DateTime time;
    time.Set(std::string(text.substr(0, 63)).c_str());
    time.Get(first);
    time.Set(first);
    require(std::string_view(first) == time.Get(second));
}

} // namespace

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = ::memfd_create("recipients", MFD_CLOEXEC);
    static const FileName name(("/proc/self/fd/" + std::to_string(file)).c_str());
    require(::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == ssize_t(size));
    for (const bool full : {false, true}) {
        Recipients recipients;
        if (recipients.Read(name, full)) {
            static const FileName target("/dev/shm", FileName(true)());
            writeAndReadBack(recipients, target);
            static_cast<void>(target.Delete());
        }
    }
    stampIsStable({reinterpret_cast<const char*>(data), size});
    return 0;
}
