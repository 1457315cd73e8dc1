/// @file
/// The secure transport: byte order, entangled key pairs, key expansion, the chained IV mask, the
/// hidden length, the per-direction ciphers and keys, and the encrypted packet header.
///
/// Both ends of a connection compute every value here in lock-step: the chain keys are ratcheted
/// once per packet and direction, the hiding offsets are reseeded with every haystack and the IV
/// mask runs on across blocks and packets. A lost, reordered or altered packet therefore breaks
/// the connection for good.
#pragma once

#include "cryptoapi.h"
#include "network.h"
#include "vxBytes.h"

#include <cstddef>
#include <cstdint>

namespace veltrix {

class vxNetSocket;

/** A command packet hides this mark | its code in the size field of its header. A receiver
 *  knows one by the upper half of the size it reads back: kCommandMark >> 16. */
inline constexpr uint32_t kCommandMark = 0xC0DE0000U;

/** One byte string in two forms, native and network; the conversion reverses every group of
 *  four bytes. A form is converted only into an empty form, so a stale form survives until
 *  Clear. Only the latch is checked, never the open state. */
class VX_API vxNetByteOrder : public vxBase
{
public:
    vxBytes native;  ///< the native form
    vxBytes network; ///< the network form

    vxNetByteOrder();
    LVX_NOT_COPYABLE(vxNetByteOrder);
    ~vxNetByteOrder() override;

    /** Replaces `native`. False without a message for a length that is not a multiple of 4;
     *  refuses while latched. */
    [[nodiscard]] bool SetNative(const vxBytes& b);
    /** The same from `len` bytes at `p`. */
    [[nodiscard]] bool SetNative(const unsigned char* p, uint32_t len);
    /** Replaces `network`; as SetNative. */
    [[nodiscard]] bool SetNetwork(const vxBytes& b);
    /** The same from `len` bytes at `p`. */
    [[nodiscard]] bool SetNetwork(const unsigned char* p, uint32_t len);
    /** The native form, converted from `network` when `native` is empty. False without a
     *  message when both forms are empty; refuses while latched. */
    [[nodiscard]] bool GetNative(vxBytes& out);
    /** The network form, converted from `native` when `network` is empty; as GetNative. */
    [[nodiscard]] bool GetNetwork(vxBytes& out);
    /** Empties both forms. */
    void Clear();

private:
    [[nodiscard]] VX_NO_EXPORT bool setForm(vxBytes& form, const unsigned char* p, size_t len);
    [[nodiscard]] VX_NO_EXPORT bool getForm(vxBytes& form, const vxBytes& other, vxBytes& out);
};

/** A pair of byte strings and a side flag. The end opened with true calls `magicOne` its magic
 *  and `magicTwo` the inverse; the end opened with false the other way round, so two ends opened
 *  with opposite flags agree on which member belongs to which direction. No byte is ever
 *  inverted: the inverse is the other member. None of the operations can fail. */
class VX_API vxNetEntangledObj : public vxBase
{
public:
    bool side = false; ///< the flag Open stored
    vxBytes magicOne;  ///< the magic of the end opened with true
    vxBytes magicTwo;  ///< the magic of the end opened with false

    vxNetEntangledObj();
    LVX_NOT_COPYABLE(vxNetEntangledObj);
    ~vxNetEntangledObj() override;

    using vxBase::Open;
    /** Stores the flag; true. Owners open it through LVX_CALL_OPEN like any member. */
    [[nodiscard]] bool Open(bool whichSide);
    /** A whole copy of the member of this side; true. */
    [[nodiscard]] bool GetMagic(vxBytes& out);
    /** A whole copy of the other member; true. */
    [[nodiscard]] bool GetInverseMagic(vxBytes& out);
    /** Replaces the member of this side; true. */
    [[nodiscard]] bool SetMagic(const vxBytes& in);
};

/** Stretches key material of any length to the cipher's key size with 16-byte MD5 digests. */
class VX_API vxNetTransportKeyExpander : public vxBase
{
public:
    uint32_t TargetSize = 0; ///< the size to reach: 16, 24 or 32
    vxMd md;                 ///< the MD5 digest of the expansion
    vxHashId hashId;         ///< MD5

    vxNetTransportKeyExpander();
    LVX_NOT_COPYABLE(vxNetTransportKeyExpander);
    ~vxNetTransportKeyExpander() override;

