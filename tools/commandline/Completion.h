#ifndef TOOLS_COMMANDLINE_COMPLETION_H
#define TOOLS_COMMANDLINE_COMPLETION_H

namespace CLI {
class App;
}

// Adds the command that prints a shell's completion script for all commands there are. Hidden: it
// is for those who build and package the tool, and for shells that load completions from a command.
void addCompletionCommand(CLI::App& app);

#endif
