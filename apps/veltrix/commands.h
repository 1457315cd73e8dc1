// The commands of the veltrix program. Each adds its subcommand and options to the program's
// parser; once the command line parses, the chosen command's body runs inside the frame.
#pragma once

#include "cliFrame.h"

#include <string>

namespace CLI {
class App;
}

namespace vxcli {

/** The command the command line chose, and its body with the parsed options bound. */
struct selection
{
    std::string name;
    cliFrame::body body;
};

void addTunnelCommand(CLI::App& program, selection& chosen);
void addCatCommand(CLI::App& program, selection& chosen);
void addKeyCommand(CLI::App& program, selection& chosen);
void addDigestCommand(CLI::App& program, selection& chosen);
void addBenchCommand(CLI::App& program, selection& chosen);
void addDecodeCommand(CLI::App& program, selection& chosen);

} // namespace vxcli
