#include "scratch.h"

#include "email/Utils.h"
#include "fwall/config.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

constexpr const char* kTable = "/usr/local/etc/rulbex-table";

std::string stamp(int ago) {
    std::array<char, DateTime::kTextSize> text{};
    return (DateTime(-1) + -ago).Get(text.data());
}

} // namespace

Scratch::Scratch() {
    std::string name = "/tmp/retryq-test-XXXXXX";
    root_ = ::mkdtemp(name.data());
    std::filesystem::create_directories(root_ + "/usr/local/etc");
    std::filesystem::create_directories(spool());
    ::setenv("TAVORIX", root_.c_str(), 1);
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    cfg_setpfile(kTable);
}

Scratch::~Scratch() {
    std::filesystem::remove_all(root_);
}

void Scratch::table(std::string_view lines) const {
    write(root_ + kTable, "vorn: deferred-directory " + spool() + "\n" + std::string(lines));
}

void Scratch::queue(const std::string& leaf, int first, int last,
                    std::string_view recipients) const {
    write(spool() + leaf, "Subject: " + leaf + "\n\ntext\n");
    write(spool() + leaf + ".rmd",
          stamp(first) + "\n" + stamp(last) + "\n3\n<s@from.test>\n" + std::string(recipients));
}

void Scratch::write(const std::string& path, std::string_view bytes) const {
    std::ofstream(path) << bytes;
}

std::string Scratch::read(const std::string& leaf) const {
    std::ifstream in(spool() + leaf);
    return {std::istreambuf_iterator<char>(in), {}};
}
