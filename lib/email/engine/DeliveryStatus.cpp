#include "email/engine/DeliveryStatus.h"

#include "email/base/resource.h"
#include "email/engine/ReturnMail.h"
#include "email/smtp/TextNeeds.h"
#include "email/spool/MailList.h"
#include "libevrep/utf.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>

namespace Email {

namespace {

constexpr std::size_t kFieldLimit = 900; // bytes of a value: lines stay below RFC 5322's 998
constexpr const char* kOutOfTime = "4.4.7";

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

// The length of an enhanced status code (RFC 3463) at the beginning of the text, 0 without one.
std::size_t statusLength(std::string_view text) noexcept {
    std::size_t at = 0;
    for (int part = 0; part < 3; ++part) {
        const std::size_t from = at;
        // A digit for the class, then up to three for the subject and three for the detail.
        while (at < text.size() && isDigit(text[at]) && at - from < (part == 0 ? 1U : 3U)) {
            ++at;
        }
        if (at == from || (part < 2 && (at == text.size() || text[at++] != '.'))) {
            return 0;
        }
    }
    // What goes on with more is no status but, say, an address: "5.1.2.3".
    return at == text.size() || text[at] == ' ' ? at : 0;
}

std::string printable(std::string_view text) {
    std::string out(text.substr(0, kFieldLimit));
    std::ranges::replace_if(
        out, [](char c) { return c < ' ' || c > '~'; }, '?');
    return out;
}

std::string_view withoutBrackets(std::string_view address) noexcept {
    if (address.starts_with('<') && address.ends_with('>') && address.size() >= 2) {
        return address.substr(1, address.size() - 2);
    }
    return address;
}

std::string ownStatus(SMTPcode code) {
    switch (code) {
    case MXHOST_NOT_FOUND:
        return "5.1.2";
    case BADHOSTNAME:
        return "5.1.3";
    case SELFSEND:
        return "5.4.6";
    case TAKES_NO_MAIL:
        return "5.1.10";
    case IDS_RTS552:
        return "5.3.4";
    default:
        // A code that is kept, and yet the recipient is told of: the time was up.
        return MailList::deferCode(code) ? kOutOfTime : "5.0.0";
    }
}

std::string mailDate(const DateTime& time) {
    std::array<char, DateTime::kMailTextSize> date{};
    return time.GetForMail(date.data());
}

std::string authorOf(const ReturnedMessage& message) {
    // Without a domain nobody could answer it.
    if (message.author.find('@') != std::string_view::npos) {
        return printable(message.author);
    }
    return "Z880_SMTP_Mail_Service <postmaster@" + printable(message.gatewayName) + ">";
}

// RFC 6533, 3: in a report of ASCII alone, other characters of an address stand by their numbers.
// Bytes that are no characters have none.
std::string finalRecipient(std::string_view address) {
    if (!isEightBit(address) || !utf8_valid(address)) {
        return "rfc822; " + printable(address);
    }
    std::string out = "utf-8; ";
    for (std::size_t at = 0; at < address.size() && out.size() < kFieldLimit;) {
        auto point = static_cast<std::uint32_t>(static_cast<unsigned char>(address[at++]));
        const int more =
            (point >= 0xc0 ? 1 : 0) + (point >= 0xe0 ? 1 : 0) + (point >= 0xf0 ? 1 : 0);
        point &= point < 0x80 ? 0x7f : 0x3fU >> more; // the bits behind the lead byte's mark
        for (int i = 0; i < more; ++i) {
            point = point << 6 | (static_cast<unsigned char>(address[at++]) & 0x3fU);
        }
        const bool plain =
            point > ' ' && point <= '~' && point != '+' && point != '=' && point != '\\';
        std::array<char, 16> text{};
        std::snprintf(text.data(), text.size(), plain ? "%c" : "\\x{%02X}", point);
        out += text.data();
    }
    return out;
}

void appendStatus(std::string& out, const FailedRecipient& rcpt) {
    out += "\nFinal-Recipient: " + finalRecipient(withoutBrackets(rcpt.address));
    out += "\nAction: failed\nStatus: " + statusOf(rcpt.code, rcpt.reply) + "\n";
    if (rcpt.server) {
        std::array<char, IPaddress::kTextSize> dotted{};
        rcpt.server->format(dotted.data());
        out.append("Remote-MTA: dns; [").append(dotted.data()).append("]\n");
    }
    if (!rcpt.reply.empty()) {
        out += "Diagnostic-Code: smtp; " + printable(rcpt.reply) + "\n";
    } else if (rcpt.code != IDS_NO_REASON) {
        out += "Diagnostic-Code: x-gateway; " + printable(smtpString(rcpt.code)) + "\n";
    }
}

// The words that have always told of failed recipients.
std::string humanPart(std::span<const FailedRecipient> failed) {
    std::string out = resourceString(IDS_MAILSENDER_FAILEDRECIPIENTS);
    out += "\n\n";
    for (const FailedRecipient& rcpt : failed) {
        std::array<char, kReasonSize> reason{};
        GetReasonStr(rcpt.code, reason.data());
        out.append(rcpt.address).append(": ").append(reason.data()).append("\n");
        if (!rcpt.reply.empty()) {
            out += "    " + printable(rcpt.reply) + "\n";
        }
    }
    return out;
}

std::string statusPart(const ReturnedMessage& message, std::span<const FailedRecipient> failed) {
    std::string out = "Reporting-MTA: dns; " + printable(message.gatewayName) + "\n";
    if (!(message.arrival == DateTime(0))) {
        out += "Arrival-Date: " + mailDate(message.arrival) + "\n";
    }
    for (const FailedRecipient& rcpt : failed) {
        appendStatus(out, rcpt);
    }
    return out;
}

struct Quoted {
    const char* type;
    std::string text;
};

// One line more than may be returned is read: it tells whether the text is returned whole.
Quoted quote(std::istream& text, int maxLines) {
    std::string lines;
    quoteText(lines, text, std::min(maxLines, std::numeric_limits<int>::max() - 1) + 1);
    if (std::ranges::count(lines, '\n') <= maxLines) {
        return {"message/rfc822", std::move(lines)};
    }
    lines.erase(lines.rfind('\n', lines.size() - 2) + 1); // the line more
    const std::size_t headerEnd = lines.starts_with('\n') ? 0 : lines.find("\n\n");
    if (headerEnd != std::string::npos) {
        // A part of that type is a header and nothing else.
        lines.erase(headerEnd == 0 ? 0 : headerEnd + 1);
    }
    return {"text/rfc822-headers", std::move(lines)};
}

// A separator that no part holds: parts are other people's words.
std::string boundaryFor(std::span<const std::string_view> parts) {
    std::array<char, 9> stamp{};
    DateTime(-1).TimeStamp(stamp.data());
    for (unsigned number = 0;; ++number) {
        std::string boundary = std::string("=_") + stamp.data() + "." + std::to_string(number);
        const auto holds = [&](std::string_view part) {
            return part.find(boundary) != std::string_view::npos;
        };
        if (std::ranges::none_of(parts, holds)) {
            return boundary;
        }
    }
}

void appendPart(std::string& out, const std::string& boundary, const char* type,
                std::string_view body) {
    out.append("\n--").append(boundary).append("\nContent-Type: ").append(type);
    out.append(isEightBit(body) ? "\nContent-Transfer-Encoding: 8bit\n\n" : "\n\n");
    out.append(body);
}

} // namespace

std::string statusOf(SMTPcode code, std::string_view reply) {
    const bool failed = code >= 500 && code <= 599;
    if (failed && reply.size() > 4) {
        const std::string_view words = reply.substr(4);
        // A 5xx reply with a status of 2 or 4 contradicts itself: its code is what decided.
        if (const std::size_t length = statusLength(words); length != 0 && words[0] == '5') {
            return std::string(words.substr(0, length));
        }
    }
    return ownStatus(code);
}

std::string deliveryStatusMail(const ReturnedMessage& message,
                               std::span<const FailedRecipient> failed, std::istream& text) {
    // All parts before anything else: what separates them must stand in none.
    const std::string human = humanPart(failed);
    const std::string status = statusPart(message, failed);
    const Quoted quoted =
        message.maxLines > 0 ? quote(text, message.maxLines) : Quoted{nullptr, {}};
    const std::array<std::string_view, 3> parts{human, status, quoted.text};
    const std::string boundary = boundaryFor(parts);

    std::string mail =
        "From: " + authorOf(message) + "\nDate: " + mailDate(DateTime(-1)) + "\nTo: ";
    mail.append(message.sender).append("\nSubject: ");
    mail.append(resourceString(IDS_MAILSENDER_RETURNEDMAIL))
        .append("\nAuto-Submitted: auto-replied");
    mail += "\nMIME-Version: 1.0\nContent-Type: multipart/report; report-type=delivery-status;\n"
            "\tboundary=\"" +
            boundary + "\"\n";
    if (std::ranges::any_of(parts, isEightBit)) {
        mail += "Content-Transfer-Encoding: 8bit\n";
    }
    appendPart(mail, boundary, isEightBit(human) ? "text/plain; charset=utf-8" : "text/plain",
               human);
    appendPart(mail, boundary, "message/delivery-status", status);
    if (quoted.type != nullptr) {
        appendPart(mail, boundary, quoted.type, quoted.text);
    }
    return mail + "\n--" + boundary + "--\n";
}

} // namespace Email
