// The options of commands that send: how to make a stream constant-rate, and how to announce it.
#ifndef TOOLS_COMMANDS_SHAPINGOPTIONS_H
#define TOOLS_COMMANDS_SHAPINGOPTIONS_H

#include <string>

#include "engine/Jobs.h"

struct CommandModel;

struct ShapingArguments {
    std::string cbr;
    std::string delay;
    bool asIs = false;
};

// The arguments must live as long as the command.
void addShaping(CommandModel& command, ShapingArguments& given);

void addAnnouncing(CommandModel& command, Announcing& given);

// Throws UsageError.
Shaping shaping(const ShapingArguments& given);

#endif
