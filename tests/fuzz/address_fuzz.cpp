// The address normaliser and the address grammar take any text, and what they give keeps its form.
#include "email/EmailAddr.h"
#include "email/mailscanGlobals.h"
#include "libevrep/Reporter.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void normalise(const char* text) {
    const EmailAddr address(text, nullptr, IDS_NO_REASON);
    const std::string_view kept = address.text();
    require(kept.size() >= 2 && kept.size() <= EmailAddr::kMaxText);
    require(kept.front() == '<' && kept.find('>') == kept.size() - 1);
    require(kept.rfind('<') == 0);
    std::array<char, EmailAddr::kDomainSize> domain;
    if (address.GetDomain(domain.data())) {
        require(std::strlen(domain.data()) < EmailAddr::kDomainSize);
    }
    // Once normalised it stays so, but for a short domain that the cut made short.
    if (kept.find('.') != std::string_view::npos) {
        std::array<char, EmailAddr::kTextSize> again;
        EmailAddr::setAddr(again.data(), address.text());
        require(kept == again.data());
    }
}

void judge(std::string text) {
    const std::size_t size = text.size();
    char* const accepted = EmailAddr::addrOkay(text.data(), true);
    require(text.size() == size && text.data()[size] == '\0');
    if (accepted == nullptr) {
        return;
    }
    require(accepted >= text.data() && accepted < text.data() + size);
    std::string again = accepted;
    require(EmailAddr::addrOkay(again.data(), true) == again.data());
}

} // namespace

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(std::string(data, data + size).c_str());
    for (const char* domain : {"", "default.example"}) {
        mailscanGlobals::defaultDomain = domain;
        normalise(text.c_str());
    }
    judge(text);
    return 0;
}
