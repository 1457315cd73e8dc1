// The plug-in loader, the registry and the front object, against the fake plug-ins built for
// these tests and the real OpenSSL plug-in.
#include "cryptoapi.h"
#include "vxTest.h"
#include "vxVersions.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <filesystem>
#include <string_view>

using namespace veltrix;
using vxtest::firstMessage;
using vxtest::latched;
using vxtest::tempDir;
using vxtest::trailMessages;

namespace {

/** Every probe of a file named "libveltrix_probed.so", in order, as "stat <path>" or "lstat <path>". */
std::vector<std::string> probes;

template <class Probe>
int recordProbe(const char* symbol, Probe* real, const char* path, struct stat* info)
{
    if (path != nullptr &&
        std::string_view(path).find("libveltrix_probed.so") != std::string::npos) {
        probes.push_back(std::string(symbol) + " " + path);
    }
    return real(path, info);
}

using probeFunction = int(const char*, struct stat*);

} // namespace

// The test program's own stat and lstat stand before the C library's for the plug-in loader too,
// so the order in which it probes the search path can be watched.
extern "C" int stat(const char* path, struct stat* info) noexcept
{
    static auto* const real = reinterpret_cast<probeFunction*>(dlsym(RTLD_NEXT, "stat"));
    return recordProbe("stat", real, path, info);
}

extern "C" int lstat(const char* path, struct stat* info) noexcept
{
    static auto* const real = reinterpret_cast<probeFunction*>(dlsym(RTLD_NEXT, "lstat"));
    return recordProbe("lstat", real, path, info);
}

namespace {

namespace fs = std::filesystem;

const std::string fakeDir = VX_TEST_PLUGIN_DIR;

/** Places the named fake plug-in in `dir` under `fileName` (a symbolic link to the build). */
void place(const std::string& dir, const std::string& variant, const std::string& fileName)
{
    fs::create_directories(dir);
    fs::create_symlink(fakeDir + "/libveltrix_" + variant + ".so", dir + "/" + fileName);
}

class loaderTest : public vxtest::vxTest
{
protected:
    bool load(const std::string& searchPath, const std::string& name)
    {
        return loader.loadPlugin(searchPath, name, accepts);
    }

