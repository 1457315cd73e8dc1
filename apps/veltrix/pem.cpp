// RSA keys in PEM: the DER writer of the public key and the DER reader of imported keys.
#include "pem.h"

#include "cliFrame.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <utility>

namespace vxcli {

namespace {

/** DER tags of the elements the key structures use. */
constexpr unsigned char derInteger = 0x02;
constexpr unsigned char derBitString = 0x03;
constexpr unsigned char derOctetString = 0x04;
constexpr unsigned char derNull = 0x05;
constexpr unsigned char derObjectId = 0x06;
constexpr unsigned char derSequence = 0x30;

/** OBJECT IDENTIFIER 1.2.840.113549.1.1.1 (rsaEncryption), content only. */
constexpr std::string_view rsaEncryption("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9);

const char base64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/** Bytes of a non-negative number given as hex text, most significant first, no leading zeros. */
std::string numberBytes(const std::string& hex)
{
    if (hex.empty() || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw failure("the key's number \"" + hex + "\" is not hex text");
    }
    const std::string digits = (hex.size() % 2 != 0 ? "0" : "") + hex;
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes.substr(std::min(bytes.find_first_not_of('\0'), bytes.size()));
}

/** A DER element: the tag, the definite length, the content. A length below 128 is its own byte;
 *  a longer one is its big-endian bytes after a byte of 0x80 plus their count. */
std::string der(unsigned char tag, const std::string& content)
{
    std::string length(1, static_cast<char>(content.size()));
    if (content.size() >= 0x80) {
        length.clear();
        for (size_t rest = content.size(); rest > 0; rest >>= 8) {
            length.insert(length.begin(), static_cast<char>(rest & 0xff));
        }
        length.insert(length.begin(), static_cast<char>(0x80 | length.size()));
    }
    return static_cast<char>(tag) + length + content;
}

std::string derNumber(const std::string& hex)
{
    std::string bytes = numberBytes(hex);
    // DER integers are signed: a leading zero keeps a set top bit positive, and zero is one byte.
    if (bytes.empty() || (static_cast<unsigned char>(bytes[0]) & 0x80) != 0) {
        bytes.insert(bytes.begin(), '\0');
    }
    return der(derInteger, bytes);
}

std::string subjectPublicKeyInfo(const std::string& modulus, const std::string& exponent)
{
    const std::string algorithm =
        der(derObjectId, std::string(rsaEncryption)) + der(derNull, std::string());
    const std::string publicKey = der(derSequence, derNumber(modulus) + derNumber(exponent));
    // The BIT STRING starts with its count of unused bits, 0.
    return der(derSequence,
               der(derSequence, algorithm) + der(derBitString, std::string(1, '\0') + publicKey));
}

/** Base64 (RFC 4648) with "=" padding, a line feed after every 64 characters and at the end. */
std::string base64Lines(const std::string& bytes)
{
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - at);
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i) {
            group = group << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        }
        for (size_t i = 0; i < 4; ++i) {
            text += i <= count ? base64Alphabet[(group >> (18 - 6 * i)) & 0x3f] : '=';
        }
    }
    std::string lines;
    for (size_t at = 0; at < text.size(); at += 64) {
        lines += text.substr(at, 64) + '\n';
    }
    return lines;
}

} // namespace

std::string publicKeyPem(const std::string& modulus, const std::string& exponent)
{
    return "-----BEGIN PUBLIC KEY-----\n" + base64Lines(subjectPublicKeyInfo(modulus, exponent)) +
           "-----END PUBLIC KEY-----\n";
}

namespace {

/** Reads DER elements one after the other from a piece of bytes, never past its end. */
class derReader
{
public:
    explicit derReader(std::string_view bytes) : rest(bytes) {}

    /** A reader of the content of the one SEQUENCE that `bytes` hold, with nothing after it. */
    static derReader whole(std::string_view bytes, const char* what)
    {
        derReader outer(bytes);
        const derReader content(outer.element(derSequence, what));
        outer.expectEnd(what);
        return content;
    }

    [[nodiscard]] bool atEnd() const { return rest.empty(); }

    /** The tag of the next element; the reader must not be at its end. */
    [[nodiscard]] unsigned char nextTag() const { return static_cast<unsigned char>(rest[0]); }

