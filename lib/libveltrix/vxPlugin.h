/// @file
/// The crypto plug-in interface: the storage record and the signature of every entry point.
/// A plug-in named N exports "vx_init" and, for each entry point E it announces, "N_E".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace veltrix {

class pluginLoader;
class vxPluginProvides;

/** Embedded in every crypto object and passed as the first argument of every entry point. The
 *  library owns `isopen` (the plug-in must not touch it); `handle` is the plug-in's own. */
struct vxPluginStorage
{
    bool isopen = false;    ///< the library's: whether the plug-in opened this state
    void* handle = nullptr; ///< the plug-in's own state
};

/** The byte vectors passed to and from the plug-in. */
using vxByteVector = std::vector<unsigned char>;

/** Every entry point in registry order: X(name, result, (parameters)). The pointer types below
 *  and the fields of vxReg are generated from it.
 *
 *  All are required except the last three, which do in one call what the required ones do in
 *  several, for a plug-in that can do it faster:
 *  - vxPluginMdDigestPair: the digests of two whole messages, the same as vxPluginMdInit,
 *    vxPluginMdUpdate with the message and vxPluginMdFinal on each record;
 *  - vxPluginCipherEncryptBlocks and vxPluginCipherDecryptBlocks: `blocks` consecutive blocks of
 *    `in` into `out` (which may be `in`), the same as the one-block entry point on each.
 *  The library calls them only when the plug-in provides them, and falls back to the required
 *  entry points otherwise, or when they return false. */
#define VX_PLUGIN_ENTRY_POINTS(X)                                                                 \
    X(vxPluginMdOpen, bool, (vxPluginStorage * st, uint32_t algorithm))                           \
    X(vxPluginMdInit, bool, (vxPluginStorage * st))                                               \
    X(vxPluginMdClose, bool, (vxPluginStorage * st))                                              \
    X(vxPluginMdFinal, bool, (vxPluginStorage * st))                                              \
    X(vxPluginMdUpdate, bool, (vxPluginStorage * st, const unsigned char* data, uint32_t length)) \
    X(vxPluginMdDigest, const vxByteVector*, (vxPluginStorage * st))                              \
    X(vxPluginMdDigestSize, uint32_t, (vxPluginStorage * st))                                     \
    X(vxPluginCipherOpen, bool, (vxPluginStorage * st, uint32_t algorithm))                       \
    X(vxPluginCipherClose, bool, (vxPluginStorage * st))                                          \
    X(vxPluginCipherSetKey, bool, (vxPluginStorage * st, const vxByteVector* key))                \
    X(vxPluginCipherGetKeySize, uint32_t, (vxPluginStorage * st))                                 \
    X(vxPluginCipherGetBlockSize, uint32_t, (vxPluginStorage * st))                               \
    X(vxPluginCipherDecryptBlock, bool,                                                           \
      (vxPluginStorage * st, const vxByteVector* in, vxByteVector* out))                          \
    X(vxPluginCipherEncryptBlock, bool,                                                           \
      (vxPluginStorage * st, const vxByteVector* in, vxByteVector* out))                          \
    X(vxPluginRsaOpen, bool, (vxPluginStorage * st))                                              \
    X(vxPluginRsaSign, bool,                                                                      \
      (vxPluginStorage * st, const vxByteVector* message, vxByteVector* signature))               \
    X(vxPluginRsaClose, bool, (vxPluginStorage * st))                                             \
    X(vxPluginRsaVerify, bool,                                                                    \
      (vxPluginStorage * st, const vxByteVector* message, const vxByteVector* signature))         \
    X(vxPluginRsaKeySize, uint32_t, (vxPluginStorage * st, uint32_t * size))                      \
    X(vxPluginRsaKeyCheck, bool, (vxPluginStorage * st))                                          \
    X(vxPluginRsaIsPublic, bool, (vxPluginStorage * st))                                          \
    X(vxPluginRsaIsPrivate, bool, (vxPluginStorage * st))                                         \
    X(vxPluginRsaBlindingOn, bool, (vxPluginStorage * st))                                        \
    X(vxPluginRsaBlindingOff, bool, (vxPluginStorage * st))                                       \
    X(vxPluginRsaGetExponent, std::string*, (vxPluginStorage * st, int index))                    \
    X(vxPluginRsaPublicEncrypt, int,                                                              \
      (vxPluginStorage * st, uint32_t length, const unsigned char* in, unsigned char* out))       \
    X(vxPluginRsaPrivateDecrypt, int,                                                             \
      (vxPluginStorage * st, const unsigned char* in, unsigned char* out))                        \
    X(vxPluginRsaGeneratePrivate, bool, (vxPluginStorage * st, uint32_t bits))                    \
    X(vxPluginRsaMakeKeyFromExps, bool,                                                           \
      (vxPluginStorage * st, const std::string* n, const std::string* e, const std::string* p,    \
       const std::string* q, const std::string* d))                                               \
    X(vxPluginRandOpen, bool, (vxPluginStorage * st, bool testMode))                              \
    X(vxPluginRandRead, bool, (vxPluginStorage * st, uint32_t count, bool testMode))              \
    X(vxPluginRandClose, bool, (vxPluginStorage * st))                                            \
    X(vxPluginRandGetBytes, const vxByteVector*, (vxPluginStorage * st))                          \
    X(vxPluginRandGetNumFromZero, uint32_t, (vxPluginStorage * st, int limit))                    \
    X(vxPluginMdDigestPair, bool,                                                                 \
      (vxPluginStorage * first, const unsigned char* firstData, uint32_t firstLength,             \
       vxPluginStorage* second, const unsigned char* secondData, uint32_t secondLength))          \
    X(vxPluginCipherEncryptBlocks, bool,                                                          \
      (vxPluginStorage * st, const unsigned char* in, unsigned char* out, uint32_t blocks))       \
    X(vxPluginCipherDecryptBlocks, bool,                                                          \
      (vxPluginStorage * st, const unsigned char* in, unsigned char* out, uint32_t blocks))

/** Declares the pointer type of one entry point; defined for the list below only. */
// NOLINTNEXTLINE(bugprone-macro-parentheses): `params` is a parenthesised parameter list.
#define VX_PLUGIN_POINTER_TYPE(name, result, params) using name##_t = result(*) params;
/** @name Entry-point pointer types
 *  vxPluginMdOpen_t and so on: the pointer type of each entry point. */
///@{
/** The pointer type of the entry point whose name is this one's without "_t". */
VX_PLUGIN_ENTRY_POINTS(VX_PLUGIN_POINTER_TYPE)
///@}
#undef VX_PLUGIN_POINTER_TYPE

/** Marks a plug-in's exported entry points: unmangled and visible. */
#define VX_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

/** The plug-in's initialisation entry point, exported unmangled as "vx_init". */
using vx_init_t = bool (*)(pluginLoader* loader, vxPluginProvides* provides);

} // namespace veltrix
