#ifndef TOOLS_COMMANDS_DEMOCOMMAND_H
#define TOOLS_COMMANDS_DEMOCOMMAND_H

#include <string>

struct CommandModel;

struct DemoOptions {
    std::string file;    // empty = one that is made, or the sample
    std::string sample;  // empty = the one that comes with the tool
    double seconds = 5.0;
};

// Sends a stream over all send channels to all receive channels and prints what came of it. Throws
// Failure when anything was lost or changed.
void runDemo(const DemoOptions& options);

CommandModel demoCommand();

#endif
