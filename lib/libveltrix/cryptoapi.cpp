// The crypto registry, the plug-in front object and the crypto objects built on the plug-in.
#include "cryptoapi.h"

#include "vxBatch.h"
#include "vxGuard.h"
#include "vxVersions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace veltrix {

vxReg* cryptoRegistry = nullptr;

namespace {

/** Binds one registry field from an untyped address. */
struct registryField
{
    const char* name;
    void (*bind)(vxReg& registry, void* function);
};

#define VX_REG_BINDER(entry, asked, result, params)              \
    {#entry, [](vxReg& registry, void* function) {               \
         registry.entry = reinterpret_cast<entry##_t>(function); \
     }},
const registryField registryFields[] = {VX_PLUGIN_ENTRY_POINTS(VX_REG_BINDER)};
#undef VX_REG_BINDER

/** The entry points in the order the library asks a plug-in for them: each name at its `asked`
 *  place. A place out of range does not compile; two entries on one place leave another empty,
 *  which the assertion below catches. */
constexpr std::array<const char*, std::size(registryFields)> askedOrder()
{
    std::array<const char*, std::size(registryFields)> names{};
#define VX_ASKED_NAME(entry, asked, result, params) names[asked] = #entry;
    VX_PLUGIN_ENTRY_POINTS(VX_ASKED_NAME)
#undef VX_ASKED_NAME
    return names;
}

constexpr auto askedNames = askedOrder();

constexpr size_t emptyPlaces()
{
    size_t empty = 0;
    for (const char* name : askedNames) {
        empty += name == nullptr ? 1 : 0;
    }
    return empty;
}

static_assert(emptyPlaces() == 0,
              "every entry point needs a place of its own in the order of asking");

const vxReg& plugin()
{
    return *cryptoRegistry;
}

/** The plug-in state an object still holds when it is destroyed: an object left open because a
 *  failure latched before its owner could close it. The state is released all the same, so a
 *  failed session leaks nothing. */
void releaseLeftState(vxPluginStorage& storage, vxPluginMdClose_t vxReg::*close)
{
    if (storage.handle != nullptr && cryptoRegistry != nullptr) {
        (void)(cryptoRegistry->*close)(&storage);
    }
}

} // namespace

// ---- registry and front object ----

LVX_DEFINE_LIFECYCLE(vxReg)

bool vxReg::linkResolvedSymbols(vxPluginAccepts& accepts)
{
    for (const vxPluginAccepts::entry& entry : accepts.symbols) {
        const auto* field = std::find_if(
            std::begin(registryFields), std::end(registryFields),
            [&entry](const registryField& candidate) { return entry.name == candidate.name; });
        if (field == std::end(registryFields)) {
            const std::string text = LVX_MSG_NO_SYMBOL + entry.name;
            LVX_GUARD_LATCH();
            LVX_FAIL("%s", text.c_str());
        }
        field->bind(*this, entry.function);
    }
    return true;
}

vxApi::vxApi() : searchPath(VX_DEFAULT_PLUGIN_PATH)
{
    LVX_INIT_OBJECT();
}

vxApi::~vxApi()
{
    LVX_DESTRUCT();
}

bool vxApi::Open(const std::string& pluginName)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(cryptoRegistry == nullptr, LVX_MSG_PLUGIN_LOADED);
    LVX_CHECK(populatePluginAccepts());
    LVX_CHECK(loader.loadPlugin(searchPath, pluginName, accepts));
    cryptoRegistry = new vxReg();
    LVX_CHECK(cryptoRegistry->linkResolvedSymbols(accepts));
    return true;
}

bool vxApi::Close()
{
    delete cryptoRegistry;
    cryptoRegistry = nullptr;
    return true;
}

bool vxApi::makeSymbol(std::string symbol)
{
    accepts.symbols.push_back({std::move(symbol), nullptr});
    return true;
}

bool vxApi::populatePluginAccepts()
{
    for (const char* entry : askedNames) {
        (void)makeSymbol(entry);
    }
    return true;
}

// ---- algorithm identifiers ----

