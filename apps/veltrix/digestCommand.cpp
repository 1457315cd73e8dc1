// veltrix digest: file digests printed line for line as the coreutils sum programs print them, and
// the check of a sum file (-c) with the same report lines, warnings and exit status, so that sum
// files and scripts move freely between the two.
#include "commands.h"
#include "cryptoapi.h"
#include "digestKeyFiles.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace vxcli {

using namespace veltrix;

namespace {

const char* const commandName = "digest";

/** An algorithm as the command line names it. */
struct algorithm
{
    const char* word;  ///< value of --algorithm
    uint32_t id;       ///< the library's digest identifier
    const char* label; ///< its name in the --warn line, as the sum programs spell it
    size_t hexLength;  ///< hex digits of one digest
};

const algorithm algorithms[] = {
    {"md5", vxHashId::md5, "MD5", 32},
    {"sha1", vxHashId::sha1, "SHA1", 40},
    {"sha256", vxHashId::sha256, "SHA256", 64},
    {"sha384", vxHashId::sha384, "SHA384", 96},
    {"sha512", vxHashId::sha512, "SHA512", 128},
    {"sha256-128", vxHashId::sha256_128, "SHA256-128", 32},
};

/** What a check prints. --warn, --quiet and --status replace one another: the last one given
 *  wins, as with the sum programs. */
enum class verbosity
{
    normal,
    warn,
    quiet,
    status
};

struct digestOptions
{
    const algorithm* chosen = &algorithms[0]; ///< md5
    std::vector<std::string> files;
    bool check = false;
    bool strict = false;
    verbosity level = verbosity::normal;
};

void notice(const std::string& text)
{
    std::cerr << "veltrix " << commandName << ": " << text << std::endl;
}

/** Characters a sum line cannot hold literally, each with the letter that follows its backslash. */
const std::pair<char, char> escapes[] = {{'\\', '\\'}, {'\n', 'n'}, {'\r', 'r'}};

std::string escaped(const std::string& name)
{
    std::string text;
    for (const char c : name) {
        const auto* found = std::find_if(std::begin(escapes), std::end(escapes),
                                         [c](const auto& escape) { return escape.first == c; });
        text += found == std::end(escapes) ? std::string(1, c) : std::string{'\\', found->second};
    }
    return text;
}

/** Undoes escaped(); false for a backslash that ends the name or escapes any other letter. */
bool unescape(std::string& name)
{
    std::string plain;
    for (size_t at = 0; at < name.size(); ++at) {
        if (name[at] != '\\') {
            plain += name[at];
            continue;
        }
        const char letter = ++at < name.size() ? name[at] : '\0';
        const auto* found = std::find_if(std::begin(escapes), std::end(escapes),
                                         [letter](const auto& e) { return e.second == letter; });
        if (found == std::end(escapes)) {
            return false;
        }
        plain += found->first;
    }
    name = std::move(plain);
    return true;
}

/** A name on one line: only a line feed forces the escaped form (with its leading backslash) in
 *  check reports, which keeps them easy to read and to process. */
std::string oneLineName(const std::string& name)
{
    return name.find('\n') == std::string::npos ? name : "\\" + escaped(name);
}

/** One digest algorithm opened under the frame, started afresh for every file. */
class fileDigest
{
public:
    fileDigest(cliFrame& frame, const algorithm& chosen)
    {
        const std::string word = chosen.word;
        frame.open(id, "cannot select the " + word + " digest", chosen.id);
        frame.open(md, "cannot open the " + word + " digest", id);
    }

