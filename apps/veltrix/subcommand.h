// How a command joins the program's parser: its options fill one object, which the parser's
// callback and the chosen body share, so that it outlives the parse.
#pragma once

#include "commands.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace vxcli {

/** Adds the subcommand `name`: `declare` binds its options to one object; once the command line
 *  parsed, `settle` (unless nullptr) completes and checks them, throwing a usage error, and
 *  `run` on them becomes the chosen command. */
template <typename optionsType>
void addSubcommand(CLI::App& program, selection& chosen, const char* name, const char* description,
                   void (*declare)(CLI::App&, optionsType&), void (*settle)(optionsType&),
                   int (*run)(cliFrame&, const optionsType&))
{
    auto options = std::make_shared<optionsType>();
    CLI::App* command = program.add_subcommand(name, description);
    declare(*command, *options);
    command->callback([&chosen, options, name, settle, run] {
        if (settle != nullptr) {
            settle(*options);
        }
        chosen = {name, [options, run](cliFrame& frame) { return run(frame, *options); }};
    });
}

} // namespace vxcli