/** The case label of one algorithm's id; defined for the two Open operations below only. */
#define VX_ALGORITHM_CASE(identifier, id, name, bytes) case identifier:

LVX_DEFINE_LIFECYCLE(vxHashId)

bool vxHashId::Open(uint32_t id)
{
    switch (id) {
        VX_DIGEST_ALGORITHMS(VX_ALGORITHM_CASE)
        value = id;
        return true;
    default:
        return false; // quiet: the owner reports an unknown algorithm
    }
}

bool vxHashId::GetValue(uint32_t& id) const
{
    id = value;
    return true;
}

LVX_DEFINE_LIFECYCLE(vxCipherId)

bool vxCipherId::Open(uint32_t id)
{
    switch (id) {
        VX_CIPHER_ALGORITHMS(VX_ALGORITHM_CASE)
        value = id;
        return true;
    default:
        return false; // quiet: the owner reports an unknown algorithm
    }
}

#undef VX_ALGORITHM_CASE

bool vxCipherId::GetValue(uint32_t& id) const
{
    id = value;
    return true;
}

// ---- message digest ----

LVX_DEFINE_LIFECYCLE_RELEASING(vxMd, releaseLeftState(storage, &vxReg::vxPluginMdClose))

bool vxMd::Open(const vxHashId& id)
{
    if (cryptoRegistry == nullptr) {
        return false; // quiet: without a plug-in there is nothing to bind to
    }
    LVX_GUARD_LATCH();
    uint32_t value = 0;
    LVX_CHECK(id.GetValue(value));
    storage.isopen = plugin().vxPluginMdOpen(&storage, value);
    return storage.isopen;
}

bool vxMd::Init()
{
    finalized = false;
    length = 0;
    return plugin().vxPluginMdInit(&storage);
}

bool vxMd::update(const unsigned char* data, uint32_t size)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(!finalized, LVX_MSG_NOT_FINALIZED);
    length += size;
    (void)plugin().vxPluginMdUpdate(&storage, data, size);
    return true;
}

bool vxMd::Update(const char* data, uint32_t size)
{
    return update(reinterpret_cast<const unsigned char*>(data), size);
}

bool vxMd::Update(const std::string& text)
{
    return Update(text.data(), static_cast<uint32_t>(text.size()));
}

bool vxMd::Update(std::string&& text)
{
    return Update(text.data(), static_cast<uint32_t>(text.size()));
}

bool vxMd::Update(const std::string* text)
{
    return Update(text->data(), static_cast<uint32_t>(text->size()));
}

bool vxMd::Update(const vxBytes& data)
{
    // Passed in place: a copy would cost time and, for large buffers, stack.
    return update(data.bytes.data(), static_cast<uint32_t>(data.bytes.size()));
}

bool vxMd::Final()
{
    finalized = true;
    (void)plugin().vxPluginMdFinal(&storage);
    return true;
}

bool digestPair(vxMd& first, const unsigned char* firstData, uint32_t firstLength, vxMd& second,
                const unsigned char* secondData, uint32_t secondLength)
{
    const vxPluginMdDigestPair_t both = plugin().vxPluginMdDigestPair;
    if (both != nullptr &&
        both(&first.storage, firstData, firstLength, &second.storage, secondData, secondLength)) {
        first.finalized = true;
        second.finalized = true;
        first.length = firstLength;
        second.length = secondLength;
        return true;
    }
    const auto whole = [](vxMd& md, const unsigned char* data, uint32_t size) {
        return md.Init() && md.Update(reinterpret_cast<const char*>(data), size) && md.Final();
    };
    return whole(first, firstData, firstLength) && whole(second, secondData, secondLength);
}

const unsigned char* digestBytes(vxMd& md, uint32_t size)
{
    if (!md.storage.isopen || plugin().vxPluginMdDigestSize(&md.storage) < size) {
        return nullptr;
    }
    const vxByteVector& digest = *plugin().vxPluginMdDigest(&md.storage);
    return digest.size() >= size ? digest.data() : nullptr;
}

bool vxMd::GetLength(uint32_t& size)
{
    size = length;
    return true;
}

