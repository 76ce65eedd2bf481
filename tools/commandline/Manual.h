#ifndef TOOLS_COMMANDLINE_MANUAL_H
#define TOOLS_COMMANDLINE_MANUAL_H

namespace CLI {
class App;
}

// Adds the command that prints manual pages (mdoc), made from the commands' own help. Hidden: it is
// for those who build and package the tool.
void addManualCommand(CLI::App& app);

#endif
