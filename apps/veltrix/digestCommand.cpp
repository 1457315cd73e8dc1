// veltrix digest: file digests printed line for line as the coreutils sum programs print them
// (their BSD-style --tag lines too), and the check of a sum file (-c) with the same report lines,
// warnings and exit status, so that sum files and scripts move freely between the two.
#include "chunkedInput.h"
#include "commands.h"
#include "cryptoapi.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
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
    std::string label; ///< its name in the --warn line and the tag of its BSD-style lines: the
                       ///< word in capitals, as the sum programs spell it
    size_t hexLength;  ///< hex digits of one digest
};

std::string capitals(const char* word)
{
    std::string text(word);
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

/** Every digest of the library, in the order of its table. */
#define VX_DIGEST_ROW(identifier, id, name, bytes) \
    algorithm{name, id, capitals(name), size_t{2} * (bytes)},
const algorithm algorithms[] = {VX_DIGEST_ALGORITHMS(VX_DIGEST_ROW)};
#undef VX_DIGEST_ROW

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
    const algorithm* chosen = &algorithms[0]; ///< md5, the table's first
    bool pinned = false; ///< -a was given: a check then takes no other algorithm's tagged lines
    std::vector<std::string> files;
    bool check = false;
    bool tag = false;
    bool strict = false;
    bool ignoreMissing = false;
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
    fileDigest(cliFrame& frame, const algorithm& chosen) : algo(chosen)
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

    const algorithm& algo;

private:
    vxHashId id;
    vxMd md;
    closeOnExit idClosed{id};
    closeOnExit mdClosed{md};
};

/** One fileDigest per algorithm, each opened the first time it is needed: besides the chosen
 *  one, a check meets others only in tagged lines. */
class digestSet
{
public:
    explicit digestSet(cliFrame& owner) : frame(owner) {}

    fileDigest& of(const algorithm& algo)
    {
        std::unique_ptr<fileDigest>& slot = opened.at(static_cast<size_t>(&algo - algorithms));
        if (!slot) {
            slot = std::make_unique<fileDigest>(frame, algo);
        }
        return *slot;
    }

private:
    cliFrame& frame;
    std::array<std::unique_ptr<fileDigest>, std::size(algorithms)> opened;
};

/** "<digest>  <name>", or with `tag` the BSD-style "<TAG> (<name>) = <digest>"; a name that
 *  needs escaping gets a backslash in front of the whole line. */
std::string sumLine(const algorithm& algo, const std::string& hex, const std::string& file,
                    bool tag)
{
    const bool escape = file.find_first_of("\\\n\r") != std::string::npos;
    const std::string name = escape ? escaped(file) : file;
    return (escape ? "\\" : "") +
           (tag ? algo.label + " (" + name + ") = " + hex : hex + "  " + name);
}

/** Prints a sum line per file. An unreadable file is reported and skipped; the status then says
 *  failure. */
int printSums(fileDigest& digest, const std::vector<std::string>& files, bool tag)
{
    int status = exitOk;
    for (const std::string& file : files) {
        std::string hex;
        if (const int error = digest.compute(file, hex); error != 0) {
            notice(oneLineName(file) + ": " + std::strerror(error));
            status = exitFailure;
            continue;
        }
        std::cout << sumLine(digest.algo, hex, file, tag) << '\n';
    }
    return status;
}

/** A well-formed sum line: the algorithm it is for, the expected digest and the file's name. */
struct sumEntry
{
    const algorithm* algo = nullptr;
    std::string hex;
    std::string name;
};

bool allHex(const std::string& text)
{
    return std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return std::isxdigit(c) != 0; });
}

/** Reads "<hex> <mode><name>" from `at`: the digest, one blank, ' ' (text) or '*' (binary), then
 *  the name, every character of which counts. */
bool parseUntagged(const std::string& line, size_t at, const algorithm& algo, sumEntry& entry)
{
    if (line.size() < at + algo.hexLength + 3) {
        return false;
    }
    const char blank = line[at + algo.hexLength];
    const char mode = line[at + algo.hexLength + 1];
    entry = {&algo, line.substr(at, algo.hexLength), line.substr(at + algo.hexLength + 2)};
    return allHex(entry.hex) && (blank == ' ' || blank == '\t') && (mode == ' ' || mode == '*');
}