void vxMd::appendDigest(std::vector<unsigned char>& out)
{
    const vxByteVector& digest = *plugin().vxPluginMdDigest(&storage);
    const uint32_t size = plugin().vxPluginMdDigestSize(&storage);
    if (size == 0) {
        return;
    }
    (void)digest.at(size - 1); // a plug-in vector shorter than its digest size is a fault
    out.insert(out.end(), digest.begin(), digest.begin() + size);
}

bool vxMd::GetBytes(vxBytes& digest)
{
    if (!storage.isopen) {
        return false; // quiet: nothing to read from an unbound digest
    }
    digest.bytes.clear();
    appendDigest(digest.bytes);
    return true;
}

bool vxMd::GetString(std::string& text)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(finalized, LVX_MSG_FINALIZED);
    std::vector<unsigned char> digest;
    appendDigest(digest);
    text = hexString(std::move(digest)).text;
    return true;
}

bool vxMd::Close()
{
    (void)plugin().vxPluginMdClose(&storage);
    storage.isopen = false;
    return true;
}

std::ostream& operator<<(std::ostream& out, const vxMd& md)
{
    std::string text;
    // GetString reads the finished digest and changes nothing; a copy would share the plug-in
    // state that only the original owns.
    const bool ok = const_cast<vxMd&>(md).GetString(text); // NOLINT(*-const-cast)
    return out << (ok ? text : LVX_MSG_STREAM_ERROR);
}

// ---- keyed digest ----

LVX_DEFINE_LIFECYCLE(vxHmacMd)

bool vxHmacMd::Open(vxHashId& id)
{
    LVX_CALL_OPEN(inner, id);
    LVX_CALL_OPEN(outer, id);
    return true;
}

bool vxHmacMd::SetKey(const vxBytes& key)
{
    const size_t size = key.bytes.size();
    innerKey.bytes.resize(size);
    outerKey.bytes.resize(size);
    // Eight bytes at a time through plain words: the transport derives pads for every 16-byte
    // block, and a byte loop through the vectors' accessors cannot be vectorised (stores of
    // unsigned char may alias the vectors' own pointers).
    const unsigned char* from = key.bytes.data();
    unsigned char* innerPad = innerKey.bytes.data();
    unsigned char* outerPad = outerKey.bytes.data();
    constexpr uint64_t kInnerMask = 0x3636363636363636ULL;
    constexpr uint64_t kOuterMask = 0x5C5C5C5C5C5C5C5CULL;
    size_t i = 0;
    for (; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t)) {
        uint64_t word = 0;
        std::memcpy(&word, from + i, sizeof word);
        const uint64_t innerWord = word ^ kInnerMask;
        const uint64_t outerWord = word ^ kOuterMask;
        std::memcpy(innerPad + i, &innerWord, sizeof innerWord);
        std::memcpy(outerPad + i, &outerWord, sizeof outerWord);
    }
    for (; i < size; ++i) {
        innerPad[i] = static_cast<unsigned char>(from[i] ^ 0x36U);
        outerPad[i] = static_cast<unsigned char>(from[i] ^ 0x5CU);
    }
    return true;
}

bool vxHmacMd::SetKey(const std::string& key)
{
    LVX_CHECK(result.Replace(key));
    LVX_CHECK(SetKey(result));
    return true;
}

bool vxHmacMd::Init()
{
    LVX_CHECK(inner.Init());
    LVX_CHECK(outer.Init());
    LVX_CHECK(inner.Update(innerKey));
    return true;
}

bool vxHmacMd::Update(const vxBytes& data)
{
    LVX_CHECK(inner.Update(data));
    return true;
}

bool vxHmacMd::Final()
{
    LVX_CHECK(inner.Final());
    result.bytes.clear();
    LVX_CHECK(inner.GetBytes(result));
    LVX_CHECK(outer.Update(outerKey));
    LVX_CHECK(outer.Update(result));
    LVX_CHECK(outer.Final());
    return true;
}

bool vxHmacMd::GetBytes(vxBytes& mac)
{
    mac.bytes = result.bytes;
    return true;
}

