// Failing system calls for the code under test. The executable that links FaultInjector.cpp takes
// the C and C++ libraries' place, as with TestClock, and lets one use of one function fail. Only
// uses by the module and the socket library count.
#ifndef TESTS_FAULTINJECTOR_H
#define TESTS_FAULTINJECTOR_H

#include <string>
#include <vector>

namespace faults {

// Everything that the libraries use and that may fail, but for what they use only on the way back
// from a failure.
std::vector<std::string> Functions();

// Counts uses from zero again, and lets the one of that number fail, or, with `before`, be preceded
// by something. None with use 0.
void Arm(const std::string& function, int use, void (*before)() = nullptr);

// Of the function, since Arm.
int Uses(const std::string& function);

// Memory, mappings, address lists and thread attributes that the libraries have been given and not
// given back.
int Held();

}  // namespace faults

#endif