    using vxBase::Open;
    /** Opens the MD5 digest and stores the target size (16, 24 or 32). */
    [[nodiscard]] bool Open(uint32_t targetSize);
    /** Replaces `eb` by its expansion: unchanged when it already has the target size, else
     *  D1 = H(even bytes || odd bytes), and for 24 or 32 bytes D2 = H(even || D1 || odd)
     *  interleaved with D1 as D2[0] D1[0] D2[1] D1[1] ... Fails with the standard guard's texts
     *  or "eb.bytes.size() == TargetSize" for any other target size. */
    [[nodiscard]] bool ExpandBytes(vxBytes& eb);
    [[nodiscard]] bool Close() override;
};

/** The IV mask of one direction: XORed onto every cipher block after encryption, then replaced
 *  by HMAC(key IV, E || IV) of that block's cipher output E. */
class VX_API vxNetTransportHmacIV : public vxBase
{
public:
    uint32_t size = 0; ///< the bytes of a block the mask covers
    vxBytes iv;        ///< the current mask
    vxBytes scratch;   ///< the block being masked
    vxHashId hashId;   ///< MD5
    vxHmacMd hmac;     ///< the keyed digest that advances the mask

    vxNetTransportHmacIV();
    LVX_NOT_COPYABLE(vxNetTransportHmacIV);
    ~vxNetTransportHmacIV() override;

    using vxBase::Open;
    /** Stores the number of masked bytes (16 in the transport) and opens the MD5 keyed digest. */
    [[nodiscard]] bool Open(uint32_t maskSize);
    /** Replaces the mask's bytes; true. */
    [[nodiscard]] bool SetIV(const vxBytes& newIv);
    /** Send side: `block` (the cipher output E) becomes its first `size` bytes XOR the mask, and
     *  the mask advances. A block or mask shorter than `size` throws std::out_of_range. Refuses
     *  while latched. */
    [[nodiscard]] bool Mutate(vxBytes& block);
    /** Receive side, the inverse of Mutate: `block` becomes E again and the mask advances the
     *  same way. */
    [[nodiscard]] bool Restore(vxBytes& block);
    /** Closes the keyed digest and wipes the mask. */
    [[nodiscard]] bool Close() override;

private:
    friend class vxNetTransportKeys; // runs a packet's blocks through sendBlocks and receiveBlocks

    /** The keyed digest of the next mask, HMAC(key IV, E || IV), for the cipher output E of
     *  `length` bytes; the digest's bytes, valid until the next digest, or null on failure. */
    VX_NO_EXPORT const unsigned char* advance(const unsigned char* cipherOutput, size_t length);
    /** out = the first `size` bytes of `in` XOR the mask; `out` may be `in`. */
    VX_NO_EXPORT void maskWith(const unsigned char* in, unsigned char* out) const;
    /** The mask becomes the digest advance returned. */
    VX_NO_EXPORT void takeMask(const unsigned char* next);
    /** Mutate on `count` consecutive blocks of `size` bytes, in place. */
    [[nodiscard]] VX_NO_EXPORT bool sendBlocks(unsigned char* blocks, size_t count);
    /** Restore on `count` consecutive blocks of `size` bytes, in place. */
    [[nodiscard]] VX_NO_EXPORT bool receiveBlocks(unsigned char* blocks, size_t count);

    vxBytes innerMessage;      ///< the message of the inner digest being computed
    vxBytes outerMessage;      ///< the message of the outer digest still to compute
    bool outerWaiting = false; ///< outerMessage holds the last block's outer message
};

/** Hides a 32-bit value, most significant byte first, at an offset of 0 to 12 inside a 16-byte
 *  haystack; the offset is the next value of a sequence that both ends seed alike. */
class VX_API vxNetTransportAntiCrib : public vxBase
{
public:
    uint32_t top = 0;    ///< the largest offset Hide accepts
    uint32_t value = 0;  ///< the value of the last Find
    vxSequence sequence; ///< the offsets, seeded alike at both ends

    vxNetTransportAntiCrib();
    LVX_NOT_COPYABLE(vxNetTransportAntiCrib);
    ~vxNetTransportAntiCrib() override;

