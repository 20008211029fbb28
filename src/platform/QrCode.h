#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace parlavox::platform {

// Any thread. `text` as a QR code for a terminal: each line draws two rows of modules with half
// blocks, dark modules in black on white whatever the terminal's colours, with a quiet zone of two
// modules. Empty when the text does not fit a QR code.
std::vector<std::string> terminalQrCode(std::string_view text);

}  // namespace parlavox::platform
