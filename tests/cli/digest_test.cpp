// veltrix digest beside the coreutils sum programs: the same lines byte for byte, the same check
// reports, warnings and exit statuses.
#include "cliRun.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ostream>
#include <string>
#include <vector>

using namespace vxclitest;

namespace {

struct algorithmCase
{
    const char* word;
    const char* program;
};

const algorithmCase algorithms[] = {{"md5", "md5sum"},
                                    {"sha1", "sha1sum"},
                                    {"sha256", "sha256sum"},
                                    {"sha384", "sha384sum"},
                                    {"sha512", "sha512sum"}};

void PrintTo(const algorithmCase& test, std::ostream* out)
{
    *out << test.word;
}

/** 1 MiB and a little more of varied bytes, so that reads cross the 64 KiB chunks unevenly. */
std::string binaryContent()
{
    std::string bytes(1024 * 1024 + 4321, '\0');
    uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1103515245U + 12345U;
        byte = static_cast<char>(state >> 23);
    }
    return bytes;
}

/** The coreutils program's diagnostics as veltrix words them. */
std::string asVeltrix(std::string text, const std::string& program)
{
    for (size_t at = 0; (at = text.find(program + ": ", at)) != std::string::npos;) {
        text.replace(at, program.size(), "veltrix digest");
    }
    return text;
}

class digestTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::pair<const char*, std::string> contents[] = {
            {"empty", ""},          {"one byte", "x"},       {"big.bin", binaryContent()},
            {"back\\slash", "b\n"}, {"line\nfeed", "l\r\n"}, {"carriage\rreturn", "c"}};
        for (const auto& [name, content] : contents) {
            writeFile(dir.file(name), content);
            files.push_back(dir.file(name));
        }
    }

    runResult veltrix(const char* word, std::vector<std::string> args, const std::string& in = "")
    {
        args.insert(args.begin(), {"digest", "-a", word});
        return runVeltrix(args, in);
    }

    scratchDir dir;
    std::vector<std::string> files;
};

class digestAlgorithm : public digestTest, public ::testing::WithParamInterface<algorithmCase>
{
};

TEST_P(digestAlgorithm, filesMatchTheSumProgram)
{
    std::vector<std::string> argv{GetParam().program};
    argv.insert(argv.end(), files.begin(), files.end());
    const runResult expected = runProgram(argv);
    const runResult got = veltrix(GetParam().word, files);
    ASSERT_EQ(expected.status, 0);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, expected.out);
    EXPECT_EQ(got.err, "");
}

TEST_P(digestAlgorithm, standardInputMatchesTheSumProgram)
{
    const std::string content = readFile(dir.file("big.bin"));
    const runResult expected = runProgram({GetParam().program}, content);
    EXPECT_EQ(veltrix(GetParam().word, {}, content).out, expected.out);
    EXPECT_EQ(veltrix(GetParam().word, {"-"}, content).out, expected.out);
    EXPECT_EQ(expected.out.substr(expected.out.size() - 4), "  -\n");
}

TEST_P(digestAlgorithm, checkOfGoodSumsMatchesTheSumProgram)
{
    std::vector<std::string> argv{GetParam().program};
    argv.insert(argv.end(), files.begin(), files.end());
    writeFile(dir.file("sums"), runProgram(argv).out);
    const runResult expected = runProgram({GetParam().program, "-c", dir.file("sums")});
    const runResult got = veltrix(GetParam().word, {"-c", dir.file("sums")});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, expected.out);
    EXPECT_EQ(lineCount(got.out), files.size());
    EXPECT_EQ(got.err, "");
    // The same sums read from standard input.
    EXPECT_EQ(veltrix(GetParam().word, {"-c"}, readFile(dir.file("sums"))).out, expected.out);
}

INSTANTIATE_TEST_SUITE_P(sums, digestAlgorithm, ::testing::ValuesIn(algorithms),
                         [](const auto& test) { return std::string(test.param.word); });

TEST_F(digestTest, truncatedSha256IsTheFirstHalfOfSha256)
{
    std::vector<std::string> argv{"sha256sum"};
    argv.insert(argv.end(), files.begin(), files.end());
    const std::string full = runProgram(argv).out;
    std::string expected = full;
    // Each line: an optional backslash, 64 hex digits; the truncated digest keeps the first 32.
    for (size_t line = 0; line < expected.size(); line = expected.find('\n', line) + 1) {
        expected.erase(line + (expected[line] == '\\' ? 1 : 0) + 32, 32);
    }
    EXPECT_EQ(veltrix("sha256-128", files).out, expected);
    writeFile(dir.file("sums"), expected);
    writeFile(dir.file("full"), full);
    const runResult checked = veltrix("sha256-128", {"-c", dir.file("sums")});
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.out, runProgram({"sha256sum", "-c", dir.file("full")}).out);
}