    /** Sets `hex` to the lower-case digest of `path` ("-": standard input). Returns 0, or the
     *  errno of the open or read that failed. */
    int compute(const std::string& path, std::string& hex)
    {
        require(md.Init(), "cannot start the digest of " + oneLineName(path));
        const int error = readChunks(path, [this, &path](const char* data, size_t size) {
            require(md.Update(data, static_cast<uint32_t>(size)),
                    "cannot digest " + oneLineName(path));
        });
        if (error != 0) {
            return error;
        }
        require(md.Final() && md.GetString(hex),
                "cannot finish the digest of " + oneLineName(path));
        std::transform(hex.begin(), hex.end(), hex.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return 0;
    }

private:
    vxHashId id;
    vxMd md;
    closeOnExit idClosed{id};
    closeOnExit mdClosed{md};
};

/** Prints "<digest>  <name>" per file; a name that needs escaping gets a backslash in front of
 *  the whole line. An unreadable file is reported and skipped; the status then says failure. */
int printSums(fileDigest& digest, const std::vector<std::string>& files)
{
    int status = exitOk;
    for (const std::string& file : files) {
        std::string hex;
        if (const int error = digest.compute(file, hex); error != 0) {
            notice(oneLineName(file) + ": " + std::strerror(error));
            status = exitFailure;
            continue;
        }
        const bool escape = file.find_first_of("\\\n\r") != std::string::npos;
        std::cout << (escape ? "\\" : "") << hex << "  " << (escape ? escaped(file) : file) << '\n';
    }
    return status;
}

/** A well-formed sum line: the expected digest and the file's name. */
struct sumEntry
{
    std::string hex;
    std::string name;
};

bool allHex(const std::string& text)
{
    return std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return std::isxdigit(c) != 0; });
}

/** Reads "<hex> <mode><name>": leading blanks, an optional backslash for an escaped name, the
 *  digest, one blank, ' ' (text) or '*' (binary), then the name, every character of which counts. */
bool parseSumLine(const std::string& line, size_t hexLength, sumEntry& entry)
{
    size_t at = line.find_first_not_of(" \t");
    if (at == std::string::npos) {
        return false;
    }
    const bool isEscaped = line[at] == '\\';
    at += isEscaped ? 1 : 0;
    if (line.size() < at + hexLength + 3) {
        return false;
    }
    const char blank = line[at + hexLength];
    const char mode = line[at + hexLength + 1];
    entry.hex = line.substr(at, hexLength);
    entry.name = line.substr(at + hexLength + 2);
    return allHex(entry.hex) && (blank == ' ' || blank == '\t') && (mode == ' ' || mode == '*') &&
           (!isEscaped || unescape(entry.name));
}

bool sameDigest(const std::string& computed, const std::string& listed)
{
    return std::equal(computed.begin(), computed.end(), listed.begin(), listed.end(),
                      [](unsigned char a, unsigned char b) { return a == std::tolower(b); });
}

/** The check of one sum file: a report line per listed file, then the warnings. */
class sumFileCheck
{
public:
    sumFileCheck(fileDigest& engine, const algorithm& algo, const digestOptions& given,
                 std::string file)
        : digest(engine), chosen(algo), options(given), sumFile(std::move(file))
    {}

    /** True when every listed file was read and matched. */
    bool run()
    {
        std::string pending;
        const int error = readChunks(sumFile, [this, &pending](const char* data, size_t size) {
            pending.append(data, size);
            size_t start = 0;
            for (size_t end = 0; (end = pending.find('\n', start)) != std::string::npos;
                 start = end + 1) {
                checkLine(pending.substr(start, end - start));
            }
            pending.erase(0, start);
        });
        if (error != 0) {
            notice(oneLineName(shownSumFile()) + ": " + std::strerror(error));
            return false;
        }
        if (!pending.empty()) {
            checkLine(pending);
        }
        return finish();
    }

private:
    [[nodiscard]] std::string shownSumFile() const
    {
        return sumFile == "-" ? "standard input" : sumFile;
    }

