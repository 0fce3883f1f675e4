#include "email/Semaphore.h"

bool Semaphore::shuttingDown() noexcept {
    return false;
}
