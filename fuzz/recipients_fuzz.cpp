// A recipient file may hold anything. Whatever is read can be written, and is then
// read back as the same recipients in reverse order; its time stamps likewise.
#include "email/spool/Recipients.h"
#include "fuzz.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t kLongestReadBack = 2036; // bytes of address and code that surely fit a line

std::vector<std::string> entries(const Recipients& recipients) {
    std::vector<std::string> all;
    for (const EmailAddr* record = recipients.first(); record; record = record->next.get()) {
        all.push_back(record->text() + std::to_string(record->reason));
    }
    return all;
}

void stampIsReadBack(const DateTime& time) {
    std::array<char, DateTime::kMailTextSize> text;
    DateTime again;
    again.Set(time.Get(text.data()));
    require(again.Time == time.Time && !again.gm_gt(time) && !time.gm_gt(again));
    require(std::strlen(time.GetForMail(text.data())) < text.size());
    require((time + 60) - time == 60 || time.Time == -61);
}

void writeAndReadBack(Recipients& recipients, const FileName& target) {
    std::vector<std::string> before = entries(recipients);
    const std::string sender = recipients.GetSender();
    const bool firstTry = recipients.tries() == 0; // may be written as none
    require(recipients.OverWrite(target) == !before.empty());
    const auto tooLong = [](const auto& entry) { return entry.size() > kLongestReadBack; };
    if (before.empty() || firstTry || std::ranges::any_of(before, tooLong) ||
        recipients.firstSendTime().Time == 0) {
        return;
    }
    Recipients again;
    require(again.Read(target, true));
    require(sender == again.GetSender() && recipients.tries() == again.tries());
    std::ranges::reverse(before);
    require(entries(again) == before);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = ::memfd_create("recipients", MFD_CLOEXEC);
    static const FileName name(("/proc/self/fd/" + std::to_string(file)).c_str());
    static const FileName target("/dev/shm", FileName(true)());
    require(::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == ssize_t(size));
    for (const bool full : {false, true}) {
        Recipients recipients;
        if (recipients.Read(name, full)) {
            stampIsReadBack(recipients.firstSendTime());
            stampIsReadBack(recipients.lastSendTime());
            writeAndReadBack(recipients, target);
            static_cast<void>(target.Delete());
        }
    }
    return 0;
}