bool vxHmacMd::Close()
{
    LVX_CALL_CLOSE(inner);
    LVX_CALL_CLOSE(outer);
    return true;
}

// ---- block cipher ----

LVX_DEFINE_LIFECYCLE_RELEASING(vxCipher, releaseLeftState(storage, &vxReg::vxPluginCipherClose))

bool vxCipher::Open(const vxCipherId& id)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(!storage.isopen, LVX_MSG_STORAGE_CLOSED);
    LVX_ENSURE(cryptoRegistry != nullptr, LVX_MSG_REGISTRY);
    uint32_t value = 0;
    LVX_CHECK(id.GetValue(value));
    storage.isopen = plugin().vxPluginCipherOpen(&storage, value);
    LVX_GUARD_LATCH();
    LVX_ENSURE(storage.isopen, LVX_MSG_STORAGE_OPEN);
    LVX_CALL_OPEN(cipherId, value);
    return true;
}

bool vxCipher::SetKey(const vxBytes& key)
{
    LVX_GUARD();
    const bool accepted = plugin().vxPluginCipherSetKey(&storage, &key.bytes);
    LVX_GUARD_LATCH();
    LVX_ENSURE(accepted, LVX_MSG_SETKEY_FAILED);
    return true;
}

bool vxCipher::GetBlockSize(uint32_t& size)
{
    LVX_GUARD();
    size = plugin().vxPluginCipherGetBlockSize(&storage);
    return true;
}

bool vxCipher::GetKeySize(uint32_t& size)
{
    LVX_GUARD();
    size = plugin().vxPluginCipherGetKeySize(&storage);
    return true;
}

bool vxCipher::Encrypt(const vxBytes& in, vxBytes& out)
{
    return plugin().vxPluginCipherEncryptBlock(&storage, &in.bytes, &out.bytes);
}

bool vxCipher::Decrypt(const vxBytes& in, vxBytes& out)
{
    return plugin().vxPluginCipherDecryptBlock(&storage, &in.bytes, &out.bytes);
}

bool cipherBlocks(vxCipher& cipher, const unsigned char* in, unsigned char* out, uint32_t blocks,
                  bool encrypt)
{
    const vxReg& registry = plugin();
    const vxPluginCipherEncryptBlocks_t run =
        encrypt ? registry.vxPluginCipherEncryptBlocks : registry.vxPluginCipherDecryptBlocks;
    if (run != nullptr && run(&cipher.storage, in, out, blocks)) {
        return true;
    }
    const vxPluginCipherEncryptBlock_t one =
        encrypt ? registry.vxPluginCipherEncryptBlock : registry.vxPluginCipherDecryptBlock;
    const uint32_t size = registry.vxPluginCipherGetBlockSize(&cipher.storage);
    if (size == 0) {
        return false; // quiet: an unopened cipher; the caller's check records the failure
    }
    vxByteVector block;
    vxByteVector result;
    for (uint32_t k = 0; k < blocks; ++k) {
        block.assign(in + size_t{k} * size, in + (size_t{k} + 1) * size);
        if (!one(&cipher.storage, &block, &result) || result.size() != size) {
            return false; // quiet: the caller's check records the failure
        }
        std::copy(result.begin(), result.end(), out + size_t{k} * size);
    }
    return true;
}

bool vxCipher::Close()
{
    // The plug-in state is released even while latched; isopen stays set so the object cannot be
    // opened again.
    (void)plugin().vxPluginCipherClose(&storage);
    LVX_GUARD_LATCH();
    LVX_CALL_CLOSE(cipherId);
    return true;
}

// ---- random source ----

LVX_DEFINE_LIFECYCLE_RELEASING(vxRand, releaseLeftState(storage, &vxReg::vxPluginRandClose))

bool vxRand::Open(bool flag)
{
    storage.isopen = plugin().vxPluginRandOpen(&storage, flag);
    return storage.isopen;
}

bool vxRand::SetTestMode()
{
    testMode = true;
    return true;
}

bool vxRand::Read(uint32_t count)
{
    if (!storage.isopen) {
        return false; // quiet: an unopened source draws nothing
    }
    return plugin().vxPluginRandRead(&storage, count, testMode);
}

