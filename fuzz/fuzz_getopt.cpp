// The option parser on any words, with a caller that moves its globals by hand: it ends, and never
// reads outside the words.

#include "fuzz_input.h"
#include "iosched/util.h"

#include <memory>
#include <vector>

namespace {

// A word in an allocation of its own, so that the sanitizer sees a read behind its end.
std::unique_ptr<char[]> takeWord(FuzzInput &input) {
    const size_t length = input.below(6);
    auto word = std::make_unique<char[]>(length + 1);
    for (size_t i = 0; i < length; ++i) {
        static const char kLetters[] = "-ab:c\xff=";
        word[i] = kLetters[input.below(sizeof kLetters - 1)];
    }
    return word;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzInput input(data, size);
    std::vector<std::unique_ptr<char[]>> words;
    std::vector<char *> vector;
    const uint32_t count = 1 + input.below(6);
    for (uint32_t i = 0; i < count; ++i)
        vector.push_back(words.emplace_back(takeWord(input)).get());
    vector.push_back(nullptr);
    const std::unique_ptr<char[]> optstring = takeWord(input);

    ZORoptind = 1;
    ZORopterr = 0;
    ZORoptreset = 1;
    for (int step = 0; step < 64; ++step) {
        const int option = ZORgetopt(static_cast<int>(count), vector.data(), optstring.get());
        require(ZORoptind >= 1 && ZORoptind <= static_cast<int>(count) + 1,
                "the index stays inside");
        if (option == -1 && input.empty()) return 0;
        if (input.below(4) == 0) ZORoptind = 1 + static_cast<int>(input.below(count));
        if (input.below(4) == 0) ZORoptreset = 1;
    }
    return 0;
}
