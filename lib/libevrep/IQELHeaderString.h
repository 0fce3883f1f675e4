// A text of an event record, held in narrow and in wide form at once.
#pragma once

#include <string>

// Narrow text becomes wide byte by byte (0 to 255, no character set is assumed); wide text becomes
// narrow character by character, with "?" for every character above 255. Neither form is ever
// null; a fresh value is empty. Encoded words of mail headers (RFC 2047) are not decoded.
class IQELHeaderString {
public:
    // Copies the text; null leaves the value as it is.
    void SetValue(const char* text);
    void SetValue(const wchar_t* text);

    // Valid until the next SetValue or the end of this object.
    [[nodiscard]] const char* GetAnsiValue() const noexcept { return ansi_.c_str(); }
    [[nodiscard]] const wchar_t* GetWideValue() const noexcept { return wide_.c_str(); }

    // By the wide form, which loses nothing.
    bool operator==(const IQELHeaderString& other) const noexcept { return wide_ == other.wide_; }

private:
    std::string ansi_;
    std::wstring wide_;
};
