// The stop request shared by the gateway's programs.
#pragma once

class Semaphore {
public:
    // True when the program has been asked to stop: the delivery pass, the body transfer and the
    // MX lookup poll it. A one-shot run is never asked, so the answer here is always false.
    [[nodiscard]] static bool shuttingDown() noexcept;
};