    using vxBase::Open;
    /** Stores the largest offset Hide accepts and opens the sequence with it. */
    [[nodiscard]] bool Open(uint32_t largest);
    /** The sequence's Seed: fails with "inValue.bytes.size() >= 4". */
    [[nodiscard]] bool Seed(const vxBytes& seed);
    /** Writes `value` at the next offset; the haystack is cut to 16 bytes. A haystack shorter
     *  than 16 bytes throws std::out_of_range; an offset above `top` fails with
     *  "offset <= top". */
    [[nodiscard]] bool Hide(uint32_t hidden, vxBytes& haystack);
    /** Reads the value at the next offset into `value`, missing bytes read as zero. Fails with
     *  "(haystack.bytes.size() > 1 )", "(haystack.bytes.size() <= 16)" or "(offset <= 12 )". */
    [[nodiscard]] bool Find(const vxBytes& haystack);
    /** The value of the last Find; true. */
    [[nodiscard]] bool GetValue(uint32_t& out);
    [[nodiscard]] bool Close() override;
};

/** The two block ciphers and the two IV masks of a connection. The end opened with true sends
 *  with cipher B and IV B and receives with A; the end opened with false the other way round. */
class VX_API vxNetTransportCiphers : public vxBase
{
public:
    bool side = false;                  ///< the flag Open stored
    uint32_t blockSize = 0;             ///< the cipher's block size in bytes
    uint32_t keySize = 0;               ///< the cipher's key size in bytes
    vxNetTransportKeyExpander expander; ///< stretches each derived key to the key size
    vxCipher cipherA;                   ///< sends at the end opened with false
    vxCipher cipherB;                   ///< sends at the end opened with true
    vxNetTransportHmacIV ivA;           ///< the mask of cipher A's direction
    vxNetTransportHmacIV ivB;           ///< the mask of cipher B's direction

    vxNetTransportCiphers();
    LVX_NOT_COPYABLE(vxNetTransportCiphers);
    ~vxNetTransportCiphers() override;

    using vxBase::Open;
    /** Opens both IVs with 16, both ciphers with `id`, reads the block and key sizes and opens
     *  the expander with the key size. */
    [[nodiscard]] bool Open(const vxCipherId& id, bool whichSide);
    /** Key A = H(even || odd || even), key B = H(odd || even || odd) of `material`'s even and odd
     *  indexed bytes, each expanded to the key size. */
    [[nodiscard]] bool SetInitialKeys(const vxBytes& material);
    /** IV A and IV B derived as the keys are, not expanded. */
    [[nodiscard]] bool SetInitialIVs(const vxBytes& material);
    /** The cipher of the sending or the receiving direction at this end. */
    vxCipher* GetLocalizedCB(bool sending);
    /** The IV mask of the sending or the receiving direction at this end. */
    vxNetTransportHmacIV* GetLocalizedIV(bool sending);
    /** The key size into `size`; runs the standard guard. */
    [[nodiscard]] bool GetKeySize(uint32_t& size);
    /** The block size into `size`; runs the standard guard. */
    [[nodiscard]] bool GetBlockSize(uint32_t& size);
    /** The cipher number, in `id.value`. */
    [[nodiscard]] bool GetCipherID(vxCipherId& id);
    [[nodiscard]] bool Close() override;

private:
    [[nodiscard]] VX_NO_EXPORT bool deriveSplitPair(const vxBytes& material, vxBytes& first,
                                                    vxBytes& second);
};

/** The key state of one connection: ciphers with chained block encryption, the pair of HMAC
 *  chain keys, the pair of entropy pools, and re-seeding. */
class VX_API vxNetTransportKeys : public vxBase
{
public:
    vxHashId hashId;                    ///< MD5
    vxMd md;                            ///< the MD5 digest of ReSeed and of the pools
    vxHmacMd hmac;                      ///< the keyed digest of the chain-key ratchet
    vxBytes scratch;                    ///< working bytes; wiped by ReSeed and Close
    vxNetTransportKeyExpander expander; ///< stretches the initial key to the key size
    vxNetEntangledObj chain;       ///< magicOne and magicTwo: the chain keys of the two directions
    vxNetEntangledObj entropy;     ///< magicOne and magicTwo: entropy pools One and Two
    vxNetTransportCiphers ciphers; ///< the ciphers and IV masks of both directions
    uint32_t blockSize = 0;        ///< the cipher's block size in bytes

    vxNetTransportKeys();
    LVX_NOT_COPYABLE(vxNetTransportKeys);
    ~vxNetTransportKeys() override;

