// Two digests computed in one pass of the plug-in. Internal to the library.
#pragma once

#include "cryptoapi.h"

#include <cstdint>

namespace veltrix {

/** The digests of two whole messages: the same as Init, Update with the message and Final on
 *  `first` and then on `second`. A plug-in that offers vxPluginMdDigestPair computes the two
 *  side by side, which costs little more than one of them; without it, or when it declines, they
 *  are computed one after the other. */
bool digestPair(vxMd& first, const unsigned char* firstData, uint32_t firstLength, vxMd& second,
                const unsigned char* secondData, uint32_t secondLength);

} // namespace veltrix
