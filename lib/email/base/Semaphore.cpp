#include "email/base/Semaphore.h"

bool Semaphore::shuttingDown() noexcept {
    return false;
}