    pluginLoader loader;
    vxPluginAccepts accepts;
    tempDir temp;
};

TEST_F(loaderTest, FileNameFollowsTheUnderscoreRule)
{
    EXPECT_FAILS_WITH(load(temp.str(), "demo"), "No such file or directory: libveltrix_demo.so");
    EXPECT_EQ(loader.fileName, "libveltrix_demo.so");
    veltrix::vxBase::lvxClearLastError();
    pluginLoader other;
    EXPECT_FALSE(other.loadPlugin(temp.str(), "acme_demo", accepts));
    EXPECT_EQ(other.fileName, "libacme_demo.so");
    EXPECT_EQ(firstMessage(), "No such file or directory: libacme_demo.so");
}

TEST_F(loaderTest, OnlyTheSlashIsRefusedInNames)
{
    EXPECT_FAILS_WITH(load(temp.str(), "../x"), "Illegal string component");
    EXPECT_TRUE(loader.fileName.empty());
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(load(temp.str(), ".."), "No such file or directory: libveltrix_...so");
}

TEST_F(loaderTest, NameWithUnderscoreLoadsTheCompleteFileName)
{
    place(temp.str(), "fake", "libacme_demo.so");
    ASSERT_TRUE(load(temp.str(), "acme_demo")) << vxtest::dumpTrail();
    EXPECT_EQ(loader.path, temp.path("libacme_demo.so"));
    EXPECT_TRUE(loader.loaded);
}

TEST_F(loaderTest, SearchPathIsWalkedInOrder)
{
    const std::string d1 = temp.path("d1");
    const std::string d2 = temp.path("d2");
    const std::string d3 = temp.path("d3");
    const std::string d4 = temp.path("d4");
    for (const auto& d : {d1, d2, d3, d4}) {
        fs::create_directories(d);
    }
    const std::string searchPath = d1 + ":" + d2 + ":" + d3 + ":" + d4;
    place(d4, "fake", "libveltrix_fake.so");
    ASSERT_TRUE(load(searchPath, "fake")) << vxtest::dumpTrail();
    EXPECT_EQ(loader.path, d4 + "/libveltrix_fake.so");

    place(d2, "fake", "libveltrix_fake.so");
    pluginLoader second;
    vxPluginAccepts secondAccepts;
    ASSERT_TRUE(second.loadPlugin(searchPath, "fake", secondAccepts));
    EXPECT_EQ(second.path, d2 + "/libveltrix_fake.so");
}

TEST_F(loaderTest, DefaultPathTriesItsFourCandidatesInOrder)
{
    vxApi api; // only for its default search path
    EXPECT_EQ(api.searchPath, "/lib:/lib/secure:/usr/lib/secure/:/usr/local/lib/secure");
    probes.clear();
    EXPECT_FAILS_WITH(load(api.searchPath, "probed"),
                      "No such file or directory: libveltrix_probed.so");
    std::vector<std::string> expected;
    for (const char* path :
         {"/lib/libveltrix_probed.so", "/lib/secure/libveltrix_probed.so",
          "/usr/lib/secure//libveltrix_probed.so", "/usr/local/lib/secure/libveltrix_probed.so"}) {
        expected.push_back(std::string("stat ") + path);
        expected.push_back(std::string("lstat ") + path);
    }
    EXPECT_EQ(probes, expected);
    EXPECT_EQ(loader.path, "/usr/local/lib/secure/libveltrix_probed.so");
}

TEST_F(loaderTest, TrailingSlashGivesDoubleSlash)
{
    place(temp.str(), "fake", "libveltrix_fake.so");
    ASSERT_TRUE(load(temp.str() + "/", "fake"));
    EXPECT_EQ(loader.path, temp.str() + "//libveltrix_fake.so");
}

TEST_F(loaderTest, EmptyComponentMeansRoot)
{
    EXPECT_FALSE(load(temp.str() + ":", "nosuchplugin"));
    EXPECT_EQ(loader.path, "/libveltrix_nosuchplugin.so");
}

TEST_F(loaderTest, LeadingColonSkipsTheSecondComponent)
{
    const std::string a = temp.path("a");
    const std::string b = temp.path("b");
    place(a, "fake", "libveltrix_fake.so");
    fs::create_directories(b);
    // ":a:b" tries "/libveltrix_fake.so", then "b/...": "a" is never tried.
    EXPECT_FAILS_WITH(load(":" + a + ":" + b, "fake"),
                      "No such file or directory: libveltrix_fake.so");
    EXPECT_EQ(loader.path, b + "/libveltrix_fake.so");
}

TEST_F(loaderTest, DanglingLinkIsFoundAndFailsInTheOpen)
{
    fs::create_symlink(temp.path("missing.so"), temp.path("libveltrix_fake.so"));
    EXPECT_FALSE(load(temp.str(), "fake"));
    EXPECT_TRUE(latched());
    const auto messages = trailMessages();
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_NE(messages[0].find("cannot open shared object file"), std::string::npos) << messages[0];
    EXPECT_EQ(messages[1], "Boolean return value failed.");
    EXPECT_FALSE(loader.loaded);
}

struct failingPlugin
{
    const char* variant;
    std::vector<std::string> messages;
};

void PrintTo(const failingPlugin& plugin, std::ostream* out)
{
    *out << plugin.variant;
}

class failingPluginTest : public loaderTest, public ::testing::WithParamInterface<failingPlugin>
{
};

TEST_P(failingPluginTest, FailsWithItsMessages)
{
    place(temp.str(), GetParam().variant, std::string("libveltrix_") + GetParam().variant + ".so");
    EXPECT_FALSE(load(temp.str(), GetParam().variant));
    EXPECT_TRUE(latched());
    EXPECT_EQ(trailMessages(), GetParam().messages);
    EXPECT_TRUE(loader.loaded); // the file stays open whatever vx_init did
}

INSTANTIATE_TEST_SUITE_P(
    loader, failingPluginTest,
    ::testing::Values(
        failingPlugin{"noinit", {"Unable to locate vx_init"}},
        failingPlugin{"initfalse", {"vx_init function pointer failed"}},
        failingPlugin{"noname", {"Plugin name not set", "Unable to continue from previous error"}},
        failingPlugin{"noversion",
                      {"Plugin version not set", "Unable to continue from previous error"}},
        failingPlugin{"latch", {"fake plug-in latched", "Unable to continue from previous error"}}),
    [](const auto& testInfo) { return std::string(testInfo.param.variant); });

TEST_F(loaderTest, SecondLoadOnTheSameLoaderIsRefused)
{
    place(temp.str(), "initfalse", "libveltrix_initfalse.so");
    EXPECT_FALSE(load(temp.str(), "initfalse"));
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(load(temp.str(), "initfalse"), "Handle already exists");
}

TEST_F(loaderTest, BindsWhatIsOfferedAndIgnoresTheRest)
{
    vxApi api;
    ASSERT_TRUE(api.populatePluginAccepts());
    place(temp.str(), "fake", "libveltrix_fake.so");
    ASSERT_TRUE(api.loader.loadPlugin(temp.str(), "fake", api.accepts)) << vxtest::dumpTrail();
    EXPECT_FALSE(veltrix::vxBase::HaveStackTrace()); // the unknown entry point leaves no trace

    const auto& provided = api.loader.provides;
    EXPECT_EQ(provided.name, "fake");
    ASSERT_EQ(provided.symbols.size(), 3U);
    EXPECT_EQ(provided.symbols[2].second, "fake_vxPluginFrobnicate");

    void* const exported = dlsym(api.loader.handle, "fake_vxPluginMdOpen");
    ASSERT_NE(exported, nullptr);
    for (const auto& entry : api.accepts.symbols) {
        // Offered and exported: bound. Offered but not exported, or not offered: empty.
        EXPECT_EQ(entry.function, entry.name == "vxPluginMdOpen" ? exported : nullptr)
            << entry.name;
    }
    const auto& plugins = vxGlobal.versions->plugins;
    ASSERT_FALSE(plugins.empty());
    EXPECT_EQ(plugins.back(), std::make_pair(std::string("fake"), std::string("0.1")));

    api.loader.unloadPlugin();
    EXPECT_FALSE(api.loader.loaded);
    EXPECT_EQ(api.loader.handle, nullptr);
}

TEST_F(loaderTest, LatchedLoaderRefuses)
{
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(load(temp.str(), "fake"));
    EXPECT_EQ(trailMessages(), std::vector<std::string>{"Unable to continue from previous error"});
}

TEST_F(loaderTest, AddSymbolRecordsTheExportedName)
{
    vxPluginProvides provides;
    EXPECT_FAILS_WITH(provides.AddSymbol("vxPluginMdOpen"), "Plugin name not set");
    veltrix::vxBase::lvxClearLastError();
    provides.name = "demo";
    EXPECT_FAILS_WITH(provides.AddSymbol("vxPluginMdOpen"), "Plugin version not set");
    veltrix::vxBase::lvxClearLastError();
    provides.version = "1";
    ASSERT_TRUE(provides.AddSymbol("vxPluginMdOpen"));
    ASSERT_TRUE(provides.AddSymbol("vxPluginMdOpen")); // duplicates are not checked
    ASSERT_EQ(provides.symbols.size(), 2U);
    EXPECT_EQ(provides.symbols[0],
              std::make_pair(std::string("vxPluginMdOpen"), std::string("demo_vxPluginMdOpen")));
}

// ---- the front object and the registry ----

using apiTest = vxtest::vxTest;

TEST_F(apiTest, AcceptsEveryEntryPointInTheOrderOfAsking)
{
    std::vector<std::string> table(37);
#define VX_TABLE_NAME(entry, asked, result, params) table.at(asked) = #entry;
    VX_PLUGIN_ENTRY_POINTS(VX_TABLE_NAME)
#undef VX_TABLE_NAME
    vxApi api;
    ASSERT_TRUE(api.populatePluginAccepts());
    std::vector<std::string> names;
    for (const auto& entry : api.accepts.symbols) {
        names.push_back(entry.name);
        EXPECT_EQ(entry.function, nullptr);
    }
    EXPECT_EQ(names, table);
    // 34 required entry points: digests, RSA keys, ciphers, random numbers; then the three
    // optional ones.
    ASSERT_EQ(names.size(), 37U);
    EXPECT_EQ(names[0], "vxPluginMdOpen");
    EXPECT_EQ(names[7], "vxPluginRsaOpen");
    EXPECT_EQ(names[22], "vxPluginCipherOpen");
    EXPECT_EQ(names[26], "vxPluginCipherEncryptBlock");
    EXPECT_EQ(names[29], "vxPluginRandOpen");
    EXPECT_EQ(std::vector<std::string>(names.end() - 3, names.end()),
              (std::vector<std::string>{"vxPluginMdDigestPair", "vxPluginCipherEncryptBlocks",
                                        "vxPluginCipherDecryptBlocks"}));
}

TEST_F(apiTest, SearchPathIsTheOnlyPlaceLookedAt)
{
    if (cryptoRegistry != nullptr) {
        GTEST_SKIP() << "a plug-in is already loaded in this process";
    }
    vxApi api;
    api.setSearchPath("/opt/x");
    EXPECT_FAILS_WITH(api.Open("demo"), "No such file or directory: libveltrix_demo.so");
    EXPECT_EQ(api.loader.path, "/opt/x/libveltrix_demo.so");
    EXPECT_EQ(cryptoRegistry, nullptr);
}

TEST_F(apiTest, OpenBindsEveryEntryPointAndASecondOpenIsRefused)
{
    vxtest::ensurePlugin();
    ASSERT_NE(cryptoRegistry, nullptr);
#define VX_EXPECT_BOUND(entry, asked, result, params) \
    EXPECT_NE(cryptoRegistry->entry, nullptr) << #entry;
    VX_PLUGIN_ENTRY_POINTS(VX_EXPECT_BOUND)
#undef VX_EXPECT_BOUND
    vxApi second;
    second.setSearchPath(VX_PLUGIN_DIR);
    EXPECT_FAILS_WITH(second.Open("openssl"), "Plugin already loaded.");
}

TEST_F(apiTest, PluginLackingEntryPointsLoadsWithEmptyFields)
{
    if (cryptoRegistry != nullptr) {
        GTEST_SKIP() << "a plug-in is already loaded in this process";
    }
    vxApi api;
    api.setSearchPath(VX_TEST_PLUGIN_DIR);
    ASSERT_TRUE(api.Open("fake")) << vxtest::dumpTrail();
    ASSERT_NE(cryptoRegistry, nullptr);
    EXPECT_NE(cryptoRegistry->vxPluginMdOpen, nullptr);
    EXPECT_EQ(cryptoRegistry->vxPluginMdInit, nullptr);
    EXPECT_EQ(cryptoRegistry->vxPluginRandGetNumFromZero, nullptr);
    EXPECT_TRUE(api.Close());
    EXPECT_EQ(cryptoRegistry, nullptr);
}

TEST_F(apiTest, CloseWithoutOpenChangesNothing)
{
    if (cryptoRegistry != nullptr) {
        GTEST_SKIP() << "a plug-in is already loaded in this process";
    }
    vxApi api;
    EXPECT_TRUE(api.Close());
    EXPECT_EQ(cryptoRegistry, nullptr);
    EXPECT_FALSE(veltrix::vxBase::HaveStackTrace());
}

TEST_F(apiTest, CryptoObjectsCannotOpenWithoutAPlugin)
{
    if (cryptoRegistry != nullptr) {
        GTEST_SKIP() << "a plug-in is already loaded in this process";
    }
    vxHashId hashId;
    hashId.value = vxHashId::md5;
    vxMd md;
    EXPECT_FALSE(md.Open(hashId));
    EXPECT_QUIET();
    vxCipherId cipherId;
    cipherId.value = vxCipherId::aes128;
    vxCipher cipher;
    EXPECT_FAILS_WITH(cipher.Open(cipherId), "cryptoRegistry != NULL");
    veltrix::vxBase::lvxClearLastError();
    vxRsa rsa;
    EXPECT_FAILS_WITH(rsa.Open(), "cryptoRegistry");
}

TEST_F(apiTest, UnknownAcceptedNameCannotBeLinked)
{
    vxReg registry;
    vxPluginAccepts accepts;
    accepts.symbols.push_back({"vxPluginMdOpen", nullptr});
    accepts.symbols.push_back({"vxPluginBogus", nullptr});
    EXPECT_FAILS_WITH(registry.linkResolvedSymbols(accepts),
                      "Unable to resolve symbol: vxPluginBogus");
    vxPluginAccepts empty;
    veltrix::vxBase::lvxClearLastError();
    EXPECT_TRUE(registry.linkResolvedSymbols(empty));
}

} // namespace
