// The secure transport: every value both ends of a connection compute in lock-step.
#include "vxNetTransport.h"

#include "vxBatch.h"
#include "vxGuard.h"
#include "vxNetSocket.h"
#include "vxSecret.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace veltrix {

namespace {

constexpr uint32_t kHashMd5 = vxHashId::md5; // every transport digest is the 16-byte MD5
constexpr uint32_t kMaskSize = 16;           // bytes of a block the IV mask covers
constexpr size_t kDigestSize = 16;           // MD5's, and so the mask's once it has advanced
constexpr uint32_t kHaystackSize = 16;
constexpr uint32_t kCribTop = 12; // the largest offset of a hidden value in a haystack
constexpr uint32_t kFieldSize = 16;
constexpr uint32_t kPaddingLimit = 0xFFFFFFEFU; // above this, rounding up would overflow
constexpr uint32_t kAlign = 16;

/** even = the bytes at indices 0, 2, 4, ...; odd = those at 1, 3, 5, ... */
void splitByPosition(const vxBytes& in, vxBytes& even, vxBytes& odd)
{
    even.bytes.clear();
    odd.bytes.clear();
    for (size_t i = 0; i < in.bytes.size(); ++i) {
        (i % 2 == 0 ? even : odd).bytes.push_back(in.bytes[i]);
    }
}

/** out = H(parts...) with an opened digest. Each vxMd step records its own failures; the
 *  caller's check adds its line. */
bool digestParts(vxMd& md, std::initializer_list<const vxBytes*> parts, vxBytes& out)
{
    bool ok = md.Init();
    for (const vxBytes* part : parts) {
        ok = ok && md.Update(*part);
    }
    out.bytes.clear();
    return ok && md.Final() && md.GetBytes(out);
}

/** md = H(message), finished for its GetBytes. */
bool digestWhole(vxMd& md, const vxBytes& message)
{
    return md.Init() && md.Update(message) && md.Final();
}

/** `buffer` resized to `size` bytes (storage kept once it is large enough), for writing. */
unsigned char* sizedFor(vxBytes& buffer, size_t size)
{
    buffer.bytes.resize(size);
    return buffer.bytes.data();
}

/** memcpy, with the transport's 16-byte case a fixed copy the compiler inlines: these copies
 *  run for every block, where a call would cost more than the copy. */
inline void copyBytes(unsigned char* to, const unsigned char* from, size_t size)
{
    if (size == kDigestSize) {
        std::memcpy(to, from, kDigestSize);
    } else {
        std::memcpy(to, from, size);
    }
}

/** out = in XOR mask, `size` bytes, eight at a time through plain words: this runs three times
 *  for every block. */
inline void xorBytes(const unsigned char* in, const unsigned char* mask, unsigned char* out,
                     size_t size)
{
    size_t i = 0;
    for (; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t)) {
        uint64_t a = 0;
        uint64_t b = 0;
        std::memcpy(&a, in + i, sizeof a);
        std::memcpy(&b, mask + i, sizeof b);
        a ^= b;
        std::memcpy(out + i, &a, sizeof a);
    }
    for (; i < size; ++i) {
        out[i] = static_cast<unsigned char>(in[i] ^ mask[i]);
    }
}

/** A run of one of the keyed digest's pad bytes, to XOR onto a key. */
using padRun = std::array<unsigned char, 64>;

constexpr padRun runOf(unsigned char pad)
{
    padRun run{};
    for (unsigned char& byte : run) {
        byte = pad;
    }
    return run;
}

constexpr padRun kInnerPads = runOf(0x36);
constexpr padRun kOuterPads = runOf(0x5C);

/** The keyed digest's pad of `key`: every byte XOR the pad's. */
inline void padKey(const vxBytes& key, const padRun& pads, unsigned char* out)
{
    const size_t size = key.bytes.size();
    for (size_t at = 0; at < size; at += pads.size()) {
        xorBytes(key.bytes.data() + at, pads.data(), out + at, std::min(pads.size(), size - at));
    }
}

/** HMAC(key, parts...) left in `mac` for its GetBytes. */
bool keyedParts(vxHmacMd& mac, const vxBytes& key, std::initializer_list<const vxBytes*> parts)
{
    bool ok = mac.SetKey(key) && mac.Init();
    for (const vxBytes* part : parts) {
        ok = ok && mac.Update(*part);
    }
    return ok && mac.Final();
}

void putBigEndian(uint32_t value, unsigned char* at)
{
    at[0] = static_cast<unsigned char>(value >> 24U);
    at[1] = static_cast<unsigned char>(value >> 16U);
    at[2] = static_cast<unsigned char>(value >> 8U);
    at[3] = static_cast<unsigned char>(value);
}

