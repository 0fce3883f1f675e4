// What one recipient's outcome costs besides its delivery.
#include "email/telling/DeliveryLog.h"
#include "email/telling/deliveryEvents.h"
#include "libevrep/EventContext.h"
#include "libevrep/Reporter.h"

#include <benchmark/benchmark.h>

namespace {

void buildEvent(benchmark::State& state) {
    Email::EventDetails details;
    details.messageSize = 4096;
    details.server = IPaddress(0x0100000a);
    details.messageName = "/var/spool/deferred/m042929";
    details.sender = "<s@bench.test>";
    details.text = "<r@d0.bench.test>";
    for (auto run : state) {
        GW_EVENT event = Email::deliveryEvent(lookupSEvent(EV_DELIVERED), details);
        Reporter::reportEvent(event);
    }
}
BENCHMARK(buildEvent);

void formatOutcome(benchmark::State& state) {
    Email::Attempt attempt;
    attempt.tryServer(IPaddress(0x0100000a));
    const Email::LogFields fields{.message = "/var/spool/deferred/m042929",
                                  .sender = "<s@bench.test>",
                                  .recipient = "<r@d0.bench.test>",
                                  .attempt = &attempt,
                                  .code = 250};
    for (auto run : state) {
        benchmark::DoNotOptimize(Email::formatLine(Email::LogLine::Delivered, fields));
    }
}
BENCHMARK(formatOutcome);

} // namespace
