#include "vxTest.h"

#include "vxPlugin.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace vxtest {

void vxTest::TearDown()
{
    veltrix::vxBase::lvxClearLastError();
    for (veltrix::vxBase* object : closeAtEnd) {
        if (object->opened) {
            testFrame::closeExpected(*object);
        }
    }
    veltrix::vxBase::lvxClearLastError();
}

void vxCryptoTest::SetUp()
{
    vxTest::SetUp();
    ensurePlugin();
    ASSERT_NE(veltrix::cryptoRegistry, nullptr);
}

bool latched()
{
    return vxGlobal.stackTrace.errorLatch;
}

void latchByFailure()
{
    veltrix::vxBytes bytes;
    EXPECT_FALSE(bytes.PostOpen(1));
    ASSERT_TRUE(latched());
}

std::vector<std::string> trailMessages()
{
    std::vector<std::string> messages;
    for (const auto& event : vxGlobal.stackTrace.events) {
        for (const auto& line : event.lines) {
            messages.push_back(line.message);
        }
    }
    return messages;
}

std::string firstMessage()
{
    const auto& events = vxGlobal.stackTrace.events;
    if (events.empty() || events.front().lines.empty()) {
        return "<empty trail>";
    }
    return events.front().lines.front().message;
}

std::string dumpTrail()
{
    std::ostringstream out;
    veltrix::vxBase::DumpStackTrace(out);
    return out.str();
}

std::vector<namedId> ciphers()
{
#define VX_TEST_ALGORITHM(identifier, id, name, bytes) {name, id},
    return {VX_CIPHER_ALGORITHMS(VX_TEST_ALGORITHM)};
}

std::vector<namedId> digests()
{
    return {VX_DIGEST_ALGORITHMS(VX_TEST_ALGORITHM)};
#undef VX_TEST_ALGORITHM
}

const std::vector<digestSize> kDigestSizes = {{1, 16}, {2, 20}, {3, 32},
                                              {4, 64}, {5, 48}, {19, 16}};

uint32_t idOf(const std::vector<namedId>& table, const std::string& name)
{
    for (const auto& [known, id] : table) {
        if (known == name) {
            return id;
        }
    }
    ADD_FAILURE() << "no algorithm " << name;
    return 0;
}

void ensurePlugin()
{
    if (veltrix::cryptoRegistry != nullptr) {
        return;
    }
    // The front object may go: the registry and the mapped plug-in outlive it.
    veltrix::vxApi api;
    api.setSearchPath(VX_PLUGIN_DIR);
    if (!api.Open("openssl")) {
        ADD_FAILURE() << "cannot load the plug-in from " << VX_PLUGIN_DIR << "\n" << dumpTrail();
    }
}

std::string toHex(const std::vector<unsigned char>& bytes)
{
    return veltrix::hexString(bytes).text;
}

std::string hexOf(const veltrix::vxBytes& data)
{
    return toHex(data.bytes);
}

veltrix::vxBytes bytesOf(const std::string& text)
{
    return bufferOf(std::vector<unsigned char>(text.begin(), text.end()));
}

veltrix::vxBytes bufferOf(const std::vector<unsigned char>& bytes)
{
    veltrix::vxBytes buffer;
    buffer.bytes = bytes;
    return buffer;
}

veltrix::vxBytes fromHex(const std::string& hex)
{
    return bufferOf(unhex(hex));
}

veltrix::vxBytes filled(size_t size, unsigned char value)
{
    return bufferOf(std::vector<unsigned char>(size, value));
}

veltrix::vxBytes payload(size_t size, unsigned seed)
{
    veltrix::vxBytes out;
    for (size_t i = 0; i < size; ++i) {
        out.bytes.push_back(static_cast<unsigned char>(i * 7U + seed));
    }
    return out;
}

std::vector<unsigned char> unhex(const std::string& hex)
{
    std::vector<unsigned char> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::string hexUpper(const std::string& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : bytes) {
        out += digits[static_cast<unsigned char>(c) >> 4U];
        out += digits[static_cast<unsigned char>(c) & 0x0FU];
    }
    return out;
}

std::string upper(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string run(const std::string& command)
{
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run: " << command;
        return output;
    }
    std::array<char, 4096> buffer{};
    size_t got = 0;
    while ((got = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        output.append(buffer.data(), got);
    }
    const int status = pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
    return output;
}

bindLogAside::bindLogAside()
{
    struct stat info = {};
    if (stat(kDir, &info) == 0) {
        saved = std::string(kDir) + ".saved-" + std::to_string(getpid());
        EXPECT_EQ(rename(kDir, saved.c_str()), 0) << "cannot move " << kDir << " aside";
    }
}

bindLogAside::~bindLogAside()
{
    (void)remove(kFile);
    (void)rmdir(kDir);
    if (!saved.empty()) {
        (void)rename(saved.c_str(), kDir);
    }
}

void bindLogAside::create()
{
    std::error_code failed;
    std::filesystem::create_directories(kDir, failed);
    EXPECT_FALSE(failed) << "cannot create " << kDir << ": " << failed.message();
}

tempDir::tempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vxtest.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
    }
    dir = pattern;
}

tempDir::~tempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

std::vector<katCase> readKat(const std::string& file)
{
    std::ifstream in(std::string(VX_KAT_DIR) + "/" + file);
    EXPECT_TRUE(in.good()) << file;
    std::vector<katCase> cases;
    std::string algorithm;
    katCase current;
    const auto flush = [&] {
        if (!current.fields.empty()) {
            current.algorithm = algorithm;
            cases.push_back(current);
            current.fields.clear();
        }
    };
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '#') {
            continue;
        }
        if (line.empty()) {
            flush();
            continue;
        }
        if (line[0] == '[') {
            flush();
            algorithm = line.substr(1, line.find(']') - 1);
            continue;
        }
        const auto equals = line.find(" = ");
        if (equals == std::string::npos) {
            ADD_FAILURE() << file << ": bad line: " << line;
            continue;
        }
        current.fields[line.substr(0, equals)] = line.substr(equals + 3);
    }
    flush();
    return cases;
}

} // namespace vxtest
