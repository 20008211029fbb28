#pragma once

#include <string>
#include <string_view>

#include "platform/Result.h"

namespace parlavox::platform {

// Reading what a person types and nobody else should see. The main thread only.

// Whether standard input is a terminal.
bool inputIsTerminal();

// Shows `prompt` on standard error and reads one line from the terminal at standard input without
// echoing it; the echo comes back afterwards, also when a signal ends the program meanwhile.
Result<std::string> readHiddenLine(std::string_view prompt);

// One line from standard input, without its line end; at most `maxBytes` of it.
Result<std::string> readInputLine(std::size_t maxBytes);

}  // namespace parlavox::platform
