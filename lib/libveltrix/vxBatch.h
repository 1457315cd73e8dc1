// Work handed to the plug-in in one call where it offers that, else in the usual steps. Internal
// to the library.
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

/** `blocks` consecutive cipher blocks of `in` encrypted (or decrypted) into `out`, which may be
 *  `in`: the same as Encrypt (Decrypt) on each block, in one plug-in call when the plug-in
 *  offers it. */
bool cipherBlocks(vxCipher& cipher, const unsigned char* in, unsigned char* out, uint32_t blocks,
                  bool encrypt);

/** The digest that `md`'s last Final (or digestPair) left, read in place: `size` bytes, or null
 *  when the plug-in holds fewer. */
const unsigned char* digestBytes(vxMd& md, uint32_t size);

} // namespace veltrix
