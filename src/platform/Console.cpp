#include "platform/Console.h"

#include <cstdio>
#include <string>

namespace parlavox::platform {

void StdoutConsole::makeLineBuffered() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void StdoutConsole::print(std::string_view message) {
  // One fwrite per message: stdio's stream lock keeps concurrent messages whole.
  std::string line;
  line.reserve(message.size() + 1);
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
}

}  // namespace parlavox::platform