    void checkLine(std::string line)
    {
        ++lineNumber;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty() || line[0] == '#') {
            return;
        }
        sumEntry entry;
        // "-" names standard input, which cannot be listed in sums read from standard input.
        if (!parseSumLine(line, chosen.hexLength, entry) || (sumFile == "-" && entry.name == "-")) {
            ++misformatted;
            if (options.level == verbosity::warn) {
                notice(oneLineName(shownSumFile()) + ": " + std::to_string(lineNumber) +
                       ": improperly formatted " + chosen.label + " checksum line");
            }
            return;
        }
        wellFormed = true;
        checkEntry(entry);
    }

    void checkEntry(const sumEntry& entry)
    {
        std::string hex;
        const char* verdict = nullptr;
        if (const int error = digest.compute(entry.name, hex); error != 0) {
            ++unreadable;
            notice(oneLineName(entry.name) + ": " + std::strerror(error));
            verdict = "FAILED open or read";
        } else if (!sameDigest(hex, entry.hex)) {
            ++mismatched;
            verdict = "FAILED";
        } else if (options.level != verbosity::quiet) {
            verdict = "OK";
        }
        if (verdict != nullptr && options.level != verbosity::status) {
            std::cout << oneLineName(entry.name) << ": " << verdict << '\n';
        }
    }

    static void warnAbout(size_t count, const char* one, const char* many)
    {
        if (count != 0) {
            notice("WARNING: " + std::to_string(count) + " " + (count == 1 ? one : many));
        }
    }

    [[nodiscard]] bool finish() const
    {
        if (!wellFormed) {
            notice(oneLineName(shownSumFile()) + ": no properly formatted checksum lines found");
            return false;
        }
        if (options.level != verbosity::status) {
            warnAbout(misformatted, "line is improperly formatted",
                      "lines are improperly formatted");
            warnAbout(unreadable, "listed file could not be read",
                      "listed files could not be read");
            warnAbout(mismatched, "computed checksum did NOT match",
                      "computed checksums did NOT match");
        }
        return mismatched == 0 && unreadable == 0 && (!options.strict || misformatted == 0);
    }

    fileDigest& digest;
    const algorithm& chosen;
    const digestOptions& options;
    const std::string sumFile;
    size_t lineNumber = 0;
    size_t misformatted = 0;
    size_t unreadable = 0;
    size_t mismatched = 0;
    bool wellFormed = false;
};

int runDigest(cliFrame& frame, const digestOptions& options)
{
    frame.loadPlugin();
    const algorithm& chosen = *options.chosen;
    fileDigest digest(frame, chosen);
    const std::vector<std::string> files =
        options.files.empty() ? std::vector<std::string>{"-"} : options.files;
    if (!options.check) {
        return printSums(digest, files);
    }
    bool passed = true;
    for (const std::string& sumFile : files) {
        passed = sumFileCheck(digest, chosen, options, sumFile).run() && passed;
    }
    return passed ? exitOk : exitFailure;
}

using verbosityFlags = std::vector<std::pair<const CLI::Option*, verbosity>>;

/** The verbosity of the last of the given flags on the command line. */
verbosity lastVerbosity(const CLI::App& command, const verbosityFlags& flags)
{
    verbosity level = verbosity::normal;
    for (const CLI::Option* given : command.parse_order()) {
        for (const auto& [flag, value] : flags) {
            level = given == flag ? value : level;
        }
    }
    return level;
}

void addAlgorithmOption(CLI::App& command, const std::shared_ptr<digestOptions>& options)
{
    std::vector<std::string> words;
    for (const algorithm& each : algorithms) {
        words.emplace_back(each.word);
    }
    const auto choose = [options](const std::string& word) {
        for (const algorithm& each : algorithms) {
            options->chosen = word == each.word ? &each : options->chosen;
        }
    };
    command.add_option_function<std::string>("-a,--algorithm", choose, "the digest algorithm")
        ->check(CLI::IsMember(words))
        ->default_str(options->chosen->word);
}

/** Adds --check and the options that only make sense with it; returns the verbosity flags. */
verbosityFlags addCheckOptions(CLI::App& command, digestOptions& options)
{
    CLI::Option* check =
        command.add_flag("-c,--check", options.check, "read digests from the FILEs and check them");
    command.add_flag("--strict", options.strict, "fail for improperly formatted lines")
        ->needs(check);
    return {{command.add_flag("-w,--warn", "warn about improperly formatted lines")->needs(check),
             verbosity::warn},
            {command.add_flag("--quiet", "print no OK line")->needs(check), verbosity::quiet},
            {command.add_flag("--status", "print nothing: the exit status tells")->needs(check),
             verbosity::status}};
}

} // namespace

void addDigestCommand(CLI::App& program, selection& chosen)
{
    auto options = std::make_shared<digestOptions>();
    CLI::App* command = program.add_subcommand(
        commandName, "print or check file digests, in the format of the coreutils sum programs");
    addAlgorithmOption(*command, options);
    const verbosityFlags levels = addCheckOptions(*command, *options);
    command->add_option(
        "FILE", options->files,
        "files to digest, or with --check sum files; \"-\" or none: standard input");
    command->callback([command, options, levels, &chosen] {
        options->level = lastVerbosity(*command, levels);
        chosen = {commandName, [options](cliFrame& frame) { return runDigest(frame, *options); }};
    });
}

} // namespace vxcli
