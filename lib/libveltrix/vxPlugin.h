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

/** The digest algorithms: X(identifier, id, name, bytes). `id` is what vxPluginMdOpen takes,
 *  `name` how an encrypted socket's hash mode and the program spell it, `bytes` the size of the
 *  digest. vxHashId's identifiers and every list of digests are generated from it, in this order:
 *  the order the program offers them in. */
#define VX_DIGEST_ALGORITHMS(X) \
    X(md5, 1, "md5", 16)        \
    X(sha1, 2, "sha1", 20)      \
    X(sha256, 3, "sha256", 32)  \
    X(sha384, 5, "sha384", 48)  \
    X(sha512, 4, "sha512", 64)  \
    X(sha256_128, 19, "sha256-128", 16)

/** The block ciphers, all of them on 16-byte blocks: X(identifier, id, name, bytes). `id` is
 *  what vxPluginCipherOpen takes, `name` how an encrypted socket's cipher mode and the program
 *  spell it, `bytes` the size of the key ("none" takes a key it does not use). vxCipherId's
 *  identifiers and every list of ciphers are generated from it. */
#define VX_CIPHER_ALGORITHMS(X) \
    X(none, 1, "none", 16)      \
    X(aes128, 2, "aes128", 16)  \
    X(aes192, 3, "aes192", 24)  \
    X(aes256, 4, "aes256", 32)

/** Every entry point: X(name, asked, result, (parameters)), in the order of vxReg's fields;
 *  `asked` is its place in the order the library asks a plug-in for them (see
 *  vxApi::populatePluginAccepts). The pointer types below, the fields of vxReg and the library's
 *  list of accepted entry points are generated from it.
 *
 *  All are required except the last three, which do in one call what the required ones do in
 *  several, for a plug-in that can do it faster:
 *  - vxPluginMdDigestPair: the digests of two whole messages, the same as vxPluginMdInit,
 *    vxPluginMdUpdate with the message and vxPluginMdFinal on each record;
 *  - vxPluginCipherEncryptBlocks and vxPluginCipherDecryptBlocks: `blocks` consecutive blocks of
 *    `in` into `out` (which may be `in`), the same as the one-block entry point on each.
 *  The library calls them only when the plug-in provides them, and falls back to the required
 *  entry points otherwise, or when they return false. */
#define VX_PLUGIN_ENTRY_POINTS(X)                                                              \
    X(vxPluginMdOpen, 0, bool, (vxPluginStorage * st, uint32_t algorithm))                     \
    X(vxPluginMdInit, 1, bool, (vxPluginStorage * st))                                         \
    X(vxPluginMdClose, 2, bool, (vxPluginStorage * st))                                        \
    X(vxPluginMdFinal, 3, bool, (vxPluginStorage * st))                                        \
    X(vxPluginMdUpdate, 4, bool,                                                               \
      (vxPluginStorage * st, const unsigned char* data, uint32_t length))                      \
    X(vxPluginMdDigest, 5, const vxByteVector*, (vxPluginStorage * st))                        \
    X(vxPluginMdDigestSize, 6, uint32_t, (vxPluginStorage * st))                               \
    X(vxPluginCipherOpen, 22, bool, (vxPluginStorage * st, uint32_t algorithm))                \
    X(vxPluginCipherClose, 23, bool, (vxPluginStorage * st))                                   \
    X(vxPluginCipherSetKey, 24, bool, (vxPluginStorage * st, const vxByteVector* key))         \
    X(vxPluginCipherGetKeySize, 25, uint32_t, (vxPluginStorage * st))                          \
    X(vxPluginCipherGetBlockSize, 28, uint32_t, (vxPluginStorage * st))                        \
    X(vxPluginCipherDecryptBlock, 27, bool,                                                    \
      (vxPluginStorage * st, const vxByteVector* in, vxByteVector* out))                       \
    X(vxPluginCipherEncryptBlock, 26, bool,                                                    \
      (vxPluginStorage * st, const vxByteVector* in, vxByteVector* out))                       \
    X(vxPluginRsaOpen, 7, bool, (vxPluginStorage * st))                                        \
    X(vxPluginRsaSign, 8, bool,                                                                \
      (vxPluginStorage * st, const vxByteVector* message, vxByteVector* signature))            \
    X(vxPluginRsaClose, 9, bool, (vxPluginStorage * st))                                       \
    X(vxPluginRsaVerify, 10, bool,                                                             \
      (vxPluginStorage * st, const vxByteVector* message, const vxByteVector* signature))      \
    X(vxPluginRsaKeySize, 11, uint32_t, (vxPluginStorage * st, uint32_t * size))               \
    X(vxPluginRsaKeyCheck, 12, bool, (vxPluginStorage * st))                                   \
    X(vxPluginRsaIsPublic, 13, bool, (vxPluginStorage * st))                                   \
    X(vxPluginRsaIsPrivate, 14, bool, (vxPluginStorage * st))                                  \
    X(vxPluginRsaBlindingOn, 15, bool, (vxPluginStorage * st))                                 \
    X(vxPluginRsaBlindingOff, 16, bool, (vxPluginStorage * st))                                \
    X(vxPluginRsaGetExponent, 17, std::string*, (vxPluginStorage * st, int index))             \
    X(vxPluginRsaPublicEncrypt, 18, int,                                                       \
      (vxPluginStorage * st, uint32_t length, const unsigned char* in, unsigned char* out))    \
    X(vxPluginRsaPrivateDecrypt, 19, int,                                                      \
      (vxPluginStorage * st, const unsigned char* in, unsigned char* out))                     \
    X(vxPluginRsaGeneratePrivate, 20, bool, (vxPluginStorage * st, uint32_t bits))             \
    X(vxPluginRsaMakeKeyFromExps, 21, bool,                                                    \
      (vxPluginStorage * st, const std::string* n, const std::string* e, const std::string* p, \
       const std::string* q, const std::string* d))                                            \
    X(vxPluginRandOpen, 29, bool, (vxPluginStorage * st, bool testMode))                       \
    X(vxPluginRandRead, 30, bool, (vxPluginStorage * st, uint32_t count, bool testMode))       \
    X(vxPluginRandClose, 31, bool, (vxPluginStorage * st))                                     \
    X(vxPluginRandGetBytes, 32, const vxByteVector*, (vxPluginStorage * st))                   \
    X(vxPluginRandGetNumFromZero, 33, uint32_t, (vxPluginStorage * st, int limit))             \
    X(vxPluginMdDigestPair, 34, bool,                                                          \
      (vxPluginStorage * first, const unsigned char* firstData, uint32_t firstLength,          \
       vxPluginStorage* second, const unsigned char* secondData, uint32_t secondLength))       \
    X(vxPluginCipherEncryptBlocks, 35, bool,                                                   \
      (vxPluginStorage * st, const unsigned char* in, unsigned char* out, uint32_t blocks))    \
    X(vxPluginCipherDecryptBlocks, 36, bool,                                                   \
      (vxPluginStorage * st, const unsigned char* in, unsigned char* out, uint32_t blocks))

/** Declares the pointer type of one entry point; defined for the list below only. */
// NOLINTNEXTLINE(bugprone-macro-parentheses): `params` is a parenthesised parameter list.
#define VX_PLUGIN_POINTER_TYPE(name, asked, result, params) using name##_t = result(*) params;
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
