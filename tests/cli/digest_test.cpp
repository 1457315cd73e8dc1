// veltrix digest beside the coreutils sum programs: the same lines byte for byte, the same check
// reports, warnings and exit statuses.
#include "cliRun.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace vxclitest;

namespace {

struct algorithmCase
{
    const char* name; ///< -a of the digest
    const char* program;
};

const algorithmCase algorithms[] = {{"md5", "md5sum"},
                                    {"sha1", "sha1sum"},
                                    {"sha256", "sha256sum"},
                                    {"sha384", "sha384sum"},
                                    {"sha512", "sha512sum"}};

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

/** `head` followed by `tail`: a command and its last arguments. */
std::vector<std::string> joined(std::vector<std::string> head, const std::vector<std::string>& tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
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

    /** veltrix digest without -a. */
    static runResult unpinned(const std::vector<std::string>& args)
    {
        return runVeltrix(joined({"digest"}, args));
    }

    /** Expects veltrix's run to be the coreutils program's, with the program's name replaced. */
    static void expectSameRun(const runResult& got, const runResult& expected,
                              const std::string& program)
    {
        EXPECT_EQ(got.status, expected.status);
        EXPECT_EQ(got.out, expected.out);
        EXPECT_EQ(got.err, asVeltrix(expected.err, program));
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
    const runResult got = veltrix(GetParam().name, files);
    ASSERT_EQ(expected.status, 0);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, expected.out);
    EXPECT_EQ(got.err, "");
}

TEST_P(digestAlgorithm, standardInputMatchesTheSumProgram)
{
    const std::string content = readFile(dir.file("big.bin"));
    const runResult expected = runProgram({GetParam().program}, content);
    EXPECT_EQ(veltrix(GetParam().name, {}, content).out, expected.out);
    EXPECT_EQ(veltrix(GetParam().name, {"-"}, content).out, expected.out);
    EXPECT_EQ(expected.out.substr(expected.out.size() - 4), "  -\n");
}

TEST_P(digestAlgorithm, checkOfGoodSumsMatchesTheSumProgram)
{
    std::vector<std::string> argv{GetParam().program};
    argv.insert(argv.end(), files.begin(), files.end());
    writeFile(dir.file("sums"), runProgram(argv).out);
    const runResult expected = runProgram({GetParam().program, "-c", dir.file("sums")});
    const runResult got = veltrix(GetParam().name, {"-c", dir.file("sums")});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, expected.out);
    EXPECT_EQ(lineCount(got.out), files.size());
    EXPECT_EQ(got.err, "");
    // The same sums read from standard input.
    EXPECT_EQ(veltrix(GetParam().name, {"-c"}, readFile(dir.file("sums"))).out, expected.out);
}

TEST_P(digestAlgorithm, tagLinesMatchTheSumProgram)
{
    const runResult expected = runProgram(joined({GetParam().program, "--tag"}, files));
    const runResult got = veltrix(GetParam().name, joined({"--tag"}, files));
    ASSERT_EQ(expected.status, 0);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, expected.out);
    EXPECT_EQ(got.err, "");
}

TEST_P(digestAlgorithm, checkOfTaggedSumsMatchesTheSumProgram)
{
    writeFile(dir.file("sums"), runProgram(joined({GetParam().program, "--tag"}, files)).out);
    writeFile(files[2], "changed");
    const runResult expected = runProgram({GetParam().program, "-c", dir.file("sums")});
    ASSERT_EQ(lineCount(expected.out), files.size());
    expectSameRun(veltrix(GetParam().name, {"-c", dir.file("sums")}), expected, GetParam().program);
    // Without -a the tags name the algorithm.
    expectSameRun(unpinned({"-c", dir.file("sums")}), expected, GetParam().program);
}

INSTANTIATE_TEST_SUITE_P(sums, digestAlgorithm, ::testing::ValuesIn(algorithms), caseName());

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

