#include "Smtp.h"

#include <algorithm>
#include <cstdint>

namespace {

// What may follow a body before its reply was read is short (a pipelined QUIT or RSET).
constexpr std::size_t kTail = 1024;
constexpr std::string_view kEndOfBody = "\r\n.\r\n";

constexpr std::uint32_t verb(std::string_view line) {
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const char c = i < line.size() ? line[i] : ' ';
        word = word << 8 | static_cast<unsigned char>(c & ~0x20); // letters in upper case
    }
    return word;
}

} // namespace

void Smtp::take(std::string_view bytes, std::string& out, Counters& counters) {
    if (body_ && bytes.size() >= kTail) {
        pending_.assign(bytes.substr(bytes.size() - kTail));
        counters.bytes += bytes.size() - kTail;
    } else {
        pending_.append(bytes);
    }
    if (body_) {
        takeBody(out, counters);
    }
    while (!body_ && takeCommand(out, counters)) {
    }
}

void Smtp::takeBody(std::string& out, Counters& counters) {
    const std::size_t end = pending_.rfind(kEndOfBody);
    const std::size_t keep = kEndOfBody.size() - 1;
    if (end == std::string::npos) {
        const std::size_t drop = pending_.size() - std::min(pending_.size(), keep);
        counters.bytes += drop;
        pending_.erase(0, drop);
        return;
    }
    body_ = false;
    ++counters.messages;
    counters.bytes += end;
    pending_.erase(0, end + kEndOfBody.size());
    out += "250 taken\r\n";
}

bool Smtp::takeCommand(std::string& out, Counters& counters) {
    const std::size_t end = pending_.find('\n');
    if (end == std::string::npos || finished_) {
        return false;
    }
    answer(std::string_view(pending_).substr(0, end), out, counters);
    pending_.erase(0, end + 1);
    if (body_) {
        pending_.insert(0, "\r\n"); // a body may begin with the final dot
        takeBody(out, counters);
    }
    return true;
}

void Smtp::answer(std::string_view line, std::string& out, Counters& counters) {
    switch (verb(line)) {
    case verb("EHLO"):
        out += "250-sink.bench.test\r\n250-PIPELINING\r\n250-SIZE\r\n";
        out += offersTls_ ? "250-STARTTLS\r\n" : "";
        out += "250 8BITMIME\r\n";
        return;
    case verb("STAR"):
        wantsTls_ = offersTls_;
        out += offersTls_ ? "220 go on\r\n" : "502 not here\r\n";
        return;
    case verb("RCPT"): {
        const bool bad = line.find("<bad") != std::string_view::npos;
        ++(bad ? counters.refused : counters.recipients);
        out += bad ? "550 no such mailbox\r\n" : "250 fine\r\n";
        return;
    }
    case verb("DATA"):
        body_ = true;
        out += "354 go on\r\n";
        return;
    case verb("QUIT"):
        finished_ = true;
        out += "221 bye\r\n";
        return;
    default:
        out += "250 fine\r\n";
    }
}
