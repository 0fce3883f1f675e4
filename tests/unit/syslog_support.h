// In the place of the C library's system log, by the names that plain and fortified builds call.
// Each line goes to systemLogLine(), which the one file of a test program that includes this
// defines.
#pragma once

#include <array>
#include <cstdarg>
#include <cstdio>
#include <syslog.h>

static void systemLogLine(int priority, const char* text);

extern "C" {
__attribute__((format(printf, 3, 0))) void __vsyslog_chk(int priority, int, const char* format,
                                                         va_list args) {
    std::array<char, 20000> text{};
    std::vsnprintf(text.data(), text.size(), format, args);
    systemLogLine(priority, text.data());
}
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char* format,
                                                        ...) {
    va_list args;
    va_start(args, format);
    __vsyslog_chk(priority, 0, format, args);
    va_end(args);
}
__attribute__((format(printf, 2, 0))) void vsyslog(int priority, const char* format, va_list args) {
    __vsyslog_chk(priority, 0, format, args);
}
__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    __vsyslog_chk(priority, 0, format, args);
    va_end(args);
}
}