    using vxBase::Open;
    /** Opens the MD5 digests, both pairs with `side`, the ciphers with `id` and `side`, and the
     *  expander with the ciphers' key size. */
    [[nodiscard]] bool Open(const vxCipherId& id, bool side);
    /** Expands `key` and hands it to the ciphers' SetInitialKeys. */
    [[nodiscard]] bool SetInitialKey(const vxBytes& key);
    /** Hands `iv` to the ciphers' SetInitialIVs. */
    [[nodiscard]] bool SetInitialIV(const vxBytes& iv);
    /** Encrypts the whole blocks of `in` into `out` in the sending direction; trailing bytes of a
     *  partial block are dropped. Fails with "cb != 0", "HmacIV != 0" or "Boolean return value
     *  failed.". */
    [[nodiscard]] bool Encrypt(const vxBytes& in, vxBytes& out);
    /** The same with `*in`. */
    [[nodiscard]] bool Encrypt(const vxBytes* in, vxBytes& out);
    /** Decrypts in the receiving direction; as Encrypt. */
    [[nodiscard]] bool Decrypt(const vxBytes& in, vxBytes& out);
    /** magicOne = HMAC(key magicOne, magicOne || magicOne || data). */
    [[nodiscard]] bool UpdateHmacOne(const vxBytes& data);
    /** magicTwo = HMAC(key magicTwo, magicTwo || magicTwo || data). */
    [[nodiscard]] bool UpdateHmacTwo(const vxBytes& data);
    /** Folds `data` into pool One. The digest is not read back, so the pool ends empty. */
    [[nodiscard]] bool UpdateEntropyPoolOne(const vxBytes& data);
    /** Folds `data` into pool Two; as UpdateEntropyPoolOne. */
    [[nodiscard]] bool UpdateEntropyPoolTwo(const vxBytes& data);
    /** Replaces every key, IV, chain key and pool from the two seeds; both ends must pass them in
     *  the same order. Fails with "( seed0.bytes.size() > 0 )" or "( seed1.bytes.size() > 0 )". */
    [[nodiscard]] bool ReSeed(const vxBytes& seed0, const vxBytes& seed1);
    /** The ciphers' key size into `size`. */
    [[nodiscard]] bool GetKeySize(uint32_t& size);
    [[nodiscard]] bool Close() override;

private:
    /** The block loop of both directions: sending, E = cipher(P) and then the mask; receiving,
     *  the mask removed and then the cipher inverted. */
    [[nodiscard]] VX_NO_EXPORT bool cryptBlocks(const vxBytes& in, vxBytes& out, bool sending);
    [[nodiscard]] VX_NO_EXPORT bool ratchet(vxBytes& chainKey, const vxBytes& data);
    [[nodiscard]] VX_NO_EXPORT bool foldEntropy(vxBytes& pool, const vxBytes& data);
};

/** Builds and reads the 48-byte encrypted header of a packet: HMAC of the haystack under the
 *  sender's chain key K, the 16-byte haystack with the length hidden in it, and the HMAC of the
 *  padded body under K', the chain key ratcheted with this header. Every operation with a
 *  result runs the standard guard. */
class VX_API vxNetTransportHeader : public vxBase
{
public:
    bool side = false;                   ///< the flag Open stored
    uint32_t payloadSize = 0;            ///< the payload's bytes: given, or found in the haystack
    uint32_t sizeWithPadding = 0;        ///< payloadSize rounded up to a multiple of 16
    vxBytes haystack;                    ///< the 16 bytes that hide the length
    vxBytes bodyPadding;                 ///< the random bytes after the payload
    vxBytes encryptedHeader;             ///< the 48 bytes to send
    vxRand rand;                         ///< the source of the padding and the haystacks
    vxHashId hashId;                     ///< MD5
    vxNetByteOrder byteOrder;            ///< carries the plain header bytes to the cipher and back
    vxNetTransportAntiCrib inboundCrib;  ///< finds the length in received haystacks
    vxNetTransportAntiCrib outboundCrib; ///< hides the length in sent haystacks
    vxBytes hMacHead;                    ///< the head HMAC
    vxBytes hMacBody;                    ///< the body HMAC
    vxHmacMd bodyHmac;                   ///< computes the body HMAC
    vxHmacMd headHmac;                   ///< computes the head HMAC
    vxHmacMd checkHmac;                  ///< checks received HMACs
    vxBytes tempBytes1;                  ///< working bytes
    vxBytes tempBytes2;                  ///< working bytes
    vxBytes tempBytes3;                  ///< working bytes
    /** The header before encryption: head HMAC, haystack and body HMAC, 16 bytes each. */
    unsigned char plainHeader[VX_HEADER_WIRE_SIZE] = {};

