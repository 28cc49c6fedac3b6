// The sentences about a command line, and what they are made of. Private to it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "cli/Command.h"
#include "cli/CommandLine.h"

namespace GB {

vpnctl::Error commandLineError(CommandLineFault fault, std::string message);

// BYTES in quotation marks; what is no printable UTF-8 as "\xNN", so that no terminal is made to do anything by it.
std::string inQuotes(std::string_view bytes);

// VALUE as a whole number; an error when it is none, or not from MINIMUM to MAXIMUM.
vpnctl::Result<std::int64_t> wholeNumber(const Option &option, std::string_view value, std::int64_t minimum,
                                         std::int64_t maximum);

// Where VALUE is among the option's choices.
vpnctl::Result<std::size_t> chosen(const Option &option, std::string_view value);

}  // namespace GB
