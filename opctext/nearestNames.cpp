#include <opctext/nearestNames.hpp>

#include <algorithm>
#include <numeric>
#include <utility>

namespace opctext {

namespace {

std::string toLower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

bool endsWith(std::string const& text, std::string const& end) {
    return !end.empty() && text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// How many bytes must be inserted, removed or changed to make one text the other.
std::size_t editDistance(std::string const& first, std::string const& second) {
    std::vector<std::size_t> row(second.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < first.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < second.size(); ++j) {
            auto const changed = diagonal + (first[i] == second[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

std::vector<std::string> nearestNames(std::string const& wanted, std::vector<std::string> const& names) {
    constexpr std::size_t MostNames = 3;
    constexpr std::size_t LongestCompared = 1000; // hostile names may be of any length
    auto const asked = toLower(wanted);
    std::vector<std::pair<std::size_t, std::string>> found; // distance, name
    for (auto const& name : names) {
        auto const candidate = toLower(name);
        if (endsWith(candidate, asked))
            found.emplace_back(0, name);
        else if (!asked.empty() && candidate.find(asked) != std::string::npos)
            found.emplace_back(1, name);
        else if (asked.size() <= LongestCompared && candidate.size() <= LongestCompared)
            found.emplace_back(editDistance(asked, candidate), name);
    }
    auto const far = std::max<std::size_t>(2, asked.size() / 3) + 1;
    found.erase(std::remove_if(found.begin(), found.end(), [&](auto const& entry) { return entry.first >= far; }),
                found.end());
    std::stable_sort(found.begin(), found.end(), [](auto const& a, auto const& b) { return a.first < b.first; });

    std::vector<std::string> nearest;
    for (auto const& entry : found) {
        if (nearest.size() < MostNames)
            nearest.push_back(entry.second);
    }
    return nearest;
}

} // namespace opctext
