// The statistics every benchmark reports its rounds with: the median, and the spread of the
// per-round ratios of two sides measured alternately.
#pragma once

#include <vector>

namespace vxbench {

/** The middle value; for an even count, the mean of the two middle ones. */
double median(std::vector<double> values);

/** The least, the median and the greatest of a set of values. */
struct spread
{
    double min = 0;
    double median = 0;
    double max = 0;
};

/** Round i of `library` over round i of `direct`, for as many rounds as both have. Rounds of the
 *  two sides measured alternately share the machine's speed of the moment, so each ratio is free
 *  of the drift between rounds. */
std::vector<double> ratiosOf(const std::vector<double>& library, const std::vector<double>& direct);

/** The spread of ratiosOf(library, direct); both must hold at least one round. */
spread ratioSpread(const std::vector<double>& library, const std::vector<double>& direct);

} // namespace vxbench
