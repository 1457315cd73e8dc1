// The 16-byte digests of the direct reference and the transport's keyed digest on them. Internal
// to the reference library.
//
// The reference uses OpenSSL's low-level digests (deprecated in OpenSSL 3, still in libcrypto, so
// the library is compiled with OPENSSL_SUPPRESS_DEPRECATED): for a 48-byte message MD5 is about
// 1.8 times as fast as through EVP and allocates nothing.
#pragma once

#include "directTransport.h"

#include <openssl/sha.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <openssl/md5.h>

namespace vxdirect {

/** A run of bytes given to a digest. */
struct part
{
    const unsigned char* data;
    size_t size;
};

inline part of(const bytes& b)
{
    return {b.data(), b.size()};
}

/** MD5, the digest of the transport itself. */
struct md5Digest
{
    using context = MD5_CTX;

    static void init(context& ctx) { MD5_Init(&ctx); }

    static void update(context& ctx, const part& p) { MD5_Update(&ctx, p.data, p.size); }

    static void final(context& ctx, unsigned char* out) { MD5_Final(out, &ctx); }
};

/** SHA-256 cut to its first 16 bytes, the other digest a handshake can use. */
struct sha256x128Digest
{
    using context = SHA256_CTX;

    static void init(context& ctx) { SHA256_Init(&ctx); }

    static void update(context& ctx, const part& p) { SHA256_Update(&ctx, p.data, p.size); }

    static void final(context& ctx, unsigned char* out)
    {
        unsigned char full[SHA256_DIGEST_LENGTH];
        SHA256_Final(full, &ctx);
        std::copy(full, full + kBlock, out);
    }
};

/** The 16-byte digest of the concatenated `parts`. */
template <class Digest> void digest(std::initializer_list<part> parts, unsigned char* out)
{
    typename Digest::context ctx;
    Digest::init(ctx);
    for (const part& p : parts) {
        Digest::update(ctx, p);
    }
    Digest::final(ctx, out);
}

template <class Digest> bytes digest(std::initializer_list<part> parts)
{
    bytes out(kBlock);
    digest<Digest>(parts, out.data());
    return out;
}

/** The transport's keyed digest with a 16-byte key: H((key xor 0x36) || message); the outer
 *  H((key xor 0x5C) || value) is computed and dropped, as the library does. */
template <class Digest>
void keyed(const unsigned char* key, std::initializer_list<part> parts, unsigned char* out)
{
    block pad{};
    for (size_t i = 0; i < kBlock; ++i) {
        pad[i] = static_cast<unsigned char>(key[i] ^ 0x36U);
    }
    typename Digest::context ctx;
    Digest::init(ctx);
    Digest::update(ctx, {pad.data(), pad.size()});
    for (const part& p : parts) {
        Digest::update(ctx, p);
    }
    Digest::final(ctx, out);
    for (size_t i = 0; i < kBlock; ++i) {
        pad[i] = static_cast<unsigned char>(key[i] ^ 0x5CU);
    }
    block outer{};
    digest<Digest>({{pad.data(), pad.size()}, {out, kBlock}}, outer.data());
    // The outer value is dropped; keep the compiler from dropping its computation.
    asm volatile("" : : "r"(outer.data()) : "memory");
}

/** A 32-bit value hidden in a haystack, most significant byte first. */
inline void putLength(uint32_t value, unsigned char* at)
{
    at[0] = static_cast<unsigned char>(value >> 24U);
    at[1] = static_cast<unsigned char>(value >> 16U);
    at[2] = static_cast<unsigned char>(value >> 8U);
    at[3] = static_cast<unsigned char>(value);
}

inline uint32_t getLength(const unsigned char* at)
{
    return (uint32_t{at[0]} << 24U) | (uint32_t{at[1]} << 16U) | (uint32_t{at[2]} << 8U) |
           uint32_t{at[3]};
}

inline bytes md5(std::initializer_list<part> parts)
{
    return digest<md5Digest>(parts);
}

inline void md5(std::initializer_list<part> parts, unsigned char* out)
{
    digest<md5Digest>(parts, out);
}

inline void md5Keyed(const unsigned char* key, std::initializer_list<part> parts,
                     unsigned char* out)
{
    keyed<md5Digest>(key, parts, out);
}

} // namespace vxdirect