TEST_F(digestTest, truncatedSha256TagLinesCheckRoundTrip)
{
    const std::string full = runProgram(joined({"sha256sum", "--tag"}, files)).out;
    std::string expected = full;
    // Each line: an optional backslash, "SHA256 (", the name, ") = " and 64 hex digits; the
    // truncated digest is tagged "SHA256-128" and keeps the first 32.
    for (size_t line = 0; line < expected.size(); line = expected.find('\n', line) + 1) {
        expected.insert(expected.find("SHA256 (", line) + 6, "-128");
        expected.erase(expected.find('\n', line) - 32, 32);
    }
    EXPECT_EQ(veltrix("sha256-128", joined({"--tag"}, files)).out, expected);
    writeFile(dir.file("sums"), expected);
    writeFile(dir.file("full"), full);
    const std::string report = runProgram({"sha256sum", "-c", dir.file("full")}).out;
    for (const runResult& checked :
         {veltrix("sha256-128", {"-c", dir.file("sums")}), unpinned({"-c", dir.file("sums")})}) {
        EXPECT_EQ(checked.status, 0);
        EXPECT_EQ(checked.out, report);
        EXPECT_EQ(checked.err, "");
    }
}

/** A sum file, made by md5sum, then spoiled: changed files, missing files, malformed lines. */
struct spoiledCase
{
    const char* name;
    int changed;
    int missing;
    int malformed;
};

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

INSTANTIATE_TEST_SUITE_P(sums, spoiledSums, ::testing::ValuesIn(spoiledCases), caseName());

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
        EXPECT_TRUE(contains(got.err, "veltrix digest: " + dir.file("notes") +
                                          ": no properly formatted checksum lines found\n"));
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

/** Tagged sums of four programs: SHA1 for files[0], SHA256 for files[1] and files[2], MD5 for
 *  files[3] and SHA512 for files[4]; files[1] changed since. */
std::string mixedTaggedSums(const scratchDir& dir, const std::vector<std::string>& files)
{
    writeFile(dir.file("mixed"), runProgram({"sha1sum", "--tag", files[0]}).out +
                                     runProgram({"sha256sum", "--tag", files[1], files[2]}).out +
                                     runProgram({"md5sum", "--tag", files[3]}).out +
                                     runProgram({"sha512sum", "--tag", files[4]}).out);
    writeFile(files[1], "changed");
    return dir.file("mixed");
}

TEST_F(digestTest, pinnedCheckOfMixedTagsMatchesTheSumProgram)
{
    const std::string sums = mixedTaggedSums(dir, files);
    // The algorithms with lines in the mix; for sha384, whose refusal carries a hint, see
    // hintNamesTheMostFrequentAlgorithm.
    for (const algorithmCase& each : {algorithms[0], algorithms[1], algorithms[2], algorithms[4]}) {
        for (const std::vector<std::string>& mode : checkModes) {
            SCOPED_TRACE(each.name + ::testing::PrintToString(mode));
            const std::vector<std::string> args = joined(mode, {"-c", sums});
            expectSameRun(veltrix(each.name, args), runProgram(joined({each.program}, args)),
                          each.program);
        }
    }
}

TEST_F(digestTest, unpinnedCheckOfMixedTagsMatchesCksum)
{
    const std::string sums = mixedTaggedSums(dir, files);
    for (const std::vector<std::string>& mode : checkModes) {
        SCOPED_TRACE(::testing::PrintToString(mode));
        const std::vector<std::string> args = joined(mode, {"-c", sums});
        expectSameRun(unpinned(args), runProgram(joined({"cksum"}, args)), "cksum");
    }
}

TEST_F(digestTest, unpinnedCheckReadsUntaggedLinesAsMd5)
{
    writeFile(dir.file("sums"), runProgram({"md5sum", files[0]}).out +
                                    runProgram({"sha256sum", "--tag", files[1]}).out);
    const runResult got = unpinned({"-c", dir.file("sums")});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, files[0] + ": OK\n" + files[1] + ": OK\n");
    EXPECT_EQ(got.err, "");
}