uint32_t getBigEndian(const unsigned char* at)
{
    return (uint32_t{at[0]} << 24U) | (uint32_t{at[1]} << 16U) | (uint32_t{at[2]} << 8U) |
           uint32_t{at[3]};
}

/** Throws std::out_of_range unless `buffer` holds at least `size` bytes: the checked access
 *  that indexing a too-short block or mask would make, done once instead of per byte. */
void requireSize(const vxBytes& buffer, size_t size)
{
    if (buffer.bytes.size() < size) {
        throw std::out_of_range("vxBytes: index beyond the buffer");
    }
}

} // namespace

LVX_DEFINE_LIFECYCLE(vxNetByteOrder)
LVX_DEFINE_LIFECYCLE(vxNetEntangledObj)
LVX_DEFINE_LIFECYCLE(vxNetTransportKeyExpander)
LVX_DEFINE_LIFECYCLE(vxNetTransportHmacIV)
LVX_DEFINE_LIFECYCLE(vxNetTransportAntiCrib)
LVX_DEFINE_LIFECYCLE(vxNetTransportCiphers)
LVX_DEFINE_LIFECYCLE(vxNetTransportKeys)
LVX_DEFINE_LIFECYCLE(vxNetTransportHeader)

// ---- byte order ----

bool vxNetByteOrder::setForm(vxBytes& form, const unsigned char* p, size_t len)
{
    if (len % 4 != 0) {
        return false; // quiet: a partial word is refused without touching the trail
    }
    LVX_GUARD_LATCH();
    form.bytes.assign(p, p + len);
    return true;
}

bool vxNetByteOrder::SetNative(const vxBytes& b)
{
    return setForm(native, b.bytes.data(), b.bytes.size());
}

bool vxNetByteOrder::SetNative(const unsigned char* p, uint32_t len)
{
    return setForm(native, p, len);
}

bool vxNetByteOrder::SetNetwork(const vxBytes& b)
{
    return setForm(network, b.bytes.data(), b.bytes.size());
}

bool vxNetByteOrder::SetNetwork(const unsigned char* p, uint32_t len)
{
    return setForm(network, p, len);
}

bool vxNetByteOrder::getForm(vxBytes& form, const vxBytes& other, vxBytes& out)
{
    if (form.bytes.empty()) {
        if (other.bytes.empty()) {
            return false; // quiet: nothing to deliver
        }
        // The setters refuse partial words, so every group below is whole.
        for (size_t i = 0; i < other.bytes.size(); i += 4) {
            for (size_t j = 4; j-- > 0;) {
                form.bytes.push_back(other.bytes.at(i + j));
            }
        }
    }
    LVX_GUARD_LATCH();
    out.bytes = form.bytes;
    return true;
}

bool vxNetByteOrder::GetNative(vxBytes& out)
{
    return getForm(native, network, out);
}

bool vxNetByteOrder::GetNetwork(vxBytes& out)
{
    return getForm(network, native, out);
}

void vxNetByteOrder::Clear()
{
    native.bytes.clear();
    network.bytes.clear();
}

// ---- entangled pair ----

bool vxNetEntangledObj::Open(bool whichSide)
{
    side = whichSide;
    return true;
}

bool vxNetEntangledObj::GetMagic(vxBytes& out)
{
    out.bytes = side ? magicOne.bytes : magicTwo.bytes;
    return true;
}

bool vxNetEntangledObj::GetInverseMagic(vxBytes& out)
{
    out.bytes = side ? magicTwo.bytes : magicOne.bytes;
    return true;
}

bool vxNetEntangledObj::SetMagic(const vxBytes& in)
{
    (side ? magicOne : magicTwo).bytes = in.bytes;
    return true;
}

// ---- key expander ----

bool vxNetTransportKeyExpander::Open(uint32_t targetSize)
{
    LVX_CALL_OPEN(hashId, kHashMd5);
    LVX_CALL_OPEN(md, hashId);
    TargetSize = targetSize;
    return true;
}

