// The recipient file of a queued message: envelope sender, tries, and who is still to be served.
#pragma once

#include "email/base/Utils.h"
#include "email/file/FileName.h"
#include "email/spool/MailList.h"

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace Email {
class BoundedLineReader;
}

class Recipients : public MailList {
public:
    // An empty list and sender, both times now, no tries.
    Recipients();

    // Replaces the content from the file: the full form, or with `full` false the short form of a
    // newly queued message. False when the file cannot be opened or is empty (nothing changed
    // then), or when its first lines are missing or unusable (the content must not be used then).
    bool Read(const FileName& file, bool full);

    // The same from an open file.
    bool Read(std::istream& text, bool full);

    // Writes the full form durably, counts one try more and empties the list. False, with errno
    // where there is one, when the list is empty or the file cannot be opened (nothing changed
    // then), or when it cannot be written: an existing file keeps its old content.
    bool OverWrite(const FileName& file);

    // Appends the full form as it stands, with those who failed behind those still to be tried:
    // what a list that is written in the middle of an attempt says. No try is counted. Returns
    // what textSize() would.
    std::size_t appendTo(std::string& out, const MailList& failed) const;
    // Appends the full form at the end of an attempt: counts one try more and empties the list.
    void takeTo(std::string& out);
    // At least what either appends.
    [[nodiscard]] std::size_t textSize(const MailList& failed) const noexcept;

    void setSender(const char* text);
    [[nodiscard]] const char* GetSender() const noexcept { return sender.data(); }
    [[nodiscard]] DateTime firstSendTime() const noexcept { return firstTry; }
    [[nodiscard]] DateTime lastSendTime() const noexcept { return previousTry; }
    [[nodiscard]] std::int32_t tries() const noexcept { return numberOfTries; }
    void resetTries() noexcept;
    void Reset() noexcept;

private:
    void readRecipients(Email::BoundedLineReader& in, bool full);
    void appendHead(std::string& out, const DateTime& latest) const;
    [[nodiscard]] std::size_t headSize() const noexcept;

    std::array<char, EmailAddr::kTextSize> sender{};
    DateTime firstTry;
    DateTime previousTry;
    std::int32_t numberOfTries = 0;
};
