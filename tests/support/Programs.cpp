#include "support/Programs.h"

namespace parlavox::test {

std::string parlavoxBinary() {
  return PARLAVOX_BINARY;
}
std::string parlavoxClientBinary() {
  return PARLAVOX_CLIENT_BINARY;
}
std::string parlavoxSayBinary() {
  return PARLAVOX_SAY_BINARY;
}

}  // namespace parlavox::test