bool vxNetTransportKeyExpander::ExpandBytes(vxBytes& eb)
{
    LVX_GUARD();
    if (eb.bytes.size() == TargetSize) {
        return true;
    }
    vxBytes even;
    vxBytes odd;
    LVX_CALL_OPEN(even);
    LVX_CALL_OPEN(odd);
    splitByPosition(eb, even, odd);
    // The first digest, H(even || odd), is a 16-byte key as it is. A 24- or 32-byte key takes a
    // byte of a second digest, H(even || first || odd), and one of the first, in turn.
    LVX_CHECK(digestParts(md, {&even, &odd}, eb));
    if (TargetSize == 24 || TargetSize == 32) {
        vxBytes d2;
        LVX_CHECK(digestParts(md, {&even, &eb, &odd}, d2));
        vxBytes mixed;
        for (size_t i = 0; mixed.bytes.size() < TargetSize; ++i) {
            mixed.bytes.push_back(d2.bytes.at(i));
            mixed.bytes.push_back(eb.bytes.at(i));
        }
        eb.bytes.swap(mixed.bytes);
    }
    LVX_CALL_CLOSE(even);
    LVX_CALL_CLOSE(odd);
    LVX_ENSURE(eb.bytes.size() == TargetSize, LVX_MSG_EXPAND_SIZE);
    return true;
}

bool vxNetTransportKeyExpander::Close()
{
    LVX_CALL_CLOSE(md);
    LVX_CALL_CLOSE(hashId);
    return true;
}

// ---- IV mask ----

bool vxNetTransportHmacIV::Open(uint32_t maskSize)
{
    size = maskSize;
    LVX_CALL_OPEN(hashId, kHashMd5);
    LVX_CALL_OPEN(hmac, hashId);
    return true;
}

bool vxNetTransportHmacIV::SetIV(const vxBytes& newIv)
{
    iv.bytes = newIv.bytes;
    return true;
}

const unsigned char* vxNetTransportHmacIV::advance(const unsigned char* cipherOutput, size_t length)
{
    // HMAC(key IV, E || IV): the inner digest of (IV xor 0x36) || E || IV is the next mask, and
    // is needed at once. The outer digest of (IV xor 0x5C) || inner, which nothing reads, waits:
    // it is computed in one plug-in pass with the next block's inner digest (or at Close). The
    // two are independent of each other, so the plug-in can run them side by side.
    const size_t keySize = iv.bytes.size();
    unsigned char* inner = sizedFor(innerMessage, 2 * keySize + length);
    padKey(iv, kInnerPads, inner);
    copyBytes(inner + keySize, cipherOutput, length);
    copyBytes(inner + keySize + length, iv.bytes.data(), keySize);
    const auto innerSize = static_cast<uint32_t>(innerMessage.bytes.size());
    const bool done = outerWaiting ? digestPair(hmac.inner, inner, innerSize, hmac.outer,
                                                outerMessage.bytes.data(),
                                                static_cast<uint32_t>(outerMessage.bytes.size()))
                                   : digestWhole(hmac.inner, innerMessage);
    const unsigned char* next = done ? digestBytes(hmac.inner, kDigestSize) : nullptr;
    if (next == nullptr) {
        return nullptr;
    }
    unsigned char* outer = sizedFor(outerMessage, keySize + kDigestSize);
    padKey(iv, kOuterPads, outer);
    std::memcpy(outer + keySize, next, kDigestSize);
    outerWaiting = true;
    return next;
}

void vxNetTransportHmacIV::maskWith(const unsigned char* in, unsigned char* out) const
{
    xorBytes(in, iv.bytes.data(), out, size);
}

void vxNetTransportHmacIV::takeMask(const unsigned char* next)
{
    if (iv.bytes.size() == kDigestSize) {
        std::memcpy(iv.bytes.data(), next, kDigestSize);
    } else {
        iv.bytes.assign(next, next + kDigestSize);
    }
}

bool vxNetTransportHmacIV::sendBlocks(unsigned char* blocks, size_t count)
{
    requireSize(iv, size);
    for (unsigned char* block = blocks; block != blocks + count * size; block += size) {
        const unsigned char* next = advance(block, size); // over E, the block as it comes in
        LVX_CHECK(next != nullptr);
        maskWith(block, block);
        takeMask(next);
    }
    hmac.result.bytes.assign(iv.bytes.begin(), iv.bytes.end());
    return true;
}

bool vxNetTransportHmacIV::receiveBlocks(unsigned char* blocks, size_t count)
{
    requireSize(iv, size);
    for (unsigned char* block = blocks; block != blocks + count * size; block += size) {
        maskWith(block, block); // recovers E
        const unsigned char* next = advance(block, size);
        LVX_CHECK(next != nullptr);
        takeMask(next);
    }
    hmac.result.bytes.assign(iv.bytes.begin(), iv.bytes.end());
    return true;
}

