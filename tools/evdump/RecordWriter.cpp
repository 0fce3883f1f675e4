#include "RecordWriter.h"

#include "libevrep/utf.h"

#include <array>
#include <cstdio>

namespace {

constexpr wchar_t replacement = 0xFFFD;

std::string escaped(wchar_t c, bool json) {
    const bool wide = json || c > 0xFF;
    char text[16];
    std::snprintf(text, sizeof text, wide ? "\\u%04x" : "\\x%02x", static_cast<unsigned>(c));
    return text;
}

// Line and paragraph separator, and what turns the direction of writing.
bool isLayout(wchar_t c) {
    return c == 0x61C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

bool isControl(wchar_t c) {
    return (c >= 0 && c < 0x20) || (c >= 0x7F && c < 0xA0) || isLayout(c);
}

void appendUtf8(std::string& out, wchar_t c) {
    std::array<char, 4> bytes{};
    auto length = ucs4_to_utf8({&c, 1}, bytes);
    if (!length)
        length = ucs4_to_utf8({&replacement, 1}, bytes);
    out.append(bytes.data(), *length);
}

std::string printable(std::wstring_view text, bool json) {
    std::string out;
    for (const wchar_t c : text) {
        if (c == L'\\' || (json && c == L'"'))
            out += '\\';
        if (isControl(c))
            out += escaped(c, json);
        else
            appendUtf8(out, c);
    }
    return out;
}

} // namespace

std::wstring decodeText(std::string_view bytes) {
    std::wstring wide(bytes.size(), L'\0');
    const auto length = utf8_to_ucs4(bytes, wide);
    if (!length)
        return ConvertToWide(bytes);
    wide.resize(*length);
    return wide;
}

void RecordWriter::begin(std::string_view kind, std::uint64_t offset) {
    if (json_)
        out_ << "{\"kind\":\"" << kind << "\",\"offset\":" << offset;
    else
        out_ << kind << " at offset " << offset << '\n';
    depth_ = 1;
    names_.assign(1, {{"kind", 2}, {"offset", 2}});
}

void RecordWriter::end() {
    out_ << (json_ ? "}\n" : "") << std::flush;
    depth_ = 0;
}

void RecordWriter::open(std::string_view group) {
    name(group);
    out_ << (json_ ? "{" : "\n");
    names_.emplace_back();
    ++depth_;
}

void RecordWriter::close() {
    --depth_;
    names_.pop_back();
    if (json_)
        out_ << '}';
}

void RecordWriter::number(std::string_view field, std::int64_t value) {
    name(field);
    out_ << (json_ ? "" : " ") << value;
    endField();
}

void RecordWriter::coded(std::string_view field, std::int64_t value, std::string_view meaning) {
    name(field);
    if (json_) {
        out_ << "{\"code\":" << value;
        if (!meaning.empty())
            out_ << ",\"name\":\"" << meaning << '"';
        out_ << '}';
    } else {
        out_ << ' ' << value << (meaning.empty() ? "" : " ") << meaning;
    }
    endField();
}

void RecordWriter::text(std::string_view field, std::string_view bytes) {
    text(field, std::wstring_view(decodeText(bytes)));
}

void RecordWriter::text(std::string_view field, std::wstring_view characters) {
    name(field);
    value(characters);
    endField();
}

void RecordWriter::typed(std::string_view field, std::string_view type, std::int64_t number) {
    name(field, type);
    out_ << (json_ ? "" : " ") << number << (json_ ? "}" : "");
    endField();
}

void RecordWriter::typed(std::string_view field, std::string_view type,
                         std::wstring_view characters) {
    name(field, type);
    value(characters);
    out_ << (json_ ? "}" : "");
    endField();
}

void RecordWriter::damage(std::uint64_t offset, std::string_view what) {
    if (json_)
        out_ << "{\"kind\":\"damage\",\"offset\":" << offset << ",\"what\":\"" << what << "\"}\n";
    else
        out_ << "damage at offset " << offset << ": " << what << '\n';
    out_ << std::flush;
}

void RecordWriter::name(std::string_view field, std::string_view type) {
    if (json_) {
        out_ << (names_.back().empty() ? "\"" : ",\"")
             << onlyName(printable(decodeText(field), true)) << "\":";
        if (!type.empty())
            out_ << "{\"type\":\"" << type << "\",\"value\":";
    } else {
        out_ << std::string(static_cast<std::size_t>(depth_) * 2, ' ')
             << printable(decodeText(field), false);
        if (!type.empty())
            out_ << " (" << type << ')';
        out_ << ':';
    }
}

std::string RecordWriter::onlyName(const std::string& name) {
    Names& names = names_.back();
    const auto [same, fresh] = names.try_emplace(name, 2);
    if (fresh)
        return name;
    // Counted on and not from 2 again: a record may hold a hundred thousand of one name.
    std::string only;
    do
        only = name + '#' + std::to_string(same->second++);
    while (!names.try_emplace(only, 2).second);
    return only;
}

void RecordWriter::value(std::wstring_view characters) {
    const char* quote = json_ ? "\"" : "";
    out_ << (json_ ? "" : " ") << quote << printable(characters, json_) << quote;
}

void RecordWriter::endField() {
    if (!json_)
        out_ << '\n';
}
