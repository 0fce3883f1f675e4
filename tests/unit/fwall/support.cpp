#include "support.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

std::vector<std::string> loggedLines;
bool echoLog = false;
std::optional<int> allocationsLeft;

static void record(const std::string& line) {
    if (echoLog) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
    loggedLines.push_back(line);
}

extern "C" {

__attribute__((format(printf, 2, 0))) void vsyslog(int priority, const char* format, va_list args) {
    std::array<char, 20000> text{};
    std::vsnprintf(text.data(), text.size(), format, args);
    record("<" + std::to_string(priority) + "> " + text.data());
}

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

void openlog(const char* ident, int options, int facility) {
    record("openlog " + std::string(ident) + " " + std::to_string(options) + " " +
           std::to_string(facility));
}

void closelog() {
    record("closelog");
}
}

void* operator new(std::size_t size) {
    if (allocationsLeft && (*allocationsLeft)-- == 0) {
        allocationsLeft.reset();
        throw std::bad_alloc();
    }
    void* memory = std::malloc(size | 1U);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

bool enterSandbox() {
    const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(::getegid()) + " 1";
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWNS | CLONE_NEWUSER) != 0) {
            return false;
        }
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", user);
        writeFile("/proc/self/gid_map", group);
    }
    return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/var", "tmpfs", 0, nullptr) == 0 &&
           std::filesystem::create_directory("/var/run") &&
           std::filesystem::create_directory("/var/QELENV");
}

bool sandboxAvailable() {
    const pid_t child = ::fork();
    if (child == 0) {
        std::_Exit(enterSandbox() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

void endChild() {
    const auto* result = testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result->total_part_count(); ++i) {
        const auto& part = result->GetTestPartResult(i);
        std::fprintf(stderr, "line %d: %s\n", part.line_number(), part.message());
    }
    std::_Exit(result->Failed() ? 99 : 0);
}

void writeFile(const std::string& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary) << bytes << std::flush;
}

ScratchTable::ScratchTable(std::string_view bytes) : root_("/tmp/fwall_testXXXXXX") {
    std::filesystem::create_directories(::mkdtemp(root_.data()) + std::string("/usr/local/etc"));
    writeFile(path(), bytes);
    ::setenv("TAVORIX", root_.c_str(), 1);
    cfg_setpfile(nullptr);
}

ScratchTable::~ScratchTable() {
    std::filesystem::remove_all(root_);
}

std::string described(const cfgrec* list) {
    std::string text;
    for (; list != nullptr; list = list->next) {
        text +=
            std::to_string(list->ln) + "/" + std::to_string(list->flags) + " " + list->op + " [";
        for (int i = 0; i < list->argc; ++i) {
            text += std::string(i > 0 ? "|" : "") + list->argv[i];
        }
        text += "]\n";
    }
    return text;
}