bool vxNetTransportHmacIV::Mutate(vxBytes& block)
{
    LVX_GUARD_LATCH();
    requireSize(block, size);
    requireSize(iv, size);
    // The mask advances over the whole block, and covers its first `size` bytes.
    const unsigned char* next = advance(block.bytes.data(), block.bytes.size());
    LVX_CHECK(next != nullptr);
    scratch.bytes.resize(size);
    maskWith(block.bytes.data(), scratch.bytes.data());
    block.bytes.swap(scratch.bytes);
    takeMask(next);
    hmac.result.bytes.assign(iv.bytes.begin(), iv.bytes.end());
    return true;
}

bool vxNetTransportHmacIV::Restore(vxBytes& block)
{
    LVX_GUARD_LATCH();
    requireSize(block, size);
    requireSize(iv, size);
    scratch.bytes.assign(block.bytes.begin(), block.bytes.begin() + size);
    block.bytes.swap(scratch.bytes);
    return receiveBlocks(block.bytes.data(), 1);
}

bool vxNetTransportHmacIV::Close()
{
    if (outerWaiting) {
        outerWaiting = false;
        LVX_CHECK(digestWhole(hmac.outer, outerMessage));
    }
    LVX_CALL_CLOSE(hmac);
    LVX_CALL_CLOSE(hashId);
    iv.Scrub();
    scratch.Scrub();
    return true;
}

// ---- anti-crib ----

bool vxNetTransportAntiCrib::Open(uint32_t largest)
{
    top = largest;
    LVX_CALL_OPEN(sequence, largest);
    return true;
}

bool vxNetTransportAntiCrib::Seed(const vxBytes& seed)
{
    return sequence.Seed(seed);
}

bool vxNetTransportAntiCrib::Hide(uint32_t hidden, vxBytes& haystack)
{
    requireSize(haystack, kHaystackSize);
    const uint32_t offset = sequence.Next();
    LVX_GUARD_LATCH();
    LVX_ENSURE(offset <= top, LVX_MSG_OFFSET_TOP);
    haystack.bytes.resize(kHaystackSize);
    requireSize(haystack, size_t{offset} + 4); // a sequence opened above 12 could run past it
    putBigEndian(hidden, haystack.bytes.data() + offset);
    return true;
}

bool vxNetTransportAntiCrib::Find(const vxBytes& haystack)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(haystack.bytes.size() > 1, LVX_MSG_HAYSTACK_SHORT);
    LVX_ENSURE(haystack.bytes.size() <= kHaystackSize, LVX_MSG_HAYSTACK_LONG);
    unsigned char buffer[kHaystackSize] = {};
    std::copy(haystack.bytes.begin(), haystack.bytes.end(), buffer);
    const uint32_t offset = sequence.Next();
    LVX_GUARD_LATCH();
    LVX_ENSURE(offset <= kCribTop, LVX_MSG_OFFSET_12);
    value = getBigEndian(buffer + offset);
    return true;
}

bool vxNetTransportAntiCrib::GetValue(uint32_t& out)
{
    out = value;
    return true;
}

bool vxNetTransportAntiCrib::Close()
{
    LVX_CALL_CLOSE(sequence);
    return true;
}

// ---- ciphers ----

bool vxNetTransportCiphers::Open(const vxCipherId& id, bool whichSide)
{
    side = whichSide;
    LVX_CALL_OPEN(ivA, kMaskSize);
    LVX_CALL_OPEN(ivB, kMaskSize);
    LVX_CALL_OPEN(cipherA, id);
    LVX_CALL_OPEN(cipherB, id);
    LVX_CHECK(cipherA.GetBlockSize(blockSize));
    LVX_CHECK(cipherA.GetKeySize(keySize));
    LVX_CALL_OPEN(expander, keySize);
    return true;
}

bool vxNetTransportCiphers::deriveSplitPair(const vxBytes& material, vxBytes& first,
                                            vxBytes& second)
{
    vxHashId id;
    vxMd firstMd;
    vxMd secondMd;
    LVX_CALL_OPEN(id, kHashMd5);
    LVX_CALL_OPEN(firstMd, id);
    LVX_CALL_OPEN(secondMd, id);
    vxBytes even;
    vxBytes odd;
    splitByPosition(material, even, odd);
    LVX_CHECK(digestParts(firstMd, {&even, &odd, &even}, first));
    LVX_CHECK(digestParts(secondMd, {&odd, &even, &odd}, second));
    LVX_CALL_CLOSE(secondMd);
    LVX_CALL_CLOSE(firstMd);
    LVX_CALL_CLOSE(id);
    return true;
}

