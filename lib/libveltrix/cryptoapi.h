/// @file
/// The crypto objects and the registry through which they reach the crypto plug-in.
#pragma once

#include "pluginLoader.h"
#include "vxBytes.h"
#include "vxPlugin.h"

#include <ostream>
#include <string>

namespace veltrix {

/** One address per plug-in entry point, bound by name from what the loader resolved. */
class VX_API vxReg : public vxBase
{
public:
    /** Declares the field of one entry point; defined for the list below only. */
#define VX_REG_FIELD(name, asked, result, params) name##_t name = nullptr;
    /** @name Entry points
     *  One field per entry point of VX_PLUGIN_ENTRY_POINTS, in registry order. */
    ///@{
    /** The address of the plug-in's entry point of this name, of its pointer type (field
     *  vxPluginMdOpen has type vxPluginMdOpen_t, and so on). Null until linkResolvedSymbols,
     *  and after it when the plug-in did not provide the entry point. */
    VX_PLUGIN_ENTRY_POINTS(VX_REG_FIELD)
    ///@}
#undef VX_REG_FIELD

    vxReg();
    LVX_NOT_COPYABLE(vxReg);
    ~vxReg() override;

    /** Copies each accepted entry's address into the field of the same name (empty addresses
     *  too). Fails with "Unable to resolve symbol: <name>" for a name that has no field. */
    [[nodiscard]] bool linkResolvedSymbols(vxPluginAccepts& accepts);
};

/** The one process-wide registry; set by vxApi::Open, cleared by vxApi::Close. */
VX_API extern vxReg* cryptoRegistry;

/** Loads and binds the crypto plug-in; one plug-in per process. */
class VX_API vxApi : public vxBase
{
public:
    /** The ":"-separated plug-in directories; the library's built-in list until
     *  setSearchPath. */
    std::string searchPath;
    pluginLoader loader;     ///< finds, opens and binds the plug-in file
    vxPluginAccepts accepts; ///< the entry points asked for, and the addresses bound to them

    vxApi();
    LVX_NOT_COPYABLE(vxApi);
    ~vxApi() override;

    using vxBase::Open;
    /** Loads the plug-in `name` from the search path and creates the registry. Fails with
     *  "Plugin already loaded." when a registry exists, or with the loader's texts. */
    [[nodiscard]] bool Open(const std::string& name);
    /** Destroys the registry (the plug-in stays mapped); true. */
    [[nodiscard]] bool Close() override;

    /** Replaces the search path; takes effect at the next Open. */
    void setSearchPath(const std::string& path) { searchPath = path; }

    /** Adds `symbol` to the accepted entry points, without an address yet; true. */
    [[nodiscard]] bool makeSymbol(std::string symbol);
    /** Lists every entry point of VX_PLUGIN_ENTRY_POINTS, in the order of asking (each one's
     *  `asked` place). */
    [[nodiscard]] bool populatePluginAccepts();
};

/** Declares the identifier of one algorithm; defined for the two lists below only. */
#define VX_ALGORITHM_ID(identifier, id, name, bytes) identifier = (id),

/** A digest algorithm of VX_DIGEST_ALGORITHMS. */
class VX_API vxHashId : public vxBase
{
public:
    /** vxHashId::md5 and so on: the id of each digest algorithm. */
    enum : uint32_t
    {
        VX_DIGEST_ALGORITHMS(VX_ALGORITHM_ID)
    };

    uint32_t value = 0; ///< the identifier; 0 until Open

    vxHashId();
    LVX_COPYABLE(vxHashId);
    ~vxHashId() override;

    using vxBase::Open;
    /** Accepts the ids of VX_DIGEST_ALGORITHMS only; false (no message, no latch) for any
     *  other value. */
    [[nodiscard]] bool Open(uint32_t id);
    /** The identifier into `id`; always true. */
    [[nodiscard]] bool GetValue(uint32_t& id) const;
};

/** A block cipher of VX_CIPHER_ALGORITHMS. */
class VX_API vxCipherId : public vxBase
{
public:
    /** vxCipherId::none and so on: the id of each cipher. */
    enum : uint32_t
    {
        VX_CIPHER_ALGORITHMS(VX_ALGORITHM_ID)
    };

