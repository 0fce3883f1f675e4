// What an event costs: to build and report, to write, to read back, to frame and to receive. The
// counter "bytes" is the size of one on the wire.
#include "libevrep/EventArchive.h"
#include "libevrep/FrameReader.h"
#include "libevrep/Reporter.h"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

// A delivered message, with every property that the delivery engine sets.
GW_EVENT deliveryEvent() {
    GW_EVENT event = Reporter::createEvent(
        MANAGEMENT_CONTEXT, 2, 8, static_cast<ReportableEvent>(102), Reason_Null, nullptr, nullptr);
    CPropertyBag& bag = event.m_PropertyBag;
    bag.Set(EPROP_SIZE, 48213);
    bag.Set(EPROP_IPADDRESS, "192.0.2.25");
    bag.Set(EPROP_SERVER, "mail.example.net");
    bag.Set(EPROP_IDENTITY, "/var/spool/deferred/fileQ7xK2a");
    bag.Set(EPROP_SENDER, "first.last@example.com");
    bag.Set(EPROP_RECIPIENT, "somebody.else@example.net");
    bag.Set(EPROP_ERROR_CODE, 250);
    return event;
}

// As it leaves Reporter::reportEvent.
GW_EVENT stampedEvent() {
    GW_EVENT event = deliveryEvent();
    event.m_EventContext.setSubSystemName("retryer");
    return event;
}

void count(benchmark::State& state, std::size_t bytes) {
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes"] = static_cast<double>(bytes);
}

void buildAndReport(benchmark::State& state) {
    std::strcpy(Reporter::c_szSubSystemName, "retryer");
    for (auto _ : state) {
        GW_EVENT event = deliveryEvent();
        Reporter::reportEvent(event);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(buildAndReport);

void encode(benchmark::State& state) {
    const GW_EVENT event = stampedEvent();
    std::size_t size = 0;
    for (auto _ : state) {
        CMemArchive archive;
        archive << event;
        size = archive.Bytes().size();
    }
    count(state, size);
}
BENCHMARK(encode);

void decode(benchmark::State& state) {
    CMemArchive written;
    written << stampedEvent();
    for (auto _ : state) {
        CMemArchive archive(written.Bytes());
        GW_EVENT event;
        archive >> event;
        benchmark::DoNotOptimize(event);
    }
    count(state, written.Bytes().size());
}
BENCHMARK(decode);

void append(std::vector<std::byte>& to, CTransfer& transfer) {
    while (const CMemArchive* piece = transfer.GetWriteData()) {
        to.insert(to.end(), piece->Bytes().begin(), piece->Bytes().end());
        transfer.Transition();
    }
}

void frame(benchmark::State& state) {
    const GW_EVENT event = stampedEvent();
    std::vector<std::byte> bytes;
    for (auto _ : state) {
        bytes.clear();
        CTransfer transfer;
        transfer.Send(event);
        append(bytes, transfer);
    }
    count(state, bytes.size());
}
BENCHMARK(frame);

// A stream of a thousand messages, in pieces of a network read, up to the decoded event.
void receive(benchmark::State& state) {
    constexpr int messages = 1000;
    constexpr std::size_t piece = 1448;
    std::vector<std::byte> stream;
    CTransfer transfer;
    for (int i = 0; i < messages; ++i) {
        transfer.Send(stampedEvent());
        append(stream, transfer);
    }
    for (auto _ : state) {
        FrameReader reader;
        for (std::size_t at = 0; at < stream.size(); at += piece) {
            reader.feed(std::span(stream).subspan(at, std::min(piece, stream.size() - at)));
            for (FrameEvent next = reader.next(); !std::holds_alternative<std::monostate>(next);
                 next = reader.next()) {
                CMemArchive archive(std::get<Frame>(next).data);
                GW_EVENT event;
                archive >> event;
                benchmark::DoNotOptimize(event);
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * messages);
}
BENCHMARK(receive);

} // namespace
