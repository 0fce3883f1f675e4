#include "email/spool/Recipients.h"

#include "email/base/Decimal.h"
#include "email/file/BoundedLineReader.h"
#include "email/file/FdStream.h"
#include "email/file/FileReplacement.h"

#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

namespace {

using Email::BoundedLineReader;

constexpr std::size_t kHeadLine = 63;        // characters of a time or count line
constexpr std::size_t kAddressLine = 2047;   // characters of a sender or recipient line
constexpr std::size_t kTabCodeLineFeed = 13; // behind an address, at most
constexpr mode_t kFileMode = 0664;           // before the umask

template<std::size_t N>
using LineBuffer = std::array<char, N + 1>;

// The text of a line, up to its first carriage return or NUL; nothing at the end of the file. What
// is left without a line feed there is no line: its writer did not finish it.
template<std::size_t N>
bool readLine(BoundedLineReader& in, std::array<char, N>& line) {
    using Kind = BoundedLineReader::Kind;
    const auto item = in.next();
    if (item.kind != Kind::Line && item.kind != Kind::Piece) {
        return false;
    }
    const std::string_view text = item.text.substr(0, item.text.find('\r'));
    line[text.copy(line.data(), N - 1)] = '\0';
    return true;
}

bool readTimeLine(BoundedLineReader& in, DateTime& time) {
    LineBuffer<kHeadLine> line;
    if (!readLine(in, line)) {
        return false;
    }
    time.Set(line.data());
    return time.Time != 0;
}

bool readNumberLine(BoundedLineReader& in, std::int32_t& number) {
    LineBuffer<kHeadLine> line;
    if (!readLine(in, line)) {
        return false;
    }
    std::string_view text = line.data();
    const auto value = Email::takeDecimal(text);
    number = value.value_or(number);
    return value.has_value();
}

// Cuts the code off the line, behind the last tab.
SMTPcode takeCode(char* line) {
    char* const tab = std::strrchr(line, '\t');
    if (tab == nullptr) {
        return IDS_NO_REASON;
    }
    *tab = '\0';
    std::string_view code = tab + 1;
    return static_cast<SMTPcode>(Email::takeDecimal(code).value_or(0));
}

void appendNumber(std::string& out, std::int32_t number) {
    std::array<char, 12> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    out.append(digits.data(), end);
}

void appendTime(std::string& out, const DateTime& time) {
    std::array<char, DateTime::kTextSize> text{};
    out.append(time.Get(text.data())) += '\n';
}

// Appends records. Nearly all of a long list have the same code: its text is made once.
class RecordWriter {
public:
    explicit RecordWriter(std::string& out) noexcept : out_(out) {}

    void append(const EmailAddr& record) {
        if (ending_.empty() || record.reason != code_) {
            code_ = record.reason;
            ending_ = '\t';
            appendNumber(ending_, code_);
            ending_ += '\n';
        }
        out_.append(record.text(), record.size()).append(ending_);
    }

private:
    std::string& out_;
    SMTPcode code_{};
    std::string ending_;
};

} // namespace

Recipients::Recipients() : firstTry(-1), previousTry(firstTry) {}

bool Recipients::Read(const FileName& file, bool full) {
    Email::FdStream text(file());
    return Read(text, full);
}

bool Recipients::Read(std::istream& text, bool full) {
    if (text.peek() == std::istream::traits_type::eof()) {
        return false;
    }
    Destroy();
    if (!full) { // else the file says
        firstTry.SetNow();
        previousTry = firstTry;
    }
    BoundedLineReader in(text, kHeadLine, kHeadLine);
    if (full && !(readTimeLine(in, firstTry) && readTimeLine(in, previousTry) &&
                  readNumberLine(in, numberOfTries))) {
        return false;
    }
    in.setLimits(kAddressLine, kAddressLine);
    if (!readLine(in, sender)) {
        return false;
    }
    readRecipients(in, full);
    if (text.bad()) {
        Destroy();
        return false;
    }
    return true;
}

void Recipients::readRecipients(BoundedLineReader& in, bool full) {
    LineBuffer<kAddressLine> line;
    while (readLine(in, line)) {
        const SMTPcode code = full ? takeCode(line.data()) : IDS_NO_REASON;
        Add(line.data(), code);
    }
}

bool Recipients::OverWrite(const FileName& file) {
    if (IsEmpty()) {
        return false;
    }
    Email::FileReplacement replacement(file(), kFileMode);
    if (!replacement.open()) {
        return false;
    }
    std::string text;
    takeTo(text);
    return replacement.commit(text);
}

void Recipients::appendHead(std::string& out, const DateTime& latest) const {
    appendTime(out, firstTry);
    appendTime(out, latest);
    appendNumber(out, numberOfTries);
    out.append(1, '\n').append(sender.data()) += '\n';
}

std::size_t Recipients::appendTo(std::string& out, const MailList& failed) const {
    std::size_t size = headSize();
    appendHead(out, previousTry);
    RecordWriter writer(out);
    for (const MailList* list : {static_cast<const MailList*>(this), &failed}) {
        for (const EmailAddr* record = list->first(); record; record = record->next.get()) {
            writer.append(*record);
            size += record->size() + kTabCodeLineFeed;
        }
    }
    return size;
}

void Recipients::takeTo(std::string& out) {
    out.reserve(out.size() + textSize(MailList()));
    // A first attempt that ended without an answer from any server is written as if it had not
    // been made. The gateway's other programs look for this stamp.
    const bool unattempted =
        numberOfTries == 0 && (ReasonPresent(TIMEOUTEXPIRED) || ReasonPresent(IDS_NO_REASON));
    // Stays at the largest number instead of turning negative.
    numberOfTries += numberOfTries == std::numeric_limits<std::int32_t>::max() ? 0 : 1;
    appendHead(out, unattempted ? DateTime(0) : DateTime(-1));
    RecordWriter writer(out);
    // Taken off on the way: a large list is not held twice.
    while (const auto record = Remove()) {
        writer.append(*record);
    }
}

std::size_t Recipients::headSize() const noexcept {
    return 2 * DateTime::kTextSize + kTabCodeLineFeed + std::strlen(sender.data());
}

std::size_t Recipients::textSize(const MailList& failed) const noexcept {
    std::size_t size = headSize();
    for (const MailList* list : {static_cast<const MailList*>(this), &failed}) {
        for (const EmailAddr* record = list->first(); record; record = record->next.get()) {
            size += record->size() + kTabCodeLineFeed;
        }
    }
    return size;
}

void Recipients::setSender(const char* text) {
    EmailAddr::setAddr(sender.data(), text);
}

void Recipients::resetTries() noexcept {
    firstTry.SetNow();
    previousTry = firstTry;
    numberOfTries = 0;
}

void Recipients::Reset() noexcept {
    Destroy();
}