    uint32_t value = 0; ///< the identifier; 0 until Open

    vxCipherId();
    LVX_COPYABLE(vxCipherId);
    ~vxCipherId() override;

    using vxBase::Open;
    /** Accepts the ids of VX_CIPHER_ALGORITHMS only; false (no message, no latch) otherwise. */
    [[nodiscard]] bool Open(uint32_t id);
    /** The identifier into `id`; always true. */
    [[nodiscard]] bool GetValue(uint32_t& id) const;
};

#undef VX_ALGORITHM_ID

/** A message digest computed by the plug-in. */
class VX_API vxMd : public vxBase
{
public:
    bool finalized = false;  ///< set by Final, cleared by Init
    vxPluginStorage storage; ///< the plug-in's digest state
    uint32_t length = 0;     ///< message bytes since construction or the last Init

    vxMd();
    /** Owns its plug-in state: not copyable. */
    LVX_NOT_COPYABLE(vxMd);
    /** Releases the plug-in state even when the object was left open. */
    ~vxMd() override;

    using vxBase::Open;
    /** Binds the algorithm. False without a message when no plug-in is loaded or the plug-in
     *  refuses the id. */
    [[nodiscard]] bool Open(const vxHashId& id);
    /** Starts a message; no guard. */
    [[nodiscard]] bool Init();
    /** Fails with "finalized == false" after Final until the next Init. */
    [[nodiscard]] bool Update(const char* data, uint32_t size);
    /** Feeds the characters of `text`; as above. */
    [[nodiscard]] bool Update(const std::string& text);
    /** Feeds the characters of `text`; as above. */
    [[nodiscard]] bool Update(std::string&& text);
    /** Feeds the characters of `*text`; as above. */
    [[nodiscard]] bool Update(const std::string* text);
    /** Feeds the bytes of `data`; as above. */
    [[nodiscard]] bool Update(const vxBytes& data);
    /** Finishes the message; no guard. */
    [[nodiscard]] bool Final();
    /** The message bytes fed since the last Init into `size`; always true. */
    [[nodiscard]] bool GetLength(uint32_t& size);
    /** The digest bytes; false without a message when the storage is not open. Final is not
     *  required. */
    [[nodiscard]] bool GetBytes(vxBytes& digest);
    /** The digest as upper-case hex; fails with "( finalized == true )" before Final. */
    [[nodiscard]] bool GetString(std::string& text);
    /** Releases the plug-in state. */
    [[nodiscard]] bool Close() override;

private:
    [[nodiscard]] VX_NO_EXPORT bool update(const unsigned char* data, uint32_t size);
    VX_NO_EXPORT void appendDigest(std::vector<unsigned char>& out);
};

/** Writes the hex digest, or "Object protocol error" when it is not available. */
VX_API std::ostream& operator<<(std::ostream& out, const vxMd& md);

/** The library's keyed digest: value = H((K xor 0x36) || m). The outer digest
 *  H((K xor 0x5C) || value) is computed and discarded. Peers depend on exactly this; it is not
 *  HMAC and must not become it. The key is used as it is, neither hashed nor padded. */
class VX_API vxHmacMd : public vxBase
{
public:
    vxMd inner;       ///< the inner digest, whose value is the result
    vxMd outer;       ///< the outer digest, computed and discarded
    vxBytes innerKey; ///< the key XOR 0x36, byte by byte
    vxBytes outerKey; ///< the key XOR 0x5C, byte by byte
    vxBytes result;   ///< the value of the last Final; SetKey with a text passes the key through it

    vxHmacMd();
    LVX_NOT_COPYABLE(vxHmacMd);
    ~vxHmacMd() override;

