#include "fwall/hexesc.h"
#include "retryq/Commands.h"
#include "retryq/Json.h"
#include "retryq/Table.h"

#include <array>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 512; // bytes of a value

std::string placeText(std::int32_t line) {
    return line == 0 ? "default" : "line " + std::to_string(line);
}

std::string orDash(const std::string& text) {
    return text.empty() ? "-" : printable(text, kShown);
}

Json toJson(const Setting& setting, const RuleTable& table) {
    Json object{
        {"key", setting.key},          {"value", setting.repeats() ? "" : table.value(setting)},
        {"line", table.line(setting)}, {"unit", setting.unit},
        {"default", setting.builtIn},  {"meaning", setting.meaning}};
    if (setting.most != 0) {
        object["range"] = rangeText(setting);
    }
    if (*setting.choices != '\0') {
        object["choices"] = setting.choices;
    }
    return object;
}

} // namespace

void reportSettings(const Context& context) {
    Table table(context.screen,
                {{"KEY", 27}, {"VALUE", 10, false, Table::Fit::Wrap}, {"FROM", 7}, {"UNIT", 9}});
    std::vector<std::vector<std::string>> rows;
    for (const Setting& setting : settings()) {
        if (!setting.repeats()) {
            rows.push_back({setting.key, orDash(context.table.value(setting)),
                            placeText(context.table.line(setting)), setting.unit});
        }
    }
    table.print(rows);
}

int showSettings(const Context& context) {
    Table table(context.screen, {{"KEY", 27},
                                 {"VALUE", 10, false, Table::Fit::Wrap},
                                 {"FROM", 7},
                                 {"UNIT", 9},
                                 {"MEANING", 20, false, Table::Fit::Wrap}});
    std::vector<std::vector<std::string>> rows;
    for (const Setting& setting : settings()) {
        if (context.json) {
            writeJson(context.screen.out, toJson(setting, context.table));
            continue;
        }
        const std::string value = setting.repeats() ? "" : context.table.value(setting);
        rows.push_back({setting.key, orDash(value), placeText(context.table.line(setting)),
                        orDash(setting.unit), setting.meaning});
    }
    if (!context.json) {
        table.print(rows);
    }
    return kDone;
}

} // namespace Retryq
