#pragma once
// The exvol command line: commands and their shared error reporting.
//
// Exit status: 0 success, 1 the operation failed, 2 the command line is
// wrong. Messages go to stderr on one line, prefixed "exvol: ".

#include <string>
#include <vector>

namespace exvol::cli {

// Prints "exvol: message" on stderr; returns exit status 1.
int failure(const std::string& message);
// Prints "exvol: message" and the usage on stderr; returns exit status 2.
int usage_error(const std::string& message);

// The usage text.
const char* usage_text();

int info_command(const std::vector<std::string>& args);

}  // namespace exvol::cli