    using vxBase::Open;
    /** Opens both digests with `id`. */
    [[nodiscard]] bool Open(vxHashId& id);
    /** Derives both pads from the key; takes effect at the next Init. Always true. */
    [[nodiscard]] bool SetKey(const vxBytes& key);
    /** The same with the characters of `key`; refuses while latched. */
    [[nodiscard]] bool SetKey(const std::string& key);
    /** Starts a message and feeds the inner pad. */
    [[nodiscard]] bool Init();
    /** Feeds `data` to the inner digest. */
    [[nodiscard]] bool Update(const vxBytes& data);
    /** Finishes the inner digest (the value) and computes the outer one. */
    [[nodiscard]] bool Final();
    /** Copies the value of the last Final; always true. */
    [[nodiscard]] bool GetBytes(vxBytes& mac);
    [[nodiscard]] bool Close() override;
};

/** One block of the plug-in's cipher at a time. Not reopenable after Close. */
class VX_API vxCipher : public vxBase
{
public:
    vxPluginStorage storage; ///< the plug-in's cipher state
    vxCipherId cipherId;     ///< the cipher; opened by Open

    vxCipher();
    LVX_NOT_COPYABLE(vxCipher);
    ~vxCipher() override;

    using vxBase::Open;
    /** Fails with "storage.isopen == false" (opened before), "cryptoRegistry != NULL" (no
     *  plug-in), "storage.isopen == true" (the plug-in refused the id). */
    [[nodiscard]] bool Open(const vxCipherId& id);
    /** Fails with "Plugin layer SetKey failed" when the plug-in refuses the key. */
    [[nodiscard]] bool SetKey(const vxBytes& key);
    /** The plug-in's block size in bytes into `size`; runs the standard guard. */
    [[nodiscard]] bool GetBlockSize(uint32_t& size);
    /** The plug-in's key size in bytes into `size`; runs the standard guard. */
    [[nodiscard]] bool GetKeySize(uint32_t& size);
    /** Exactly one block, unchecked; the plug-in's result. */
    [[nodiscard]] bool Encrypt(const vxBytes& in, vxBytes& out);
    /** The inverse of Encrypt: exactly one block, unchecked; the plug-in's result. */
    [[nodiscard]] bool Decrypt(const vxBytes& in, vxBytes& out);
    [[nodiscard]] bool Close() override;
};

/** Random bytes from the plug-in. */
class VX_API vxRand : public vxBase
{
public:
    uint32_t reserved = 0;   ///< not used
    bool testMode = false;   ///< set by SetTestMode; passed to the plug-in with every Read
    vxPluginStorage storage; ///< the plug-in's generator state
    vxBytes scratch;         ///< not used

    vxRand();
    LVX_NOT_COPYABLE(vxRand);
    ~vxRand() override;

    using vxBase::Open;
    /** Opens the plug-in's generator state, handing `flag` to the plug-in's open entry point;
     *  false without a message when the plug-in refuses. Each Read hands over `testMode`. */
    [[nodiscard]] bool Open(bool flag);
    /** Makes every later Read use the plug-in's reproducible generator. Cannot be undone. */
    [[nodiscard]] bool SetTestMode();
    /** Draws `count` bytes; false without a message when not open. */
    [[nodiscard]] bool Read(uint32_t count);
    /** The bytes of the last Read into `out`; refuses while latched. */
    [[nodiscard]] bool GetBytes(vxBytes& out);
    /** As GetBytes, but false (no message) when the last draw was empty. */
    [[nodiscard]] bool GetHashedBytes(vxBytes& out);
    /** A number in [0, limit); false without a message when not open. */
    [[nodiscard]] bool GetNumFromZero(int limit, uint32_t& number);
    [[nodiscard]] bool Close() override;
};

/** A small deterministic sequence computed in the library; both ends of a connection derive the
 *  same values from the same seed. */
class VX_API vxSequence : public vxBase
{
public:
    uint32_t state = 0;   ///< set by Open and Seed, advanced by Next
    uint32_t divisor = 0; ///< twice the range
    uint32_t range = 0;   ///< the number of distinct values: Next returns 0 to range - 1

    vxSequence();
    LVX_COPYABLE(vxSequence);
    ~vxSequence() override;

    using vxBase::Open;
    /** Starts the sequence at state 1 with `outputs` distinct values; no guard. */
    [[nodiscard]] bool Open(uint32_t outputs);
    /** Fails with "inValue.bytes.size() >= 4" for fewer than four bytes. */
    [[nodiscard]] bool Seed(const vxBytes& value);
    /** Advances the state (state * 1103515245 + 12345, modulo 2^32) and returns
     *  (state / divisor) % range; 0 when the range is 0. */
    uint32_t Next();
};

/** An RSA key held by the plug-in, with a fingerprint computed in the library. */
class VX_API vxRsa : public vxBase
{
public:
    vxPluginStorage storage; ///< the plug-in's key
    std::string fingerprint; ///< set by SetFingerprint; a fixed placeholder until then

