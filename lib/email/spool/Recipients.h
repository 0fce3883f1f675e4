// The recipient file of a queued message: envelope sender, tries, and who is still to be served.
#pragma once

#include "email/base/Utils.h"
#include "email/file/FileName.h"
#include "email/spool/MailList.h"

#include <array>
#include <cstdint>
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

    // Writes the full form durably, counts one try more and empties the list. False, with errno
    // where there is one, when the list is empty or the file cannot be opened (nothing changed
    // then), or when it cannot be written: an existing file keeps its old content.
    bool OverWrite(const FileName& file);

    void setSender(const char* text);
    [[nodiscard]] const char* GetSender() const noexcept { return sender.data(); }
    [[nodiscard]] DateTime firstSendTime() const noexcept { return firstTry; }
    [[nodiscard]] DateTime lastSendTime() const noexcept { return previousTry; }
    [[nodiscard]] std::int32_t tries() const noexcept { return numberOfTries; }
    void resetTries() noexcept;
    void Reset() noexcept;

private:
    void readRecipients(Email::BoundedLineReader& in, bool full);
    std::string takeText();
    [[nodiscard]] std::size_t textSize() const noexcept;

    std::array<char, EmailAddr::kTextSize> sender{};
    DateTime firstTry;
    DateTime previousTry;
    std::int32_t numberOfTries = 0;
};
