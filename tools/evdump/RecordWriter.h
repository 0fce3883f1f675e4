// The two forms in which evdump shows a record: indented text for people, or one JSON object a
// line for programs. Whatever a record holds, the output is valid UTF-8 without control characters
// and without those that end a line or turn its direction, so that nothing on the wire can steer a
// terminal. A name that comes again in a JSON object gets its number: "zip", "zip#2".
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

class RecordWriter {
public:
    RecordWriter(std::ostream& out, bool json) : out_(out), json_(json) {}

    // A record of that kind at that place of the input. Every begin needs its end, which flushes.
    void begin(std::string_view kind, std::uint64_t offset);
    void end();

    // A group of fields inside the record.
    void open(std::string_view name);
    void close();

    void number(std::string_view name, std::int64_t value);
    // A number with its name, which may be empty.
    void coded(std::string_view name, std::int64_t value, std::string_view meaning);
    // Text of unknown encoding: UTF-8 when it is valid, else one character a byte.
    void text(std::string_view name, std::string_view value);
    void text(std::string_view name, std::wstring_view value);
    // As number and text, with the kind of value.
    void typed(std::string_view name, std::string_view type, std::int64_t value);
    void typed(std::string_view name, std::string_view type, std::wstring_view value);

    // A damaged place of the input, as a record of its own.
    void damage(std::uint64_t offset, std::string_view what);

private:
    // Writes a field's name; the value follows.
    void name(std::string_view name, std::string_view type = {});
    std::string onlyName(const std::string& name);
    void value(std::wstring_view text);
    void endField();

    std::ostream& out_;
    bool json_;
    using Names = std::map<std::string, int>; // with the number that a repeated one gets next
    std::vector<Names> names_;                // of the open groups' fields, in JSON
    int depth_ = 0;
};

// Text of unknown encoding to characters, as RecordWriter::text reads it.
[[nodiscard]] std::wstring decodeText(std::string_view bytes);