/** The algorithm whose tag is `tag`; nullptr when the table has none. */
const algorithm* taggedAlgorithm(const std::string& tag)
{
    const auto* found = std::find_if(std::begin(algorithms), std::end(algorithms),
                                     [&tag](const algorithm& each) { return tag == each.label; });
    return found == std::end(algorithms) ? nullptr : found;
}

/** Reads the "<TAG> (" that starts a BSD-style line at `at`: a tag the table knows, which decides
 *  the algorithm, and an optional blank. Returns where the '(' is, or npos. */
size_t parseTag(const std::string& line, size_t at, sumEntry& entry)
{
    size_t open = line.find_first_of(" (", at);
    if (open == std::string::npos) {
        return open;
    }
    entry.algo = taggedAlgorithm(line.substr(at, open - at));
    open += line[open] == ' ' ? 1 : 0;
    return entry.algo != nullptr && line.compare(open, 1, "(") == 0 ? open : std::string::npos;
}

/** Reads "<TAG> (<name>) = <hex>" from `at`: the tag, the name in parentheses, then '=' between
 *  optional blanks and the digest, of the tag's length, up to the end of the line. Escaping
 *  leaves parentheses as they are, so the name ends at the last ')': a digest holds none. */
bool parseTagged(const std::string& line, size_t at, sumEntry& entry)
{
    const size_t open = parseTag(line, at, entry);
    const size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return false;
    }
    const size_t equals = line.find_first_not_of(" \t", close + 1);
    if (equals == std::string::npos || line[equals] != '=') {
        return false;
    }
    const size_t digest = std::min(line.find_first_not_of(" \t", equals + 1), line.size());
    entry.name = line.substr(open + 1, close - open - 1);
    entry.hex = line.substr(digest);
    return entry.hex.size() == entry.algo->hexLength && allHex(entry.hex);
}

/** Reads a sum line: leading blanks, an optional backslash for an escaped name, then a tagged
 *  line of any algorithm of the table, or an untagged line of `untagged`. */