    vxRsa();
    LVX_NOT_COPYABLE(vxRsa);
    ~vxRsa() override;

    /** Fails with "cryptoRegistry" (no plug-in) or "storage.isopen == false" (opened before). */
    [[nodiscard]] bool Open() override;
    [[nodiscard]] bool Close() override;
    /** Fails with "storage.isopen == true" when not open. */
    [[nodiscard]] bool GeneratePrivate(uint32_t bits);
    /** A public key when p, q and d are empty. */
    [[nodiscard]] bool MakeKeyFromExps(const std::string& n, const std::string& e,
                                       const std::string& p, const std::string& q,
                                       const std::string& d);
    /** p, q and d are empty for a public key. */
    [[nodiscard]] bool GetExponents(std::string& n, std::string& e, std::string& p, std::string& q,
                                    std::string& d);
    /** Gives `target` (opened by the caller) the public half of this private key; false without a
     *  message when this key is not private. */
    [[nodiscard]] bool SpawnPublicCopy(vxRsa& target);
    /** RSASSA-PKCS1-v1_5 with SHA-256 in the OpenSSL plug-in. */
    [[nodiscard]] bool Sign(const vxBytes& message, vxBytes& signature);
    /** A signature that does not verify latches the error: callers treat it as fatal. */
    [[nodiscard]] bool Verify(const vxBytes& message, const vxBytes& signature);
    /** Modulus size in bytes. */
    [[nodiscard]] bool GetKeySize(uint32_t& size);
    /** The plug-in's consistency check of the key; its answer. */
    [[nodiscard]] bool KeyCheck();
    /** The plug-in's answer whether it holds a key that can act as a public key (in the OpenSSL
     *  plug-in, any key it holds). */
    [[nodiscard]] bool IsPublic();
    /** The plug-in's answer whether it holds a private key. */
    [[nodiscard]] bool IsPrivate();
    /** Asks the plug-in to blind private-key operations; its answer. */
    [[nodiscard]] bool BlindingOn();
    /** Asks the plug-in to stop blinding; its answer. Fails with "storage.isopen == true" when
     *  not open. */
    [[nodiscard]] bool BlindingOff();
    /** OAEP in the OpenSSL plug-in; `to` must hold the key size in bytes. */
    [[nodiscard]] bool PublicEncrypt(uint32_t length, const unsigned char* from, unsigned char* to);
    /** `from` is one key-size block. */
    [[nodiscard]] bool PrivateDecrypt(const unsigned char* from, unsigned char* to);
    /** The first 32 bytes of SHA-256 (SHA-512 for a 4096-bit key) over the modulus text, as 32
     *  hex pairs joined by ":". */
    [[nodiscard]] bool SetFingerprint();
    /** Copies `fingerprint` into `text`; always true. */
    [[nodiscard]] bool GetFingerprint(std::string& text);
    /** Writes the key file; false without a message when the file cannot be opened. A private
     *  key's file is created (or brought to) mode 0600; a public key's follows the umask. */
    [[nodiscard]] bool WriteKeyToDisk(const std::string& path);
    /** Reads a key file into this opened object; fails with "Unable to locate key: <path>".
     *  False without a message when the plug-in rejects the numbers. A body line without any
     *  word throws std::out_of_range. The numbers the body holds decide what is loaded, not the
     *  marker lines: empty P, Q and D make a public key, so a private key's file cut short
     *  before its P line (or whose body an unknown label ends there) loads as the public key of
     *  its N and E, with a true result. Check IsPrivate() when a private key is expected. A
     *  file cut inside P or Q (leaving D empty), or mid-line to an odd count of hex digits,
     *  gives the quiet false. */
    [[nodiscard]] bool ReadKeyFromDisk(const std::string& path);

private:
    VX_NO_EXPORT std::string exponent(int index);
};

} // namespace veltrix
