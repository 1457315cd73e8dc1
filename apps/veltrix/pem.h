// RSA keys in PEM: the public key written as other tools read it, and the RSA keys other tools
// write read back into their numbers. The key command uses no crypto library for this, so a
// small DER writer and reader do the encoding; the reader accepts the encodings DER allows and
// nothing else.
#pragma once

#include "vxBase.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace vxcli {

/** Overwrites `text` with zeros when the scope ends: it may hold private key material. */
class wipeOnExit
{
public:
    explicit wipeOnExit(std::string& secret) : text(secret) {}

    LVX_NOT_COPYABLE(wipeOnExit);

    ~wipeOnExit() { explicit_bzero(text.data(), text.size()); }

private:
    std::string& text;
};

/** The public key of modulus `modulus` and public exponent `exponent` (hex text) as a PEM
 *  "PUBLIC KEY" block: SubjectPublicKeyInfo (RFC 5280) holding an RSAPublicKey (RFC 8017),
 *  DER-encoded, in base64 lines of 64 characters. Throws failure for a number that is not hex. */
std::string publicKeyPem(const std::string& modulus, const std::string& exponent);

/** Why a PEM file cannot be imported, worded to follow "the PEM file <path> ". */
class pemProblem : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The numbers of an RSA key as upper-case hex, as the library's key file holds them; P, Q and
 *  D are empty for a public key. */
struct rsaNumbers
{
    std::string n;
    std::string e;
    std::string p;
    std::string q;
    std::string d;

    // Moved out of the readers, never copied: each copy of a secret number is one more to wipe.
    rsaNumbers() = default;
    rsaNumbers(const rsaNumbers&) = delete;
    rsaNumbers& operator=(const rsaNumbers&) = delete;
    rsaNumbers(rsaNumbers&&) = default;
    rsaNumbers& operator=(rsaNumbers&&) = delete;

    ~rsaNumbers()
    {
        for (std::string* secret : {&p, &q, &d}) {
            explicit_bzero(secret->data(), secret->size());
        }
    }
};

/** The RSA numbers of the PEM text `text`: RSAPrivateKey and RSAPublicKey (PKCS #1, RFC 8017
 *  A.1), PrivateKeyInfo (PKCS #8, RFC 5208 and 5958) or SubjectPublicKeyInfo (RFC 5280), in
 *  PEM (RFC 7468). Throws pemProblem for anything else. */
rsaNumbers readPemKey(const std::string& text);

} // namespace vxcli