bool parseSumLine(const std::string& line, const algorithm& untagged, sumEntry& entry)
{
    size_t at = line.find_first_not_of(" \t");
    if (at == std::string::npos) {
        return false;
    }
    const bool isEscaped = line[at] == '\\';
    at += isEscaped ? 1 : 0;
    return (parseTagged(line, at, entry) || parseUntagged(line, at, untagged, entry)) &&
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
    sumFileCheck(digestSet& engines, const digestOptions& given, std::string file)
        : digests(engines), chosen(*given.chosen), options(given), sumFile(std::move(file))
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

    /** parseSumLine(), less a line naming "-" (standard input) in sums read from standard
     *  input, which is taken already. */
    bool parse(const std::string& line, const algorithm& untagged, sumEntry& entry) const
    {
        return parseSumLine(line, untagged, entry) && (sumFile != "-" || entry.name != "-");
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
        // With -a, as with each sum program, a line tagged for another algorithm is not a line of
        // the check; without it, a tagged line names its own algorithm.
        if (!parse(line, chosen, entry) || (options.pinned && entry.algo != &chosen)) {
            ++misformatted;
            noteLookalike(line);
            if (options.level == verbosity::warn) {
                notice(oneLineName(shownSumFile()) + ": " + std::to_string(lineNumber) +
                       ": improperly formatted " + chosen.label + " checksum line");
            }
            return;
        }
        wellFormed = true;
        checkEntry(entry);
    }

    /** Counts, for each algorithm, whether an improperly formatted line would be one of its
     *  lines: the hint when the sum file holds none of the chosen algorithm's. */
    void noteLookalike(const std::string& line)
    {
        sumEntry entry;
        for (size_t at = 0; at < lookalikes.size(); ++at) {
            const algorithm& each = algorithms[at];
            lookalikes.at(at) += parse(line, each, entry) && entry.algo == &each ? 1 : 0;
        }
    }

    void checkEntry(const sumEntry& entry)
    {
        std::string hex;
        const char* verdict = nullptr;
        const int error = digests.of(*entry.algo).compute(entry.name, hex);
        if (error == ENOENT && options.ignoreMissing) {
            return; // neither reported nor counted
        }
        if (error != 0) {
            ++unreadable;
            notice(oneLineName(entry.name) + ": " + std::strerror(error));
            verdict = "FAILED open or read";
        } else if (!sameDigest(hex, entry.hex)) {
            ++mismatched;
            verdict = "FAILED";
        } else {
            ++matched;
            verdict = options.level == verbosity::quiet ? nullptr : "OK";
        }
        if (verdict != nullptr && options.level != verbosity::status) {
            std::cout << oneLineName(entry.name) << ": " << verdict << '\n';
        }
    }

    /** "; the lines look like SHA256 checksums, not MD5: try -a sha256" when improperly
     *  formatted lines are those of other algorithms (the most frequent, all of them on a tie,
     *  as 32 hex digits are both MD5 and SHA256-128), else nothing. */
    [[nodiscard]] std::string lookalikeHint() const
    {
        const size_t most = *std::max_element(lookalikes.begin(), lookalikes.end());
        std::string labels;
        std::string words;
        for (size_t at = 0; most != 0 && at < lookalikes.size(); ++at) {
            if (lookalikes.at(at) == most) {
                labels += (labels.empty() ? "" : " or ") + algorithms[at].label;
                words += (words.empty() ? "-a " : " or -a ") + std::string(algorithms[at].word);
            }
        }
        return labels.empty() ? ""
                              : "; the lines look like " + labels + " checksums, not " +
                                    chosen.label + ": try " + words;
    }

    static void warnAbout(size_t count, const char* one, const char* many)
    {
        if (count != 0) {
            notice("WARNING: " + std::to_string(count) + " " + (count == 1 ? one : many));
        }
    }

    void printWarnings() const
    {
        warnAbout(misformatted, "line is improperly formatted", "lines are improperly formatted");
        warnAbout(unreadable, "listed file could not be read", "listed files could not be read");
        warnAbout(mismatched, "computed checksum did NOT match",
                  "computed checksums did NOT match");
        if (!verified()) {
            notice(oneLineName(shownSumFile()) + ": no file was verified");
        }
    }

    /** False when missing files were ignored and no other file matched: such a check proves
     *  nothing, so it fails. */
    [[nodiscard]] bool verified() const { return !options.ignoreMissing || matched != 0; }

    [[nodiscard]] bool finish() const
    {
        if (!wellFormed) {
            notice(oneLineName(shownSumFile()) + ": no properly formatted checksum lines found" +
                   lookalikeHint());
            return false;
        }
        if (options.level != verbosity::status) {
            printWarnings();
        }
        return verified() && mismatched == 0 && unreadable == 0 &&
               (!options.strict || misformatted == 0);
    }

    digestSet& digests;
    const algorithm& chosen;
    const digestOptions& options;
    const std::string sumFile;
    size_t lineNumber = 0;
    size_t misformatted = 0;
    size_t unreadable = 0;
    size_t mismatched = 0;
    size_t matched = 0;
    std::array<size_t, std::size(algorithms)> lookalikes{}; ///< improperly formatted lines that
                                                            ///< would be each algorithm's
    bool wellFormed = false;
};

int runDigest(cliFrame& frame, const digestOptions& options)
{
    frame.loadPlugin();
    digestSet digests(frame);
    fileDigest& digest = digests.of(*options.chosen);
    const std::vector<std::string> files =
        options.files.empty() ? std::vector<std::string>{"-"} : options.files;
    if (!options.check) {
        return printSums(digest, files, options.tag);
    }
    bool passed = true;
    for (const std::string& sumFile : files) {
        passed = sumFileCheck(digests, options, sumFile).run() && passed;
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
        options->pinned = true;
    };
    command.add_option_function<std::string>("-a,--algorithm", choose, "the digest algorithm")
        ->check(CLI::IsMember(words))
        ->default_str(options->chosen->word);
}

/** Adds --check, the options that only make sense with it and --tag, which makes none with it;
 *  returns the verbosity flags. */
verbosityFlags addCheckOptions(CLI::App& command, digestOptions& options)
{
    CLI::Option* check =
        command.add_flag("-c,--check", options.check, "read digests from the FILEs and check them");
    command.add_flag("--tag", options.tag, "print BSD-style lines: ALGORITHM (FILE) = DIGEST")
        ->excludes(check);
    command.add_flag("--strict", options.strict, "fail for improperly formatted lines")
        ->needs(check);
    command
        .add_flag("--ignore-missing", options.ignoreMissing, "skip listed files that are missing")
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
