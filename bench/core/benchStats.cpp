#include "benchStats.h"

#include <algorithm>
#include <cstddef>

namespace vxbench {

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::vector<double> ratiosOf(const std::vector<double>& library, const std::vector<double>& direct)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(library.size(), direct.size()); ++i) {
        ratios.push_back(library[i] / direct[i]);
    }
    return ratios;
}

spread ratioSpread(const std::vector<double>& library, const std::vector<double>& direct)
{
    const std::vector<double> ratios = ratiosOf(library, direct);
    const auto [least, greatest] = std::minmax_element(ratios.begin(), ratios.end());
    return {*least, median(ratios), *greatest};
}

} // namespace vxbench