/** Sums that one program wrote, checked for another algorithm: the sum program's refusal, and
 *  a hint at the algorithm the lines look like. */
struct lookalikeCase
{
    const char* name;
    const char* writer;    ///< the program that writes the sums
    bool tagged;           ///< with --tag
    const char* word;      ///< -a of the check; nullptr: none
    const char* mode;      ///< another option of the check; nullptr: none
    const char* reference; ///< the sum program that checks that algorithm
    const char* hint;
};

const lookalikeCase lookalikeCases[] = {
    {"sha256ByDefault", "sha256sum", false, nullptr, nullptr, "md5sum",
     "the lines look like SHA256 checksums, not MD5: try -a sha256"},
    {"sha512AsSha1", "sha512sum", false, "sha1", nullptr, "sha1sum",
     "the lines look like SHA512 checksums, not SHA1: try -a sha512"},
    {"taggedSha256AsSha1", "sha256sum", true, "sha1", nullptr, "sha1sum",
     "the lines look like SHA256 checksums, not SHA1: try -a sha256"},
    {"taggedMd5AsSha256", "md5sum", true, "sha256", nullptr, "sha256sum",
     "the lines look like MD5 checksums, not SHA256: try -a md5"},
    {"md5AsSha256", "md5sum", false, "sha256", nullptr, "sha256sum",
     "the lines look like MD5 or SHA256-128 checksums, not SHA256: try -a md5 or -a sha256-128"},
    {"sha1WithStatus", "sha1sum", false, nullptr, "--status", "md5sum",
     "the lines look like SHA1 checksums, not MD5: try -a sha1"},
    {"sha384Warned", "sha384sum", false, "sha512", "-w", "sha512sum",
     "the lines look like SHA384 checksums, not SHA512: try -a sha384"},
};

class lookalikeSums : public digestTest, public ::testing::WithParamInterface<lookalikeCase>
{
};

/** `text` with `hint` added to its "no properly formatted" line. */
std::string withHint(std::string text, const std::string& hint)
{
    const std::string line = "no properly formatted checksum lines found";
    const size_t at = text.find(line + "\n");
    return at == std::string::npos ? text : text.insert(at + line.size(), "; " + hint);
}

TEST_P(lookalikeSums, refusalNamesTheAlgorithmTheLinesLookLike)
{
    const lookalikeCase& test = GetParam();
    std::vector<std::string> writer{test.writer};
    std::vector<std::string> args;
    if (test.tagged) {
        writer.emplace_back("--tag");
    }
    if (test.mode != nullptr) {
        args.emplace_back(test.mode);
    }
    writeFile(dir.file("sums"), runProgram(joined(writer, files)).out);
    args = joined(args, {"-c", dir.file("sums")});
    const runResult expected = runProgram(joined({test.reference}, args));
    const runResult got = test.word == nullptr ? unpinned(args) : veltrix(test.word, args);
    ASSERT_EQ(expected.status, 1);
    EXPECT_EQ(got.status, expected.status);
    EXPECT_EQ(got.out, expected.out);
    EXPECT_EQ(got.err, withHint(asVeltrix(expected.err, test.reference), test.hint));
}

INSTANTIATE_TEST_SUITE_P(sums, lookalikeSums, ::testing::ValuesIn(lookalikeCases), caseName());

TEST_F(digestTest, hintNamesTheMostFrequentAlgorithm)
{
    const std::string sums = mixedTaggedSums(dir, files);
    const runResult got = veltrix("sha384", {"-c", sums});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.err, withHint(asVeltrix(runProgram({"sha384sum", "-c", sums}).err, "sha384sum"),
                                "the lines look like SHA256 checksums, not SHA384: try -a sha256"));
}

/** What a line of a sum file lists. */
enum class listed
{
    good,     ///< a file that matches
    changed,  ///< a file that does not
    missing,  ///< no file at all
    dangling, ///< a symbolic link to nowhere: missing too
    folder,   ///< a directory: there, but unreadable
    junk      ///< an improperly formatted line
};

