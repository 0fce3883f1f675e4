#include "email/dispatch/Destinations.h"

#include "email/dispatch/DestinationName.h"

#include <algorithm>

namespace Dispatch {

namespace {

constexpr std::size_t kMuch = 40000; // entries, some megabytes

} // namespace

bool Destinations::isDead(const std::string& destination, std::int64_t now) const {
    const auto found = destinations_.find(destination);
    return found != destinations_.end() && found->second.deadUntil > now;
}

bool Destinations::wasReached(const std::string& destination) const {
    const auto found = destinations_.find(destination);
    return found != destinations_.end() && found->second.reached;
}

bool Destinations::mayBegin(const std::string& destination, std::int64_t now) const {
    const auto found = destinations_.find(destination);
    if (found == destinations_.end()) {
        return true;
    }
    const Destination& known = found->second;
    if (known.deadUntil > now) { // its servers are on every blacklist: nobody is troubled
        return known.limit.running < most_;
    }
    // Destinations that share a server share its limit.
    const auto server = servers_.find(known.server.value);
    return known.limit.free() && (server == servers_.end() || server->second.free());
}

Destinations::Limit& Destinations::limitOf(IPaddress server) {
    return servers_.try_emplace(server.value, Limit{.running = 0, .allowed = start()})
        .first->second;
}

void Destinations::countAt(Talk& talk, IPaddress server) {
    if (talk.server == server) {
        return;
    }
    if (talk.server != IPaddress::null) {
        --limitOf(talk.server).running;
    }
    talk.server = server;
    if (server != IPaddress::null) {
        ++limitOf(server).running;
    }
}

Destinations::Talk Destinations::begin(const std::string& destination, std::int64_t now) {
    Destination& known = destinations_[destination];
    ++known.limit.running;
    ++searching_;
    Talk talk{.destination = destination, .began = now, .open = true};
    // The server of the last conversation, until this one shows its own.
    countAt(talk, known.server);
    return talk;
}

void Destinations::connected(Talk& talk, IPaddress server) {
    if (!talk.open) {
        return;
    }
    countAt(talk, server);
    searching_ -= talk.connected ? 0 : 1;
    talk.connected = true;
    Destination& known = destinations_[talk.destination];
    known.server = server;
    // It answers, whatever it was taken for.
    known.deadUntil = -1;
    if (!known.reached) {
        known.reached = true;
        known.limit.allowed = start();
    }
}

bool Destinations::failed(Talk& talk, IPaddress server, std::int64_t now) {
    if (talk.server == server) {
        countAt(talk, IPaddress::null);
    }
    if (const auto known = servers_.find(server.value); known != servers_.end()) {
        known->second.halve();
        if (known->second.running > 0) {
            // Others of this run talk to it: it has enough of us, and is not dead.
            talk.crowded = true;
            return true;
        }
    }
    talk.foundDead = true;
    dead_.push_back({server, now + deadTime_});
    return false;
}

void Destinations::lost(Talk& talk, const std::string& destination) {
    const bool current = talk.destination == destination;
    const auto known = destinations_.find(destination);
    if (known == destinations_.end() || (current && (!talk.connected || talk.lost))) {
        return; // that no connection came about has been counted already
    }
    talk.lost = talk.lost || current;
    known->second.limit.halve();
    if (const auto server = servers_.find(known->second.server.value); server != servers_.end()) {
        server->second.halve();
    }
}

bool Destinations::end(Talk& talk, std::int64_t now) {
    if (!talk.open) {
        return false;
    }
    talk.open = false;
    Destination& known = destinations_[talk.destination];
    --known.limit.running;
    const IPaddress server = talk.server;
    countAt(talk, IPaddress::null);
    if (talk.connected) {
        if (!talk.foundDead && !talk.crowded && !talk.lost) {
            known.limit.grow(most_);
            limitOf(server).grow(most_);
        }
        return false;
    }
    --searching_;
    if (!talk.searched) { // passed over, or nothing but local work: no news of any server
        known.limit.grow(isLocal(talk.destination) ? most_ : 0);
        return false;
    }
    if (talk.crowded || known.limit.running > 0) {
        known.limit.halve();
        return false;
    }
    // Nobody was found, but quickly, and no server failed to answer: the next message may ask
    // again.
    if (!talk.foundDead && now - talk.began < kLongSearch) {
        return false;
    }
    known = {.deadUntil = now + deadTime_};
    return true;
}

std::vector<IPaddress> Destinations::deadSince(std::uint64_t& from, std::size_t most,
                                               std::int64_t now) {
    while (!dead_.empty() && dead_.front().until <= now) {
        dead_.pop_front();
        ++firstDead_;
    }
    // Those that have expired meanwhile need not be told any more.
    from = std::max(from, firstDead_);
    std::vector<IPaddress> found;
    for (; from < firstDead_ + dead_.size() && found.size() < most; ++from) {
        found.push_back(dead_[static_cast<std::size_t>(from - firstDead_)].address);
    }
    return found;
}

void Destinations::prune(std::int64_t now) {
    if (destinations_.size() + servers_.size() < kMuch) {
        return;
    }
    std::erase_if(destinations_, [now](const auto& entry) {
        return entry.second.limit.running == 0 && entry.second.deadUntil <= now;
    });
    std::erase_if(servers_, [](const auto& entry) { return entry.second.running == 0; });
}

} // namespace Dispatch