bool vxNetTransportCiphers::SetInitialKeys(const vxBytes& material)
{
    LVX_GUARD();
    vxBytes keyA;
    vxBytes keyB;
    LVX_CHECK(deriveSplitPair(material, keyA, keyB));
    LVX_CHECK(expander.ExpandBytes(keyA));
    LVX_CHECK(cipherA.SetKey(keyA));
    LVX_CHECK(expander.ExpandBytes(keyB));
    LVX_CHECK(cipherB.SetKey(keyB));
    keyA.Scrub();
    keyB.Scrub();
    return true;
}

bool vxNetTransportCiphers::SetInitialIVs(const vxBytes& material)
{
    LVX_GUARD();
    vxBytes first;
    vxBytes second;
    LVX_CHECK(deriveSplitPair(material, first, second));
    LVX_CHECK(ivA.SetIV(first));
    LVX_CHECK(ivB.SetIV(second));
    return true;
}

vxCipher* vxNetTransportCiphers::GetLocalizedCB(bool sending)
{
    return sending == side ? &cipherB : &cipherA;
}

vxNetTransportHmacIV* vxNetTransportCiphers::GetLocalizedIV(bool sending)
{
    return sending == side ? &ivB : &ivA;
}

bool vxNetTransportCiphers::GetKeySize(uint32_t& size)
{
    LVX_GUARD();
    size = keySize;
    return true;
}

bool vxNetTransportCiphers::GetBlockSize(uint32_t& size)
{
    LVX_GUARD();
    size = blockSize;
    return true;
}

bool vxNetTransportCiphers::GetCipherID(vxCipherId& id)
{
    LVX_GUARD();
    id.value = cipherA.cipherId.value;
    return true;
}

bool vxNetTransportCiphers::Close()
{
    LVX_CALL_CLOSE(expander);
    LVX_CALL_CLOSE(cipherA);
    LVX_CALL_CLOSE(cipherB);
    LVX_CALL_CLOSE(ivA);
    LVX_CALL_CLOSE(ivB);
    return true;
}

// ---- keys ----

bool vxNetTransportKeys::Open(const vxCipherId& id, bool side)
{
    LVX_CALL_OPEN(hashId, kHashMd5);
    LVX_CALL_OPEN(md, hashId);
    LVX_CALL_OPEN(hmac, hashId);
    LVX_CALL_OPEN(chain, side);
    LVX_CALL_OPEN(entropy, side);
    LVX_CALL_OPEN(ciphers, id, side);
    LVX_CHECK(ciphers.GetBlockSize(blockSize));
    uint32_t keySize = 0;
    LVX_CHECK(ciphers.GetKeySize(keySize));
    LVX_CALL_OPEN(expander, keySize);
    return true;
}

bool vxNetTransportKeys::SetInitialKey(const vxBytes& key)
{
    LVX_GUARD();
    vxBytes local;
    local.bytes = key.bytes;
    LVX_CHECK(expander.ExpandBytes(local));
    LVX_CHECK(ciphers.SetInitialKeys(local));
    local.Scrub();
    return true;
}

bool vxNetTransportKeys::SetInitialIV(const vxBytes& iv)
{
    LVX_GUARD();
    LVX_CHECK(ciphers.SetInitialIVs(iv));
    return true;
}

bool vxNetTransportKeys::cryptBlocks(const vxBytes& in, vxBytes& out, bool sending)
{
    vxCipher* cb = ciphers.GetLocalizedCB(sending);
    vxNetTransportHmacIV* mask = ciphers.GetLocalizedIV(sending);
    LVX_GUARD_LATCH();
    LVX_ENSURE(cb != nullptr, LVX_MSG_NO_CIPHER);
    LVX_ENSURE(mask != nullptr, LVX_MSG_NO_IV);
    out.bytes.clear();
    const size_t total = in.bytes.size();
    if (blockSize == 0 || blockSize > total) {
        return true; // no whole block: nothing to do
    }
    // The mask covers whole cipher blocks: the wire is made of 16-byte blocks.
    LVX_CHECK(blockSize == mask->size);
    const size_t blocks = total / blockSize;
    const auto count = static_cast<uint32_t>(blocks);
    LVX_CHECK(count == blocks);
    // The packet's blocks are worked in place, each step over all of them at once: the cipher
    // of every block in one plug-in call, since no block's cipher depends on the mask chain.
    // Sending: E = cipher(P), then the mask; receiving: unmask to E, then decipher.
    out.bytes.assign(in.bytes.begin(),
                     in.bytes.begin() + static_cast<ptrdiff_t>(blocks * blockSize));
    unsigned char* data = out.bytes.data();
    if (sending) {
        LVX_CHECK(cipherBlocks(*cb, data, data, count, true));
        LVX_CHECK(mask->sendBlocks(data, blocks));
    } else {
        LVX_CHECK(mask->receiveBlocks(data, blocks));
        LVX_CHECK(cipherBlocks(*cb, data, data, count, false));
    }
    return true;
}

