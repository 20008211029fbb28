#include "platform/QrCode.h"

#include <qrencode.h>

#include <memory>

namespace parlavox::platform {

std::vector<std::string> terminalQrCode(std::string_view text) {
  const std::string input(text);
  const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
      QRcode_encodeString8bit(input.c_str(), 0, QR_ECLEVEL_M), &QRcode_free);
  if (!code) {
    return {};
  }
  constexpr int kQuiet = 2;
  const int width = code->width;
  const auto dark = [&](int row, int column) {
    if (row < 0 || row >= width || column < 0 || column >= width) {
      return false;
    }
    return (code->data[row * width + column] & 1U) != 0;
  };
  std::vector<std::string> lines;
  for (int row = -kQuiet; row < width + kQuiet; row += 2) {
    std::string line = "\x1b[30;107m";  // black on bright white
    for (int column = -kQuiet; column < width + kQuiet; ++column) {
      const bool top = dark(row, column);
      const bool bottom = dark(row + 1, column);
      line += top && bottom ? "█" : top ? "▀" : bottom ? "▄" : " ";
    }
    lines.push_back(line + "\x1b[0m");
  }
  return lines;
}

}  // namespace parlavox::platform
