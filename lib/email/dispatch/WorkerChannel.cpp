#include "email/dispatch/WorkerChannel.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <type_traits>

namespace Dispatch {

namespace {

struct OrderHeader {
    std::uint16_t leafLength;
    std::uint16_t deadCount;
};
static_assert(sizeof(OrderHeader) == 4);

struct ReportHeader {
    std::uint32_t server;
    std::int32_t value;
    std::uint16_t textLength;
    std::uint8_t step;
    std::uint8_t unused;
};
static_assert(sizeof(ReportHeader) == 12);

// Behind the header of a Done, in this order.
constexpr std::array kCounts{&Email::RunCounts::entries,  &Email::RunCounts::attempted,
                             &Email::RunCounts::held,     &Email::RunCounts::delivered,
                             &Email::RunCounts::deferred, &Email::RunCounts::returnDelivered,
                             &Email::RunCounts::returned, &Email::RunCounts::dropped};
using CountsBlock = std::array<std::int64_t, kCounts.size()>;

static_assert(sizeof(OrderHeader) + Order::kMaxLeaf + Order::kMaxDead * 4 <= kRecordLimit);
static_assert(sizeof(ReportHeader) + sizeof(CountsBlock) + Report::kMaxText <= kRecordLimit);

template<typename Value>
void put(std::string& out, const Value& value) {
    static_assert(std::is_trivially_copyable_v<Value>);
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

template<typename Value>
bool take(std::string_view& from, Value& value) noexcept {
    if (from.size() < sizeof value) {
        return false;
    }
    std::memcpy(&value, from.data(), sizeof value);
    from.remove_prefix(sizeof value);
    return true;
}

bool isLeaf(std::string_view name) noexcept {
    // A name and no path: it is put behind the queue's directory.
    return !name.empty() && name.size() <= Order::kMaxLeaf &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

} // namespace

std::string encode(const Order& order) {
    std::string record;
    put(record, OrderHeader{static_cast<std::uint16_t>(order.leaf.size()),
                            static_cast<std::uint16_t>(order.dead.size())});
    for (const IPaddress address : order.dead) {
        put(record, address.value);
    }
    return record + order.leaf;
}

std::string encode(const Report& report) {
    const std::string_view text = std::string_view(report.text).substr(0, Report::kMaxText);
    std::string record;
    put(record,
        ReportHeader{report.server.value, report.value, static_cast<std::uint16_t>(text.size()),
                     static_cast<std::uint8_t>(report.step), 0});
    if (report.step == Step::Done) {
        CountsBlock block{};
        std::ranges::transform(kCounts, block.begin(),
                               [&](auto member) { return report.counts.*member; });
        put(record, block);
    }
    return record.append(text);
}

std::optional<Order> decodeOrder(std::string_view record) {
    OrderHeader header{};
    if (!take(record, header) || header.deadCount > Order::kMaxDead ||
        record.size() != header.deadCount * sizeof(std::uint32_t) + header.leafLength) {
        return std::nullopt;
    }
    Order order;
    for (unsigned i = 0; i < header.deadCount; ++i) {
        IPaddress address;
        take(record, address.value);
        order.dead.push_back(address);
    }
    order.leaf = record;
    return isLeaf(order.leaf) ? std::optional(std::move(order)) : std::nullopt;
}

std::optional<Report> decodeReport(std::string_view record) {
    ReportHeader header{};
    CountsBlock block{};
    if (!take(record, header) || header.step < static_cast<std::uint8_t>(Step::Chose) ||
        header.step > static_cast<std::uint8_t>(kLastStep)) {
        return std::nullopt;
    }
    Report report{static_cast<Step>(header.step), IPaddress(header.server), header.value, {}, {}};
    // All sizes must add up: half a record is none.
    if ((report.step == Step::Done && !take(record, block)) ||
        header.textLength > Report::kMaxText || record.size() != header.textLength) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < kCounts.size(); ++i) {
        report.counts.*kCounts[i] = static_cast<long>(block[i]);
    }
    report.text = record;
    return report;
}

std::string RecipientOutcome::text() const {
    std::string text;
    for (const std::string* const field : {&word, &recipient, &stage}) {
        text.append(*field).append(1, '\0');
    }
    return text + words;
}

// The last one may hold zero bytes: it is the server's.
RecipientOutcome RecipientOutcome::from(std::string_view text) {
    const auto field = [&text] {
        const std::string_view taken = text.substr(0, text.find('\0'));
        text.remove_prefix(std::min(taken.size() + 1, text.size()));
        return std::string(taken);
    };
    RecipientOutcome outcome;
    outcome.word = field();
    outcome.recipient = field();
    outcome.stage = field();
    outcome.words = text;
    return outcome;
}

std::pair<WorkerChannel, WorkerChannel> WorkerChannel::pair() noexcept {
    std::array<int, 2> fds{-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds.data()) != 0) {
        return {};
    }
    return {WorkerChannel(UniqueFd(fds[0])), WorkerChannel(UniqueFd(fds[1]))};
}

void WorkerChannel::end() noexcept {
    // For everybody who holds the socket: a worker may have inherited a copy of it.
    ::shutdown(fd_.get(), SHUT_RDWR);
    close();
}

bool WorkerChannel::send(std::string_view record, Wait wait) const noexcept {
    const int flags = MSG_NOSIGNAL | (wait == Wait::No ? MSG_DONTWAIT : 0);
    ssize_t sent = -1;
    do {
        sent = ::send(fd_.get(), record.data(), record.size(), flags);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(record.size());
}

std::optional<std::string> WorkerChannel::receive(Wait wait) const {
    std::array<char, kRecordLimit> record{};
    const int flags = wait == Wait::No ? MSG_DONTWAIT : 0;
    ssize_t got = -1;
    do {
        got = ::recv(fd_.get(), record.data(), record.size(), flags);
    } while (got < 0 && errno == EINTR);
    // 0 is the end of the talk: no record is empty.
    if (got > 0) {
        return std::string(record.data(), static_cast<std::size_t>(got));
    }
    return got < 0 && errno == EAGAIN ? std::optional(std::string()) : std::nullopt;
}

} // namespace Dispatch
