// What a dispatcher and one of its workers say to each other, and the socket between them. Each
// message is one record of a sequenced-packet socket: a header of fixed size, then what it counts.
// A record whose sizes do not add up is refused as a whole.
#pragma once

#include "email/base/IPaddress.h"
#include "email/engine/RunCounts.h"
#include "fwall/UniqueFd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Dispatch {

// Down: try this message.
struct Order {
    static constexpr std::size_t kMaxLeaf = 255;
    static constexpr std::size_t kMaxDead = 100;

    std::string leaf;            // a bare file name
    std::vector<IPaddress> dead; // servers to leave alone from now on
};

// Up: what the message in hand has come to.
enum class Step : std::uint8_t {
    Chose = 1,     // a server is sought for a recipient: its destination
    Connected,     // a server greeted
    ConnectFailed, // value: error number
    NoGreeting,
    NotSignedIn, // a relay that must be signed in to did not let us
    Lost,        // a recipient was left by a broken connection: its destination
    // Only on request (Tells):
    Outcome, // of a recipient: value: code, text: the fields of RecipientOutcome
    Said,    // a line of the conversation, without its end: to the server
    Heard,   // and from it
    Done,    // with the message; value: the error number that ends the run, or 0
};
inline constexpr auto kLastStep = Step::Done;

// How much a worker reports: the steps alone, what becomes of each recipient, or every line of the
// conversation as well.
enum class Tells : std::uint8_t { Steps, Outcomes, Conversation };

struct Report {
    Step step = Step::Done;
    IPaddress server = IPaddress::null;
    std::int32_t value = 0;
    std::string text{};        // a destination, or what the step says; cut to kMaxText
    Email::RunCounts counts{}; // with Done: of all that the worker has done

    static constexpr std::size_t kMaxText = 900;
};

// What has become of one recipient, as an outcome report's text tells it. All from outside.
struct RecipientOutcome {
    std::string word; // that of its log line: delivered, deferred, returned, dropped
    std::string recipient;
    std::string stage; // how far its conversation came
    std::string words; // of the server, or the error

    [[nodiscard]] std::string text() const;
    [[nodiscard]] static RecipientOutcome from(std::string_view text);
};

inline constexpr std::size_t kRecordLimit = 1024; // bytes of any record

[[nodiscard]] std::string encode(const Order& order);
[[nodiscard]] std::string encode(const Report& report);
[[nodiscard]] std::optional<Order> decodeOrder(std::string_view record);
[[nodiscard]] std::optional<Report> decodeReport(std::string_view record);

// One end of the socket.
class WorkerChannel {
public:
    WorkerChannel() noexcept = default;
    explicit WorkerChannel(UniqueFd fd) noexcept : fd_(std::move(fd)) {}

    // Both ends, close-on-exec; invalid ones, with errno, when there are none to be had.
    static std::pair<WorkerChannel, WorkerChannel> pair() noexcept;

    [[nodiscard]] int fd() const noexcept { return fd_.get(); }
    [[nodiscard]] bool open() const noexcept { return fd_.valid(); }
    // This process's hold on it only.
    void close() noexcept { fd_.reset(); }
    // Ends the talk: the other end hears it also while some process still holds a copy of this one.
    void end() noexcept;

    enum class Wait { No, Yes };
    // False when the other end is closed, or, without waiting, has no room. Raises no signal.
    bool send(std::string_view record, Wait wait) const noexcept;
    // The next record; empty when there is none yet. Nothing when the other end is closed.
    [[nodiscard]] std::optional<std::string> receive(Wait wait) const;

private:
    UniqueFd fd_;
};

} // namespace Dispatch
