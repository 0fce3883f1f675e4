// The address normaliser and the address grammar take any text, and what they give keeps its form.
#include "email/site/mailscanGlobals.h"
#include "email/spool/EmailAddr.h"
#include "fuzz.h"

#include <string>
#include <string_view>

namespace {

void normalise(const std::string& text) {
    const EmailAddr address(text.c_str(), nullptr, IDS_NO_REASON);
    const std::string_view kept = address.text();
    require(kept.size() >= 2 && kept.size() <= EmailAddr::kMaxText);
    require(kept.rfind('<') == 0 && kept.find('>') == kept.size() - 1);
    char domain[EmailAddr::kDomainSize];
    require(!address.GetDomain(domain) || std::string_view(domain).size() < sizeof domain);
    // Once normalised it stays so, but for a short domain that the cut made short.
    if (kept.find('.') != std::string_view::npos) {
        require(kept == EmailAddr(address.text(), nullptr, IDS_NO_REASON).text());
    }
}

void judge(std::string text) {
    const char* const accepted = EmailAddr::addrOkay(text.data(), true);
    require(*(text.data() + text.size()) == '\0');
    if (accepted != nullptr) {
        require(accepted >= text.data() && accepted < text.data() + text.size());
        std::string again = accepted;
        require(EmailAddr::addrOkay(again.data(), true) == again.data());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(std::string(data, data + size).c_str());
    for (const char* domain : {"", "default.example"}) {
        mailscanGlobals::defaultDomain = domain;
        normalise(text);
    }
    judge(text);
    return 0;
}
