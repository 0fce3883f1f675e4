#include "email/engine/ReturnMail.h"

#include "email/base/Utils.h"
#include "email/base/resource.h"
#include "email/file/BoundedLineReader.h"
#include "email/site/mailscanGlobals.h"

#include <cstring>
#include <istream>
#include <string_view>

void GetReasonStr(SMTPcode code, char* buf) noexcept {
    const std::string_view text = std::string_view(smtpString(code)).substr(0, kReasonSize - 1);
    buf[text.copy(buf, kReasonSize - 1)] = '\0';
}

namespace Email {

namespace {

std::string dateLine() {
    std::array<char, DateTime::kMailTextSize> date{};
    return std::string("Date: ") + DateTime(-1).GetForMail(date.data()) + "\n";
}

std::string header(const char* sender) {
    const std::string admin = mailscanGlobals::tolvaneAdmin;
    // The subject follows its colon directly, as readers of the gateway's return mail expect.
    return "From: " + (admin.empty() ? "Z880_SMTP_Mail_Service" : admin) + "\n" + dateLine() +
           "To: " + sender + "\n" + "Subject:" + resourceString(IDS_MAILSENDER_RETURNEDMAIL) +
           "\n\n";
}

void appendFailed(std::string& out, const MailList& failed) {
    out.append(resourceString(IDS_MAILSENDER_FAILEDRECIPIENTS)).append("\n\n");
    std::array<char, kReasonSize> reason{};
    for (const EmailAddr* rcpt = failed.first(); rcpt != nullptr; rcpt = rcpt->next.get()) {
        GetReasonStr(rcpt->reason, reason.data());
        out.append(rcpt->text()).append(": ").append(reason.data()).append("\n");
    }
}

} // namespace

bool isNullSender(const char* sender) noexcept {
    return std::strspn(sender, "<> ") == std::strlen(sender);
}

void quoteText(std::string& out, std::istream& text, int maxLines) {
    // The attempts before may have left it at its end.
    text.clear();
    text.seekg(0);
    BoundedLineReader reader(text, kQuotedLineLimit, kQuotedLineLimit);
    for (int lines = 0; lines < maxLines; ++lines) {
        const BoundedLineReader::Item item = reader.next();
        if (item.kind == BoundedLineReader::Kind::End ||
            item.kind == BoundedLineReader::Kind::Error) {
            return;
        }
        out.append(item.text).append("\n");
    }
}

std::string returnMail(const char* sender, const MailList& failed, std::istream& text) {
    std::string mail = header(sender);
    appendFailed(mail, failed);
    mail.append(resourceString(IDS_MAILSENDER_RETURNEDMAILBODY)).append("\n\n");
    quoteText(mail, text, mailscanGlobals::max_returned_line_count);
    return mail;
}

} // namespace Email
