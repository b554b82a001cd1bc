#include <opccore/caselessCompare.hpp>

#include <algorithm>

namespace opc {

namespace {

char16_t toLower(char16_t unit) {
    return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
}

} // namespace

int caselessCompare(std::u16string const& first, std::u16string const& second) {
    auto const common = std::min(first.size(), second.size());
    for (std::size_t i = 0; i < common; ++i) {
        int const difference = toLower(first[i]) - toLower(second[i]);
        if (difference != 0)
            return difference;
    }
    if (first.size() < second.size())
        return -1;
    return first.size() > second.size() ? 1 : 0;
}

} // namespace opc