bool vxRand::GetBytes(vxBytes& out)
{
    LVX_GUARD_LATCH();
    out.bytes = *plugin().vxPluginRandGetBytes(&storage);
    return true;
}

bool vxRand::GetHashedBytes(vxBytes& out)
{
    LVX_GUARD_LATCH();
    out.bytes.clear();
    const vxByteVector& drawn = *plugin().vxPluginRandGetBytes(&storage);
    if (drawn.empty()) {
        return false; // quiet: an empty draw is the caller's to judge
    }
    out.bytes = drawn;
    return true;
}

bool vxRand::GetNumFromZero(int limit, uint32_t& number)
{
    if (!storage.isopen) {
        return false; // quiet: an unopened source draws nothing
    }
    number = plugin().vxPluginRandGetNumFromZero(&storage, limit);
    return true;
}

bool vxRand::Close()
{
    (void)plugin().vxPluginRandClose(&storage);
    return true;
}

// ---- sequence ----

LVX_DEFINE_LIFECYCLE(vxSequence)

bool vxSequence::Open(uint32_t outputs)
{
    range = outputs;
    state = 1;
    divisor = 2U * outputs;
    return true;
}

bool vxSequence::Seed(const vxBytes& value)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(value.bytes.size() >= 4, LVX_MSG_SEED_SHORT);
    state = (uint32_t{value.bytes[0]} << 24U) | (uint32_t{value.bytes[1]} << 16U) |
            (uint32_t{value.bytes[2]} << 8U) | uint32_t{value.bytes[3]};
    return true;
}

uint32_t vxSequence::Next()
{
    // Dividing by twice the range drops the low bit of the scaled state; both ends rely on it.
    state = state * 1103515245U + 12345U;
    const uint32_t quotient = divisor == 0 ? 0 : state / divisor;
    return range == 0 ? 0 : quotient % range;
}

} // namespace veltrix

namespace veltrix {

// ---- RSA keys ----

namespace {

const char* const kDefaultFingerprint =
    "de:ad:c0:de:de:ad:c0:de:de:ad:c0:de:de:ad:c0:de:de:ad:c0:de:de:ad:c0:de:de:ad:c0:de:de:ad:c0:de";
constexpr uint32_t kLargeKeyBytes = 512; // a 4096-bit key takes its fingerprint from SHA-512
constexpr size_t kFingerprintDigits = 64;
constexpr size_t kKeyLineWidth = 80;
const char* const kKeyLabels = "NEPQD"; // body labels in file order, indices 1 to 5

std::string keyHeader(uint32_t keyBytes, bool isPrivate)
{
    return std::to_string(keyBytes * 8U) + " BIT " + (isPrivate ? "PRIVATE" : "PUBLIC");
}

/** A private key's file is for its owner only; a public key's gets what the umask leaves, as
 *  any other file the process creates. */
constexpr mode_t kPrivateKeyMode = 0600;
constexpr mode_t kPublicKeyMode = 0666;

/** Writes all of `text`, going on after a signal or a partial write. */
bool writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false; // quiet: a full or failing disk is the caller's to report
        }
        done += static_cast<size_t>(written);
    }
    return true;
}

/** Creates or replaces the key file at `path` with `text`. Nothing returns between open and
 *  close, so the descriptor never leaks. */
bool writeKeyFile(const std::string& path, const std::string& text, bool isPrivate)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                        isPrivate ? kPrivateKeyMode : kPublicKeyMode);
    if (fd == -1) {
        return false; // quiet: an unwritable path is the caller's to report
    }
    // The creation mode only applies to a new file, and the umask may narrow it further: an
    // old file keeps its own mode through the truncation, so it is restricted here, before any
    // private number is written. A file system without modes, or another user's file, refuses;
    // the key is then written as before rather than not at all.
    if (isPrivate) {
        (void)fchmod(fd, kPrivateKeyMode);
    }
    const bool written = writeAll(fd, text);
    const bool closed = close(fd) == 0; // a delayed write error shows here
    return written && closed;
}

} // namespace