bool vxNetTransportKeys::Encrypt(const vxBytes& in, vxBytes& out)
{
    LVX_CHECK(cryptBlocks(in, out, true));
    return true;
}

bool vxNetTransportKeys::Encrypt(const vxBytes* in, vxBytes& out)
{
    return Encrypt(*in, out);
}

bool vxNetTransportKeys::Decrypt(const vxBytes& in, vxBytes& out)
{
    LVX_CHECK(cryptBlocks(in, out, false));
    return true;
}

bool vxNetTransportKeys::ratchet(vxBytes& chainKey, const vxBytes& data)
{
    scratch.bytes = chainKey.bytes;
    LVX_CHECK(keyedParts(hmac, scratch, {&scratch, &scratch, &data}));
    scratch.bytes.clear();
    LVX_CHECK(hmac.GetBytes(scratch));
    chainKey.bytes = scratch.bytes;
    return true;
}

bool vxNetTransportKeys::UpdateHmacOne(const vxBytes& data)
{
    return ratchet(chain.magicOne, data);
}

bool vxNetTransportKeys::UpdateHmacTwo(const vxBytes& data)
{
    return ratchet(chain.magicTwo, data);
}

bool vxNetTransportKeys::foldEntropy(vxBytes& pool, const vxBytes& data)
{
    // The digest is computed and not read back: the emptied scratch is what the pool becomes.
    scratch.bytes = pool.bytes;
    LVX_CHECK(md.Init());
    LVX_CHECK(md.Update(scratch));
    LVX_CHECK(md.Update(data));
    LVX_CHECK(md.Final());
    scratch.bytes.clear();
    pool.bytes = scratch.bytes;
    return true;
}

bool vxNetTransportKeys::UpdateEntropyPoolOne(const vxBytes& data)
{
    return foldEntropy(entropy.magicOne, data);
}

bool vxNetTransportKeys::UpdateEntropyPoolTwo(const vxBytes& data)
{
    return foldEntropy(entropy.magicTwo, data);
}

bool vxNetTransportKeys::ReSeed(const vxBytes& seed0, const vxBytes& seed1)
{
    LVX_GUARD();
    LVX_ENSURE(!seed0.bytes.empty(), LVX_MSG_SEED0_EMPTY);
    LVX_ENSURE(!seed1.bytes.empty(), LVX_MSG_SEED1_EMPTY);
    LVX_CHECK(digestParts(md, {&seed0, &seed1, &seed0}, scratch));
    LVX_CHECK(expander.ExpandBytes(scratch));
    LVX_CHECK(ciphers.SetInitialKeys(scratch));
    LVX_CHECK(digestParts(md, {&seed0, &seed1}, scratch));
    LVX_CHECK(ciphers.SetInitialIVs(scratch));
    LVX_CHECK(digestParts(md, {&seed1, &seed0}, chain.magicTwo));
    LVX_CHECK(digestParts(md, {&seed1, &seed0, &seed1}, chain.magicOne));
    LVX_CHECK(digestParts(md, {&seed1, &seed0, &seed1, &seed0}, entropy.magicTwo));
    LVX_CHECK(digestParts(md, {&seed0, &seed1, &seed0, &seed1}, entropy.magicOne));
    scratch.Scrub();
    return true;
}

bool vxNetTransportKeys::GetKeySize(uint32_t& size)
{
    LVX_CHECK(ciphers.GetKeySize(size));
    return true;
}

bool vxNetTransportKeys::Close()
{
    LVX_CALL_CLOSE(expander);
    LVX_CALL_CLOSE(ciphers);
    LVX_CALL_CLOSE(entropy);
    LVX_CALL_CLOSE(chain);
    LVX_CALL_CLOSE(hmac);
    LVX_CALL_CLOSE(md);
    LVX_CALL_CLOSE(hashId);
    chain.magicOne.Scrub();
    chain.magicTwo.Scrub();
    scratch.Scrub();
    return true;
}

// ---- packet header ----

bool vxNetTransportHeader::Open(bool whichSide)
{
    LVX_CALL_OPEN(hashId, kHashMd5);
    LVX_CALL_OPEN(rand, true);
    LVX_CALL_OPEN(inboundCrib, kCribTop);
    LVX_CALL_OPEN(outboundCrib, kCribTop);
    LVX_CALL_OPEN(headHmac, hashId);
    LVX_CALL_OPEN(bodyHmac, hashId);
    LVX_CALL_OPEN(checkHmac, hashId);
    payloadSize = 0;
    sizeWithPadding = 0;
    side = whichSide;
    return true;
}

