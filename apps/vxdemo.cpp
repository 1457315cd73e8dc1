// vxdemo: a short tour of the library. It opens objects under the protocol, provokes a failure
// three calls deep and prints the error trail, loads the crypto plug-in, digests and encrypts a
// text, makes a keyed digest, draws random bytes, writes and reads back an RSA key file, and
// prints the version table.
//
//   vxdemo [plug-in directory] [key file]
#include "vxGlobal.h"
#include "vxMain.h"
#include "vxVersions.h"

#include <cstdio>
#include <iostream>

using namespace veltrix;

namespace {

const char* const sampleText = "The quick brown fox jumps over the lazy dog";

/** Three nested stages; the innermost asks for an impossible slice of a buffer. */
class demoPipeline : public vxBase
{
public:
    demoPipeline() { LVX_INIT_OBJECT(); }

    demoPipeline(const demoPipeline&) = delete;
    demoPipeline& operator=(const demoPipeline&) = delete;
    demoPipeline(demoPipeline&&) = delete;
    demoPipeline& operator=(demoPipeline&&) = delete;

    ~demoPipeline() override { LVX_DESTRUCT(); }

    bool outerStage() { return checked(middleStage(), __PRETTY_FUNCTION__, __LINE__); }

private:
    bool middleStage() { return checked(innerStage(), __PRETTY_FUNCTION__, __LINE__); }

    bool innerStage()
    {
        vxBytes source;
        (void)source.Replace(sampleText);
        vxBytes slice;
        return checked(slice.CopyOffsets(10, 4, source), __PRETTY_FUNCTION__, __LINE__);
    }

    /** What the library's own guard does when a callee fails. */
    bool checked(bool ok, const char* function, int line) const
    {
        if (!ok) {
            addHistory(function, __FILE__, line);
            addMessage("%s", "Boolean return value failed.");
            vxGlobal.stackTrace.errorLatch = true;
        }
        return ok;
    }
};

class demoApp : public vxMain
{
public:
    demoApp(std::string pluginDirectory, std::string keyFilePath)
        : pluginDir(std::move(pluginDirectory)), keyFile(std::move(keyFilePath))
    {}

    bool main(int /*argc*/, char** /*argv*/) override
    {
        return showTrail() && loadPlugin() && showDigests() && showKeyedDigest() && showCipher() &&
               showRandom() && showKeyFile() && showVersions();
    }

private:
    static bool section(const char* title)
    {
        std::cout << "\n== " << title << " ==\n";
        return true;
    }

    bool showTrail()
    {
        section("A failure three calls deep, as the error trail shows it");
        demoPipeline pipeline;
        LVX_CALL_OPEN(pipeline);
        const bool failed = !pipeline.outerStage();
        std::cout << "outerStage() " << (failed ? "failed" : "succeeded")
                  << "; latched: " << std::boolalpha << vxGlobal.stackTrace.errorLatch.load()
                  << "\n";
        DumpStackTrace(std::cout);
        lvxClearLastError();
        std::cout << "trail cleared; latched: " << vxGlobal.stackTrace.errorLatch.load() << "\n";
        return failed && closeChild(pipeline);
    }

    bool loadPlugin()
    {
        section("Crypto plug-in");
        api.setSearchPath(pluginDir);
        if (!LoadPlugin("openssl")) {
            return false;
        }
        std::cout << "loaded " << api.loader.path << "\n";
        return true;
    }

    bool showDigests()
    {
        section("Digests of the sample text");
        std::cout << "text: \"" << sampleText << "\"\n";
#define VX_DEMO_DIGEST(identifier, id, name, bytes) {vxHashId::identifier, name},
        const std::pair<uint32_t, const char*> algorithms[] = {
            VX_DIGEST_ALGORITHMS(VX_DEMO_DIGEST)};
#undef VX_DEMO_DIGEST
        for (const auto& [value, word] : algorithms) {
            vxHashId id;
            vxMd md;
            LVX_CALL_OPEN(id, value);
            LVX_CALL_OPEN(md, id);
            if (!(md.Init() && md.Update(std::string(sampleText)) && md.Final())) {
                return false;
            }
            std::cout << word << std::string(12 - std::string(word).size(), ' ') << md << "\n";
            if (!(closeChild(md) && closeChild(id))) {
                return false;
            }
        }
        vxBytes text;
        (void)text.Replace(sampleText);
        return vxGlobal.debug.TraceMd(text, "digest trace of the sample text");
    }

