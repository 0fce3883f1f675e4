// The argument splitter, any text into any room: nothing is written outside, what fits is split as
// with all the room, and no byte is made up.
#include "fuzz.h"
#include "fwall/enargv.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Split {
    // Vectors of just this room, so that a step outside is seen.
    Split(std::vector<char> text, std::size_t slots, std::size_t size)
        : argv(slots, unset), out(size), count(enargv(text, argv, out)) {
        require(count >= -1 && count < static_cast<int>(std::max<std::size_t>(slots, 1)));
        if (slots == 0) {
            return;
        }
        const auto* place = out.data();
        for (std::size_t i = 0; i < std::size_t(std::max(count, 0)); ++i) {
            require(argv[i] == place); // one behind the other
            words.emplace_back(argv[i]);
            place += words.back().size() + 1;
        }
        require(place <= out.data() + size && argv[words.size()] == nullptr);
    }

    static inline char other = 0;
    static inline char* const unset = &other;
    std::vector<char*> argv;
    std::vector<char> out;
    int count;
    std::vector<std::string> words;
};

bool mayStand(char c) {
    return (c >= 0x20 && c <= 0x7e) || (c >= '\t' && c <= '\r');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::vector<char> text(data + 2, data + size);
    const Split whole(text, text.size() + 2, text.size() + 1);
    require(whole.count >= 0);
    std::size_t bytes = 0;
    for (const std::string& word : whole.words) {
        require(std::all_of(word.begin(), word.end(), mayStand));
        bytes += word.size();
    }
    require(bytes <= text.size());

    const Split narrow(text, data[0] % 9U, data[1] % 65U);
    require(narrow.words.size() <= whole.words.size() &&
            std::equal(narrow.words.begin(), narrow.words.end(), whole.words.begin()));

    std::string terminated(text.begin(), std::find(text.begin(), text.end(), '\0'));
    const Split counted({terminated.begin(), terminated.end()}, whole.argv.size(), text.size() + 1);
    std::vector<char*> argv(whole.argv.size());
    std::vector<char> out(text.size() + 1);
    require(counted.count == enargv(terminated.data(), argv.data(), static_cast<int>(argv.size()),
                                    out.data(), static_cast<int>(out.size())));
    return 0;
}
