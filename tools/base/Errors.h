// The two ways in which a command ends early. main prints the text as one line behind "qxvrtp: ".
#ifndef TOOLS_BASE_ERRORS_H
#define TOOLS_BASE_ERRORS_H

#include <stdexcept>

// The command line asks for something that cannot be asked for; exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What was asked for could not be done; exit code 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

#endif
