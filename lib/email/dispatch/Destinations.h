// How many conversations a run may hold with one destination and with one server, and which of them
// are dead. Pure bookkeeping: whoever holds conversations tells what happens to them and when.
//
// A destination begins with a single conversation. Once a server has greeted it may have two, one
// more for each conversation that ended well, up to the limit, and half for each that was refused,
// not greeted or lost. The same counts for the server's address, once that is known, whatever
// destinations share it.
#pragma once

#include "email/base/IPaddress.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

namespace Dispatch {

class Destinations {
public:
    static constexpr int kDefaultMost = 20;
    static constexpr int kStart = 2; // conversations, once a server has greeted
    // A search for servers that took this many seconds and found none will take them again.
    static constexpr std::int64_t kLongSearch = 2;

    // `most` conversations at once with one destination, and with one server; what is found dead
    // stays so for `deadTime` seconds. Times are seconds of any clock that never goes back.
    Destinations(int most, std::int64_t deadTime) noexcept : most_(most), deadTime_(deadTime) {}

    // One attempt to serve a destination, from the choice of a server on.
    struct Talk {
        std::string destination;
        IPaddress server = IPaddress::null; // counted at this one
        std::int64_t began = 0;
        bool open = false;      // begin() was called, end() not yet
        bool searched = false;  // a server was asked for
        bool connected = false; // one greeted
        bool foundDead = false; // one did not
        bool crowded = false;   // nor did one that others of this run talk to
        bool lost = false;      // the connection was
    };

    [[nodiscard]] bool mayBegin(const std::string& destination, std::int64_t now) const;
    [[nodiscard]] bool isDead(const std::string& destination, std::int64_t now) const;

    // Attempts that no server has greeted yet.
    [[nodiscard]] int searching() const noexcept { return searching_; }
    // True when a server has greeted a conversation with this destination.
    [[nodiscard]] bool wasReached(const std::string& destination) const;

    [[nodiscard]] Talk begin(const std::string& destination, std::int64_t now);
    void connected(Talk& talk, IPaddress server);
    // The server refused, or did not greet. True when others hold conversations with it: it has
    // enough of us, but is not dead.
    bool failed(Talk& talk, IPaddress server, std::int64_t now);
    // A recipient of the destination was left without result by a connection that broke.
    void lost(Talk& talk, const std::string& destination);
    // True when the destination was found dead by this.
    bool end(Talk& talk, std::int64_t now);

    // The servers found dead, each with a number one higher than the one before.
    struct DeadServer {
        IPaddress address;
        std::int64_t until = 0;
    };
    // Those from number `from` on that still are, `most` of them; `from` becomes the number to ask
    // with the next time.
    [[nodiscard]] std::vector<IPaddress> deadSince(std::uint64_t& from, std::size_t most,
                                                   std::int64_t now);

    // Forgets what stands at its beginning and is not in use, when much is known.
    void prune(std::int64_t now);

private:
    struct Limit {
        int running = 0;
        int allowed = kStart;
        [[nodiscard]] bool free() const noexcept { return running < allowed; }
        void grow(int most) noexcept { allowed += allowed < most ? 1 : 0; }
        void halve() noexcept { allowed = allowed > 1 ? allowed / 2 : 1; }
    };
    struct Destination {
        Limit limit{.running = 0, .allowed = 1};
        bool reached = false;
        IPaddress server = IPaddress::null; // of the latest conversation
        std::int64_t deadUntil = -1;
    };

    [[nodiscard]] int start() const noexcept { return most_ < kStart ? most_ : kStart; }
    Limit& limitOf(IPaddress server);
    void countAt(Talk& talk, IPaddress server);

    int most_;
    std::int64_t deadTime_;
    int searching_ = 0;
    std::unordered_map<std::string, Destination> destinations_;
    std::unordered_map<std::uint32_t, Limit> servers_;
    std::deque<DeadServer> dead_;
    std::uint64_t firstDead_ = 0; // the number of the first in dead_
};

} // namespace Dispatch
