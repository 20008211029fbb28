// parlavox-default-roles FILE: writes the built-in show as a roles file, byte for byte what the
// server writes where none exists. A build step: the Debian package ships its output as
// /etc/parlavox/roles.json.
#include <cstdio>
#include <fstream>

#include "config/Config.h"
#include "config/RolesFile.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: parlavox-default-roles FILE\n", stderr);
    return 2;
  }
  std::ofstream file(argv[1], std::ios::binary | std::ios::trunc);
  file << parlavox::encodeConfig(parlavox::defaultConfig());
  file.close();
  if (!file) {
    std::fprintf(stderr, "parlavox-default-roles: couldn't write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