    vxNetTransportHeader();
    LVX_NOT_COPYABLE(vxNetTransportHeader);
    ~vxNetTransportHeader() override;

    using vxBase::Open;
    /** Opens the MD5 identifier, the random source, both anti-cribs with 12 and the three keyed
     *  digests, then stores `side` (the same value the keys were opened with). */
    [[nodiscard]] bool Open(bool whichSide);
    /** Zeroes the sizes and empties every buffer. */
    void Clear();
    /** Send side of a data packet: sizes, random padding, hidden length, HMACs and the encrypted
     *  header, in that order. The caller then encrypts payload || padding with the same keys. */
    [[nodiscard]] bool CreateFromPayload(vxNetTransportKeys& keys, const vxBytes& payload);
    /** Builds a command packet (kCommandMark | cmd hidden) and sends it: the 48-byte header, then
     *  an empty body. Its body HMAC is HMAC(key K', K), since the body buffer is the one the chain
     *  key K is read into. */
    [[nodiscard]] bool CreateCmdMessage(uint32_t cmd, vxNetTransportKeys& keys,
                                        vxNetSocket* socket);
    /** Pool One, the outgoing sequence seed, the HMACs and the encrypted header. */
    [[nodiscard]] bool CreateCommonHeader(vxNetTransportKeys& keys, const vxBytes& payload);
    /** Receives 48 bytes, decrypts and checks the header, finds the length and ratchets the
     *  chain key. True with the header left cleared when the socket was woken up. Fails with
     *  "tempBytes1.bytes.size() == VX_HEADER_WIRE_SIZE" (also when the peer closed, since no
     *  bytes came), "tempBytes3 == hMacHead" or the anti-crib's texts. */
    [[nodiscard]] bool ReadFromWire(vxNetTransportKeys& keys, vxNetSocket* socket);
    /** The head HMAC under K, the ratchet of K with head HMAC || haystack, the body HMAC under K'.
     *  Leaves `hMacHead` empty and the head HMAC in the first 16 bytes of `plainHeader`. */
    [[nodiscard]] bool UpdateHmac(vxNetTransportKeys& keys, const vxBytes& payload);
    /** Fails with "tempBytes3 == hMacHead" unless HMAC(key, haystack) equals `hMacHead`. */
    [[nodiscard]] bool ValidateHmacHead(const vxBytes& key);
    /** Fails with "tempBytes3 == hMacBody" unless HMAC(key, body) equals `hMacBody`. */
    [[nodiscard]] bool ValidateHmacBody(const vxBytes& key, const vxBytes& body);
    /** Stores the payload size and rounds it up to a multiple of 16; a size above 0xFFFFFFEF
     *  leaves `sizeWithPadding` as it was. */
    void SetPaddingSize(uint32_t size);
    /** sizeWithPadding - payloadSize random bytes. */
    [[nodiscard]] bool MakeBodyPadding();
    /** 16 random bytes with `value` hidden by the outbound anti-crib. */
    [[nodiscard]] bool HideSizeNeedle(uint32_t value);
    /** The inbound anti-crib's value into `payloadSize`. */
    [[nodiscard]] bool FindSizeInHaystack();
    /** A copy of `encryptedHeader`; runs the standard guard. */
    [[nodiscard]] bool GetEncryptedHeader(vxBytes& out);
    /** A copy of `bodyPadding`; runs the standard guard. */
    [[nodiscard]] bool GetBodyPadding(vxBytes& out);
    /** `payloadSize` into `size`; runs the standard guard. */
    [[nodiscard]] bool GetPayloadSize(uint32_t& size);
    /** `sizeWithPadding` into `size`; runs the standard guard. */
    [[nodiscard]] bool GetSizeWithPadding(uint32_t& size);
    [[nodiscard]] bool Close() override;

private:
    [[nodiscard]] VX_NO_EXPORT bool validate(const vxBytes& key, const vxBytes& message,
                                             const vxBytes& expected, const char* text);
};

} // namespace veltrix
