#include "nearest.h"

#include "catalogue.h"

#include <algorithm>
#include <numeric>

namespace quarnctl {

namespace {

constexpr std::size_t MOST_SUGGESTIONS = 3;

char small(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

std::string small(std::string_view text)
{
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char letter) { return small(letter); });
    return result;
}

struct Candidate {
    unsigned distance;
    std::string_view key;
};

// A part of a key is what people remember of it: "MTU", "HTTP".
unsigned distance_to(std::string_view wanted, std::string_view key)
{
    constexpr std::size_t SHORTEST_PART = 3;
    if (wanted.size() >= SHORTEST_PART && small(key).find(small(wanted)) != std::string::npos)
        return 0;
    return edit_distance(wanted, key);
}

} // namespace

unsigned edit_distance(std::string_view first, std::string_view second)
{
    std::vector<unsigned> before_last(second.size() + 1);
    std::vector<unsigned> last(second.size() + 1);
    std::vector<unsigned> row(second.size() + 1);
    std::iota(last.begin(), last.end(), 0U);
    for (std::size_t i = 1; i <= first.size(); ++i) {
        row[0] = static_cast<unsigned>(i);
        for (std::size_t j = 1; j <= second.size(); ++j) {
            const bool is_same = small(first[i - 1]) == small(second[j - 1]);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (is_same ? 0U : 1U)});
            const bool is_swapped = i > 1 && j > 1 && small(first[i - 1]) == small(second[j - 2]) &&
                                    small(first[i - 2]) == small(second[j - 1]);
            if (is_swapped)
                row[j] = std::min(row[j], before_last[j - 2] + 1);
        }
        before_last.swap(last);
        last.swap(row);
    }
    return last.back();
}

std::vector<std::string> nearest_keys(std::string_view key)
{
    // Longer texts are no slip of the fingers, and cost time.
    constexpr std::size_t LONGEST_KEY = 200;
    if (key.empty() || key.size() > LONGEST_KEY)
        return {};
    const auto largest_distance = static_cast<unsigned>(std::max<std::size_t>(3, key.size() / 3));
    std::vector<Candidate> candidates;
    for (const Setting& setting : all_settings()) {
        const unsigned distance = distance_to(key, setting.key);
        if (distance <= largest_distance)
            candidates.push_back({distance, setting.key});
    }
    std::ranges::stable_sort(candidates, {}, &Candidate::distance);
    candidates.resize(std::min(candidates.size(), MOST_SUGGESTIONS));
    std::vector<std::string> keys;
    keys.reserve(candidates.size());
    for (const Candidate& candidate : candidates)
        keys.emplace_back(candidate.key);
    return keys;
}

std::string suggestion_for(std::string_view key)
{
    const std::vector<std::string> keys = nearest_keys(key);
    std::string text;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (i > 0)
            text += i + 1 == keys.size() ? " or " : ", ";
        text += keys[i];
    }
    return text.empty() ? text : "; did you mean " + text + "?";
}

} // namespace quarnctl