void vxNetTransportHeader::Clear()
{
    payloadSize = 0;
    sizeWithPadding = 0;
    for (vxBytes* buffer : {&bodyPadding, &haystack, &hMacBody, &hMacHead, &tempBytes1, &tempBytes2,
                            &tempBytes3, &encryptedHeader}) {
        buffer->bytes.clear();
    }
}

void vxNetTransportHeader::SetPaddingSize(uint32_t size)
{
    payloadSize = size;
    if (size > kPaddingLimit) {
        return; // rounding up would overflow: the previous padded size stays
    }
    sizeWithPadding = (size + kAlign - 1) / kAlign * kAlign;
}

bool vxNetTransportHeader::MakeBodyPadding()
{
    LVX_GUARD();
    bodyPadding.bytes.clear();
    const auto count = static_cast<int32_t>(sizeWithPadding - payloadSize);
    if (count < 1) {
        return true;
    }
    LVX_CHECK(rand.Read(static_cast<uint32_t>(count)));
    LVX_CHECK(rand.GetHashedBytes(bodyPadding));
    return true;
}

bool vxNetTransportHeader::HideSizeNeedle(uint32_t value)
{
    LVX_GUARD();
    haystack.bytes.clear();
    LVX_CHECK(rand.Read(kHaystackSize));
    LVX_CHECK(rand.GetHashedBytes(haystack));
    LVX_CHECK(outboundCrib.Hide(value, haystack));
    return true;
}

bool vxNetTransportHeader::FindSizeInHaystack()
{
    LVX_GUARD();
    LVX_CHECK(inboundCrib.Find(haystack));
    LVX_CHECK(inboundCrib.GetValue(payloadSize));
    return true;
}

bool vxNetTransportHeader::UpdateHmac(vxNetTransportKeys& keys, const vxBytes& payload)
{
    LVX_GUARD();
    // K into tempBytes3. A command packet passes tempBytes3 as its payload, so from here on its
    // "payload" is K itself: its body HMAC is HMAC(K', K), which peers expect.
    LVX_CHECK(keys.chain.GetInverseMagic(tempBytes3));
    LVX_CHECK(keyedParts(headHmac, tempBytes3, {&haystack}));
    LVX_CHECK(headHmac.GetBytes(hMacHead));
    LVX_CHECK(hMacHead.CopyBack(haystack));
    LVX_CHECK(side ? keys.UpdateHmacTwo(hMacHead) : keys.UpdateHmacOne(hMacHead));
    // Only the head HMAC, the first half of what the ratchet consumed, goes into the header.
    std::copy_n(hMacHead.bytes.begin(), kFieldSize, plainHeader);
    hMacHead.bytes.clear();
    LVX_CHECK(keys.chain.GetInverseMagic(tempBytes1)); // K'
    LVX_CHECK(keyedParts(bodyHmac, tempBytes1, {&payload, &bodyPadding}));
    LVX_CHECK(bodyHmac.GetBytes(hMacBody));
    return true;
}

bool vxNetTransportHeader::CreateCommonHeader(vxNetTransportKeys& keys, const vxBytes& payload)
{
    LVX_GUARD();
    LVX_CHECK(keys.UpdateEntropyPoolOne(haystack));
    LVX_CHECK(outboundCrib.Seed(haystack));
    LVX_CHECK(UpdateHmac(keys, payload));
    std::copy_n(haystack.bytes.begin(), kFieldSize, plainHeader + kFieldSize);
    std::copy_n(hMacBody.bytes.begin(), kFieldSize, plainHeader + size_t{2} * kFieldSize);
    byteOrder.Clear();
    LVX_CHECK(byteOrder.SetNative(plainHeader, VX_HEADER_WIRE_SIZE));
    LVX_CHECK(byteOrder.GetNative(tempBytes2));
    encryptedHeader.bytes.clear();
    LVX_CHECK(keys.Encrypt(tempBytes2, encryptedHeader));
    return true;
}

bool vxNetTransportHeader::CreateFromPayload(vxNetTransportKeys& keys, const vxBytes& payload)
{
    LVX_GUARD();
    Clear();
    const auto size = static_cast<uint32_t>(payload.bytes.size());
    SetPaddingSize(size);
    LVX_CHECK(MakeBodyPadding());
    LVX_CHECK(HideSizeNeedle(size));
    LVX_CHECK(CreateCommonHeader(keys, payload));
    return true;
}

