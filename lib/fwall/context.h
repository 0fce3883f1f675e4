// What the logger asks of a proxy's runtime: the service that it serves, and the connection that it
// is serving. Programs without such a runtime set neither.
#pragma once

#include <cstddef>
#include <cstdint>

struct cfgrec;

class CServiceContext {
public:
    virtual ~CServiceContext() = default;
    [[nodiscard]] virtual std::int32_t ServiceType() const = 0;
    [[nodiscard]] virtual std::int32_t Protocol() const = 0;
    [[nodiscard]] virtual const char* Name() const = 0; // may be empty until SetName()
    virtual void SetName(const char* name) = 0;
    // The rule-table records of the service, owned by the context; null when it has none.
    [[nodiscard]] virtual cfgrec* Config() const = 0;
};

class CConnectionContext {
public:
    virtual ~CConnectionContext() = default;
    [[nodiscard]] virtual const char* Identifier() const = 0;
    // Writes the policy's name, terminated, at most `size` bytes with the terminator.
    virtual void Policy(char* name, std::size_t size) const = 0;
    [[nodiscard]] virtual std::uint16_t SourcePort() const = 0; // ports in host byte order
    [[nodiscard]] virtual std::uint16_t DestinationPort() const = 0;
    [[nodiscard]] virtual std::uint16_t MappedDestinationPort() const = 0;
    [[nodiscard]] virtual const char* SourceAddress() const = 0;      // dotted quad, or null
    [[nodiscard]] virtual const char* DestinationAddress() const = 0; // dotted quad, or null
    [[nodiscard]] virtual const char* User() const = 0;               // may be null
};