    /** The content of the next element, which must carry `tag` and a definite length in its
     *  shortest form that the bytes left can hold. */
    std::string_view element(unsigned char tag, const char* what)
    {
        if (rest.size() < 2 || nextTag() != tag) {
            throw pemProblem(std::string("is not an RSA key: ") + what + " is missing");
        }
        size_t length = static_cast<unsigned char>(rest[1]);
        size_t header = 2;
        if (length >= 0x80) {
            const size_t count = length & 0x7fU;
            // A length of more than four bytes would describe more than any key file holds.
            if (count == 0 || count > 4 || rest.size() < 2 + count || rest[2] == '\0') {
                throw pemProblem(std::string("is not DER: the length of ") + what +
                                 " is not a definite length in its shortest form");
            }
            length = 0;
            for (size_t i = 0; i < count; ++i) {
                length = length << 8U | static_cast<unsigned char>(rest[2 + i]);
            }
            if (length < 0x80) {
                throw pemProblem(std::string("is not DER: the length of ") + what +
                                 " is not in its shortest form");
            }
            header += count;
        }
        if (length > rest.size() - header) {
            throw pemProblem(std::string("is cut short: ") + what + " ends past the key's end");
        }
        const std::string_view content = rest.substr(header, length);
        rest.remove_prefix(header + length);
        return content;
    }

    /** The next INTEGER as upper-case hex in whole bytes ("010001"), "00" for zero. Refuses a
     *  negative number and any encoding longer than needed. */
    std::string number(const char* what)
    {
        const std::string_view content = element(derInteger, what);
        if (content.empty() || (content.size() > 1 && content[0] == '\0' &&
                                (static_cast<unsigned char>(content[1]) & 0x80U) == 0)) {
            throw pemProblem(std::string("is not DER: ") + what + " is not in its shortest form");
        }
        if ((static_cast<unsigned char>(content[0]) & 0x80U) != 0) {
            throw pemProblem(std::string("is not an RSA key: ") + what + " is negative");
        }
        static const char digits[] = "0123456789ABCDEF";
        const std::string_view value =
            content.size() > 1 && content[0] == '\0' ? content.substr(1) : content;
        std::string hex;
        hex.reserve(2 * value.size());
        for (const char c : value) {
            hex += digits[static_cast<unsigned char>(c) >> 4U];
            hex += digits[static_cast<unsigned char>(c) & 0xfU];
        }
        return hex;
    }

    /** The next INTEGER, which must be a small version number. */
    unsigned version(const char* what)
    {
        const std::string hex = number(what);
        return hex.size() == 2 ? static_cast<unsigned>(std::stoul(hex, nullptr, 16)) : 0x100U;
    }

