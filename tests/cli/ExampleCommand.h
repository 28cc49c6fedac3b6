// A definition with something of everything, for the tests of what is made from one.

#pragma once

#include "cli/Command.h"

inline constexpr GB::Option kExampleStartOptions[] = {
    {.name = "port",
     .letter = 'p',
     .value = "PORT",
     .description = "Listen on PORT",
     .kind = GB::OptionKind::integer,
     .minimum = 1,
     .maximum = 65535,
     .standard = "80"},
    {.name = "config",
     .letter = 'c',
     .value = "FILE",
     .description = "Read FILE",
     .kind = GB::OptionKind::file,
     .required = true},
    {.description = "Rarely needed:"},
    {.name = "folder", .value = "FOLDER", .description = "Where it [it's] is: here", .kind = GB::OptionKind::folder},
    {.name = "secret", .value = "TEXT", .hidden = true}};

inline constexpr GB::Option kExampleStopOptions[] = {
    {.name = "after", .letter = 'a', .value = "SECONDS", .kind = GB::OptionKind::integer, .minimum = 0}};

inline constexpr GB::Command kExampleCommands[] = {
    {.name = "start",
     .summary = "Starts a server",
     .options = kExampleStartOptions,
     .operands = "NAME [FILE...]",
     .minimumOperands = 1,
     .maximumOperands = 3},
    {.name = "stop", .summary = "Stops it", .options = kExampleStopOptions}};

inline constexpr GB::Option kExampleOptions[] = {
    {.name = "verbose", .letter = 'v', .description = "Say what is done", .negatable = true},
    {.name = "quiet", .letter = 'q', .description = "Say nothing"},
    {.name = "mode",
     .letter = 'm',
     .value = "MODE",
     .description = "How it is done, in a sentence that is too long for what is left of the line",
     .kind = GB::OptionKind::choice,
     .choices = "fast|slow|very slow",
     .standard = "fast"},
    {.name = "level",
     .letter = 'l',
     .value = "N",
     .kind = GB::OptionKind::integer,
     .standard = "3",
     .valueOptional = true}};

inline constexpr GB::Command kExample = {.name = "my-tool",
                                         .summary = "Does what it is told.",
                                         .version = "1.0",
                                         .options = kExampleOptions,
                                         .commands = kExampleCommands};
