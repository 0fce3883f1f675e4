// In the place of the C library's system log: each line is kept as "<priority> text", without the
// process id that the mail library puts in front, and shown on standard error.
#pragma once

#include <string>
#include <vector>

extern std::vector<std::string> loggedLines;
[[nodiscard]] int linesWith(const std::string& text);
void recordLine(const std::string& line);