    /** Refuses anything left after the elements read. */
    void expectEnd(const char* what) const
    {
        if (!rest.empty()) {
            throw pemProblem(std::string("is not an RSA key: ") + what + " is followed by " +
                             std::to_string(rest.size()) +
                             (rest.size() == 1 ? " more byte" : " more bytes"));
        }
    }

private:
    std::string_view rest;
};

/** The dotted form of an OBJECT IDENTIFIER's content ("1.2.840.10045.2.1"). */
std::string dottedOid(std::string_view content)
{
    std::string dotted;
    uint64_t value = 0;
    for (size_t at = 0; at < content.size() && value < (uint64_t{1} << 56U); ++at) {
        const auto byte = static_cast<unsigned char>(content[at]);
        value = value << 7U | (byte & 0x7fU);
        if ((byte & 0x80U) != 0) {
            continue;
        }
        if (dotted.empty()) {
            // The first number holds the first two arcs: 40 * first + second.
            const uint64_t first = std::min<uint64_t>(value / 40, 2);
            dotted = std::to_string(first) + "." + std::to_string(value - 40 * first);
        } else {
            dotted += "." + std::to_string(value);
        }
        value = 0;
    }
    return dotted;
}

/** What the algorithm identifier `oid` names, for the refusal of a key that is not RSA. */
std::string algorithmName(std::string_view oid)
{
    static const std::pair<const char*, const char*> known[] = {
        {"1.2.840.10045.2.1", "an EC key"},   {"1.3.101.112", "an Ed25519 key"},
        {"1.3.101.113", "an Ed448 key"},      {"1.3.101.110", "an X25519 key"},
        {"1.3.101.111", "an X448 key"},       {"1.2.840.10040.4.1", "a DSA key"},
        {"1.2.840.113549.1.3.1", "a DH key"}, {"1.2.840.113549.1.1.10", "an RSASSA-PSS key"}};
    const std::string dotted = dottedOid(oid);
    for (const auto& [number, name] : known) {
        if (dotted == number) {
            return std::string(name) + " (OID " + dotted + ")";
        }
    }
    return "a key of another algorithm (OID " + dotted + ")";
}

/** Reads an AlgorithmIdentifier, which must name rsaEncryption with NULL (or no) parameters. */
void readRsaAlgorithm(derReader& from)
{
    derReader algorithm(from.element(derSequence, "the algorithm identifier"));
    const std::string_view oid = algorithm.element(derObjectId, "the algorithm");
    if (oid != rsaEncryption) {
        throw pemProblem("holds " + algorithmName(oid) + ", not an RSA key (rsaEncryption)");
    }
    if (!algorithm.atEnd() && !algorithm.element(derNull, "the NULL parameters").empty()) {
        throw pemProblem("is not DER: the NULL parameters hold bytes");
    }
    algorithm.expectEnd("the algorithm identifier");
}

/** The modulus and the public exponent, which open both RSAPublicKey and RSAPrivateKey. */
rsaNumbers readPublicNumbers(derReader& key)
{
    rsaNumbers numbers;
    numbers.n = key.number("the modulus");
    numbers.e = key.number("the public exponent");
    return numbers;
}

/** RSAPublicKey: SEQUENCE { modulus, publicExponent }, and nothing after it. */
rsaNumbers readRsaPublicKey(std::string_view bytes)
{
    derReader key = derReader::whole(bytes, "the RSAPublicKey sequence");
    rsaNumbers numbers = readPublicNumbers(key);
    key.expectEnd("the public exponent");
    return numbers;
}

/** RSAPrivateKey of two primes: SEQUENCE { version 0, n, e, d, p, q, d mod (p-1), d mod (q-1),
 *  q^-1 mod p }, and nothing after it. The last three are read for their form only: the
 *  crypto plug-in derives its own from P, Q and D. */
rsaNumbers readRsaPrivateKey(std::string_view bytes)
{
    derReader key = derReader::whole(bytes, "the RSAPrivateKey sequence");
    const unsigned version = key.version("the RSAPrivateKey version");
    if (version != 0) {
        throw pemProblem(version == 1 ? "holds an RSA key of more than two primes, which veltrix "
                                        "cannot use"
                                      : "is not an RSA key: the RSAPrivateKey version is unknown");
    }
    rsaNumbers numbers = readPublicNumbers(key);
    numbers.d = key.number("the private exponent");
    numbers.p = key.number("the first prime");
    numbers.q = key.number("the second prime");
    for (const char* what :
         {"the first CRT exponent", "the second CRT exponent", "the CRT coefficient"}) {
        std::string value = key.number(what);
        explicit_bzero(value.data(), value.size());
    }
    key.expectEnd("the CRT coefficient");
    return numbers;
}

/** PrivateKeyInfo (version 0) or OneAsymmetricKey (version 1): the version, the rsaEncryption
 *  algorithm, the RSAPrivateKey in an OCTET STRING, then optional attributes [0] and, in
 *  version 1, the public key [1], which are not needed. */
rsaNumbers readPrivateKeyInfo(std::string_view bytes)
{
    derReader info = derReader::whole(bytes, "the PrivateKeyInfo sequence");
    const unsigned version = info.version("the PrivateKeyInfo version");
    if (version > 1) {
        throw pemProblem("is not a private key: the PrivateKeyInfo version is unknown");
    }
    readRsaAlgorithm(info);
    rsaNumbers numbers = readRsaPrivateKey(info.element(derOctetString, "the private key"));
    if (!info.atEnd() && info.nextTag() == 0xa0) {
        (void)info.element(0xa0, "the attributes");
    }
    if (version == 1 && !info.atEnd() && info.nextTag() == 0x81) {
        (void)info.element(0x81, "the public key");
    }
    info.expectEnd("the private key");
    return numbers;
}

/** SubjectPublicKeyInfo: the rsaEncryption algorithm, then the RSAPublicKey in a BIT STRING
 *  of whole bytes. */
rsaNumbers readSubjectPublicKeyInfo(std::string_view bytes)
{
    derReader info = derReader::whole(bytes, "the SubjectPublicKeyInfo sequence");
    readRsaAlgorithm(info);
    const std::string_view bits = info.element(derBitString, "the public key");
    info.expectEnd("the public key");
    if (bits.empty() || bits[0] != '\0') {
        throw pemProblem("is not an RSA key: the public key is not whole bytes");
    }
    return readRsaPublicKey(bits.substr(1));
}

/** The value of one base64 digit; -1 for any other character. */
int base64Value(char c)
{
    const char* const at = std::strchr(base64Alphabet, c);
    return c != '\0' && at != nullptr ? static_cast<int>(at - base64Alphabet) : -1;
}

/** Decodes base64 (RFC 4648) strictly: groups of four digits, "=" only to pad the last one, and
 *  padding bits of zero, as every encoder writes them. */
std::string decodeBase64(const std::string& text)
{
    size_t padding = 0;
    while (padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    const size_t digits = text.size() - padding;
    for (size_t at = 0; at < digits; ++at) {
        if (base64Value(text[at]) < 0) {
            char shown[8];
            (void)std::snprintf(shown, sizeof shown,
                                std::isgraph(static_cast<unsigned char>(text[at])) != 0 ? "\"%c\""
                                                                                        : "0x%02x",
                                static_cast<unsigned char>(text[at]));
            throw pemProblem(std::string("is not base64: it holds ") + shown + " in the key");
        }
    }
    if (text.empty() || text.size() % 4 != 0 || padding > 2) {
        throw pemProblem("is cut short or changed: its base64 text does not end a group of four");
    }
    std::string bytes;
    uint32_t group = 0;
    for (size_t at = 0; at < digits; ++at) {
        group = group << 6U | static_cast<uint32_t>(base64Value(text[at]));
        if (at % 4 == 3) {
            bytes += static_cast<char>(group >> 16U);
            bytes += static_cast<char>(group >> 8U);
            bytes += static_cast<char>(group);
        }
    }
    const uint32_t leftBits = padding == 1 ? 2U : padding == 2 ? 4U : 0U;
    if ((group & ((1U << leftBits) - 1)) != 0) {
        throw pemProblem("is not base64 in its canonical form: the padding bits are not zero");
    }
    if (padding != 0) {
        group >>= leftBits;
        for (size_t i = 3 - padding; i > 0; --i) {
            bytes += static_cast<char>(group >> (8 * (i - 1)));
        }
    }
    explicit_bzero(&group, sizeof group);
    return bytes;
}

/** A PEM block: its label ("RSA PRIVATE KEY") and its DER bytes. */
struct pemBlock
{
    std::string label;
    std::string bytes;
};

/** The first PEM block of `text`. Text before its BEGIN line is skipped, as RFC 7468 allows
 *  (explanations that some tools write first); the block must end with the END line of the same
 *  label. Headers (RFC 1421 "Proc-Type:") come only with encrypted keys. */
pemBlock readPemBlock(const std::string& text)
{
    static const std::string begin = "-----BEGIN ";
    static const std::string dashes = "-----";
    pemBlock block;
    std::string base64;
    const wipeOnExit base64Wiped(base64);
    bool inside = false;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        // Blanks around a line are not part of it (npos + 1: a blank line becomes empty).
        line.erase(line.find_last_not_of(" \t\r") + 1);
        line.erase(0, std::min(line.find_first_not_of(" \t"), line.size()));
        at = end + 1;
        if (!inside && line.rfind(begin, 0) == 0 && line.size() > begin.size() + dashes.size() &&
            line.compare(line.size() - dashes.size(), dashes.size(), dashes) == 0) {
            block.label = line.substr(begin.size(), line.size() - begin.size() - dashes.size());
            inside = true;
        } else if (inside && line == "-----END " + block.label + dashes) {
            block.bytes = decodeBase64(base64);
            return block;
        } else if (inside && line.find(':') != std::string::npos) {
            throw pemProblem(line.find("ENCRYPTED") != std::string::npos
                                 ? "holds an encrypted private key: import-pem reads unencrypted "
                                   "keys only"
                                 : "has PEM headers (\"" + line +
                                       "\"), which import-pem does not read");
        } else if (inside) {
            base64 += line;
        }
    }
    if (!inside) {
        throw pemProblem("is not PEM: it has no \"-----BEGIN ...-----\" line");
    }
    throw pemProblem("is cut short: it has no \"-----END " + block.label + "-----\" line");
}

} // namespace

rsaNumbers readPemKey(const std::string& text)
{
    pemBlock block = readPemBlock(text);
    const wipeOnExit bytesWiped(block.bytes);
    if (block.label == "RSA PRIVATE KEY") {
        return readRsaPrivateKey(block.bytes);
    }
    if (block.label == "PRIVATE KEY") {
        return readPrivateKeyInfo(block.bytes);
    }
    if (block.label == "RSA PUBLIC KEY") {
        return readRsaPublicKey(block.bytes);
    }
    if (block.label == "PUBLIC KEY") {
        return readSubjectPublicKeyInfo(block.bytes);
    }
    if (block.label == "ENCRYPTED PRIVATE KEY") {
        throw pemProblem("holds an encrypted private key: import-pem reads unencrypted keys only");
    }
    throw pemProblem("holds \"" + block.label +
                     "\", not an RSA key (RSA PRIVATE KEY, PRIVATE KEY, RSA PUBLIC KEY or PUBLIC "
                     "KEY)");
}

} // namespace vxcli
