#include "retryq/HeldLocks.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace Retryq {

namespace {

// The value of a "name: value" line of /proc/self/fdinfo, or an empty text.
std::string descriptorField(int fd, const std::string& name) {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(fd));
    std::string field;
    std::string value;
    while (in >> field >> value) {
        if (field == name + ":") {
            return value;
        }
    }
    return {};
}

// The device of a mount as the kernel's own tables write it. The status of a file may tell another
// one, on file systems that number their parts themselves.
std::string mountedDevice(const std::string& mount) {
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string id;
        std::string parent;
        unsigned major = 0;
        unsigned minor = 0;
        char colon = 0;
        if (words >> id >> parent >> major >> colon >> minor && id == mount) {
            std::array<char, 32> text{};
            std::snprintf(text.data(), text.size(), "%02x:%02x", major, minor);
            return text.data();
        }
    }
    return {};
}

} // namespace

HeldLocks HeldLocks::on(int directory) {
    std::ifstream locks("/proc/locks");
    return parse(locks, mountedDevice(descriptorField(directory, "mnt_id")));
}

// "12: FLOCK  ADVISORY  WRITE 4711 fe:01:123456 0 EOF"; a waiting one has "->" behind the number.
HeldLocks HeldLocks::parse(std::istream& locks, const std::string& device) {
    HeldLocks held;
    std::string line;
    while (std::getline(locks, line)) {
        std::istringstream words(line);
        std::string number;
        std::string kind;
        std::string advisory;
        std::string mode;
        std::string owner;
        std::string place;
        words >> number >> kind >> advisory >> mode >> owner >> place;
        if (kind == "FLOCK" && mode == "WRITE" && place.starts_with(device + ":")) {
            held.locks_.push_back({std::strtoull(place.c_str() + device.size() + 1, nullptr, 10),
                                   static_cast<pid_t>(std::strtol(owner.c_str(), nullptr, 10))});
        }
    }
    std::ranges::sort(held.locks_, {}, &Lock::inode);
    return held;
}

bool HeldLocks::holds(ino_t inode) const noexcept {
    return std::ranges::binary_search(locks_, inode, {}, &Lock::inode);
}

pid_t HeldLocks::holder(ino_t inode) const noexcept {
    const auto found = std::ranges::lower_bound(locks_, inode, {}, &Lock::inode);
    return found == locks_.end() || found->inode != inode ? 0 : found->holder;
}

} // namespace Retryq
