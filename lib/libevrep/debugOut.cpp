#include "libevrep/debugOut.h"

namespace {
constinit DebugSink theSink = nullptr;
}

void setDebugOut(DebugSink sink) noexcept {
    theSink = sink;
}

void debugOut(const char* text) {
    if (theSink != nullptr)
        theSink(text);
}
