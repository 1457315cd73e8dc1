// Options that the command line and a configuration file share. One row per option holds its
// name, its help, its default and how its text is checked and stored, so that the command line,
// the file and the defaults are read by the same code and cannot drift apart.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vxcli {

/** Stores `text` in `into`; empty when it did, else what is wrong with the value. */
template <class Target>
using optionApply = std::function<std::string(const std::string& text, Target& into)>;

template <class Target> struct optionRow
{
    std::string name;        ///< the long option without "--", and the key in a file
    std::string type;        ///< what the value is, for --help: "SECONDS", "FILE", ...
    std::string help;        ///< one line for --help
    std::string defaultText; ///< the value when none is given; empty: none
    optionApply<Target> apply;
    bool flag = false; ///< given without a value on the command line; true or false in a file
};

template <class Target> using optionRows = std::vector<optionRow<Target>>;

/** Option values as text, by name: what the command line gave, in the form a file gives them. */
using givenOptions = std::map<std::string, std::string>;

/** `text` as a whole number from `low` to `high` into `into`; the problem, else empty. */
std::string parseNumber(const std::string& text, unsigned low, unsigned high, unsigned& into);

/** `text` as true (true, yes, on, 1) or false (false, no, off, 0); the problem, else empty. */
std::string parseSwitch(const std::string& text, bool& into);

/** The row named `name`; nullptr when there is none. */
template <class Target>
const optionRow<Target>* findRow(const optionRows<Target>& rows, const std::string& name)
{
    for (const auto& row : rows) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

/** Adds one command-line option per row to `command`; each value given lands in `given`, checked
 *  while the command line is parsed, so that a bad one is a usage error. */
template <class Target>
void addOptions(CLI::App& command, const optionRows<Target>& rows, givenOptions& given)
{
    for (const auto& row : rows) {
        const std::string name = row.name;
        if (row.flag) {
            command.add_flag_callback(
                "--" + name, [&given, name] { given[name] = "true"; }, row.help);
            continue;
        }
        const optionApply<Target> apply = row.apply;
        CLI::Option* option = command.add_option_function<std::string>(
            "--" + name, [&given, name](const std::string& text) { given[name] = text; }, row.help);
        option->check(CLI::Validator(
            [apply](const std::string& text) {
                Target scratch{};
                return apply(text, scratch);
            },
            row.type));
        if (!row.defaultText.empty()) {
            option->default_str(row.defaultText);
        }
    }
}

/** Every row's default applied to a fresh Target. */
template <class Target> Target defaultsOf(const optionRows<Target>& rows)
{
    Target values{};
    for (const auto& row : rows) {
        if (!row.defaultText.empty()) {
            (void)row.apply(row.defaultText, values);
        }
    }
    return values;
}

/** The values of `given` applied over `values` (each was checked when it was given). */
template <class Target>
void applyGiven(const optionRows<Target>& rows, const givenOptions& given, Target& values)
{
    for (const auto& [name, text] : given) {
        if (const optionRow<Target>* row = findRow(rows, name)) {
            (void)row->apply(text, values);
        }
    }
}

} // namespace vxcli