vxRsa::vxRsa() : fingerprint(kDefaultFingerprint)
{
    LVX_INIT_OBJECT();
}

vxRsa::~vxRsa()
{
    LVX_DESTRUCT();
    releaseLeftState(storage, &vxReg::vxPluginRsaClose);
}

std::string vxRsa::exponent(int index)
{
    // The plug-in hands over a heap text; the library owns and releases it.
    const std::unique_ptr<std::string> text(plugin().vxPluginRsaGetExponent(&storage, index));
    return text ? *text : std::string();
}

bool vxRsa::Open()
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(cryptoRegistry != nullptr, LVX_MSG_REGISTRY_BARE);
    LVX_ENSURE(!storage.isopen, LVX_MSG_STORAGE_CLOSED);
    storage.isopen = plugin().vxPluginRsaOpen(&storage);
    return storage.isopen;
}

bool vxRsa::Close()
{
    (void)plugin().vxPluginRsaClose(&storage);
    return true;
}

bool vxRsa::GeneratePrivate(uint32_t bits)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(storage.isopen, LVX_MSG_STORAGE_OPEN);
    LVX_CHECK(plugin().vxPluginRsaGeneratePrivate(&storage, bits));
    LVX_CHECK(SetFingerprint());
    return true;
}

bool vxRsa::MakeKeyFromExps(const std::string& n, const std::string& e, const std::string& p,
                            const std::string& q, const std::string& d)
{
    LVX_CHECK(plugin().vxPluginRsaMakeKeyFromExps(&storage, &n, &e, &p, &q, &d));
    LVX_CHECK(SetFingerprint());
    return true;
}

bool vxRsa::GetExponents(std::string& n, std::string& e, std::string& p, std::string& q,
                         std::string& d)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(storage.isopen, LVX_MSG_STORAGE_OPEN);
    const bool isPrivate = plugin().vxPluginRsaIsPrivate(&storage);
    n = exponent(1);
    e = exponent(2);
    p = isPrivate ? exponent(3) : std::string();
    q = isPrivate ? exponent(4) : std::string();
    d = isPrivate ? exponent(5) : std::string();
    return true;
}

bool vxRsa::SpawnPublicCopy(vxRsa& target)
{
    if (!storage.isopen || !plugin().vxPluginRsaIsPrivate(&storage)) {
        return false; // quiet: only a private key has a public half to hand out
    }
    const std::string n = exponent(1);
    const std::string e = exponent(2);
    LVX_CHECK(target.MakeKeyFromExps(n, e, "", "", ""));
    return true;
}

bool vxRsa::Sign(const vxBytes& message, vxBytes& signature)
{
    LVX_CHECK(plugin().vxPluginRsaSign(&storage, &message.bytes, &signature.bytes));
    return true;
}

bool vxRsa::Verify(const vxBytes& message, const vxBytes& signature)
{
    LVX_CHECK(plugin().vxPluginRsaVerify(&storage, &message.bytes, &signature.bytes));
    return true;
}

bool vxRsa::GetKeySize(uint32_t& size)
{
    if (!storage.isopen) {
        return false; // quiet: no key, no size
    }
    size = plugin().vxPluginRsaKeySize(&storage, &size);
    return true;
}

bool vxRsa::KeyCheck()
{
    return plugin().vxPluginRsaKeyCheck(&storage);
}

bool vxRsa::IsPublic()
{
    return plugin().vxPluginRsaIsPublic(&storage);
}

bool vxRsa::IsPrivate()
{
    return plugin().vxPluginRsaIsPrivate(&storage);
}

bool vxRsa::BlindingOn()
{
    return plugin().vxPluginRsaBlindingOn(&storage);
}

bool vxRsa::BlindingOff()
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(storage.isopen, LVX_MSG_STORAGE_OPEN);
    return plugin().vxPluginRsaBlindingOff(&storage);
}

bool vxRsa::PublicEncrypt(uint32_t length, const unsigned char* from, unsigned char* to)
{
    return plugin().vxPluginRsaPublicEncrypt(&storage, length, from, to) > 0;
}

