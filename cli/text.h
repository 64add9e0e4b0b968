#pragma once
// Text helpers shared by the commands: names, sizes, times and JSON.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "exvol/types.h"

namespace exvol::cli {

// The volume lists names decomposed (NFD); Linux programs and users expect
// composed names (NFC). Returns `name` in NFC, or unchanged when it is not
// valid UTF-8 (it is then shown and used as it came).
std::string composed(const std::string& name);

// "1.5 MiB"; whole bytes below 1 KiB ("512 B").
std::string human_size(uint64_t bytes);

// A time in the host's local time zone: "2024-01-31 23:59:58", with
// ".nnnnnnnnn +hhmm" appended when `precise`.
std::string format_time(const timespec& t, bool precise = false);

// Parses a time given on the command line: "@SECONDS" (since the epoch),
// "YYYY-MM-DD", "YYYY-MM-DD HH:MM" or "YYYY-MM-DD HH:MM:SS" in local time,
// optionally with "T" between date and time and a final "Z" for UTC.
std::optional<timespec> parse_time(const std::string& text);

// Prints `doc` on stdout, indented by two, keys in the order they were
// added, followed by a newline. Names on a damaged volume, and host paths,
// need not be valid UTF-8: such bytes print as U+FFFD, so that the output
// always parses.
void print_json(const nlohmann::ordered_json& doc);

// "R", "H" and "A" (or "-") for read-only, hidden and archive.
std::string attribute_letters(const Stat& st);

}  // namespace exvol::cli