/** A sum file, made by md5sum, then spoiled: changed files, missing files, malformed lines. */
struct spoiledCase
{
    const char* name;
    int changed;
    int missing;
    int malformed;
};

void PrintTo(const spoiledCase& test, std::ostream* out)
{
    *out << test.name;
}

const spoiledCase spoiledCases[] = {{"oneOfEach", 1, 1, 1},
                                    {"twoOfEach", 2, 2, 2},
                                    {"onlyChanged", 1, 0, 0},
                                    {"onlyMalformed", 0, 0, 1},
                                    {"onlyMissing", 0, 2, 0}};

const std::vector<std::vector<std::string>> checkModes = {{},
                                                          {"--quiet"},
                                                          {"--status"},
                                                          {"--strict"},
                                                          {"-w"},
                                                          {"--strict", "--quiet"},
                                                          {"--status", "-w"},
                                                          {"-w", "--quiet"}};

class spoiledSums : public digestTest, public ::testing::WithParamInterface<spoiledCase>
{
protected:
    std::string spoiledSumFile()
    {
        std::string sums = runProgram({"md5sum", files[0], files[1], files[2]}).out;
        for (int i = 0; i < GetParam().missing; ++i) {
            sums += "d41d8cd98f00b204e9800998ecf8427e  " + dir.file("missing" + std::to_string(i)) +
                    "\n";
        }
        for (int i = 0; i < GetParam().malformed; ++i) {
            sums += "not a sum line " + std::to_string(i) + "\n";
        }
        for (int i = 0; i < GetParam().changed; ++i) {
            writeFile(files[i], "changed");
        }
        writeFile(dir.file("sums"), sums);
        return dir.file("sums");
    }
};

TEST_P(spoiledSums, reportsAndWarningsMatchTheSumProgram)
{
    const std::string sums = spoiledSumFile();
    for (std::vector<std::string> mode : checkModes) {
        mode.insert(mode.end(), {"-c", sums});
        std::vector<std::string> argv{"md5sum"};
        argv.insert(argv.end(), mode.begin(), mode.end());
        const runResult expected = runProgram(argv);
        const runResult got = veltrix("md5", mode);
        SCOPED_TRACE(::testing::PrintToString(mode));
        EXPECT_EQ(got.status, expected.status);
        EXPECT_EQ(got.out, expected.out);
        EXPECT_EQ(got.err, asVeltrix(expected.err, "md5sum"));
    }
}

INSTANTIATE_TEST_SUITE_P(sums, spoiledSums, ::testing::ValuesIn(spoiledCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(digestTest, warningsUseTheSumProgramsWording)
{
    writeFile(dir.file("sums"),
              runProgram({"md5sum", files[0], files[1], files[2]}).out + "junk\n");
    writeFile(files[0], "changed");
    writeFile(files[1], "changed too");
    const runResult got = veltrix("md5", {"-c", dir.file("sums")});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.err, "veltrix digest: WARNING: 1 line is improperly formatted\n"
                       "veltrix digest: WARNING: 2 computed checksums did NOT match\n");
}

TEST_F(digestTest, sumFileWithoutSumLinesFails)
{
    writeFile(dir.file("notes"), "# only a comment\n\nand some text\n");
    for (const char* mode : {"--quiet", "--status", "-w"}) {
        const runResult got = veltrix("sha1", {mode, "-c", dir.file("notes")});
        EXPECT_EQ(got.status, 1);
        EXPECT_EQ(got.out, "");
        EXPECT_NE(got.err.find("veltrix digest: " + dir.file("notes") +
                               ": no properly formatted checksum lines found\n"),
                  std::string::npos)
            << got.err;
    }
    const runResult got = veltrix("sha1", {"-c", dir.file("notes")});
    EXPECT_EQ(got.err, asVeltrix(runProgram({"sha1sum", "-c", dir.file("notes")}).err, "sha1sum"));
}

TEST_F(digestTest, unreadableFileIsReportedAndTheOthersAreStillDigested)
{
    const std::string folder = dir.file("folder");
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    for (const std::string& bad : {folder, dir.file("absent")}) {
        const runResult expected = runProgram({"sha512sum", files[0], bad, files[1]});
        const runResult got = veltrix("sha512", {files[0], bad, files[1]});
        EXPECT_EQ(got.status, 1);
        EXPECT_EQ(got.out, expected.out);
        EXPECT_EQ(lineCount(got.out), 2U);
        EXPECT_EQ(lineCount(got.err), 1U);
        EXPECT_EQ(got.err, asVeltrix(expected.err, "sha512sum"));
    }
}

} // namespace