/** A sum file of sha256sum lines checked with --ignore-missing. */
struct missingCase
{
    const char* name;
    std::vector<listed> lines;
};

const missingCase missingCases[] = {
    {"allMissing", {listed::missing, listed::missing}},
    {"someMissing", {listed::good, listed::missing, listed::good}},
    {"missingAndChanged", {listed::changed, listed::missing}},
    {"missingAndUnreadable", {listed::folder, listed::missing}},
    {"missingAndMalformed", {listed::missing, listed::junk}},
    {"danglingLinkAmongGood", {listed::dangling, listed::good}},
    {"onlyDanglingLink", {listed::dangling}},
    {"noneMissing", {listed::good, listed::changed, listed::good}},
    {"onlyMalformed", {listed::junk}},
};

class missingFiles : public digestTest, public ::testing::WithParamInterface<missingCase>
{
protected:
    /** The line for files[at] (or a name made from `at`) listed as `kind`. */
    std::string sumLineFor(listed kind, size_t at)
    {
        const std::string anyDigest(64, 'e');
        const std::string name = dir.file("listed" + std::to_string(at));
        switch (kind) {
        case listed::good:
            return runProgram({"sha256sum", files[at]}).out;
        case listed::changed: {
            const std::string line = runProgram({"sha256sum", files[at]}).out;
            writeFile(files[at], "changed");
            return line;
        }
        case listed::dangling:
            EXPECT_EQ(symlink(dir.file("nowhere").c_str(), name.c_str()), 0);
            return anyDigest + "  " + name + "\n";
        case listed::folder:
            EXPECT_EQ(mkdir(name.c_str(), 0700), 0);
            return anyDigest + "  " + name + "\n";
        case listed::missing:
            return anyDigest + "  " + name + "\n";
        case listed::junk:
            return "not a sum line\n";
        }
        return "";
    }

    std::string sumFile()
    {
        std::string sums;
        for (size_t at = 0; at < GetParam().lines.size(); ++at) {
            sums += sumLineFor(GetParam().lines[at], at);
        }
        writeFile(dir.file("sums"), sums);
        return dir.file("sums");
    }
};

TEST_P(missingFiles, ignoreMissingMatchesTheSumProgram)
{
    const std::string sums = sumFile();
    for (const std::vector<std::string>& mode : checkModes) {
        SCOPED_TRACE(::testing::PrintToString(mode));
        const std::vector<std::string> args = joined(mode, {"--ignore-missing", "-c", sums});
        expectSameRun(veltrix("sha256", args), runProgram(joined({"sha256sum"}, args)),
                      "sha256sum");
    }
}

INSTANTIATE_TEST_SUITE_P(sums, missingFiles, ::testing::ValuesIn(missingCases), caseName());

TEST_F(digestTest, ignoreMissingJudgesEachSumFileAlone)
{
    writeFile(dir.file("gone"), std::string(64, 'e') + "  " + dir.file("absent") + "\n");
    writeFile(dir.file("there"), runProgram({"sha256sum", files[0]}).out);
    const std::vector<std::string> args = {"--ignore-missing", "-c", dir.file("gone"),
                                           dir.file("there")};
    const runResult expected = runProgram(joined({"sha256sum"}, args));
    EXPECT_EQ(expected.status, 1);
    expectSameRun(veltrix("sha256", args), expected, "sha256sum");
}

TEST_F(digestTest, tagAndIgnoreMissingRefuseTheOtherMode)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--tag", "-c", files[0]}, "--check excludes --tag"},
        {{"-c", "--tag", files[0]}, "--check excludes --tag"},
        {{"--ignore-missing", files[0]}, "--ignore-missing requires --check"}};
    for (const auto& [args, text] : cases) {
        const runResult got = unpinned(args);
        EXPECT_EQ(got.status, 2);
        EXPECT_EQ(got.out, "");
        EXPECT_EQ(got.err.rfind("veltrix digest: " + text + " (", 0), 0U) << got.err;
    }
}

} // namespace
