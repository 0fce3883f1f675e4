#include "email/telling/Attempt.h"

#include <array>
#include <system_error>

namespace Email {

std::string_view stageName(Stage stage) noexcept {
    static constexpr std::array<std::string_view, 10> kNames{
        "", "connect", "greeting", "HELO", "MAIL", "RCPT", "DATA", "body", "dot", "AUTH"};
    return kNames[static_cast<std::size_t>(stage)];
}

std::string errorText(int error) {
    return errorText(error, std::generic_category().message(error));
}

std::string errorText(int error, std::string_view text) {
    return std::to_string(error).append(" (").append(text).append(")");
}

std::string noAnswer(int error, long seconds) {
    return errorText(error, "no answer in " + std::to_string(seconds) + " s");
}

void Attempt::tryServer(IPaddress address) {
    server = address;
    // What one server offered says nothing of the next.
    tls.clear();
    verified.clear();
    begin(Stage::Connect);
}

void Attempt::begin(Stage step) {
    stage = step;
    error.clear();
    reply.clear();
}

void Attempt::passOver(IPaddress address) {
    std::array<char, IPaddress::kTextSize> text{};
    address.format(text.data());
    leftOut.append(leftOut.empty() ? "blacklist:" : ",").append(text.data());
}

void Attempt::noneFound(std::string_view why) {
    // Who was passed over tells more than that nobody was found.
    if (leftOut.empty()) {
        leftOut.append("none").append(why.empty() ? "" : ":").append(why);
    }
}

} // namespace Email