bool vxRsa::PrivateDecrypt(const unsigned char* from, unsigned char* to)
{
    return plugin().vxPluginRsaPrivateDecrypt(&storage, from, to) > 0;
}

bool vxRsa::SetFingerprint()
{
    const std::string modulus = exponent(1);
    LVX_GUARD_LATCH();
    uint32_t size = 0;
    LVX_CHECK(GetKeySize(size));
    vxHashId id;
    vxMd md;
    LVX_CALL_OPEN(id, size == kLargeKeyBytes ? vxHashId::sha512 : vxHashId::sha256);
    LVX_CALL_OPEN(md, id);
    LVX_CHECK(md.Init());
    LVX_CHECK(md.Update(modulus));
    LVX_CHECK(md.Final());
    fingerprint.clear();
    std::string digest;
    LVX_CHECK(md.GetString(digest));
    // The first 32 digest bytes as hex pairs joined by ":"; a SHA-512 digest's rest is unused.
    for (size_t i = 0; i < kFingerprintDigits; i += 2) {
        fingerprint.append(digest, i, 2).push_back(':');
    }
    fingerprint.pop_back();
    LVX_CALL_CLOSE(md);
    LVX_CALL_CLOSE(id);
    return true;
}

bool vxRsa::GetFingerprint(std::string& text)
{
    text = fingerprint;
    return true;
}

bool vxRsa::WriteKeyToDisk(const std::string& path)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(storage.isopen, LVX_MSG_STORAGE_OPEN);
    const bool isPrivate = plugin().vxPluginRsaIsPrivate(&storage);
    uint32_t keyBytes = 0;
    keyBytes = plugin().vxPluginRsaKeySize(&storage, &keyBytes);
    const std::string header = keyHeader(keyBytes, isPrivate);
    std::string body;
    for (int index = 1; index <= (isPrivate ? 5 : 2); ++index) {
        body.append(1, kKeyLabels[index - 1]).append(": ").append(exponent(index)).push_back('\n');
    }
    const std::string hex = hexString(std::vector<unsigned char>(body.begin(), body.end())).text;

    std::string text = "---- BEGIN KEYSEAL " + header + " KEY ----\n";
    text.append("---- FINGERPRINT    ").append(fingerprint).push_back('\n');
    for (size_t i = 0; i < hex.size(); i += kKeyLineWidth) {
        text.append(hex, i, kKeyLineWidth).push_back('\n');
    }
    // The end marker keeps its blank after the dashes; readers skip both markers.
    text.append("---- END KEYSEAL ").append(header).append(" KEY ---- \n");
    return writeKeyFile(path, text, isPrivate);
}

bool vxRsa::ReadKeyFromDisk(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        const std::string text = LVX_MSG_NO_KEY_FILE + path;
        LVX_GUARD_LATCH();
        LVX_FAIL("%s", text.c_str());
    }
    // Markers and the fingerprint line start with "-" and are skipped: the fingerprint is
    // recomputed from the modulus, so the file's copy is informative only.
    std::string hex;
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '-' || line.find_first_not_of(' ') == std::string::npos) {
            continue;
        }
        hex += line;
    }
    const hexString decoded(hex);
    std::istringstream body(std::string(decoded.bytes.begin(), decoded.bytes.end()));
    std::string numbers[5];
    while (std::getline(body, line)) {
        std::istringstream words(line);
        std::string label;
        std::string value;
        words >> label >> value;
        // A line without any word throws std::out_of_range here.
        const char* const letter = std::strchr(kKeyLabels, label.at(0));
        if (letter == nullptr || *letter == '\0') {
            break; // an unknown label ends the body
        }
        numbers[letter - kKeyLabels] = value;
    }
    storage.isopen = plugin().vxPluginRsaMakeKeyFromExps(&storage, &numbers[0], &numbers[1],
                                                         &numbers[2], &numbers[3], &numbers[4]);
    if (!storage.isopen) {
        return false; // quiet: the plug-in rejected the numbers
    }
    LVX_CHECK(SetFingerprint());
    return true;
}

} // namespace veltrix