bool vxNetTransportHeader::CreateCmdMessage(uint32_t cmd, vxNetTransportKeys& keys,
                                            vxNetSocket* socket)
{
    LVX_GUARD();
    Clear();
    // Random body bytes that UpdateHmac overwrites with the chain key before they are used.
    LVX_CHECK(rand.Read(kHaystackSize));
    LVX_CHECK(rand.GetHashedBytes(tempBytes3));
    SetPaddingSize(0);
    LVX_CHECK(HideSizeNeedle(cmd | kCommandMark));
    LVX_CHECK(CreateCommonHeader(keys, tempBytes3));
    tempBytes1.bytes.clear();
    tempBytes2.bytes.clear();
    LVX_CHECK(keys.Encrypt(tempBytes1, tempBytes2)); // the empty body
    LVX_CHECK(GetEncryptedHeader(tempBytes1));
    LVX_CHECK(socket->SendPlaintext(tempBytes1));
    LVX_CHECK(socket->SendPlaintext(tempBytes2));
    return true;
}

bool vxNetTransportHeader::ReadFromWire(vxNetTransportKeys& keys, vxNetSocket* socket)
{
    LVX_GUARD();
    Clear();
    LVX_CHECK(socket->RecvPlaintext(VX_HEADER_WIRE_SIZE, tempBytes2));
    if (socket->wakeupSeen) {
        return true; // the caller checks the socket's wake-up indication
    }
    LVX_CHECK(keys.Decrypt(tempBytes2, tempBytes1));
    LVX_ENSURE(tempBytes1.bytes.size() == VX_HEADER_WIRE_SIZE, LVX_MSG_HEADER_SIZE);
    byteOrder.Clear();
    LVX_CHECK(byteOrder.SetNative(tempBytes1));
    LVX_CHECK(byteOrder.GetNative(tempBytes2));
    const auto field = [this](size_t index) {
        return tempBytes2.bytes.begin() + static_cast<std::ptrdiff_t>(index * kFieldSize);
    };
    hMacHead.bytes.assign(field(0), field(1));
    haystack.bytes.assign(field(1), field(2));
    hMacBody.bytes.assign(field(2), field(3));
    LVX_CHECK(keys.UpdateEntropyPoolTwo(haystack));
    LVX_CHECK(keys.chain.GetMagic(tempBytes1)); // K
    LVX_CHECK(ValidateHmacHead(tempBytes1));
    LVX_CHECK(FindSizeInHaystack());
    SetPaddingSize(payloadSize);
    LVX_CHECK(inboundCrib.Seed(haystack));
    LVX_CHECK(hMacHead.CopyBack(haystack));
    LVX_CHECK(side ? keys.UpdateHmacOne(hMacHead) : keys.UpdateHmacTwo(hMacHead));
    return true;
}

bool vxNetTransportHeader::validate(const vxBytes& key, const vxBytes& message,
                                    const vxBytes& expected, const char* text)
{
    LVX_GUARD();
    LVX_CHECK(keyedParts(checkHmac, key, {&message}));
    LVX_CHECK(checkHmac.GetBytes(tempBytes3));
    LVX_ENSURE(constantTimeEqual(tempBytes3.bytes, expected.bytes), text);
    return true;
}

bool vxNetTransportHeader::ValidateHmacHead(const vxBytes& key)
{
    return validate(key, haystack, hMacHead, LVX_MSG_HEAD_HMAC);
}

bool vxNetTransportHeader::ValidateHmacBody(const vxBytes& key, const vxBytes& body)
{
    return validate(key, body, hMacBody, LVX_MSG_BODY_HMAC);
}

bool vxNetTransportHeader::GetEncryptedHeader(vxBytes& out)
{
    LVX_GUARD();
    out.bytes = encryptedHeader.bytes;
    return true;
}

bool vxNetTransportHeader::GetBodyPadding(vxBytes& out)
{
    LVX_GUARD();
    out.bytes = bodyPadding.bytes;
    return true;
}

bool vxNetTransportHeader::GetPayloadSize(uint32_t& size)
{
    LVX_GUARD();
    size = payloadSize;
    return true;
}

bool vxNetTransportHeader::GetSizeWithPadding(uint32_t& size)
{
    LVX_GUARD();
    size = sizeWithPadding;
    return true;
}

bool vxNetTransportHeader::Close()
{
    LVX_CALL_CLOSE(checkHmac);
    LVX_CALL_CLOSE(bodyHmac);
    LVX_CALL_CLOSE(headHmac);
    LVX_CALL_CLOSE(outboundCrib);
    LVX_CALL_CLOSE(inboundCrib);
    LVX_CALL_CLOSE(rand);
    LVX_CALL_CLOSE(hashId);
    return true;
}

} // namespace veltrix
