#include "vxTest.h"

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

veltrix::vxBytes bytesOf(const std::string& text)
{
    veltrix::vxBytes bytes;
    bytes.bytes.assign(text.begin(), text.end());
    return bytes;
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