    bool showKeyedDigest()
    {
        section("Keyed digest (SHA-256, key \"secret\")");
        vxHashId id;
        vxHmacMd mac;
        vxBytes value;
        LVX_CALL_OPEN(id, vxHashId::sha256);
        LVX_CALL_OPEN(mac, id);
        vxBytes text;
        (void)text.Replace(sampleText);
        if (!(mac.SetKey(std::string("secret")) && mac.Init() && mac.Update(text) && mac.Final() &&
              mac.GetBytes(value))) {
            return false;
        }
        std::cout << hexString(value.bytes).text << "\n";
        return closeChild(mac) && closeChild(id);
    }

    bool showCipher()
    {
        section("AES-128, one block (the FIPS 197 example)");
        vxCipherId id;
        vxCipher cipher;
        LVX_CALL_OPEN(id, vxCipherId::aes128);
        LVX_CALL_OPEN(cipher, id);
        vxBytes key;
        vxBytes plain;
        vxBytes sealed;
        vxBytes unsealed;
        key.bytes = hexString(std::string("000102030405060708090A0B0C0D0E0F")).bytes;
        plain.bytes = hexString(std::string("00112233445566778899AABBCCDDEEFF")).bytes;
        if (!(cipher.SetKey(key) && cipher.Encrypt(plain, sealed) &&
              cipher.Decrypt(sealed, unsealed))) {
            return false;
        }
        std::cout << "plain     " << hexString(plain.bytes).text << "\n"
                  << "encrypted " << hexString(sealed.bytes).text << "\n"
                  << "decrypted " << hexString(unsealed.bytes).text << "\n";
        key.Scrub();
        return closeChild(cipher) && closeChild(id);
    }

    bool showRandom()
    {
        section("Random bytes");
        vxRand random;
        LVX_CALL_OPEN(random);
        vxBytes drawn;
        if (!(random.Open(true) && random.Read(16) && random.GetHashedBytes(drawn))) {
            return false;
        }
        std::cout << hexString(drawn.bytes).text << "\n";
        return closeChild(random);
    }

    bool showKeyFile()
    {
        section("RSA key file");
        vxRsa key;
        vxRsa copy;
        LVX_CALL_OPEN(key);
        LVX_CALL_OPEN(copy);
        std::string written;
        std::string read;
        uint32_t size = 0;
        if (!(key.GeneratePrivate(2048) && key.GetKeySize(size) && key.WriteKeyToDisk(keyFile) &&
              copy.ReadKeyFromDisk(keyFile) && key.GetFingerprint(written) &&
              copy.GetFingerprint(read))) {
            std::cout << "cannot write or read " << keyFile << "\n";
            return false;
        }
        std::cout << "generated a " << size * 8 << "-bit key, wrote " << keyFile << "\n"
                  << "fingerprint written " << written << "\n"
                  << "fingerprint read    " << read << "\n"
                  << (written == read ? "the key file round trip matches\n" : "MISMATCH\n");
        (void)std::remove(keyFile.c_str());
        return written == read && closeChild(copy) && closeChild(key);
    }

    bool showVersions()
    {
        section("Version table");
        vxGlobal.versions->Display(std::cout);
        return closeChild(api);
    }

    std::string pluginDir;
    std::string keyFile;
};

} // namespace

int main(int argc, char** argv)
{
    demoApp app(argc > 1 ? argv[1] : VX_PLUGIN_DIR, argc > 2 ? argv[2] : "vxdemo-key.txt");
    if (!app.InitAndRun("vxdemo", "2.0", argc, argv)) {
        std::cout << "\nvxdemo failed; the error trail:\n";
        vxBase::DumpStackTrace(std::cout);
        return 1;
    }
    std::cout << "\nvxdemo finished.\n";
    return 0;
}
